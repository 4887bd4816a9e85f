#include "CHelloDaemon.h"

#include "../common/HelloProtocol.h"
#include "../common/Settings.h"

#include <chrono>
#include <cstdlib>
#include <pwd.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr long kDataBytesMax = 4096;       // of a frame that a peer sends us
constexpr long kToolsDataBytesMax = 16384; // likewise a tool, which may send the whole tree

const char* pszOrEmpty(const char* szText)
{
    return szText != nullptr ? szText : "";
}
} // namespace

CHelloDaemon::CHelloDaemon(int argc, char** argv)
    : CDaemon(argc, argv), m_szUserOption(pszOrEmpty(szGetParamArguments(argc, argv, "--user"))),
      m_szGroupOption(pszOrEmpty(szGetParamArguments(argc, argv, "--group"))),
      m_Child(this, "child"), m_Store(m_Tree), m_Server(this, "hello_server", m_Tree),
      m_Tools(this, "hello_tools", m_Tree), m_Supervisor(this, "hello_supervisor")
{
}

CHelloDaemon::~CHelloDaemon()
{
    Stop();
}

bool CHelloDaemon::bWork()
{
    m_Store.bOpen(m_szTreeDirectory); // as the user that it is by now; without it the daemon serves
    if (!bStart()) {
        return false;
    }
    AnnounceReady();
    ProcessSignal();
    return true;
}

bool CHelloDaemon::bReadSettings()
{
    int iPeriodSec = 0;
    const bool bGood = bReadNumber(m_FileConfig, "port", kDefaultPort, 0, 65535, m_iPort) &&
                       bReadNumber(m_FileConfig, "tools_port", -1, -1, 65535, m_iToolsPort) &&
                       bReadNumber(m_FileConfig, "monitoring_period_s", 10, 1, 30, iPeriodSec) &&
                       bReadLogLevel(m_FileConfig, *this, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_callbackManager, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Server, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Tools, LOG_NOTICE) &&
                       bReadLogLevel(m_FileConfig, m_Supervisor, kDefaultLogLevel);
    m_szToolsPath = m_FileConfig.szGetParameter("tools_path", "");
    m_Supervisor.SetPeriod(iPeriodSec);
    return bGood && bReadTreeDirectory() && bReadIdentity();
}

// Nobody knows what a relative path would mean: a daemon in the background works in "/".
bool CHelloDaemon::bReadTreeDirectory()
{
    m_szTreeDirectory = m_FileConfig.szGetParameter("tree_directory", "");
    if (m_szTreeDirectory.empty() || m_szTreeDirectory[0] == '/') {
        return true;
    }
    QUORCORE_LOG(LOG_ERR, "configuration %s: tree_directory=%s is not an absolute path",
                 m_FileConfig.pszGetFilename(), m_szTreeDirectory.c_str());
    return false;
}

// The library goes on as root when it does not know the user. This daemon prefers not to start.
bool CHelloDaemon::bReadIdentity()
{
    const std::string szUser =
        m_szUserOption.empty() ? m_FileConfig.szGetParameter("user", "") : m_szUserOption;
    const std::string szGroup =
        m_szGroupOption.empty() ? m_FileConfig.szGetParameter("group", "") : m_szGroupOption;
    if (szUser.empty()) {
        return true;
    }
    const passwd* const pUser = getpwnam(szUser.c_str());
    if (pUser == nullptr) {
        QUORCORE_LOG(LOG_ERR, "there is no user %s", szUser.c_str());
        return false;
    }
    if (pUser->pw_uid != getuid()) { // else there is nothing to drop, nor the right to
        m_szUser = szUser;
        m_szGroup = szGroup;
    }
    return true;
}

long CHelloDaemon::iInitCallback()
{
    const auto connect = [this](uint32_t iEventId, void (CHelloDaemon::*slot)(CMsg*)) {
        m_callbackManager.pAddCallback(iEventId, new CSlotCallback<CHelloDaemon>(this, slot));
    };
    connect(EVT_DATABASE_SAVE, &CHelloDaemon::OnDatabaseSave);
    connect(EVT_COM_CONNECTED, &CHelloDaemon::OnLink);
    connect(EVT_COM_DISCONNECTED, &CHelloDaemon::OnLink);
    connect(EVT_PROCESS_STOPPED, &CHelloDaemon::OnProcessStopped);
    return CDaemon::iInitCallback();
}

bool CHelloDaemon::bStart()
{
    m_Server.Configure(m_iPort, kDataBytesMax, "peer of hello_daemon");
    m_Server.SetFirstConnectDelay(0); // answers as soon as it is up
    m_Supervisor.Supervise(m_Server);
    // Nobody waits for a loop to begin: messages are kept for the dispatcher, and that the server
    // listens is looked for below.
    const bool bStarted = m_Server.iCreateThread(false, 0) == 0 &&
                          m_callbackManager.iCreateThread(false, 0) == 0 &&
                          m_Supervisor.iCreateThread(false, 0) == 0 && bStartTools();
    if (bStarted) {
        StartChild();
    }
    return bStarted;
}

