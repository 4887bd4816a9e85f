#include "CModemKeeper.h"

#include <algorithm>
#include <utility>

using namespace QuorCore;
using std::chrono::milliseconds;

namespace
{
constexpr size_t kRequestsMax = 64;     // that wait; a minute each at worst
constexpr size_t kReportsMax = 256;     // a modem may babble
constexpr milliseconds kPatience{1000}; // of a start, until a modem that is not there is missed
constexpr int kWrongMoment = 14;        // +CME: SIM busy
constexpr int kWrongMomentSms = 314;    // +CMS: SIM busy

constexpr unsigned kReportsWithPlace = 2; // of AT+CREG=

// What it is told besides: numbers of errors as words, what it is to report, texts as ASCII.
constexpr const char* kMessagesAsText = "AT+CMGF=1";
constexpr const char* kSetUp[] = {"AT+CREG=2",       "AT+CGREG=2",  "AT+COPS=3,2", kMessagesAsText,
                                  "AT+CSCS=\"IRA\"", "AT+CNMI=2,1", "AT+CLIP=1"};

bool bIsBusy(const atResult_t& result)
{
    return result.iError == kWrongMoment || result.iError == kWrongMomentSms;
}

std::string szLast(const atResult_t& result)
{
    return result.lines.empty() ? "" : result.lines.back();
}
} // namespace

CModemKeeper::CModemKeeper(CObject* pParent, const char* szLabel, CModemPort& port,
                           CModemTree& tree, CModemEndpoint& endpoint, CPinGuard& pinGuard)
    : CThread(pParent, szLabel), m_port(port), m_tree(tree), m_endpoint(endpoint),
      m_pinGuard(pinGuard), m_commands(port)
{
}

CModemKeeper::~CModemKeeper()
{
    CModemKeeper::iStop(true, false);
}

void CModemKeeper::SetPeriods(int iRegistrationSec, int iSignalSec)
{
    m_registrationPeriod = std::chrono::seconds(iRegistrationSec);
    m_signalPeriod = std::chrono::seconds(iSignalSec);
}

long CModemKeeper::iStop(bool bJoin, bool bCancel)
{
    AskStop();
    m_Wake.iSetEvent();
    return CThread::iStop(bJoin, bCancel);
}

void CModemKeeper::Ask(request_t request)
{
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_requests.size() < kRequestsMax) {
            m_requests.push_back(std::move(request));
            m_Wake.iSetEvent();
            return;
        }
    }
    m_endpoint.Answer(request, {MODEM_BUSY, "too many requests wait for the modem"});
}

void CModemKeeper::TakeReport(std::string szReport)
{
    const std::lock_guard<std::mutex> held(m_lock);
    if (m_reports.size() < kReportsMax) {
        m_reports.push_back(std::move(szReport));
        m_Wake.iSetEvent();
    }
}

long CModemKeeper::iRunThread()
{
    m_bRun = true;
    m_start = clock::now();
    while (m_bRun) {
        LookAtLink();
        DoOneReport();
        DoWhatIsDue();
        if (!bDoOneRequest()) {
            m_Wake.iWaitForEvent(lWaitMs());
        }
    }
    while (bDoOneRequest()) { // the port is closed: each is told that the modem is away
    }
    return 0;
}

void CModemKeeper::LookAtLink()
{
    if (!m_port.bIsThere()) {
        if (!m_szState.empty() || clock::now() - m_start >= kPatience) {
            SetState(eModem::AWAY, LOG_WARNING,
                     std::string("the modem is away: ") + m_port.pszGetConnexionName());
        }
        return;
    }
    const unsigned nConnections = m_port.nConnections();
    if (std::exchange(m_nConnections, nConnections) != nConnections) {
        Initialise(true);
    }
}

// When nothing comes by itself.
long CModemKeeper::lWaitMs() const
{
    clock::time_point due = clock::time_point::max();
    if (!m_port.bIsThere()) {
        due = m_szState.empty() ? m_start + kPatience : due;
    } else if (m_bInDoubt || m_nConnections != m_port.nConnections()) {
        return 0;
    } else if (m_eState != eModem::OFF) {
        due = m_eState == eModem::SILENT ? m_registrationDue
                                         : std::min(m_registrationDue, m_signalDue);
    }
    if (due == clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(due - clock::now()).count();
    return static_cast<long>(std::max<decltype(left)>(left, 0));
}

void CModemKeeper::DoWhatIsDue()
{
    if (!m_port.bIsThere() || m_eState == eModem::OFF) {
        m_bInDoubt = false;
        return;
    }
    const clock::time_point now = clock::now();
    const bool bRegistrationDue = m_registrationDue <= now;
    if (m_bInDoubt || (m_eState == eModem::SILENT && bRegistrationDue)) {
        Probe();
    } else if (m_eState != eModem::SILENT && bRegistrationDue) {
        PollRegistration();
    } else if (m_eState != eModem::SILENT && m_signalDue <= now) {
        PollSignal();
    }
}

// --- Requests

// @return False: there is none.
bool CModemKeeper::bDoOneRequest()
{
    request_t request;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_requests.empty()) {
            return false;
        }
        request = std::move(m_requests.front());
        m_requests.pop_front();
    }
    const answer_t answer = Serve(request);
    m_endpoint.Answer(request, answer);
    m_bInDoubt = m_bInDoubt || (answer.iError == MODEM_TIME_OUT && m_eState != eModem::SILENT);
    return true;
}

