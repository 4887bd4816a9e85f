// The real-time clock of a device is set while its daemons run, by hours at the first contact with
// the network. What waits or measures must not notice. On a board of our own only: the clock is the
// whole machine's.
#include "libQuorCore/CEventTimer.h"
#include "libQuorCore/CTimerManager.h"
#include "libQuorCore/Chrono.h"
#include "libQuorCore/synchro.h"

#include "support/CBoard.h"
#include "support/CTestThread.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr time_t kHour = 3600;
constexpr long kWaitMs = 1500;
constexpr int kFarFromMs = 20000; // an hour on the real-time clock is farther
constexpr int kEarlyMs = 20;      // clocks tick in steps

/// The jump of the clock in s, made a moment after a wait has begun.
class AJumpOfTheClock : public ::testing::TestWithParam<int>
{
protected:
    void SetUp() override
    {
        QUORCORE_NEEDS_A_BOARD();
        timespec now = {};
        ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &now));
        m_RealAtStart = now.tv_sec;
    }
    void TearDown() override
    {
        if (m_Jumper.joinable()) {
            m_Jumper.join();
        }
        if (m_RealAtStart != 0) { // for the programs that come after this one
            Jump(-m_iJumped);
        }
    }

    /// Sets the clock from another thread, as soon as this one is well in its wait.
    void JumpSoon()
    {
        m_Jumper = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs / 3));
            Jump(GetParam());
        });
    }

    void Jump(int iSeconds)
    {
        timespec now = {};
        ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &now));
        now.tv_sec += iSeconds;
        ASSERT_EQ(0, clock_settime(CLOCK_REALTIME, &now));
        m_iJumped += iSeconds;
    }

    /// The wait that began with the watch took its time, and the clock was set within it.
    void ExpectWaited(const CStopwatch& watch, long lMs)
    {
        const auto iElapsedMs = watch.iElapsedMs();
        m_Jumper.join();
        EXPECT_GE(iElapsedMs, lMs - kEarlyMs);
        EXPECT_LT(iElapsedMs, kFarFromMs);
        timespec now = {};
        ASSERT_EQ(0, clock_gettime(CLOCK_REALTIME, &now));
        EXPECT_GT(std::labs(now.tv_sec - m_RealAtStart), kHour / 2) << "it was set";
    }

private:
    std::thread m_Jumper;
    time_t m_RealAtStart = 0;
    int m_iJumped = 0;
};

INSTANTIATE_TEST_SUITE_P(ForwardAndBack, AJumpOfTheClock, ::testing::Values(kHour, -kHour));
} // namespace

TEST_P(AJumpOfTheClock, NeitherEndsNorStretchesTheWaitForAnEvent)
{
    CEvent event;
    const CStopwatch watch;
    JumpSoon();
    EXPECT_EQ(kTimedOut, event.iWaitForEvent(kWaitMs));
    ExpectWaited(watch, kWaitMs);
}

TEST_P(AJumpOfTheClock, NeitherEndsNorStretchesTheWaitForALock)
{
    CRecursiveLock lock;
    CDoor held;
    CDoor done;
    std::thread holder([&] {
        lock.iLock();
        held.Open();
        done.bPass();
        lock.UnLock();
    });
    ASSERT_TRUE(held.bPass());
    const CStopwatch watch;
    JumpSoon();
    EXPECT_EQ(ETIMEDOUT, lock.iTryLock(kWaitMs));
    ExpectWaited(watch, kWaitMs);
    done.Open();
    holder.join();
}

TEST_P(AJumpOfTheClock, CancelsNoThreadThatIsAboutToEnd)
{
    CTestThread thread([](CTestThread& self) -> long {
        self.m_bRun = true;
        while (self.m_bRun) {
            usleep(1000);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs)); // what it has yet to do
        return 0;
    });
    std::atomic<bool> bEnded{false};
    thread.m_exit = [&](CTestThread&) { return bEnded = true, 0L; };
    ASSERT_EQ(0, thread.iCreateThread(true, kAwaitLimitMs));
    const CStopwatch watch;
    JumpSoon();
    EXPECT_EQ(0, thread.iStop(true, false));
    ExpectWaited(watch, kWaitMs);
    EXPECT_TRUE(bEnded);
}

TEST_P(AJumpOfTheClock, NeitherFiresNorDelaysATimer)
{
    CTimerManager manager;
    CEventTimer timer;
    timer.SetValue(manager, 2, 0);
    const CStopwatch watch;
    JumpSoon();
    int nReady = -1;
    EXPECT_EQ(0, manager.iSelect(kFarFromMs, &nReady));
    EXPECT_EQ(1, nReady);
    EXPECT_TRUE(timer.bIsReady(manager));
    ExpectWaited(watch, 2000);
    manager.RemoveFd(timer.iGetFd());
}

TEST_P(AJumpOfTheClock, NeitherEndsNorStretchesTheTimeoutOfTheTimers)
{
    CTimerManager manager;
    const CStopwatch watch;
    JumpSoon();
    int nReady = -1;
    EXPECT_EQ(0, manager.iSelect(kWaitMs, &nReady));
    EXPECT_EQ(0, nReady);
    ExpectWaited(watch, kWaitMs);
}

TEST_P(AJumpOfTheClock, IsNoTimeOnTheChronometer)
{
    const Chrono chrono;
    const CStopwatch watch;
    JumpSoon();
    std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
    ExpectWaited(watch, kWaitMs);
    EXPECT_GE(chrono.GetElapsedTime(), static_cast<uint32_t>(kWaitMs - kEarlyMs));
    EXPECT_LT(chrono.GetElapsedTime(), static_cast<uint32_t>(kFarFromMs));
}
