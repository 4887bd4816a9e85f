#include "CHelloClient.h"

#include "../common/HelloProtocol.h"
#include "../common/Settings.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

using namespace QuorCore;

namespace
{
constexpr int kStartLimitMs = 10000;    // for the loop of a thread to begin
constexpr long kAnswerBytesMax = 32768; // a log page has about 500 bytes for each thread

/// @return The text between two others from @p position on, which moves behind it; empty when they
///         are not there.
std::string szBetween(const std::string& szText, const char* szBefore, const char* szBehind,
                      size_t& position)
{
    const size_t before = szText.find(szBefore, position);
    const size_t begin = before == std::string::npos ? before : before + std::strlen(szBefore);
    const size_t end = begin == std::string::npos ? begin : szText.find(szBehind, begin);
    if (end == std::string::npos) {
        return {};
    }
    position = end;
    return szText.substr(begin, end - begin);
}
} // namespace

CHelloClient::CHelloClient(int argc, char** argv, std::vector<std::string> commands)
    : CDaemon(argc, argv), m_commands(std::move(commands)), m_Link(this, "hello_link"),
      m_Supervisor(this, "hello_supervisor")
{
}

CHelloClient::~CHelloClient()
{
    Stop();
}

bool CHelloClient::bWork()
{
    return bStart() && bDoAll();
}

bool CHelloClient::bReadSettings()
{
    int iPeriodSec = 0;
    m_szHost = m_FileConfig.szGetParameter("host", "127.0.0.1");
    const bool bGood = bReadNumber(m_FileConfig, "port", kDefaultPort, 1, 65535, m_iPort) &&
                       bReadNumber(m_FileConfig, "timeout_ms", 10000, 1, 60000, m_iTimeoutMs) &&
                       bReadNumber(m_FileConfig, "monitoring_period_s", 10, 1, 30, iPeriodSec) &&
                       bReadLogLevel(m_FileConfig, m_callbackManager, kDefaultLogLevel) &&
                       bReadLogLevel(m_FileConfig, m_Link, LOG_WARNING) &&
                       bReadLogLevel(m_FileConfig, m_Supervisor, kDefaultLogLevel);
    m_Supervisor.SetPeriod(iPeriodSec);
    return bGood;
}

long CHelloClient::iInitCallback()
{
    for (const uint32_t iEventId : {EVT_COM_CONNECTED, EVT_COM_DISCONNECTED}) {
        m_callbackManager.pAddCallback(
            iEventId, new CSlotCallback<CHelloClient>(this, &CHelloClient::OnLink));
    }
    return CDaemon::iInitCallback();
}

void CHelloClient::OnLink(CMsg* pMsg)
{
    if (pMsg->m_iEventId == EVT_COM_CONNECTED) {
        m_Connected.iSetEvent();
    }
    QUORCORE_LOG(LOG_INFO, "the daemon is %s",
                 pMsg->m_iEventId == EVT_COM_CONNECTED ? "there" : "not there");
}

bool CHelloClient::bStart()
{
    m_Link.Configure(m_iPort, kAnswerBytesMax, m_szHost.c_str());
    m_Link.SetFirstConnectDelay(0);
    m_Link.pAddCallback(CMD_HELLO_CELL,
                        new CSocketCallback<CHelloClient>(this, &CHelloClient::OnCmdCell));
    m_Supervisor.Supervise(m_Link);
    const bool bStarted = m_callbackManager.iCreateThread(true, kStartLimitMs) == 0 &&
                          m_Link.iCreateThread(true, kStartLimitMs) == 0 &&
                          m_Supervisor.iCreateThread(true, kStartLimitMs) == 0;
    if (!bStarted || m_Connected.iWaitForEvent(m_iTimeoutMs) != 0) {
        std::cout << "connect: FAILED, no daemon at " << m_szHost << " port " << m_iPort
                  << std::endl;
        return false;
    }
    std::cout << "connect: " << m_szHost << " port " << m_iPort << std::endl;
    return true;
}

void CHelloClient::Stop()
{
    m_Link.iStop(true, false);
    m_Supervisor.iStop(true, false);
    m_callbackManager.iStop(true, false);
}

bool CHelloClient::bDoAll()
{
    bool bGood = true;
    for (const std::string& szCommand : m_commands) {
        bGood = m_bRun && (szCommand == "-" ? bDoLines() : bDo(szCommand)) && bGood;
    }
    return bGood;
}

