// A second daemon, which asks modemd for the cell now and then and hears of what happens to the
// modem.
#include "common/ModemProtocol.h"
#include "common/Settings.h"

#include <libQuorCore/libQuorCore.h>

#include <cstdlib>
#include <string>

using namespace QuorCore;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr long kDataBytesMax = 65515; // the most that a frame of modemd has

/// The link to modemd. Answers come when they come: nobody waits for them.
class CModemLink : public CSocketClient
{
public:
    explicit CModemLink(CObject* pParent) : CSocketClient(pParent, "modem_link") {}
    ~CModemLink() override { EndThread(); }

    long iInitInstance() override
    {
        const long lResult = CSocketClient::iInitInstance();
        const auto connect = [this](uint16_t iCommand,
                                    void (CModemLink::*handler)(socketFrame_t*)) {
            using Callback = CSocketCallback<CSocketBase>::Callback;
            pAddCallback(iCommand,
                         new CSocketCallback<CSocketBase>(this, static_cast<Callback>(handler)));
        };
        connect(CMD_MODEM_GET_CELL_SERVING, &CModemLink::OnCell);
        connect(CMD_MODEM_GET_REGISTRATION_STATE, &CModemLink::OnRegistration);
        connect(CMD_MODEMD_NEWS, &CModemLink::OnNews);
        return lResult;
    }

    void AskAll()
    {
        for (const uint16_t iCommand :
             {CMD_MODEM_GET_CELL_SERVING, CMD_MODEM_GET_REGISTRATION_STATE}) {
            iWrite(iCommand, nullptr, 0, 0, 0, 0, 0);
        }
    }

    void OnCell(socketFrame_t* pFrame)
    {
        CDMStatCellServing cell(nullptr, "");
        if (pFrame != nullptr && pFrame->iReadObject(cell) == 0) {
            QUORCORE_LOG(LOG_NOTICE, "cell %u of area %u, %s, %d dBm", cell.m_Ci.iGetVal(),
                         cell.m_Lac.iGetVal(), cell.m_Techno.szGetVal().c_str(),
                         cell.m_RxLevel.iGetVal());
        }
    }

    void OnRegistration(socketFrame_t* pFrame) { Tell("registration", pFrame); }
    void OnNews(socketFrame_t* pFrame) { Tell("news", pFrame); }

private:
    static void Tell(const char* pszWhat, socketFrame_t* pFrame)
    {
        std::string szText;
        if (pFrame != nullptr && pFrame->iGetData(&szText) == 0) {
            QUORCORE_LOG(pFrame->error == MODEM_OK ? LOG_NOTICE : LOG_WARNING, "%s: %s, error %u",
                         pszWhat, szText.c_str(), static_cast<unsigned>(pFrame->error));
        }
    }
};

/// The thread that asks.
class CWatch : public CThread
{
public:
    CWatch(CObject* pParent, CModemLink& link) : CThread(pParent, "modem_watch"), m_link(link) {}
    ~CWatch() override { CWatch::iStop(true, false); }

    void SetPeriod(int iSeconds) { m_iPeriodSec = iSeconds; } ///< Before the thread is created.

    long iRunThread() override
    {
        m_bRun = true;
        do {
            if (m_link.iMonitoring() == 0) { // pings modemd, too
                m_link.AskAll();
            }
        } while (m_bRun && m_StopEvent.iWaitForEvent(1000L * m_iPeriodSec) == kTimedOut);
        return 0;
    }

    long iStop(bool bJoin, bool bCancel) override
    {
        m_StopEvent.iSetEvent();
        return CThread::iStop(bJoin, bCancel);
    }

private:
    CModemLink& m_link;
    int m_iPeriodSec = 10;
    CEvent m_StopEvent;
};

class CModemWatch : public CCoreApp
{
public:
    CModemWatch(int argc, char** argv) : CCoreApp(nullptr, argc, argv)
    {
        m_FileConfig.SetFilename(szConfigOption(*this, argc, argv).c_str());
    }

    int iRun()
    {
        m_bRun = true; // before the signals are ours: from there on a SIGTERM lowers it, for good
        int iPort = 0;
        int iPeriodSec = 0;
        m_FileConfig.iLoad();
        if (!bReadNumber(m_FileConfig, "port", kModemPort, 1, 65535, iPort) ||
            !bReadNumber(m_FileConfig, "period_s", 10, 1, 30, iPeriodSec) ||
            !bReadLogLevel(m_FileConfig, m_Link, LOG_NOTICE) || iInitInstance() != 0) {
            return EXIT_FAILURE;
        }
        iInitCallback();
        m_Watch.SetPeriod(iPeriodSec);
        m_Link.SetFirstConnectDelay(0);
        m_Link.Configure(iPort, kDataBytesMax,
                         m_FileConfig.szGetParameter("host", "127.0.0.1").c_str());
        if (m_callbackManager.iCreateThread(true, kStartLimitMs) == 0 &&
            m_Link.iCreateThread(true, kStartLimitMs) == 0 &&
            m_Watch.iCreateThread(true, kStartLimitMs) == 0) {
            ProcessSignal();
        }
        m_Watch.iStop(true, false);
        m_Link.iStop(true, false);
        m_callbackManager.iStop(true, false);
        iExitInstance();
        return EXIT_SUCCESS;
    }

private:
    CModemLink m_Link{this};
    CWatch m_Watch{this, m_Link};
};
} // namespace

int main(int argc, char** argv)
try {
    g_versionFW = {100, "modem_watch"};
    CThread::m_Logger.Init(g_versionFW.szAppName);
    return CModemWatch(argc, argv).iRun();
} catch (...) {
    QUORCORE_LOG(LOG_ERR, "not started");
    return EXIT_FAILURE;
}
