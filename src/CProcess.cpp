#include "libQuorCore/CProcess.h"

#include "internal/CCancelGuard.h"
#include "internal/CChildReaper.h"
#include "internal/CUniqueFd.h"
#include "internal/Clock.h"
#include "internal/CloseDescriptors.h"

#include "libQuorCore/CProcessManager.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr int kStopLimitSec = 5;     // for a child that got SIGTERM
constexpr int kCommandPauseMs = 500; // between two runs of a failing command
constexpr int kCannotExecute = 127;  // exit status of a child without a program, as sh(1) has it
constexpr int kLastSignal = 64;
constexpr long kStartChecks = 5; // of a child that may die at once

#ifdef SYS_pidfd_open
constexpr long kPidfdOpen = SYS_pidfd_open;
#else
constexpr long kPidfdOpen = 434; // the same number on every architecture
#endif

/// Waits until a process has ended, @p iMs ms at most; pidfd_open(2) where the kernel has it.
void AwaitEnd(pid_t pid, int iMs)
{
    const CUniqueFd end(static_cast<int>(syscall(kPidfdOpen, pid, 0U)));
    if (end) {
        pollfd ended{end.iGet(), POLLIN, 0};
        const CDeadline deadline(iMs);
        while (poll(&ended, 1, static_cast<int>(deadline.iLeftMs())) < 0 && errno == EINTR) {
        }
    } else if (errno != ESRCH) {
        SleepMs(iMs);
    }
}

/// The texts of a block that an empty text closes.
std::vector<char*> SplitBlock(const char** block)
{
    std::vector<char*> texts;
    // The pointer is the block's own address: its type stems from the calls of old C programs.
    for (const char* szText = reinterpret_cast<const char*>(block);
         szText != nullptr && *szText != '\0'; szText += std::strlen(szText) + 1) {
        texts.push_back(const_cast<char*>(szText)); // as execvp(3) and putenv(3) take it
    }
    return texts;
}

void ExitUnless(bool bDone)
{
    if (!bDone) {
        _exit(1);
    }
}

/// Moves a descriptor that stands where the child's standard ones go; -1 stays.
int iClearOfStandard(int iFd)
{
    return iFd >= 0 && iFd <= STDERR_FILENO ? fcntl(iFd, F_DUPFD, STDERR_FILENO + 1) : iFd;
}

/// In the child: makes the pipes' ends its standard streams. Everything above is closed later.
void TakeStandardStreams(CPipe* pIn, CPipe* pOut, CPipe* pErr)
{
    // First out of the way, all of them, then into place: a daemon that closed its own standard
    // descriptors gets pipes on these very numbers.
    const int iIn = pIn != nullptr ? iClearOfStandard(pIn->hReadHandle()) : -1;
    const int iOut = pOut != nullptr ? iClearOfStandard(pOut->hWriteHandle()) : -1;
    const int iErr = pErr != nullptr ? iClearOfStandard(pErr->hWriteHandle()) : -1;
    for (CPipe* pPipe : {pIn, pOut, pErr}) {
        for (const int iEnd : {pPipe != nullptr ? pPipe->hReadHandle() : -1,
                               pPipe != nullptr ? pPipe->hWriteHandle() : -1}) {
            if (iEnd >= 0 && iEnd <= STDERR_FILENO) {
                close(iEnd);
            }
        }
    }
    if (iIn != -1) {
        dup2(iIn, STDIN_FILENO);
    }
    if (iOut != -1) {
        dup2(iOut, STDOUT_FILENO);
    }
    if (iErr != -1) {
        dup2(iErr, STDERR_FILENO);
    }
}

void UnblockSignals()
{
    sigset_t all;
    ExitUnless(sigfillset(&all) == 0);
    ExitUnless(sigprocmask(SIG_UNBLOCK, &all, nullptr) == 0);
}

void ResetSignals()
{
    for (int iSignal = 0; iSignal <= kLastSignal; ++iSignal) {
        signal(iSignal, SIG_DFL); // those that have none to reset refuse
    }
}

