// Elapsed time, on a clock that the test may set or break: the library calls it as here.
#include "libQuorCore/Chrono.h"

#include "libQuorCore/CThread.h"

#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using namespace TestSupport;

namespace
{
enum eClock { REAL, SET, BROKEN };
thread_local eClock t_clock = REAL;
thread_local timespec t_now = {};

/// A chronometer whose clock stands where the test puts it.
class AChrono : public ::testing::Test
{
protected:
    ~AChrono() override { t_clock = REAL; }

    static void SetClock(time_t iSeconds, long lNanoseconds)
    {
        t_clock = SET;
        t_now.tv_sec = iSeconds;
        t_now.tv_nsec = lNanoseconds;
    }

    static uint32_t ElapsedBetween(timespec reset, timespec now)
    {
        SetClock(reset.tv_sec, reset.tv_nsec);
        const Chrono chrono;
        SetClock(now.tv_sec, now.tv_nsec);
        return chrono.GetElapsedTime();
    }
};
} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* pTime) noexcept
{
    if (clock == CLOCK_MONOTONIC && t_clock == BROKEN) {
        errno = EINVAL;
        return -1;
    }
    if (clock == CLOCK_MONOTONIC && t_clock == SET) {
        *pTime = t_now;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, pTime));
}

TEST_F(AChrono, MeasuresTheTimeThatPasses)
{
    EXPECT_TRUE(bAwait([] { // as often as others have the processor in between
        const Chrono fresh;
        return fresh.GetElapsedTime() < 20;
    }));
    Chrono chrono;
    EXPECT_TRUE(bAwait([&] { return chrono.GetElapsedTime() >= 20; }));
    EXPECT_TRUE(bAwait([&] {
        chrono.Raz();
        return chrono.GetElapsedTime() < 20;
    }));
}

TEST_F(AChrono, IsAtZeroAfterAReset)
{
    EXPECT_EQ(0U, ElapsedBetween({5, 7}, {5, 7}));
}

TEST_F(AChrono, CutsNanosecondsTowardsZero)
{
    EXPECT_EQ(600U, ElapsedBetween({10, 500000000}, {11, 100000000}));
    EXPECT_EQ(2000U, ElapsedBetween({10, 999900000}, {12, 999500000}));
    EXPECT_EQ(1U, ElapsedBetween({10, 0}, {10, 1999999}));
}

TEST_F(AChrono, WrapsAfter49Days)
{
    EXPECT_EQ(4294967000U, ElapsedBetween({0, 0}, {4294967, 0}));
    EXPECT_EQ(704U, ElapsedBetween({0, 0}, {4294968, 0}));
    EXPECT_EQ(2147484000U, ElapsedBetween({0, 0}, {2147484, 0}));
}

TEST_F(AChrono, IsCopied)
{
    SetClock(100, 0);
    const Chrono chrono;
    SetClock(101, 0);
    Chrono copy(chrono);
    EXPECT_EQ(1000U, copy.GetElapsedTime());
    Chrono assigned;
    EXPECT_EQ(0U, assigned.GetElapsedTime());
    assigned = chrono;
    EXPECT_EQ(1000U, assigned.GetElapsedTime());
}

TEST_F(AChrono, LetsLoopsGoOnWithoutAClock)
{
    QuorCore::CThread::m_Logger.Init("chrono");
    SetClock(100, 0);
    Chrono chrono;
    CSyslogReceiver::Get().Clear();
    t_clock = BROKEN;
    EXPECT_EQ(1000U, chrono.GetElapsedTime());
    chrono.Raz();
    SetClock(103, 0);
    EXPECT_EQ(3000U, chrono.GetElapsedTime()) << "the former reset holds";
    t_clock = REAL;
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait("gettimeofday error: Invalid argument"));
    EXPECT_EQ(2U, CSyslogReceiver::Get().Count("gettimeofday error: Invalid argument"));
    for (const CSyslogReceiver::Record& record : CSyslogReceiver::Get().Records()) {
        EXPECT_EQ(LOG_ERR, record.iLevel);
        EXPECT_NE(std::string::npos, record.szText.find(" -- Chrono / ")) << record.szText;
    }
}