answer_t CModemKeeper::Serve(const request_t& request)
{
    const uint16_t iCommand = request.header.command;
    if (!m_port.bIsThere()) {
        return {MODEM_AWAY, "there is no modem"};
    }
    if (iCommand == CMD_MODEM_SET_INIT) {
        Initialise(true);
        return m_eState == eModem::SILENT ? answer_t{MODEM_TIME_OUT, m_szState}
                                          : answer_t{MODEM_OK, m_szState};
    }
    if (m_eState == eModem::SILENT && iCommand != CMD_MODEM_TEST_CONNECTIVITY) {
        return {MODEM_TIME_OUT, m_szState};
    }
    if (iCommand == CMD_MODEM_SET_CODE_PIN) {
        return SetPin(request.szData);
    }
    if (iCommand == CMD_MODEM_SET_CODE_PIN_ACTIVE) {
        const bool bActive = request.header.user1 == 1;
        return bActive || request.header.user1 == 0
                   ? m_commands.SetPinActive(request.szData, bActive)
                   : answer_t{MODEM_BAD_REQUEST, "user1 is 0 or 1"};
    }
    if (iCommand == CMD_MODEM_GET_INCOMING_SMS_PDU) {
        return NextSms(request.szData);
    }
    if (iCommand == CMD_MODEMD_AT) {
        return m_commands.Raw(request.szData);
    }
    const answer_t answer = m_commands.Answer(iCommand, request.szData);
    if (iCommand == CMD_MODEM_SHUTDOWN_ && answer.iError == MODEM_OK) {
        m_tree.ForgetCell();
        SetState(eModem::OFF, LOG_NOTICE, "the modem was switched off");
    }
    return answer;
}

// Somebody has decided to spend one of the three attempts.
answer_t CModemKeeper::SetPin(const std::string& szPin)
{
    if (!bIsPin(szPin)) {
        return {MODEM_BAD_REQUEST, "a PIN has 4 to 8 digits"};
    }
    atResult_t result;
    if (m_commands.lEnterPin(szPin, result) != 0) {
        return RefusalOf(result);
    }
    m_pinGuard.Accept(szPin);
    m_registrationDue = clock::now(); // looks after it at once
    return {};
}

// What else is done with messages takes them as texts.
answer_t CModemKeeper::NextSms(const std::string& szDone)
{
    const answer_t answer = m_commands.NextSms(
        szDone, [this](const std::string& szSender) { return m_tree.bSmsAuthorized(szSender); });
    if (m_toSetUp.empty() || m_toSetUp.back() != kMessagesAsText) {
        m_toSetUp.emplace_back(kMessagesAsText);
    }
    if (m_eState == eModem::READY && answer.iError != MODEM_TIME_OUT) {
        SetUp();
    }
    return answer;
}

// --- What the modem says by itself

// One at a time: each has woken the thread, and requests shall not wait for all of them.
void CModemKeeper::DoOneReport()
{
    std::string szReport;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_reports.empty()) {
            return;
        }
        szReport = std::move(m_reports.front());
        m_reports.pop_front();
    }
    if (m_eState == eModem::SILENT) {
        m_registrationDue = clock::now(); // it lives
    } else if (m_port.bIsThere()) {
        Interpret(szReport);
    }
}

void CModemKeeper::Interpret(const std::string& szReport)
{
    const std::string szLine = szReport.substr(0, szReport.find('\n'));
    const std::string szName = szLine.substr(0, szLine.find(':'));
    const std::vector<std::string> fields = AtFields(szLine);
    if (szName == "+CREG") {
        const auto registration = ParseRegistration(szLine);
        if (registration) {
            NoteRegistration(*registration);
        }
    } else if (szName == "+CMTI" && fields.size() == 2 && AtNumber(fields[1])) {
        ReadSms(fields[1]);
    } else if (szName == "+CLIP" && !fields.empty()) {
        JudgeCall(fields[0]);
    } else if (szName == "+CPIN") {
        Initialise(false); // it was reset, or its SIM was changed
    } else if (szName == "NO CARRIER") {
        m_szCaller.clear();
    }
}

