#include "internal/CEndSignals.h"

#include "libQuorCore/CRunFlag.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/Signals.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
sigset_t Awaited()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int iSignal : {SIGQUIT, SIGTERM, SIGCHLD, CEndSignals::iMonitoringSignal()}) {
        sigaddset(&signals, iSignal);
    }
    return signals;
}

/// A thread with open signals that takes what is sent to it.
class COpenThread
{
public:
    COpenThread() { m_Begun.get_future().wait(); }
    COpenThread(const COpenThread&) = delete;
    COpenThread& operator=(const COpenThread&) = delete;
    ~COpenThread()
    {
        m_bRun = false;
        m_Thread.join();
    }
    void Signal(int iSignal) { pthread_kill(m_Thread.native_handle(), iSignal); }

private:
    std::atomic<bool> m_bRun{true};
    std::promise<void> m_Begun;
    std::thread m_Thread{[this] {
        WaitOnce();
        m_Begun.set_value();
        while (m_bRun) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }};
};

class AnEndSignal : public ::testing::Test
{
protected:
    void SetUp() override { CEndSignals::Install(&m_bRun); }
    void TearDown() override { CEndSignals::Restore(&m_bRun); }

    CRunFlag m_bRun;
    const sigset_t m_Awaited = Awaited();
};

TEST_F(AnEndSignal, IsHandledUntilTheEnd)
{
    for (const int iSignal : {SIGTERM, SIGQUIT, CEndSignals::iMonitoringSignal()}) {
        EXPECT_NE(SIG_DFL, Disposition(iSignal));
    }
    CEndSignals::Restore(&m_bRun);
    for (const int iSignal : {SIGTERM, SIGQUIT, CEndSignals::iMonitoringSignal()}) {
        EXPECT_EQ(SIG_DFL, Disposition(iSignal));
    }
}

TEST_F(AnEndSignal, IsTheDaemonsWhereThatHasAHandler)
{
    CEndSignals::Restore(&m_bRun);
    const handler_t own = [](int) {};
    signal(SIGQUIT, own);
    signal(SIGTERM, SIG_IGN);
    CEndSignals::Install(&m_bRun);
    EXPECT_EQ(own, Disposition(SIGQUIT));
    EXPECT_EQ(SIG_IGN, Disposition(SIGTERM));
    CEndSignals::Restore(&m_bRun);
    EXPECT_EQ(own, Disposition(SIGQUIT));
    EXPECT_EQ(SIG_IGN, Disposition(SIGTERM));
    signal(SIGQUIT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
}

TEST_F(AnEndSignal, IsTheDaemonsWhenThatHasInstalledAHandlerSince)
{
    const handler_t own = [](int) {};
    signal(SIGTERM, own);
    CEndSignals::Restore(&m_bRun);
    EXPECT_EQ(own, Disposition(SIGTERM));
    signal(SIGTERM, SIG_DFL);
}

TEST_F(AnEndSignal, StaysHandledForTheLastWhoAskedForIt)
{
    CRunFlag later;
    CEndSignals::Install(&later);
    CEndSignals::Restore(&m_bRun);
    EXPECT_NE(SIG_DFL, Disposition(SIGTERM));
    CEndSignals::Restore(&later);
    EXPECT_EQ(SIG_DFL, Disposition(SIGTERM));
}

TEST_F(AnEndSignal, CountsWhenItCameBeforeTheWait)
{
    for (const int iSignal : {SIGTERM, SIGQUIT, CEndSignals::iMonitoringSignal()}) {
        raise(iSignal);
        EXPECT_EQ(iSignal, CEndSignals::iAwait(m_Awaited));
    }
}

TEST_F(AnEndSignal, LowersTheRunFlagBetweenTwoWaits)
{
    m_bRun = true;
    raise(CEndSignals::iMonitoringSignal());
    EXPECT_TRUE(m_bRun);
    raise(SIGTERM);
    EXPECT_FALSE(m_bRun);
}

TEST_F(AnEndSignal, PrecedesARequestForSupervision)
{
    raise(CEndSignals::iMonitoringSignal());
    raise(SIGTERM);
    EXPECT_EQ(SIGTERM, CEndSignals::iAwait(m_Awaited));
    EXPECT_EQ(CEndSignals::iMonitoringSignal(), CEndSignals::iAwait(m_Awaited));
}

TEST_F(AnEndSignal, KeepsErrno)
{
    errno = ENOTTY;
    raise(SIGTERM);
    EXPECT_EQ(ENOTTY, errno);
}

TEST_F(AnEndSignal, IsForgottenWithTheHandlers)
{
    raise(SIGTERM);
    raise(CEndSignals::iMonitoringSignal());
    CEndSignals::Restore(&m_bRun);
    CEndSignals::Install(&m_bRun);
    raise(SIGQUIT);
    EXPECT_EQ(SIGQUIT, CEndSignals::iAwait(m_Awaited));
}

TEST_F(AnEndSignal, EndsTheWait)
{
    const pthread_t waiter = pthread_self();
    for (int i = 0; i < 100; ++i) { // before the wait, as it begins, and in it
        const int iSignal = i % 2 == 0 ? SIGTERM : SIGQUIT;
        std::thread sender([=] {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 20));
            pthread_kill(waiter, iSignal);
        });
        EXPECT_EQ(iSignal, CEndSignals::iAwait(m_Awaited));
        sender.join();
    }
}

