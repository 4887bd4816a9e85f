#include "internal/CChildReaper.h"
#include "internal/CEndSignals.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/ProcessFacts.h"
#include "support/Signals.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uid_t kNobody = 65534;

/// Waits for the end of a child and leaves it to be collected.
void AwaitZombie(pid_t pid)
{
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

/// What the reaper reports the ends to.
class CReported
{
public:
    static bool bLost(pid_t pid, int iStatus)
    {
        s_bInside = true;
        while (s_bHold) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        const std::lock_guard<std::mutex> held(s_lock);
        s_ends.emplace_back(pid, iStatus);
        return s_bTheirs;
    }

    static void Reset()
    {
        s_bTheirs = s_bHold = s_bInside = false;
        const std::lock_guard<std::mutex> held(s_lock);
        s_ends.clear();
    }

    static bool bAwaitEnd(pid_t pid, int iStatus)
    {
        return bAwait([=] {
            const std::lock_guard<std::mutex> held(s_lock);
            return std::find(s_ends.begin(), s_ends.end(), std::make_pair(pid, iStatus)) !=
                   s_ends.end();
        });
    }

    static std::atomic<bool> s_bTheirs; ///< They take the ends.
    static std::atomic<bool> s_bHold;   ///< Reports do not return.
    static std::atomic<bool> s_bInside; ///< There was one.

private:
    static std::mutex s_lock;
    static std::vector<std::pair<pid_t, int>> s_ends; ///< Guarded by s_lock.
};
std::atomic<bool> CReported::s_bTheirs{false};
std::atomic<bool> CReported::s_bHold{false};
std::atomic<bool> CReported::s_bInside{false};
std::mutex CReported::s_lock;
std::vector<std::pair<pid_t, int>> CReported::s_ends;

class AChildReaper : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CReported::Reset();
        m_Reaper.Start(this, CReported::bLost);
    }
    void TearDown() override { m_Reaper.Stop(this); }

    /// A claimed child that ends at once.
    pid_t iStartClaimed(int iExitCode)
    {
        const pid_t pid = m_Reaper.iForkClaimed();
        if (pid == 0) {
            _exit(iExitCode);
        }
        return pid;
    }

    /// A child that nobody claims, and that ends at once.
    static pid_t iStart(int iExitCode)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(iExitCode);
        }
        return pid;
    }

    CChildReaper& m_Reaper = CChildReaper::Get();
    int m_iStatus = -1;
};

TEST_F(AChildReaper, HandlesTheSignalWithoutFlagsUntilItsEnd)
{
    struct sigaction action = {};
    sigaction(SIGCHLD, nullptr, &action);
    EXPECT_NE(SIG_DFL, action.sa_handler);
    EXPECT_EQ(0, action.sa_flags & (SA_RESTART | SA_NOCLDSTOP | SA_NOCLDWAIT | SA_SIGINFO));
    m_Reaper.Stop(this);
    EXPECT_EQ(SIG_DFL, Disposition(SIGCHLD));
}

TEST_F(AChildReaper, TellsTheThreadThatWaitsForSignalsOfAnEnd)
{
    sigset_t others;
    sigemptyset(&others); // the handler takes what it waits for, as between two waits
    const CRepeatedSignal ends(SIGCHLD);
    EXPECT_EQ(SIGCHLD, CEndSignals::iAwait(others));
}