// The message stays where it is: whoever fetches it, deletes it.
void CModemKeeper::ReadSms(const std::string& szIndex)
{
    atCommand_t command;
    command.szText = "AT+CMGR=" + szIndex;
    command.szPrefix = "+CMGR:";
    command.iFollowing = -1;
    atResult_t result;
    const long lResult = m_port.lCommand(command, result);
    m_bInDoubt = m_bInDoubt || lResult == kTimedOut;
    const std::vector<std::string> fields = lResult == 0 && !result.lines.empty()
                                                ? AtFields(result.lines.front())
                                                : std::vector<std::string>();
    if (fields.size() < 2) {
        Tell(LOG_WARNING, "SMS " + szIndex + " cannot be read: " +
                              (lResult == 0 ? "it is empty" : RefusalOf(result).szData));
        return;
    }
    const bool bGood = m_tree.bSmsAuthorized(fields[1]);
    std::string szText;
    for (size_t i = 1; bGood && i < result.lines.size(); ++i) {
        szText += ' ' + result.lines[i];
    }
    Tell(LOG_NOTICE,
         "SMS " + szIndex + " of " + fields[1] + (bGood ? ":" : " is not allowed") + szText);
}

// The number is told again with every ring.
void CModemKeeper::JudgeCall(const std::string& szNumber)
{
    if (m_szCaller == szNumber) {
        return;
    }
    const bool bGood = m_tree.bCallAuthorized(szNumber);
    m_szCaller = bGood ? szNumber : "";
    Tell(LOG_NOTICE, "call of " + (szNumber.empty() ? "a withheld number" : szNumber) +
                         (bGood ? "" : " is not allowed, hanging up"));
    atResult_t result;
    if (!bGood) {
        bAsk("ATH", "", result);
    }
}

// --- The state of the modem

bool CModemKeeper::bAsk(const std::string& szText, const std::string& szPrefix, atResult_t& result)
{
    const long lResult = m_commands.lAsk(szText, szPrefix, result);
    m_bInDoubt = m_bInDoubt || lResult == kTimedOut;
    return lResult == 0;
}

// bRadio: switches it on. Some modems report their SIM when that is done, and that is no news then.
void CModemKeeper::Initialise(bool bRadio)
{
    m_bInDoubt = false;
    m_bReportsOn = false;
    m_szCaller.clear();
    m_szRegistration.clear();
    m_tree.ForgetCell();
    m_toSetUp.assign(std::begin(kSetUp), std::end(kSetUp));
    m_registrationDue = m_signalDue = clock::now();
    atResult_t result;
    bAsk("ATE0", "", result);
    if (!m_bInDoubt) {
        bAsk("AT+CMEE=2", "", result); // errors in words
    }
    if (!m_bInDoubt && bRadio) {
        m_bInDoubt = m_commands.lSwitchOn(result) == kTimedOut;
    }
    if (m_bInDoubt) {
        FallSilent();
        return;
    }
    m_eState = eModem::LOCKED; // until its SIM is known to work
    m_szState = "the SIM does not work yet";
    if (m_port.bIsThere() && bUnlock()) {
        SetUp();
    }
}

void CModemKeeper::FallSilent()
{
    m_bInDoubt = false;
    m_registrationDue = clock::now() + m_registrationPeriod;
    m_tree.ForgetCell();
    SetState(eModem::SILENT, LOG_ERR, "the modem does not answer");
}

// @return Whether the SIM works.
bool CModemKeeper::bUnlock()
{
    atResult_t result;
    if (!bAsk("AT+CPIN?", "+CPIN:", result)) {
        return result.lResult == AT_MODEM_ERROR && !bIsBusy(result) &&
               bFailSim("the SIM cannot be used: " + RefusalOf(result).szData);
    }
    const std::vector<std::string> fields = AtFields(szLast(result));
    const std::string szWanted = fields.empty() ? "" : fields[0];
    if (szWanted == "READY") {
        m_pinGuard.RemoveNote();
        SetState(eModem::READY, LOG_NOTICE, "the modem is ready");
        return true;
    }
    return szWanted == "SIM PIN" ? bEnterPin() : bFailSim("the SIM wants: " + szWanted);
}

