#include "CModemCommands.h"

#include "AtText.h"
#include "SmsPdu.h"

#include <algorithm>
#include <array>
#include <vector>

using namespace QuorCore;

namespace
{
using lines_t = std::vector<std::string>;

// Readers of an answer's lines. An empty text: they are no such answer.

std::string szDigitsOf(const lines_t& lines, size_t nLeast)
{
    for (const std::string& szLine : lines) { // some modems name the command before it
        const size_t nColon = szLine.find(':');
        const std::string szText =
            Strip(szLine.substr(nColon == std::string::npos ? 0 : nColon + 1), " \"");
        const bool bHex = std::all_of(szText.begin(), szText.end(), [](char c) {
            return (c >= '0' && c <= '9') || c == 'F' || c == 'f'; // a filler of card numbers
        });
        if (bHex && szText.size() >= nLeast) {
            return szText;
        }
    }
    return "";
}

std::string szImei(const lines_t& lines)
{
    return szDigitsOf(lines, 14); // 3GPP TS 23.003, clause 6.2
}

std::string szImsi(const lines_t& lines)
{
    return szDigitsOf(lines, 6); // clause 2.2
}

std::string szCardNumber(const lines_t& lines)
{
    return szDigitsOf(lines, 18); // ITU-T E.118
}

std::string szBehindColon(const lines_t& lines)
{
    return lines.empty() ? "" : Strip(lines.back().substr(lines.back().find(':') + 1), nullptr);
}

std::string szLevel(const lines_t& lines)
{
    const auto signal = lines.empty() ? std::nullopt : ParseSignal(lines.back());
    return signal ? std::to_string(iLevelDbm(*signal)) : "";
}

std::string szRegistration(const lines_t& lines)
{
    const auto registration = lines.empty() ? std::nullopt : ParseRegistration(lines.back());
    return registration ? pszRegistration(registration->iState) : "";
}

std::string szTechnology(const lines_t& lines)
{
    const lines_t fields = lines.empty() ? lines_t() : AtFields(lines.back());
    if (fields.size() == 1) {
        return "none"; // no operator
    }
    const auto number = fields.size() == 4 ? AtNumber(fields[3]) : std::nullopt;
    const char* const pszName = number ? pszTechno(*number) : nullptr;
    return pszName != nullptr ? pszName : "";
}

std::string szAttached(const lines_t& lines)
{
    const std::string szState = szBehindColon(lines);
    return szState == "1" ? "attached" : szState == "0" ? "detached" : "";
}

// "20801,in use,LTE,Name", a line for each.
std::string szNetworks(const lines_t& lines)
{
    std::string szText;
    for (const operator_t& network : OperatorsOf(lines.empty() ? std::string() : lines.back())) {
        const char* const pszName = network.techno ? pszTechno(*network.techno) : nullptr;
        szText += (szText.empty() ? "" : "\n") + network.szNumber + ',' +
                  pszOperatorState(network.iState) + ',' + (pszName != nullptr ? pszName : "") +
                  ',' + network.szName;
    }
    return szText;
}

std::string szCells(const lines_t& lines)
{
    std::string szText;
    for (const std::string& szLine : lines) {
        szText += (szText.empty() ? "" : "\n") + szBehindColon({szLine});
    }
    return szText;
}

// What is asked with one command that is always the same.
struct query_t {
    uint16_t iCommand;
    const char* pszAt;
    const char* pszPrefix;
    std::string (*read)(const lines_t& lines); // null: the answer is empty
    bool bNetwork;                             // the network has to do something
};

constexpr std::array<query_t, 18> kQueries = {
    {{CMD_MODEM_GET_IMEI, "AT+CGSN", "", &szImei, false},
     {CMD_MODEM_GET_IMSI, "AT+CIMI", "", &szImsi, false},
     {CMD_MODEM_GET_CID, "AT+CCID", "", &szCardNumber, false},
     {CMD_MODEM_GET_CSQ, "AT+CSQ", "+CSQ:", &szBehindColon, false},
     {CMD_MODEM_GET_CGREG, "AT+CGREG?", "+CGREG:", &szBehindColon, false},
     {CMD_MODEM_GET_RSSI, "AT+CSQ", "+CSQ:", &szLevel, false},
     {CMD_MODEM_GET_CODE_PIN_STATE, "AT+CPIN?", "+CPIN:", &szBehindColon, false},
     {CMD_MODEM_GET_REGISTRATION_STATE, "AT+CREG?", "+CREG:", &szRegistration, false},
     {CMD_MODEM_GET_ACCESS_TECHNO, "AT+COPS?", "+COPS:", &szTechnology, false},
     {CMD_MODEM_GET_SIGNAL_QUALITY, "AT+CSQ", "+CSQ:", &szBehindColon, false},
     {CMD_MODEM_GET_EXTENDED_ERROR_REPORT, "AT+CEER", "+CEER:", &szBehindColon, false},
     {CMD_MODEM_TEST_CONNECTIVITY, "AT+CGATT?", "+CGATT:", &szAttached, false},
     {CMD_MODEM_GET_KCELL, "AT+KCELL=0", "+KCELL:", &szCells, false},
     {CMD_MODEM_GET_NETWORK_SCAN, "AT+COPS=?", "+COPS:", &szNetworks, true},
     {CMD_MODEM_DELETE_OLD_SMS, "AT+CMGD=1,3", "", nullptr, true}, // all but the unread ones
     {CMD_MODEM_SET_REGISTER, "AT+COPS=0", "", nullptr, true},
     {CMD_MODEM_SET_DEREGISTER, "AT+COPS=2", "", nullptr, true},
     {CMD_MODEM_SHUTDOWN_, "AT+CFUN=0", "", nullptr, true}}};

const query_t* pFindQuery(uint16_t iCommand)
{
    const auto found = std::find_if(kQueries.begin(), kQueries.end(), [=](const query_t& query) {
        return query.iCommand == iCommand;
    });
    return found != kQueries.end() ? &*found : nullptr;
}

std::string szJoin(const lines_t& lines)
{
    std::string szText;
    for (const std::string& szLine : lines) {
        szText += (szText.empty() ? "" : "\n") + szLine;
    }
    return szText;
}
} // namespace