/// Drops the handlers, as execve(2) will; what is ignored stays ignored.
void ResetHandlers()
{
    for (int iSignal = 1; iSignal <= kLastSignal; ++iSignal) {
        struct sigaction action = {};
        if (sigaction(iSignal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            signal(iSignal, SIG_DFL);
        }
    }
}

/// The reading of one "/proc/PID/stat" beginning.
struct stat_t {
    int iPid = -1;
    std::string szName;
};

bool bReadStat(const char* szEntry, stat_t& stat)
{
    const std::string szPath = std::string("/proc/") + szEntry + "/stat";
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(std::fopen(szPath.c_str(), "re"),
                                                      &std::fclose);
    char szName[80] = ""; // names of kernel workers pass 16 characters
    if (pFile == nullptr || std::fscanf(pFile.get(), "%d %79s ", &stat.iPid, szName) != 2) {
        return false;
    }
    stat.szName = szName;
    if (!stat.szName.empty() && stat.szName.front() == '(') {
        stat.szName.erase(0, 1);
    }
    if (!stat.szName.empty() && stat.szName.back() == ')') {
        stat.szName.pop_back();
    }
    return true;
}

/// Withdraws the claim on a child on every way out, a cancellation of the wait included.
class CClaimEnd
{
public:
    explicit CClaimEnd(pid_t pid) : m_pid(pid) {}
    CClaimEnd(const CClaimEnd&) = delete;
    CClaimEnd& operator=(const CClaimEnd&) = delete;
    ~CClaimEnd() { CChildReaper::Get().Forget(m_pid); }

private:
    const pid_t m_pid;
};

/// waitpid(2) for one child that iForkClaimed() made, whoever reaps it.
bool bAwaitClaimed(pid_t pid, int& iStatus)
{
    const CClaimEnd end(pid);
    pid_t waited = -1;
    do {
        waited = waitpid(pid, &iStatus, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited == pid) {
        return true;
    }
    const int iError = errno;
    const bool bCollected = CChildReaper::Get().Take(pid, iStatus) == CChildReaper::eEnd::COLLECTED;
    errno = iError;
    return bCollected;
}

/// @return The result of a command that was waited for.
int iDecodeCommand(const char* szCommand, int iStatus)
{
    if (WIFEXITED(iStatus)) {
        QUORCORE_LOG(LOG_INFO, "command %s exited, ret = %d", szCommand, WEXITSTATUS(iStatus));
        return WEXITSTATUS(iStatus);
    }
    if (WIFSIGNALED(iStatus)) {
        QUORCORE_LOG(LOG_ERR, "command %s interrupted, sig = %d", szCommand, WTERMSIG(iStatus));
    } else {
        QUORCORE_LOG(LOG_ERR, "command %s returned unexpectedly", szCommand);
    }
    return -1;
}

int iRunCommandOnce(const char* szCommand, bool bWait)
{
    const char* const argv[] = {"/bin/sh", "-c", szCommand, nullptr};
    const char* const env[] = {nullptr};
    const pid_t pid = bWait ? CChildReaper::Get().iForkClaimed() : CChildReaper::iFork();
    if (pid < 0) {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "Cannot fork process for %s", szCommand);
        errno = iError;
        std::perror("fork");
        return -1;
    }
    if (pid == 0) {
        ResetHandlers();
        UnblockSignals(); // threads of the library block them, a command must not
        execve(argv[0], const_cast<char* const*>(argv), const_cast<char* const*>(env));
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "Cannot execve process for %s", szCommand);
        errno = iError;
        std::perror("execve");
        _exit(1); // not exit(): the daemon's static objects are not the child's to destroy
    }
    if (!bWait) {
        return 0;
    }
    int iStatus = 0;
    if (!bAwaitClaimed(pid, iStatus)) {
        QUORCORE_LOG(LOG_ERR, "waitpid() failed: %d", errno);
        return -1;
    }
    return iDecodeCommand(szCommand, iStatus);
}
} // namespace

CProcess::CProcess(CObject* pParent, const char* szLabel)
    : CObject(pParent, szLabel), m_pid(-1), m_iExitCode(-1)
{
}

CProcess::~CProcess()
{
    if (CProcessManager* pManager = m_pManager) {
        pManager->RemoveProcess(this);
    }
    ForgetChild(m_pid);
    WithdrawMessages();
}

void CProcess::OnStop()
{
    const CDeferredCancel deferred;
    const pid_t pid = m_pid;
    const std::string szLabel =
        m_szLabel; // a slot may start the next program before the line is out
    iPostMessage(EVT_PROCESS_STOPPED, 0, 0, nullptr, 0, 0);
    QUORCORE_LOG(LOG_INFO, "process %s - %d", szLabel.c_str(), static_cast<int>(pid));
    ForgetChild(pid);
}

