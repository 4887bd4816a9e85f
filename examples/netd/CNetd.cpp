#include "CNetd.h"

#include "../common/Settings.h"
#include "NetdProtocol.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <thread>
#include <unistd.h>

using namespace QuorCore;

namespace
{
constexpr int kDefaultPort = 5560;
constexpr long kDataBytesMax = 4096; // of a frame that a peer sends us

/// Tells a name from a way to somewhere else.
bool bNamesAFile(const std::string& szName)
{
    return szName.find('/') == std::string::npos && szName != "." && szName != "..";
}
} // namespace

CNetd::CNetd(int argc, char** argv) : CDaemon(argc, argv) {}

CNetd::~CNetd()
{
    Stop();
}

bool CNetd::bWork()
{
    if (!bStart()) {
        return false;
    }
    AnnounceReady();
    ProcessSignal();
    return true;
}

bool CNetd::bReadSettings()
{
    int iActiveLow = 0;
    const bool bGood = bReadNumber(m_FileConfig, "port", kDefaultPort, 0, 65535, m_iPort) &&
                       bReadNumber(m_FileConfig, "button_line", -1, -1, INT_MAX, m_iButtonLine) &&
                       bReadNumber(m_FileConfig, "button_active_low", 0, 0, 1, iActiveLow) &&
                       bReadLogLevel(m_FileConfig, *this, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_callbackManager, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Button, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Network, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Hub, LOG_NOTICE);
    m_szPath = m_FileConfig.szGetParameter("path", "");
    m_Button.Configure(m_iButtonLine, iActiveLow != 0);
    m_Network.Configure({m_FileConfig.szGetParameter("interface", ""),
                         m_FileConfig.szGetParameter("address", ""),
                         m_FileConfig.szGetParameter("netmask", "255.255.255.0"),
                         m_FileConfig.szGetParameter("gateway", "")});
    return bGood;
}

long CNetd::iInitCallback()
{
    const auto connect = [this](uint32_t iEventId, void (CNetd::*slot)(CMsg*)) {
        m_callbackManager.pAddCallback(iEventId, new CSlotCallback<CNetd>(this, slot));
    };
    connect(EVT_NETD_BUTTON, &CNetd::OnButton);
    connect(EVT_NETD_NETWORK, &CNetd::OnNetwork);
    return CDaemon::iInitCallback();
}

bool CNetd::bStart()
{
    FindLed();
    if (m_iButtonLine == -1) {
        QUORCORE_LOG(LOG_NOTICE, "no button_line is configured: there is no reset button");
    } else if (m_Button.iCreateThread(false, 0) != 0) {
        return false;
    }
    if (m_FileConfig.szGetParameter("interface", "").empty()) {
        QUORCORE_LOG(LOG_NOTICE, "no interface is configured: the network is left alone");
    } else if (m_Network.iCreateThread(false, 0) != 0) {
        return false;
    }
    return m_callbackManager.iCreateThread(false, 0) == 0 && bStartHub();
}

void CNetd::FindLed()
{
    const std::string szName = m_FileConfig.szGetParameter("led", "");
    if (szName.empty()) {
        QUORCORE_LOG(LOG_NOTICE, "no led is configured: nothing is shown");
        return;
    }
    if (!bNamesAFile(szName)) {
        QUORCORE_LOG(LOG_WARNING, "led=%s is not a name: nothing is shown", szName.c_str());
        return;
    }
    m_pLed = std::make_unique<CLed>("/sys/class/leds/" + szName + "/");
    if (m_pLed->iGetBrightness() == -1) {
        QUORCORE_LOG(LOG_WARNING, "this machine has no LED %s: nothing is shown", szName.c_str());
        m_pLed.reset();
        return;
    }
    m_pLed->SetBrightness(0, true);
    m_Status.SetLed("dark");
}

bool CNetd::bStartHub()
{
    m_Hub.SetUnixPath(m_szPath.c_str());
    m_Hub.Configure(m_iPort, kDataBytesMax, "peers of netd");
    return m_Hub.iCreateThread(false, 0) == 0;
}

// Who cannot listen says so in the log by itself, and goes on trying.
void CNetd::AnnounceReady()
{
    using namespace std::chrono_literals;
    const auto begin = std::chrono::steady_clock::now();
    while (m_bRun && std::chrono::steady_clock::now() - begin < 5s) {
        if (m_Hub.bGetConnected()) {
            QUORCORE_LOG(LOG_NOTICE, "ready, pid %d, port %d, path \"%s\"",
                         static_cast<int>(getpid()), m_Hub.iListeningPort(), m_szPath.c_str());
            return;
        }
        std::this_thread::sleep_for(1ms);
    }
}

// The endpoint first: what comes from the others still reaches the slots.
void CNetd::Stop()
{
    m_Hub.iStop(true, false);
    m_Button.iStop(true, false);
    m_Network.iStop(true, m_Network.bIsStarted()); // in the middle of an exchange: not waited for
    m_callbackManager.iStop(true, false);
}

void CNetd::OnButton(CMsg* pMsg)
{
    const bool bDown = pMsg->m_iParam1 != 0;
    m_Status.SetButton(bDown ? "down" : "up");
    if (bDown) {
        QUORCORE_LOG(LOG_NOTICE, "the reset button was pressed");
    }
    if (m_pLed != nullptr) {
        m_pLed->SetBrightness(bDown ? 1 : 0, true);
        m_Status.SetLed(bDown ? "lit" : "dark");
    }
    m_Hub.PushStatus();
}

void CNetd::OnNetwork(CMsg*)
{
    m_Hub.PushStatus();
}