bool CModemKeeper::bEnterPin()
{
    const std::string szPin = m_pinGuard.szPin();
    if (szPin.empty()) {
        return bFailSim("the SIM wants a PIN, and none is configured");
    }
    if (!m_pinGuard.bMaySend()) {
        return bFailSim(
            "the SIM wants a PIN; the configured one was tried in vain, it is not sent again");
    }
    if (!m_pinGuard.bNote()) {
        return bFailSim("the PIN is not sent, because that cannot be noted in the configuration");
    }
    atResult_t result;
    if (m_commands.lEnterPin(szPin, result) == 0) {
        m_pinGuard.Accept(szPin);
        SetState(eModem::READY, LOG_NOTICE, "the modem is ready, its SIM has taken the PIN");
        return true;
    }
    m_bInDoubt = m_bInDoubt || result.lResult == kTimedOut;
    if (result.lResult != AT_MODEM_ERROR) {
        return bFailSim("it is not known whether the SIM has taken the PIN");
    }
    if (bIsBusy(result)) { // it has not looked at it
        m_pinGuard.RemoveNote();
        return false;
    }
    m_pinGuard.Refuse();
    return bFailSim("the SIM has refused the PIN: " + RefusalOf(result).szData);
}

// @return False always.
bool CModemKeeper::bFailSim(const std::string& szText)
{
    SetState(eModem::LOCKED, LOG_ERR, szText);
    return false;
}

// A SIM that was just unlocked may want a moment; what is refused for another reason stays refused.
void CModemKeeper::SetUp()
{
    while (!m_toSetUp.empty() && !m_bInDoubt && m_port.bIsThere()) {
        atResult_t result;
        if (!bAsk(m_toSetUp.front(), "", result)) {
            if (result.lResult != AT_MODEM_ERROR || bIsBusy(result)) {
                return;
            }
            QUORCORE_LOG(LOG_WARNING, "%s: %s", m_toSetUp.front().c_str(),
                         RefusalOf(result).szData.c_str());
        }
        m_toSetUp.erase(m_toSetUp.begin());
    }
}

// Is it there at all? A late answer to something else is no answer to this: CThreadAT sees to it.
void CModemKeeper::Probe()
{
    atResult_t result;
    m_bInDoubt = false;
    const bool bAnswers = bAsk("AT", "", result) || result.lResult == AT_MODEM_ERROR;
    if (m_bInDoubt) {
        FallSilent();
    } else if (bAnswers && m_eState == eModem::SILENT) {
        Initialise(true);
    }
}

void CModemKeeper::PollRegistration()
{
    m_registrationDue = clock::now() + m_registrationPeriod;
    if (m_eState != eModem::READY && !bUnlock()) {
        return;
    }
    SetUp();
    atResult_t result;
    if (bAsk("AT+CREG?", "+CREG:", result)) {
        const registration_t registration =
            ParseRegistration(szLast(result)).value_or(registration_t());
        NoteRegistration(registration);
        if (registration.setting && bHasForgotten(*registration.setting)) {
            Tell(LOG_WARNING, "the modem has been reset");
            Initialise(true);
            return;
        }
    }
    if (!m_bInDoubt && bAsk("AT+COPS?", "+COPS:", result)) {
        const std::vector<std::string> fields = AtFields(szLast(result));
        m_tree.SetNetwork(fields.size() > 2 ? fields[2] : "");
    }
}

// A modem on a fixed line may be reset without a sign of it; then it does not report as it was
// told. One that never did is left in peace.
bool CModemKeeper::bHasForgotten(unsigned iSetting)
{
    const bool bOn = iSetting == kReportsWithPlace;
    return std::exchange(m_bReportsOn, bOn) && !bOn;
}

void CModemKeeper::PollSignal()
{
    m_signalDue = clock::now() + m_signalPeriod;
    atResult_t result;
    if (m_eState == eModem::READY && bAsk("AT+CSQ", "+CSQ:", result)) {
        const auto signal = ParseSignal(szLast(result));
        m_tree.SetSignal(signal ? *signal : signal_t());
    }
}

void CModemKeeper::NoteRegistration(const registration_t& registration)
{
    m_tree.SetRegistration(registration);
    const std::string szText = pszRegistration(registration.iState);
    if (std::exchange(m_szRegistration, szText) != szText) {
        Tell(LOG_NOTICE, "registration: " + szText);
    }
}

void CModemKeeper::SetState(eModem eState, int iLevel, const std::string& szText)
{
    if (m_eState != eState || m_szState != szText) {
        m_eState = eState;
        m_szState = szText;
        if (eState == eModem::AWAY) {
            m_tree.ForgetCell();
        }
        Tell(iLevel, szText);
    }
}

void CModemKeeper::Tell(int iLevel, const std::string& szText)
{
    std::string szPayload = szText;
    iPostMessage(EVT_MODEM_NEWS, static_cast<uint32_t>(iLevel), static_cast<uint32_t>(m_eState),
                 szPayload.data(), static_cast<uint32_t>(szPayload.size() + 1), 0);
}