// The one endpoint serves a single peer, the daemon's partner: people come to another one.
bool CHelloDaemon::bStartTools()
{
    if (m_iToolsPort == -1 && m_szToolsPath.empty()) {
        return true;
    }
    if (m_iToolsPort == -1) {
        m_Tools.SetBindAddress(nullptr);
    }
    m_Tools.SetUnixPath(m_szToolsPath.c_str());
    m_Tools.Configure(m_iToolsPort, kToolsDataBytesMax, "tools of hello_daemon");
    return m_Tools.iCreateThread(false, 0) == 0;
}

// The endpoint itself goes on trying while its port is taken, every 5 s, and so does this: the
// daemon is there, but nobody can reach it yet.
void CHelloDaemon::AnnounceReady()
{
    using namespace std::chrono_literals;
    const auto begin = std::chrono::steady_clock::now();
    bool bComplained = false;
    while (m_bRun) {
        const int iPort = m_Server.iListeningPort();
        if (iPort != -1) {
            QUORCORE_LOG(LOG_NOTICE, "ready, pid %d, port %d", static_cast<int>(getpid()), iPort);
            AnnounceTools();
            return;
        }
        const auto waited = std::chrono::steady_clock::now() - begin;
        if (waited > 1s && !bComplained) {
            bComplained = true;
            QUORCORE_LOG(LOG_ERR, "not ready: port %d cannot be had, it is tried again", m_iPort);
        }
        if (waited > 50ms) {
            std::this_thread::sleep_for(100ms);
        } else {
            std::this_thread::sleep_for(50us);
        }
    }
}

// Who cannot listen for tools says so in the log by itself, and goes on trying.
void CHelloDaemon::AnnounceTools()
{
    using namespace std::chrono_literals;
    const auto begin = std::chrono::steady_clock::now();
    while (m_bRun && m_Tools.bIsRunning() && std::chrono::steady_clock::now() - begin < 5s) {
        if (m_Tools.bGetConnected()) {
            QUORCORE_LOG(LOG_NOTICE, "ready for tools, port %d, path \"%s\"",
                         m_Tools.iListeningPort(), m_szToolsPath.c_str());
            return;
        }
        std::this_thread::sleep_for(1ms);
    }
}

void CHelloDaemon::StartChild()
{
    const std::string szCommand = m_FileConfig.szGetParameter("child", "");
    std::vector<std::string> words = SplitString(" ", szCommand);
    if (words.empty()) {
        return;
    }
    std::vector<char*> argv;
    for (std::string& szWord : words) {
        argv.push_back(szWord.data());
    }
    m_Child.iCreateProcess(nullptr, argv, nullptr, nullptr, nullptr, nullptr);
    QUORCORE_LOG(LOG_NOTICE, "child %d started: %s", static_cast<int>(m_Child.iGetPID()),
                 szCommand.c_str());
    m_ProcessManager.AddNewProcess(&m_Child);
}

// The endpoint first: what its last frames have caused still reaches the slots.
void CHelloDaemon::Stop()
{
    m_Server.iStop(true, false);
    m_Tools.iStop(true, false);
    m_Supervisor.iStop(true, false);
    m_callbackManager.iStop(true, false);
}

void CHelloDaemon::Save()
{
    m_Store.bSave();
}

// Several requests in a row are saved by the first of their messages, or what they left over.
void CHelloDaemon::OnDatabaseSave(CMsg*)
{
    m_Store.bSave();
}

void CHelloDaemon::OnLink(CMsg* pMsg)
{
    if (pMsg->m_pOrigin != &m_Server) { // the tools' comings and goings are nobody's news
        return;
    }
    const bool bConnected = pMsg->m_iEventId == EVT_COM_CONNECTED;
    if (bConnected != m_bPeerThere) { // every attempt that fails is told as a link that went down
        m_bPeerThere = bConnected;
        const std::string szNews = bConnected ? "the peer has connected" : "the peer has gone";
        QUORCORE_LOG(LOG_NOTICE, "%s", szNews.c_str());
        m_Tools.iPushAll(CMD_HELLO_NEWS, reinterpret_cast<const uint8_t*>(szNews.data()),
                         static_cast<long>(szNews.size()));
    }
}

void CHelloDaemon::OnProcessStopped(CMsg* pMsg)
{
    const int iPid = pMsg->m_iParam1; // 0 when it was the daemon itself that stopped the child
    const int iStatus = pMsg->m_iParam2;
    if (iPid != 0 && WIFSIGNALED(iStatus)) {
        QUORCORE_LOG(LOG_WARNING, "child %d was ended by signal %d", iPid, WTERMSIG(iStatus));
    } else if (iPid != 0) {
        QUORCORE_LOG(LOG_WARNING, "child %d has ended with status %d", iPid, WEXITSTATUS(iStatus));
    }
}