void CProcess::OnLost(int iStatus)
{
    const CDeferredCancel deferred;
    const pid_t pid = m_pid;
    const char* const szLabel = m_szLabel.c_str();
    if (WIFEXITED(iStatus)) {
        m_iExitCode = WEXITSTATUS(iStatus);
        QUORCORE_LOG(LOG_INFO, "Child ended normally: %s - %d | exit code = %d", szLabel,
                     static_cast<int>(pid), static_cast<int>(m_iExitCode));
    } else if (WIFSIGNALED(iStatus)) {
        m_iExitCode = -1;
        QUORCORE_LOG(LOG_INFO, "Child ended because of an uncaught signal : %s - %d", szLabel,
                     static_cast<int>(pid));
    } else if (WIFSTOPPED(iStatus)) {
        m_iExitCode = 0;
        QUORCORE_LOG(LOG_INFO, "Child process has stopped : %s - %d", szLabel,
                     static_cast<int>(pid));
    } else {
        m_iExitCode = -1;
        QUORCORE_LOG(LOG_INFO, "process %s - %d", szLabel, static_cast<int>(pid));
    }
    iPostMessage(EVT_PROCESS_STOPPED, static_cast<uint32_t>(pid), static_cast<uint32_t>(iStatus),
                 nullptr, 0, 0);
    ForgetChild(pid);
}

int CProcess::iCreateProcess(bool bSudo, const char* szDirectory, const char* szProgram,
                             const char** args, const char** env, CPipe* pIn, CPipe* pOut,
                             CPipe* pErr)
{
    const CDeferredCancel deferred;
    static char s_szSudo[] = "sudo";
    std::vector<char*> argv;
    if (bSudo) {
        argv.push_back(s_szSudo);
    }
    argv.push_back(const_cast<char*>(szProgram));
    const std::vector<char*> texts = SplitBlock(args);
    argv.insert(argv.end(), texts.begin(), texts.end());
    argv.push_back(nullptr);
    SetLabel(szProgram);
    return iCreateProcess(szDirectory, argv, env, pIn, pOut, pErr);
}

int CProcess::iCreateProcess(const char* szDirectory, std::vector<char*>& argv, const char** env,
                             CPipe* pIn, CPipe* pOut, CPipe* pErr)
{
    const CDeferredCancel deferred;
    if (argv.empty() || argv.back() != nullptr) {
        argv.push_back(nullptr);
    }
    const std::vector<char*> environment = SplitBlock(env);
    ForgetChild(m_pid);
    m_iExitCode = -1;
    m_bOwnChild = true;
    const pid_t pid = CChildReaper::Get().iForkClaimed();
    if (pid == 0) {
        RunChild(szDirectory, argv, environment, pIn, pOut, pErr);
    }
    m_pid = pid;
    if (pid < 0) {
        QUORCORE_LOG(LOG_ERR, "Cannot fork process");
    } else {
        bIsRunning(nullptr, kStartChecks);
    }
    if (pIn != nullptr) {
        pIn->CloseRead();
    }
    if (pOut != nullptr) {
        pOut->CloseWrite();
    }
    if (pErr != nullptr) {
        pErr->CloseWrite();
    }
    return 0;
}

void CProcess::RunChild(const char* szDirectory, const std::vector<char*>& argv,
                        const std::vector<char*>& environment, CPipe* pIn, CPipe* pOut, CPipe* pErr)
{
    if (szDirectory != nullptr && chdir(szDirectory) != 0) {
        QUORCORE_LOG(LOG_ERR, "Cannot change directory %s", szDirectory);
    }
    for (char* const szVariable : environment) {
        putenv(szVariable);
    }
    TakeStandardStreams(pIn, pOut, pErr);
    CloseDescriptorsFrom(STDERR_FILENO + 1);
    ResetSignals(); // first: a signal that waits is for the child, not for the daemon's handlers
    UnblockSignals();
    if (argv.front() != nullptr) {
        execvp(argv.front(), argv.data());
    }
    _exit(kCannotExecute); // not exit(): the daemon's static objects are not the child's to destroy
}

int CProcess::iStop(bool bWait)
{
    const CDeferredCancel deferred;
    const pid_t pid =
        m_pid; // once: the reaper may set -1, and kill(-1) ends every process there is
    if (pid < 1) {
        return 0;
    }
    int iResult = m_bOwnChild ? CChildReaper::Get().iSignal(pid, SIGTERM) : kill(pid, SIGTERM);
    if (bWait) {
        iResult = iWaitForExit(kStopLimitSec);
    }
    OnStop();
    return iResult;
}