answer_t RefusalOf(const atResult_t& result)
{
    if (result.lResult == kTimedOut) {
        return {MODEM_TIME_OUT, "the modem does not answer"};
    }
    if (result.lResult != AT_MODEM_ERROR) {
        return {MODEM_AWAY, "the modem has gone"};
    }
    const bool bSms = result.szFinal.compare(0, 4, "+CMS") == 0;
    const int iBase = bSms ? MODEM_CMS : MODEM_CME;
    const int iRoom = bSms ? UINT16_MAX - MODEM_CMS : MODEM_CMS - MODEM_CME - 1;
    const bool bNumber = result.iError >= 0 && result.iError <= iRoom;
    return {static_cast<uint16_t>(bNumber ? iBase + result.iError : MODEM_REFUSED),
            result.szError.empty() ? result.szFinal : result.szError};
}

bool CModemCommands::bKnows(uint16_t iCommand)
{
    return pFindQuery(iCommand) != nullptr || iCommand == CMD_MODEM_SEND_SMS ||
           iCommand == CMD_MODEM_SET_CONFIG_APN;
}

answer_t CModemCommands::Answer(uint16_t iCommand, const std::string& szData)
{
    if (iCommand == CMD_MODEM_SEND_SMS) {
        return SendSms(szData);
    }
    if (iCommand == CMD_MODEM_SET_CONFIG_APN) {
        return SetApn(szData);
    }
    const query_t* const pQuery = pFindQuery(iCommand);
    if (pQuery == nullptr) {
        return {MODEM_BAD_REQUEST, "there is no such command"};
    }
    atResult_t result;
    const int iTimeOut = pQuery->bNetwork ? m_limits.iNetworkMs : m_limits.iCommandMs;
    if (m_port.lCommand(pQuery->pszAt, pQuery->pszPrefix, result, iTimeOut) != 0) {
        return RefusalOf(result);
    }
    if (pQuery->read == nullptr) {
        return {};
    }
    const std::string szText = pQuery->read(result.lines);
    return szText.empty()
               ? answer_t{MODEM_NOT_UNDERSTOOD, "the modem answered: " + szJoin(result.lines)}
               : answer_t{MODEM_OK, szText};
}