// A signal that ends the daemon interrupts the read, and with it this loop.
bool CHelloClient::bDoLines()
{
    bool bGood = true;
    std::string szLine;
    while (m_bRun && std::getline(std::cin, szLine)) {
        bGood = bDo(szLine) && bGood;
    }
    return bGood;
}

bool CHelloClient::bDo(const std::string& szCommand)
{
    const std::vector<std::string> words = SplitString(" ", szCommand);
    if (words.empty()) {
        return true;
    }
    const result_t result = Do(words);
    std::cout << words.front() << ": " << (result.bGood ? "" : "FAILED, ") << result.szText
              << std::endl;
    return result.bGood;
}

CHelloClient::result_t CHelloClient::Do(const std::vector<std::string>& words)
{
    const std::string& szName = words.front();
    if (szName == "ping" && words.size() == 1) {
        return Ping();
    }
    if (szName == "version" && words.size() == 1) {
        return Version();
    }
    if (szName == "pid" && words.size() == 1) {
        return Pid();
    }
    if (szName == "name" && words.size() == 1) {
        return Name();
    }
    if (szName == "greet" && words.size() == 2) {
        return Greet(words[1]);
    }
    if (szName == "echo" && words.size() == 2) {
        return Echo(std::atoi(words[1].c_str()));
    }
    if (szName == "cell" && words.size() == 3) {
        return Cell(words[1], std::atoi(words[2].c_str()));
    }
    if (szName == "page" && words.size() == 1) {
        return Page();
    }
    if (szName == "level" && words.size() == 3) {
        return Level(words[1], std::atoi(words[2].c_str()));
    }
    return {false, "there is no such command"};
}

// One request and its answer. Any thread but the link's own may do this; callers take turns.
bool CHelloClient::bExchange(uint16_t command, std::string szRequest, uint16_t commandToWait,
                             std::string& szAnswer)
{
    szAnswer.resize(kAnswerBytesMax);
    long lUsed = 0;
    const long lResult = m_Link.iExchangeCmd(command, reinterpret_cast<uint8_t*>(szRequest.data()),
                                             static_cast<long>(szRequest.size()), commandToWait,
                                             reinterpret_cast<uint8_t*>(szAnswer.data()),
                                             kAnswerBytesMax, &lUsed, m_iTimeoutMs, false);
    szAnswer.resize(static_cast<size_t>(lUsed));
    return lResult == 0;
}

CHelloClient::result_t CHelloClient::Ping()
{
    std::string szAnswer;
    const auto begin = std::chrono::steady_clock::now();
    const bool bAnswered = bExchange(CMD_COMMUN_PING, "", CMD_COMMUN_PONG, szAnswer);
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - begin);
    if (!bAnswered) {
        return {false, "no answer"};
    }
    return {true, "answered within " + std::to_string(took.count()) + " us"};
}

CHelloClient::result_t CHelloClient::Version()
{
    std::string szAnswer;
    versionFW_t version = {};
    if (!bExchange(CMD_COMMUN_VERSION, "", CMD_COMMUN_VERSION, szAnswer) ||
        szAnswer.size() != sizeof(version)) {
        return {false, "no version"};
    }
    std::memcpy(&version, szAnswer.data(), sizeof(version));
    const std::string szName(version.szAppName,
                             strnlen(version.szAppName, sizeof(version.szAppName)));
    return {true, std::to_string(version.version) + " of " + szName};
}

CHelloClient::result_t CHelloClient::Pid()
{
    std::string szAnswer;
    int32_t iPid = 0; // four bytes on every machine
    if (!bExchange(CMD_COMMUN_PID, "", CMD_COMMUN_PID, szAnswer) ||
        szAnswer.size() != sizeof(iPid)) {
        return {false, "no pid"};
    }
    std::memcpy(&iPid, szAnswer.data(), sizeof(iPid));
    return {true, std::to_string(iPid)};
}

CHelloClient::result_t CHelloClient::Name()
{
    std::string szAnswer;
    if (!bExchange(CMD_COMMUN_NAME, "", CMD_COMMUN_NAME, szAnswer) || szAnswer.empty()) {
        return {false, "no name"};
    }
    szAnswer.pop_back(); // the zero byte that ends the text
    return {true, szAnswer};
}

