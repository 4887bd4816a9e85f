#include "CModemDaemon.h"

#include "../common/ModemProtocol.h"
#include "../common/Settings.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace QuorCore;

namespace
{
constexpr long kLineBytesMax = 4096;  // of what the modem says
constexpr long kDataBytesMax = 32768; // of a frame that a peer sends: a white list is the largest

constexpr int kBlinkMs = 500;

std::string szTextOf(const CMsg* pMsg)
{
    const char* const pText = static_cast<const char*>(pMsg->m_pData);
    return pText != nullptr ? std::string(pText, strnlen(pText, pMsg->m_iDataSize)) : "";
}
} // namespace

CModemDaemon::CModemDaemon(int argc, char** argv)
    : CDaemon(argc, argv), m_Port(this, "modem_port"),
      m_Endpoint(this, "modem_endpoint", m_Port, m_Tree),
      m_Keeper(this, "modem_keeper", m_Port, m_Tree, m_Endpoint, m_PinGuard)
{
}

CModemDaemon::~CModemDaemon()
{
    Stop();
}

bool CModemDaemon::bWork()
{
    if (!bOpenStore() || !bStart()) {
        return false;
    }
    AnnounceReady();
    ProcessSignal();
    return true;
}

bool CModemDaemon::bReadSettings()
{
    int iRawAllowed = 0;
    const bool bGood = bReadPort() && bReadTimes() && bReadPin() &&
                       bReadNumber(m_FileConfig, "port", kModemPort, -1, 65535, m_iPort) &&
                       bReadNumber(m_FileConfig, "allow_at", 0, 0, 1, iRawAllowed) &&
                       bReadLogLevel(m_FileConfig, *this, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_callbackManager, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Port, LOG_ERR) &&
                       bReadLogLevel(m_FileConfig, m_Endpoint, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Keeper, LOG_NOTICE);
    m_szPath = m_FileConfig.szGetParameter("path", "");
    const std::string szLed = m_FileConfig.szGetParameter("led", "");
    if (!szLed.empty()) {
        m_pLed = std::make_unique<CLed>("/sys/class/leds/" + szLed + '/');
    }
    m_Endpoint.AllowRawCommands(iRawAllowed == 1);
    return bGood;
}

bool CModemDaemon::bReadPort()
{
    int iSpeed = 0;
    int iSettleSec = 0;
    int iReopenSec = 0;
    const std::string szDevice = m_FileConfig.szGetParameter("device", "/dev/ttyUSB2");
    if (!bReadNumber(m_FileConfig, "speed", 115200, 1, 1000000, iSpeed) ||
        !bReadNumber(m_FileConfig, "settle_s", 2, 0, 60, iSettleSec) ||
        !bReadNumber(m_FileConfig, "reopen_s", 5, 1, 60, iReopenSec)) {
        return false;
    }
    if (!m_Port.bSetSpeed(iSpeed)) {
        QUORCORE_LOG(LOG_ERR, "configuration %s: no serial line has speed=%d",
                     m_FileConfig.pszGetFilename(), iSpeed);
        return false;
    }
    m_Port.Configure(0, kLineBytesMax, szDevice.c_str());
    m_Port.SetSettleDelay(iSettleSec);
    m_Port.SetReopenDelay(iReopenSec);
    return true;
}

bool CModemDaemon::bReadTimes()
{
    int iRegistrationSec = 0;
    int iSignalSec = 0;
    timeLimits_t limits;
    if (!bReadNumber(m_FileConfig, "registration_period_s", 30, 1, 3600, iRegistrationSec) ||
        !bReadNumber(m_FileConfig, "signal_period_s", 10, 1, 3600, iSignalSec) ||
        !bReadNumber(m_FileConfig, "command_timeout_ms", limits.iCommandMs, 1000, 60000,
                     limits.iCommandMs) ||
        !bReadNumber(m_FileConfig, "network_timeout_ms", limits.iNetworkMs, 1000, 300000,
                     limits.iNetworkMs)) {
        return false;
    }
    m_Keeper.SetPeriods(iRegistrationSec, iSignalSec);
    m_Keeper.SetTimeLimits(limits);
    return true;
}

// A value that is no PIN could cost one of the three attempts. The log does not repeat it.
bool CModemDaemon::bReadPin()
{
    const std::string szPin = m_PinGuard.szPin();
    if (szPin.empty() || bIsPin(szPin)) {
        return true;
    }
    QUORCORE_LOG(LOG_ERR, "configuration %s: pin does not have 4 to 8 digits",
                 m_FileConfig.pszGetFilename());
    return false;
}