int CProcess::iWaitForExit(uint32_t iSeconds)
{
    const CDeferredCancel deferred;
    const pid_t pid = m_pid;
    if (pid < 1) {
        return 0;
    }
    for (uint64_t iTry = 0; iTry <= iSeconds; ++iTry) {
        if (!bIsRunning(nullptr, 0)) {
            return 0;
        }
        AwaitEnd(pid, static_cast<int>(kMsPerSecond));
    }
    if (!bIsRunning(nullptr, 0)) {
        return 0;
    }
    QUORCORE_LOG(LOG_ERR, "Cannot wait for process %d", static_cast<int>(pid));
    return -1;
}

bool CProcess::bIsRunning(const char* szName, long iRetries)
{
    const CDeferredCancel deferred;
    pid_t waited = -1;
    bool bAgain = true;
    while (bAgain) {
        if (m_pid < 0 && szName != nullptr) {
            iFindProcessId(szName, true);
        }
        const pid_t pid = m_pid; // once, as in iStop(): waitpid(-1) takes any child
        if (pid > 0) {
            waited = iPoll(pid, iRetries < 1);
        }
        bAgain = iRetries > 0 && waited != 0;
        --iRetries;
    }
    return waited == 0;
}

/// @return As waitpid(2), with an end that the reaper has collected counted as one.
pid_t CProcess::iPoll(pid_t pid, bool bLastTry)
{
    int iStatus = 0;
    pid_t waited = waitpid(pid, &iStatus, WNOHANG | WUNTRACED);
    if (waited < 0 && m_bOwnChild) {
        switch (CChildReaper::Get().Take(pid, iStatus)) {
        case CChildReaper::eEnd::COLLECTED:
            waited = pid;
            break;
        case CChildReaper::eEnd::DELIVERED:
            return pid; // OnLost() has been called, or is being called by this very thread
        case CChildReaper::eEnd::UNKNOWN:
            break;
        }
    }
    if (waited == pid) {
        if (m_bOwnChild && !WIFSTOPPED(iStatus)) {
            CChildReaper::Get().Forget(pid); // an OnLost() that asks again finds it delivered
        }
        OnLost(iStatus);
    } else if (waited < 0 && bLastTry) {
        QUORCORE_LOG(LOG_INFO, "waitpid error: %s - %d", m_szLabel.c_str(), static_cast<int>(pid));
        OnLost(0);
    }
    return waited;
}

/// Nobody will ask for this child again. Leaves alone the next one, which a slot may have started
/// as soon as the end of this one was posted.
void CProcess::ForgetChild(pid_t pid)
{
    const bool bClaimed = pid > 0 && m_bOwnChild;
    pid_t expected = pid;
    m_pid.compare_exchange_strong(expected, -1);
    if (bClaimed) {
        CChildReaper::Get().Forget(pid); // last: who still saw the pid waits until it is done
    }
}

int CProcess::iFindProcessId(const char* szName, bool bKeep)
{
    const CDeferredCancel deferred;
    const std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(opendir("/proc"), &closedir);
    if (pDirectory == nullptr || szName == nullptr) {
        return -1;
    }
    while (const dirent* pEntry = readdir(pDirectory.get())) {
        stat_t stat;
        if (pEntry->d_name[0] >= '0' && pEntry->d_name[0] <= '9' &&
            bReadStat(pEntry->d_name, stat) && stat.szName == szName) {
            if (bKeep && m_pid != stat.iPid) { // its own child stays its own
                ForgetChild(m_pid);
                m_bOwnChild = false;
                m_pid = stat.iPid;
            }
            return stat.iPid;
        }
    }
    return -1;
}

long CProcess::iPostSignal(uint32_t iSignal, uint32_t iValue, int iPid)
{
    sigval value;
    std::memset(&value, 0, sizeof(value)); // all of it: the pointer is wider than the number
    value.sival_int = static_cast<int>(iValue);
    const int iResult = sigqueue(iPid != 0 ? iPid : getpid(), static_cast<int>(iSignal), value);
    if (iResult != 0) {
        QUORCORE_LOG(LOG_ERR, " %s", CThread::m_Logger.strerrorT(errno).c_str());
    }
    return iResult;
}

int CProcess::iCmdSystem(const char* szCommand, int iRetries, bool bWait)
{
    const CDeferredCancel deferred;
    if (szCommand == nullptr) {
        return -1;
    }
    int iResult = iRunCommandOnce(szCommand, bWait);
    for (; iResult != 0 && iRetries >= 1; --iRetries) {
        SleepMs(kCommandPauseMs);
        iResult = iRunCommandOnce(szCommand, bWait);
    }
    return iResult;
}
} // namespace QuorCore
