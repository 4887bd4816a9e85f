#include "support/PrivateProcesses.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr int kEndedBySignal = 128; // added to its number in an exit status, as the shell does
constexpr int kCannotStart = 125;

/// Waits for one child, collecting all others. @return Its exit status, as above.
int iAwait(pid_t wanted)
{
    int iStatus = 0;
    pid_t pid = -1;
    do {
        pid = waitpid(-1, &iStatus, 0);
    } while (pid != wanted && (pid != -1 || errno == EINTR));
    if (pid == -1) {
        return kCannotStart;
    }
    return WIFSIGNALED(iStatus) ? kEndedBySignal + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
}

/// The first process of the namespace: the others end with it, and it collects the orphans.
[[noreturn]] void BeInit(const std::function<int()>& run)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        std::perror("cannot give the tests a /proc of their own");
        _exit(kCannotStart);
    }
    const pid_t pid = fork();
    if (pid == 0) {
        std::exit(run());
    }
    _exit(iAwait(pid));
}
} // namespace

int iRunAmongOwnProcesses(const std::function<int()>& run)
{
    if (unshare(CLONE_NEWPID) != 0) {
        return run();
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        BeInit(run);
    }
    const int iExitStatus = iAwait(pid);
    if (iExitStatus > kEndedBySignal) {
        signal(iExitStatus - kEndedBySignal, SIG_DFL);
        raise(iExitStatus - kEndedBySignal);
    }
    std::fflush(nullptr);
    _exit(iExitStatus); // what is to be checked at exit has been checked in there
}
} // namespace TestSupport
