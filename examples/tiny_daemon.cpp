// A whole daemon: log, configuration, --daemon, child processes, and a TCP endpoint that answers.
#include <libQuorCore/libQuorCore.h>

#include <cstdlib>

class CTinyDaemon : public QuorCore::CCoreApp
{
public:
    CTinyDaemon(int argc, char** argv) : CCoreApp(nullptr, argc, argv) {}

    int iRun()
    {
        m_bRun = true;              // first: a SIGTERM that comes during the start lowers it again
        if (iInitInstance() != 0) { // loads conf/tiny_daemon_config.conf, then forks if --daemon
            return EXIT_FAILURE;
        }
        iInitCallback(); // threads get the log level that the configuration names
        m_callbackManager.pAddCallback(
            QuorCore::EVT_COM_DISCONNECTED,
            new QuorCore::CSlotCallback<CTinyDaemon>(this, &CTinyDaemon::OnPeerGone));
        m_Server.Configure(m_FileConfig.iGetParameter("port", 5555), 4096, "tiny");
        m_Server.SetFirstConnectDelay(0);
        if (m_callbackManager.iCreateThread(true, 10000) == 0 &&
            m_Server.iCreateThread(true, 10000) == 0) {
            ProcessSignal(); // until SIGTERM or SIGQUIT
        }
        m_Server.iStop(true, false);
        m_callbackManager.iStop(true, false);
        return static_cast<int>(iExitInstance()); // stops children, saves the configuration
    }

    void OnPeerGone(QuorCore::CMsg*) { QUORCORE_LOG(LOG_INFO, "the peer has gone"); }

private:
    QuorCore::CSocketServer m_Server{this, "tiny_server"};
};

int main(int argc, char** argv)
try {
    QuorCore::g_versionFW = {100, "tiny_daemon"};
    QuorCore::CThread::m_Logger.Init(QuorCore::g_versionFW.szAppName);
    return CTinyDaemon(argc, argv).iRun();
} catch (...) {
    QUORCORE_LOG(LOG_ERR, "not started: port is not a number, or no way into the background");
    return EXIT_FAILURE;
}