CHelloClient::result_t CHelloClient::Greet(const std::string& szName)
{
    std::string szAnswer;
    if (!bExchange(CMD_HELLO_GREET, szName, CMD_HELLO_GREET, szAnswer) || szAnswer.empty()) {
        return {false, "no greeting"};
    }
    return {true, szAnswer};
}

// A ping may carry data, which its answer brings back.
CHelloClient::result_t CHelloClient::Echo(int iBytes)
{
    std::string szPayload;
    for (int i = 0; i < iBytes; ++i) {
        szPayload.push_back(static_cast<char>('a' + i % 26));
    }
    std::string szAnswer;
    if (!bExchange(CMD_COMMUN_PING, szPayload, CMD_COMMUN_PONG, szAnswer)) {
        return {false, "no answer"};
    }
    const std::string szBytes = std::to_string(szPayload.size()) + " bytes";
    if (szAnswer != szPayload) {
        return {false, szBytes + " came back changed"};
    }
    return {true, szBytes + " came back unchanged"};
}

// Records travel without names: both sides build the same one. The answer is a frame like any
// other, for which bStart() has registered a handler.
CHelloClient::result_t CHelloClient::Cell(const std::string& szTechno, int iLevel)
{
    CDMStatCellServing cell(nullptr, "cell");
    cell.m_Techno = szTechno;
    cell.m_RxLevel = iLevel; // setting checks no bounds, the receiver does
    cell.m_DateMes.GetCurrentDateTime();
    m_CellAnswered.iResetEvent();
    if (m_Link.iWriteObject(CMD_HELLO_CELL, &cell, 0, 0, 0, 0) < 0 ||
        m_CellAnswered.iWaitForEvent(m_iTimeoutMs) != 0) {
        return {false, "no answer"};
    }
    const bool bTaken = m_iCellError == 0;
    return {bTaken, szTechno + ", " + std::to_string(iLevel) + " dBm " +
                        (bTaken ? "was taken" : "was refused")};
}

void CHelloClient::OnCmdCell(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        m_iCellError = pFrame->error;
        m_CellAnswered.iSetEvent();
    }
}

// The page is made for a browser. Its rows are "<tr><td>Id</td><td>Label</td>...", and the level
// is the option that is marked as selected.
bool CHelloClient::bReadRows(std::vector<logRow_t>& rows, size_t& pageBytes)
{
    std::string szPage;
    if (!bExchange(CMD_COMMUN_GET_LOG_CONFIG, "/log", CMD_COMMUN_GET_LOG_CONFIG, szPage)) {
        return false;
    }
    pageBytes = szPage.size();
    size_t position = 0;
    for (;;) {
        const std::string szIndex = szBetween(szPage, "<tr><td>", "</td>", position);
        if (szIndex.empty()) {
            return true;
        }
        const std::string szLabel = szBetween(szPage, "<td>", "</td>", position);
        const std::string szLevel = szBetween(szPage, " selected>", "</option>", position);
        rows.push_back({std::atoi(szIndex.c_str()), szLabel, szLevel});
    }
}

CHelloClient::result_t CHelloClient::Page()
{
    std::vector<logRow_t> rows;
    size_t pageBytes = 0;
    if (!bReadRows(rows, pageBytes) || rows.empty()) {
        return {false, "no page"};
    }
    std::string szText =
        std::to_string(pageBytes) + " bytes, " + std::to_string(rows.size()) + " threads";
    for (const logRow_t& row : rows) {
        szText += "; " + row.szLabel + " " + row.szLevel;
    }
    return {true, szText};
}

// Threads are chosen by their place in the page.
CHelloClient::result_t CHelloClient::Level(const std::string& szLabel, int iLevel)
{
    std::vector<logRow_t> rows;
    size_t pageBytes = 0;
    if (iLevel < LOG_EMERG || iLevel > LOG_DEBUG) {
        return {false, "a level is a number from 0 to 7"};
    }
    if (!bReadRows(rows, pageBytes)) {
        return {false, "no page"};
    }
    for (const logRow_t& row : rows) {
        if (row.szLabel == szLabel) {
            const std::string szPair = {static_cast<char>(row.iIndex), static_cast<char>(iLevel)};
            std::string szAnswer;
            const bool bSet =
                bExchange(CMD_COMMUN_SET_LOG_CONFIG, szPair, CMD_COMMUN_SET_LOG_CONFIG, szAnswer);
            return {bSet, bSet ? szLabel + " set to " + std::to_string(iLevel) : "no answer"};
        }
    }
    return {false, "there is no thread " + szLabel};
}