long CModemDaemon::iInitCallback()
{
    const auto connect = [this](uint32_t iEventId, void (CModemDaemon::*slot)(CMsg*)) {
        m_callbackManager.pAddCallback(iEventId, new CSlotCallback<CModemDaemon>(this, slot));
    };
    connect(EVT_DATABASE_SAVE, &CModemDaemon::OnDatabaseSave);
    connect(EVT_COM_CONNECTED, &CModemDaemon::OnLink);
    connect(EVT_COM_DISCONNECTED, &CModemDaemon::OnLink);
    connect(EVT_MODEM_REPORT, &CModemDaemon::OnReport);
    connect(EVT_MODEM_NEWS, &CModemDaemon::OnNews);
    return CDaemon::iInitCallback();
}

// A daemon that cannot keep what it is told prefers not to start: somebody has asked for it.
bool CModemDaemon::bOpenStore()
{
    const bool bOpen = m_Store.bOpen(m_FileConfig.szGetParameter("tree_directory", ""));
    m_Tree.ForgetCell(); // that of a former life
    return bOpen;
}

bool CModemDaemon::bStart()
{
    m_Endpoint.SetQueue([this](request_t request) { m_Keeper.Ask(std::move(request)); });
    m_Endpoint.SetUnixPath(m_szPath.c_str());
    if (m_iPort == -1) {
        m_Endpoint.SetBindAddress(nullptr);
    }
    m_Endpoint.Configure(m_iPort, kDataBytesMax, "those who ask modemd");
    return m_callbackManager.iCreateThread(false, 0) == 0 &&
           m_Endpoint.iCreateThread(false, 0) == 0 && m_Keeper.iCreateThread(false, 0) == 0 &&
           m_Port.iCreateThread(false, 0) == 0;
}

// The endpoint itself goes on trying while it cannot be had, and says so in the log.
void CModemDaemon::AnnounceReady()
{
    using namespace std::chrono_literals;
    while (m_bRun && !m_Endpoint.bGetConnected()) {
        std::this_thread::sleep_for(5ms);
    }
    if (m_bRun) {
        QUORCORE_LOG(LOG_NOTICE, "ready, pid %d, port %d, path \"%s\"", static_cast<int>(getpid()),
                     m_Endpoint.iListeningPort(), m_szPath.c_str());
    }
}

// The port first: whoever waits for the modem learns that it is away, and then the keeper ends.
void CModemDaemon::Stop()
{
    m_Port.iStop(true, false);
    m_Keeper.iStop(true, false);
    m_Endpoint.iStop(true, false);
    m_callbackManager.iStop(true, false);
}

void CModemDaemon::Save()
{
    ShowState(eModem::AWAY);
    m_Store.bSave();
}

// Somebody has changed the white list.
void CModemDaemon::OnDatabaseSave(CMsg*)
{
    m_Store.bSave();
}

void CModemDaemon::OnLink(CMsg* pMsg)
{
    if (pMsg->m_pOrigin == &m_Port) {
        QUORCORE_LOG(LOG_NOTICE, "the port is %s",
                     pMsg->m_iEventId == EVT_COM_CONNECTED ? "open" : "closed");
        m_Keeper.Wake();
    }
}

void CModemDaemon::OnReport(CMsg* pMsg)
{
    const std::string szReport = szTextOf(pMsg);
    QUORCORE_LOG(LOG_INFO, "the modem says: %s", szReport.c_str());
    m_Endpoint.TellAll(szReport);
    m_Keeper.TakeReport(szReport);
}

// This is the one place that hears of every change of the modem's state: parameter 2 is an eModem.
void CModemDaemon::OnNews(CMsg* pMsg)
{
    const std::string szNews = szTextOf(pMsg);
    QUORCORE_LOG(pMsg->m_iParam1, "%s", szNews.c_str());
    m_Endpoint.TellAll(szNews);
    ShowState(static_cast<eModem>(pMsg->m_iParam2));
}

// Dark: no modem. Blinking: somebody has to look after it. Lit: it works.
void CModemDaemon::ShowState(eModem eState)
{
    if (m_pLed == nullptr) {
        return;
    }
    switch (eState) {
    case eModem::AWAY:
    case eModem::OFF:
        m_pLed->SetBrightness(0, true);
        break;
    case eModem::SILENT:
    case eModem::LOCKED:
        m_pLed->SetBlinking(kBlinkMs, kBlinkMs);
        break;
    case eModem::READY:
        m_pLed->SetBrightness(1, true);
        break;
    }
}