answer_t CModemCommands::SendSms(const std::string& szData)
{
    const size_t nEnd = std::min(szData.find('\n'), szData.size());
    atCommand_t command;
    command.szText = "AT+CMGS=\"" + szData.substr(0, nEnd) + '"';
    command.szPrefix = "+CMGS:";
    command.bPrompt = true;
    command.szPayload = nEnd < szData.size() ? szData.substr(nEnd + 1) : "";
    command.iTimeOut = m_limits.iNetworkMs;
    if (!bIsPhoneNumber(szData.substr(0, nEnd))) {
        return {MODEM_BAD_REQUEST, "that is no phone number"};
    }
    // The modem takes the text in its own alphabet, of which ASCII is the part that all agree on.
    if (command.szPayload.empty() || command.szPayload.size() > kSmsCharactersMax ||
        !bIsPrintable(command.szPayload)) {
        return {MODEM_BAD_REQUEST, "a text has 1 to 160 printable characters"};
    }
    atResult_t result;
    if (m_port.lCommand(command, result) != 0) {
        return RefusalOf(result);
    }
    return {MODEM_OK, szBehindColon(result.lines)}; // the message reference
}

answer_t CModemCommands::SetApn(const std::string& szApn)
{
    if (!bIsApn(szApn)) {
        return {MODEM_BAD_REQUEST, "that is no name of an access point"};
    }
    atResult_t result;
    return lAsk("AT+CGDCONT=1,\"IP\",\"" + szApn + '"', "", result) == 0 ? answer_t{}
                                                                         : RefusalOf(result);
}

answer_t CModemCommands::SetPinActive(const std::string& szPin, bool bActive)
{
    if (!bIsPin(szPin)) {
        return {MODEM_BAD_REQUEST, "a PIN has 4 to 8 digits"};
    }
    atCommand_t command;
    command.szText = std::string("AT+CLCK=\"SC\",") + (bActive ? '1' : '0') + ",\"" + szPin + '"';
    command.bSecret = true;
    command.iTimeOut = m_limits.iNetworkMs;
    atResult_t result;
    return m_port.lCommand(command, result) == 0 ? answer_t{} : RefusalOf(result);
}

// As PDUs: a text may hold what looks like the modem's own lines.
answer_t CModemCommands::NextSms(const std::string& szDone,
                                 const std::function<bool(const std::string&)>& bWanted)
{
    atResult_t result;
    if (!szDone.empty()) {
        if (!AtNumber(szDone)) {
            return {MODEM_BAD_REQUEST, "that is no number of a message"};
        }
        if (m_port.lCommand("AT+CMGD=" + szDone, "", result, m_limits.iNetworkMs) != 0) {
            return RefusalOf(result);
        }
    }
    atCommand_t list;
    list.szText = "AT+CMGL=4"; // all
    list.szPrefix = "+CMGL:";
    list.iFollowing = 1;
    list.iTimeOut = m_limits.iNetworkMs;
    if (lAsk("AT+CMGF=0", "", result) != 0 || m_port.lCommand(list, result) != 0) {
        return RefusalOf(result);
    }
    for (size_t i = 0; i + 1 < result.lines.size(); i += 2) {
        const lines_t fields = AtFields(result.lines[i]);
        const bool bCame = fields.size() >= 2 && (fields[1] == "0" || fields[1] == "1");
        if (bCame && bWanted(szSenderOf(result.lines[i + 1]))) {
            return {MODEM_OK, fields[0] + '\n' + result.lines[i + 1]};
        }
    }
    return {};
}

answer_t CModemCommands::Raw(const std::string& szCommand)
{
    if (szCommand.empty() || !bIsPrintable(szCommand)) {
        return {MODEM_BAD_REQUEST, "a command is one line of printable characters"};
    }
    atCommand_t command;
    command.szText = szCommand;
    command.szPrefix = CModemPort::szPrefixOf(szCommand);
    command.iTimeOut = m_limits.iNetworkMs;
    atResult_t result;
    if (m_port.lCommand(command, result) != 0) {
        return RefusalOf(result);
    }
    return {MODEM_OK, szJoin(result.lines)};
}

long CModemCommands::lAsk(const std::string& szText, const std::string& szPrefix,
                          atResult_t& result)
{
    return m_port.lCommand(szText, szPrefix, result, m_limits.iCommandMs);
}

long CModemCommands::lSwitchOn(atResult_t& result)
{
    return m_port.lCommand("AT+CFUN=1", "", result, m_limits.iNetworkMs);
}

long CModemCommands::lEnterPin(const std::string& szPin, atResult_t& result)
{
    atCommand_t command;
    command.szText = "AT+CPIN=\"" + szPin + '"';
    command.bSecret = true;
    command.iTimeOut = m_limits.iNetworkMs;
    return m_port.lCommand(command, result);
}
