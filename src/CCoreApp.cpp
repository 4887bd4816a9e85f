#include "libQuorCore/CCoreApp.h"

#include "internal/CChildReaper.h"
#include "internal/CEndSignals.h"

#include "libQuorCore/CSlotCallback.h"
#include "libQuorCore/libQuorCore.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
// The capabilities that matter here, as <linux/capability.h> numbers them.
constexpr capability_t kCapKill = 5;
constexpr capability_t kCapSetGid = 6;
constexpr capability_t kCapSetUid = 7;
constexpr capability_t kCapNetAdmin = 12;

constexpr int kAllSets = PROCESS_CAP_EFFECTIVE | PROCESS_CAP_PERMITTED | PROCESS_CAP_INHERITABLE;

constexpr long kPublishFailed = -3;
constexpr long kDirectoryFailed = -4;
constexpr int kMonitoringPauseSec = 1;

// The carriage returns stand for terminals in raw mode, such as the device's serial console. Meant.
constexpr const char* kUsage = "USAGE: program --daemon\r\nUSAGE: program --version\r";

void AttachToNull(FILE* pStream, const char* szFailure)
{
    if (std::freopen("/dev/null", "r+", pStream) == nullptr) {
        throw szFailure;
    }
}

/// Looks the ids of a user and a group up. @return 0 or an errno value.
int iLookUp(const char* szUser, const char* szGroup, uid_t& uid, gid_t& gid)
{
    int iResult = 0;
    if (szUser != nullptr) {
        errno = 0; // the database leaves it alone for a name that it merely does not know
        if (const passwd* pUser = getpwnam(szUser)) {
            uid = pUser->pw_uid;
            gid = pUser->pw_gid;
        } else {
            iResult = errno;
            if (iResult == 0) {
                // Goes on with the present identity: a device whose user database is incomplete
                // must still come up. Meant, and held by ACoreApp.KeepsItsIdentityForAnUnknownUser.
                QUORCORE_LOG(LOG_WARNING, "unknown user %s, going on as uid %u", szUser,
                             static_cast<unsigned>(uid));
            }
        }
    }
    if (szGroup != nullptr) {
        errno = 0;
        if (const group* pGroup = getgrnam(szGroup)) {
            gid = pGroup->gr_gid;
        } else {
            iResult = errno;
        }
    }
    return iResult;
}

/// The supplementary groups of a user, or none but @p gid: never those of root by oversight.
int iInitGroups(const char* szUser, gid_t gid)
{
    return szUser != nullptr ? initgroups(szUser, gid) : setgroups(1, &gid);
}

/// Changes the identity, keeping the capabilities of @p final. @return The first non-zero result.
long iChangeIdentity(const char* szUser, uid_t uid, gid_t gid, process_cap_s* pTemporary,
                     process_cap_s* pFinal)
{
    long lResult = process_cap_set(pTemporary);
    if (lResult == 0) {
        lResult = prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
    }
    if (lResult == 0) {
        lResult = setresgid(gid, gid, gid);
    }
    if (lResult == 0) {
        lResult = iInitGroups(szUser, gid);
    }
    if (lResult == 0) {
        lResult = setresuid(uid, uid, uid);
    }
    if (lResult == 0) {
        lResult = process_cap_set(pFinal);
    }
    return lResult;
}
} // namespace

CCoreApp::CCoreApp(CObject* pParent, int argc, char** argv)
    : CThread(pParent, "CCoreApp"), m_bRunningAsDaemon(false),
      m_callbackManager(this, "CCallbackManager"), m_fileNotification(this, "CFileNotification")
{
    m_bRunningAsDaemon = bRunAsDaemon(argc, argv);
    if (bIsParamArguments(argc, argv, "--help")) {
        std::puts(kUsage);
        std::exit(EXIT_SUCCESS);
    }
    if (bIsParamArguments(argc, argv, "--lib-quorcore-version")) {
        std::printf("%d.%d", QUORCORE_VERSION_MAJOR, QUORCORE_VERSION_MINOR);
        std::exit(EXIT_SUCCESS);
    }
}

CCoreApp::~CCoreApp()
{
    CThread::iStop(true, false);
    CEndSignals::Restore(&m_bRun);
    CChildReaper::Get().Stop(this);
    WithdrawMessages();
}

bool CCoreApp::bIsParamArguments(int argc, char** argv, const char* szParam)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], szParam) == 0) {
            return true;
        }
    }
    return false;
}

int CCoreApp::iGetParamArguments(int argc, char** argv, const char* szParam, int iDefault)
{
    int iValue = iDefault;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], szParam) == 0) {
            iValue = std::atoi(argv[i + 1]);
        }
    }
    return iValue;
}

const char* CCoreApp::szGetParamArguments(int argc, char** argv, const char* szParam)
{
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], szParam) == 0) {
            return argv[i + 1];
        }
    }
    return nullptr;
}

bool CCoreApp::bRunAsDaemon(int argc, char** argv)
{
    return bIsParamArguments(argc, argv, "--daemon");
}