TEST_F(AChildReaper, RestoresTheFormerHandler)
{
    m_Reaper.Stop(this);
    const handler_t former = [](int) {};
    signal(SIGCHLD, former);
    m_Reaper.Start(this, CReported::bLost);
    EXPECT_NE(former, Disposition(SIGCHLD));
    m_Reaper.Stop(this);
    EXPECT_EQ(former, Disposition(SIGCHLD));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(AChildReaper, LeavesALaterHandlerAlone)
{
    const handler_t later = [](int) {};
    signal(SIGCHLD, later);
    m_Reaper.Stop(this);
    EXPECT_EQ(later, Disposition(SIGCHLD));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(AChildReaper, IsStoppedByTheLastWhoStartedIt)
{
    const int iOther = 0;
    m_Reaper.Start(&iOther, CReported::bLost);
    m_Reaper.Stop(this);
    EXPECT_NE(SIG_DFL, Disposition(SIGCHLD));
    m_Reaper.Stop(&iOther);
    EXPECT_EQ(SIG_DFL, Disposition(SIGCHLD));
}

TEST_F(AChildReaper, HasOneThreadUntilItsEnd)
{
    const size_t nWith = nThreads();
    m_Reaper.Start(this, CReported::bLost);
    EXPECT_EQ(nWith, nThreads());
    m_Reaper.Stop(this);
    EXPECT_TRUE(bAwait([=] { return nThreads() == nWith - 1; }));
    m_Reaper.Start(this, CReported::bLost);
    EXPECT_EQ(nWith, nThreads());
}

TEST_F(AChildReaper, ReportsTheEndOfAnyChild)
{
    const pid_t pid = iStart(5);
    EXPECT_TRUE(CReported::bAwaitEnd(pid, 5 << 8));
    EXPECT_EQ(-1, waitpid(pid, nullptr, WNOHANG));
}

TEST_F(AChildReaper, ReportsAChildThatEndedBeforeItsStart)
{
    m_Reaper.Stop(this);
    const pid_t pid = iStart(6);
    AwaitZombie(pid);
    m_Reaper.Start(this, CReported::bLost);
    EXPECT_TRUE(CReported::bAwaitEnd(pid, 6 << 8));
}

TEST_F(AChildReaper, ReportsChildrenThatEndAtOnce)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < 50; ++i) {
        pids.push_back(iStart(i));
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(CReported::bAwaitEnd(pids[static_cast<size_t>(i)], i << 8));
    }
}

TEST_F(AChildReaper, CollectsNothingAfterItsEnd)
{
    m_Reaper.Stop(this);
    const pid_t pid = iStartClaimed(7);
    AwaitZombie(pid);
    m_Reaper.Reap();
    EXPECT_EQ(CChildReaper::eEnd::UNKNOWN, m_Reaper.Take(pid, m_iStatus));
    EXPECT_EQ(pid, waitpid(pid, nullptr, WNOHANG));
    m_Reaper.Forget(pid);
}

TEST_F(AChildReaper, KeepsAStatusForWhoClaimedIt)
{
    const pid_t pid = iStartClaimed(8);
    ASSERT_TRUE(CReported::bAwaitEnd(pid, 8 << 8));
    EXPECT_EQ(CChildReaper::eEnd::COLLECTED, m_Reaper.Take(pid, m_iStatus));
    EXPECT_EQ(8 << 8, m_iStatus);
    EXPECT_EQ(CChildReaper::eEnd::DELIVERED, m_Reaper.Take(pid, m_iStatus)); // once only
}

TEST_F(AChildReaper, HandsNothingOutThatWasReported)
{
    CReported::s_bTheirs = true;
    const pid_t pid = iStartClaimed(9);
    ASSERT_TRUE(CReported::bAwaitEnd(pid, 9 << 8));
    EXPECT_EQ(CChildReaper::eEnd::DELIVERED, m_Reaper.Take(pid, m_iStatus));
    EXPECT_EQ(-1, m_iStatus);
}

TEST_F(AChildReaper, KeepsNothingForAClaimThatWasWithdrawn)
{
    CReported::s_bHold = true;
    const pid_t pid = iStartClaimed(10);
    ASSERT_TRUE(bAwait([] { return CReported::s_bInside.load(); }));
    m_Reaper.Forget(pid);
    CReported::s_bHold = false;
    ASSERT_TRUE(CReported::bAwaitEnd(pid, 10 << 8));
    EXPECT_EQ(CChildReaper::eEnd::DELIVERED, m_Reaper.Take(pid, m_iStatus));
}