TEST_F(AnEndSignal, EndsTheWaitThroughAnotherThread)
{
    COpenThread other;
    for (int i = 0; i < 100; ++i) {
        std::thread sender([&other, i] {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 20));
            other.Signal(SIGTERM);
        });
        EXPECT_EQ(SIGTERM, CEndSignals::iAwait(m_Awaited));
        sender.join();
    }
}

TEST_F(AnEndSignal, CountsOnceThroughAnotherThread)
{
    COpenThread other;
    const int iMonitoring = CEndSignals::iMonitoringSignal();
    std::atomic<int> nSeen{0};
    std::thread sender([&] {
        for (int i = 0; i < 20; ++i) {
            other.Signal(iMonitoring);
            EXPECT_TRUE(bAwait([&] { return nSeen > i; }));
        }
        other.Signal(SIGTERM);
    });
    while (CEndSignals::iAwait(m_Awaited) == iMonitoring) {
        ++nSeen;
    }
    sender.join();
    EXPECT_EQ(20, nSeen);
}

/// The end of a child, of which its handler was told on a thread that does not wait at the moment.
class AChildsEnd : public AnEndSignal
{
protected:
    void SetUp() override
    {
        AnEndSignal::SetUp();
        signal(SIGCHLD, [](int) { CEndSignals::RecordChild(); });
        sigdelset(&m_Others, SIGCHLD); // so that the handler runs in the wait, too
    }
    void TearDown() override
    {
        signal(SIGCHLD, SIG_DFL);
        AnEndSignal::TearDown();
    }

    sigset_t m_Others = m_Awaited;
};

TEST_F(AChildsEnd, IsToldToTheThreadThatWaitsForIt)
{
    const CRepeatedSignal ends(SIGCHLD);
    EXPECT_EQ(SIGCHLD, CEndSignals::iAwait(m_Others));
}

TEST_F(AChildsEnd, IsNothingToAThreadThatDoesNotWait)
{
    raise(SIGCHLD);
    const pthread_t waiter = pthread_self();
    std::thread sender([=] { pthread_kill(waiter, SIGTERM); });
    EXPECT_EQ(SIGTERM, CEndSignals::iAwait(m_Others));
    sender.join();
    raise(SIGCHLD);
    raise(CEndSignals::iMonitoringSignal()); // recorded, but looked for before the ends of children
    EXPECT_EQ(CEndSignals::iMonitoringSignal(), CEndSignals::iAwait(m_Others));
}

TEST_F(AnEndSignal, IsNotTakenForAnyOther)
{
    signal(SIGUSR1, [](int) {});
    const pthread_t waiter = pthread_self();
    std::thread sender([=] {
        for (int i = 0; i < 20; ++i) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        pthread_kill(waiter, SIGTERM);
    });
    EXPECT_EQ(SIGTERM, CEndSignals::iAwait(m_Awaited));
    sender.join();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(AnEndSignal, LeavesNoPauseToBeMade)
{
    raise(SIGTERM);
    const auto start = std::chrono::steady_clock::now();
    CEndSignals::Pause(600);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(300));
}

TEST_F(AnEndSignal, CutsAPauseShort)
{
    const CRepeatedSignal asked(SIGTERM);
    CEndSignals::Pause(600);
}

TEST_F(AnEndSignal, IsPausedForWithoutAnySignal)
{
    const auto start = std::chrono::steady_clock::now();
    CEndSignals::Pause(1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

TEST_F(AnEndSignal, KillsAgainAfterTheEnd)
{
    const ChildResult result = RunInChild([this] {
        CEndSignals::Restore(&m_bRun);
        raise(SIGTERM);
        return 0;
    });
    EXPECT_EQ(SIGTERM, result.iSignal);
}
} // namespace