void CCoreApp::Daemonize()
{
    std::fflush(nullptr); // else both processes would write what is buffered
    const pid_t pid = fork();
    if (pid < 0) {
        throw "cannot fork daemon process";
    }
    if (pid > 0) {
        std::exit(EXIT_SUCCESS);
    }
    setsid();
    umask(0);
    AttachToNull(stdin, "Cannot attach stdin to /dev/null");
    AttachToNull(stdout, "Cannot attach stdout to /dev/null");
    AttachToNull(stderr, "Cannot attach stderr to /dev/null");
}

long CCoreApp::iDropPermissions(const char* szUser, const char* szGroup,
                                const capability_t* pCapabilities)
{
    static constexpr capability_t kToChange[] = {kCapSetGid, kCapSetUid, -1};
    uid_t uid = getuid();
    gid_t gid = getgid();
    long lResult = iLookUp(szUser, szGroup, uid, gid);
    if (lResult == 0) {
        process_cap_s final;
        process_cap_raz(&final);
        if (pCapabilities == nullptr) {
            return 0; // no list, no change of identity at all. Meant.
        }
        lResult = process_cap_tab_enable(&final, kAllSets, pCapabilities);
        process_cap_s temporary;
        process_cap_cp(&temporary, &final);
        if (lResult == 0) {
            lResult = process_cap_tab_enable(
                &temporary, PROCESS_CAP_EFFECTIVE | PROCESS_CAP_PERMITTED, kToChange);
        }
        if (lResult == 0) {
            lResult = iChangeIdentity(szUser, uid, gid, &temporary, &final);
        }
    }
    if (lResult != 0) {
        QUORCORE_LOG(LOG_ERR, "final failed (%ld)", lResult);
    }
    return lResult;
}

long CCoreApp::iInitInstance()
{
    static constexpr capability_t kToKeep[] = {kCapKill, kCapNetAdmin, -1};
    long lResult = 0;
    m_Logger.SetLogConfigForThread(m_szLabel.c_str(), &m_iLogLevel);
    m_FileConfig.iLoad(); // its result tells nothing; a missing file leaves the defaults
    if (m_szUser != "root" && !m_szUser.empty()) {
        // An empty group goes in as an empty name, not as none, and is looked up. Meant.
        const long lDropped = iDropPermissions(m_szUser.c_str(), m_szGroup.c_str(), kToKeep);
        if (lDropped != 0) {
            QUORCORE_LOG(LOG_ERR, "process_drop_permission failed (%ld)", lDropped);
            return 1;
        }
    }
    if (m_bRunningAsDaemon) {
        Daemonize();
        if (chdir("/") != 0) {
            lResult = kDirectoryFailed;
        }
    }
    try {
        SetEventManager(&m_callbackManager, &m_fileNotification);
        CChildReaper::Get().Start(this, [](pid_t pid, int iStatus) {
            return m_ProcessManager.bLoseProcess(pid, iStatus);
        });
        CEndSignals::Install(&m_bRun);
    } catch (const std::exception&) {
        lResult = kPublishFailed;
    }
    return lResult;
}

long CCoreApp::iInitCallback()
{
    m_callbackManager.pAddCallback(EVT_THREAD_STARTED,
                                   new CSlotCallback<CCoreApp>(this, &CCoreApp::OnThreadStarted));
    return 0;
}

void CCoreApp::OnThreadStarted(CMsg* pMsg)
{
    if (pMsg == nullptr) {
        return;
    }
    CThread* const pThread = pAsThread(pMsg->m_pOrigin);
    if (pThread == nullptr) {
        QUORCORE_LOG(LOG_ERR, "Thread = NULL");
        return;
    }
    const std::string& szLabel = pThread->szGetLabel();
    const std::string szKey = "log_level_" + szLabel;
    pThread->SetLogLevel(m_FileConfig.iGetParameter(szKey.c_str(), kDefaultLogLevel));
    // The line ends without the level: scripts match it as it is. Held by
    // ACoreApp.AppliesTheConfiguredLevelToAThreadThatStarts.
    QUORCORE_LOG(LOG_INFO, "Thread : %s - pid : 0x%x - log level : ", szLabel.c_str(),
                 static_cast<unsigned>(pThread->iGetThreadId()));
}

long CCoreApp::iRunThread()
{
    while (m_bRun) {
        Sleep(1000);
    }
    m_bRun = false;
    return 0;
}

void CCoreApp::ProcessSignal()
{
    CEndSignals::Install(&m_bRun);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int iSignal :
         {SIGKILL, SIGQUIT, SIGTERM, SIGCHLD, CEndSignals::iMonitoringSignal()}) {
        sigaddset(&signals, iSignal);
    }
    sigprocmask(SIG_UNBLOCK, &signals, nullptr); // not blocked while it waits for them. Meant.
    do {
        const int iSignal = CEndSignals::iAwait(signals);
        if (iSignal == SIGKILL || iSignal == SIGQUIT || iSignal == SIGTERM) {
            return;
        }
        if (iSignal == SIGCHLD) {
            CChildReaper::Get().Reap(); // the wait took the signal from its handler
        }
        iMonitoring();
        CEndSignals::Pause(kMonitoringPauseSec);
    } while (m_bRun);
}

long CCoreApp::iExitInstance()
{
    m_ProcessManager.StopAll(true);
    m_FileConfig.iSave();
    m_Logger.CancelLogIdForThread();
    return 0;
}
} // namespace QuorCore