TEST_F(AChildReaper, LetsWhoAsksWaitForAReportUnderWay)
{
    CReported::s_bHold = true;
    const pid_t pid = iStartClaimed(11);
    ASSERT_TRUE(bAwait([] { return CReported::s_bInside.load(); }));
    std::thread releaser([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // most likely waited for
        CReported::s_bHold = false;
    });
    EXPECT_EQ(CChildReaper::eEnd::COLLECTED, m_Reaper.Take(pid, m_iStatus));
    EXPECT_FALSE(CReported::s_bHold);
    EXPECT_EQ(11 << 8, m_iStatus);
    releaser.join();
}

TEST_F(AChildReaper, SignalsAClaimedChild)
{
    const pid_t pid = m_Reaper.iForkClaimed();
    if (pid == 0) {
        pause();
        _exit(0);
    }
    EXPECT_EQ(0, m_Reaper.iSignal(pid, SIGKILL));
    EXPECT_TRUE(CReported::bAwaitEnd(pid, SIGKILL));
    m_Reaper.Forget(pid);
}

TEST_F(AChildReaper, SignalsNobodyInPlaceOfAChildThatIsGone)
{
    const pid_t pid = iStartClaimed(12);
    ASSERT_TRUE(CReported::bAwaitEnd(pid, 12 << 8));
    errno = 0;
    EXPECT_EQ(-1, m_Reaper.iSignal(pid, 0));
    EXPECT_EQ(ESRCH, errno);
    m_Reaper.Forget(pid);
    errno = 0;
    EXPECT_EQ(-1, m_Reaper.iSignal(getpid(), 0)); // lives, but was never claimed
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(AChildReaper, KeepsErrnoInItsHandler)
{
    errno = ENOTTY;
    raise(SIGCHLD);
    EXPECT_EQ(ENOTTY, errno);
}

TEST_F(AChildReaper, ForksAChildWithAllSignalsBlocked)
{
    const pid_t pid = CChildReaper::iFork();
    if (pid == 0) {
        sigset_t set;
        pthread_sigmask(SIG_SETMASK, nullptr, &set);
        _exit(sigismember(&set, SIGTERM) == 1 && sigismember(&set, SIGCHLD) == 1 ? 0 : 1);
    }
    EXPECT_TRUE(CReported::bAwaitEnd(pid, 0));
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    EXPECT_EQ(0, sigismember(&set, SIGTERM));
    EXPECT_EQ(0, sigismember(&set, SIGCHLD));
}

TEST_F(AChildReaper, TellsThatItCannotStartAndLeavesTheSignalsOpen)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    m_Reaper.Stop(this);
    const ChildResult result = RunInChild([this] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        try {
            m_Reaper.Start(this, CReported::bLost);
            return 3;
        } catch (const std::system_error& error) {
            sigset_t set;
            pthread_sigmask(SIG_SETMASK, nullptr, &set);
            return error.code().value() == EAGAIN && sigismember(&set, SIGTERM) == 0 ? 0 : 1;
        }
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AChildReaper, IsStartedAnewInAForkedProcess)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer does not stand threads in the fork of a process with threads";
#endif
    const ChildResult result = RunInChild([this] { // has inherited the handler, but no thread
        m_Reaper.Start(this, CReported::bLost);
        const pid_t pid = iStartClaimed(13);
        const bool bReported = CReported::bAwaitEnd(pid, 13 << 8);
        m_Reaper.Stop(this);
        return bReported ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AChildReaper, IsNotWaitedForInAForkedProcess)
{
    const ChildResult result = RunInChild([this] {
        m_Reaper.Stop(this);
        m_Reaper.StopAtExit();
        return 0;
    });
    EXPECT_FALSE(result.bTimedOut);
    EXPECT_EQ(0, result.iExitCode);
}
} // namespace
