#include "libQuorCore/CTimerManager.h"

#include "libQuorCore/CEventTimer.h"
#include "libQuorCore/CThread.h"

#include "support/CChild.h"
#include "support/CSyslogReceiver.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace
{
constexpr int kAmpleMs = 10000;

/// With its protected part open.
class COpenManager : public CTimerManager
{
public:
    using CTimerManager::m_fdRead;
    using CTimerManager::m_readFdMask;
    using CTimerManager::m_timeout;
};

class COpenTimer : public CEventTimer
{
public:
    using CEventTimer::m_iFd;
    using CEventTimer::m_Timer;
};

itimerspec AfterMs(long lMs)
{
    itimerspec spec = {};
    spec.it_value = ConvertMillisecondToTimeval(static_cast<int>(lMs));
    return spec;
}

class ATimerManager : public ::testing::Test
{
protected:
    ~ATimerManager() override
    {
        for (const int iFd : m_fds) {
            close(iFd);
        }
    }

    int iCreate(long lMs)
    {
        int iFd = -1;
        itimerspec spec = AfterMs(lMs);
        EXPECT_EQ(0, m_Manager.iCreateTimerFd(&iFd, spec));
        m_fds.push_back(iFd);
        return iFd;
    }

    static void RaiseDescriptorLimit()
    {
        rlimit many = {};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &many));
        many.rlim_cur = std::min<rlim_t>(many.rlim_max, 2000);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &many));
    }

    COpenManager m_Manager;
    std::vector<int> m_fds;
    int m_nReady = -1;
};

/// A timer that is removed from its manager before it goes.
class AnEventTimer : public ::testing::Test
{
protected:
    ~AnEventTimer() override { m_Manager.RemoveFd(m_Timer.m_iFd); }

    COpenManager m_Manager;
    COpenTimer m_Timer;
    int m_nReady = -1;
};
} // namespace

TEST(ATimeInMs, IsSecondsAndNanoseconds)
{
    const timespec time = ConvertMillisecondToTimeval(1500);
    EXPECT_EQ(1, time.tv_sec);
    EXPECT_EQ(500000000, time.tv_nsec);
    EXPECT_EQ(0, ConvertMillisecondToTimeval(0).tv_nsec);
    const timespec longest = ConvertMillisecondToTimeval(INT_MAX);
    EXPECT_EQ(2147483, longest.tv_sec);
    EXPECT_EQ(647000000, longest.tv_nsec);
    const timespec before = ConvertMillisecondToTimeval(-1500);
    EXPECT_EQ(-1, before.tv_sec);
    EXPECT_EQ(-500000000, before.tv_nsec);
}

TEST_F(ATimerManager, FindsNothingReadyBeforeItsFirstWait)
{
    for (const int iFd : {-1, 0, 1, 1023, 1024, 100000}) {
        EXPECT_FALSE(m_Manager.IsReady(iFd)) << iFd;
    }
}

TEST_F(ATimerManager, SleepsWithoutTimers)
{
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_Manager.iSelect(1500, &m_nReady));
    EXPECT_GE(Clock::now() - start, milliseconds(1500));
    EXPECT_EQ(0, m_nReady);
    EXPECT_EQ(1, m_Manager.m_timeout.tv_sec);
    EXPECT_EQ(500000000, m_Manager.m_timeout.tv_nsec);
}

TEST_F(ATimerManager, WaitsForTheTimerThatFiresFirst)
{
    const int iSlow = iCreate(60000);
    const Clock::time_point start = Clock::now();
    const int iFast = iCreate(20);
    EXPECT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_GE(Clock::now() - start, milliseconds(20));
    EXPECT_EQ(1, m_nReady);
    EXPECT_TRUE(m_Manager.IsReady(iFast));
    EXPECT_FALSE(m_Manager.IsReady(iSlow));
    EXPECT_EQ(FD_CLOEXEC, fcntl(iFast, F_GETFD));
}

TEST_F(ATimerManager, CountsOnAClockThatNobodySets)
{
    const std::string szFacts = szReadFile("/proc/self/fdinfo/" + std::to_string(iCreate(60000)));
    EXPECT_NE(std::string::npos, szFacts.find("clockid: " + std::to_string(CLOCK_MONOTONIC) + "\n"))
        << szFacts;
}

TEST_F(ATimerManager, WaitsForHundredsOfTimersAtOnce)
{
    RaiseDescriptorLimit();
    int iFast = -1;
    while (iFast < FD_SETSIZE - 1) { // up to the last that the mask can name
        iFast = iCreate(60000);
    }
    const itimerspec soon = AfterMs(20);
    ASSERT_EQ(0, timerfd_settime(iFast, 0, &soon, nullptr));
    EXPECT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_EQ(1, m_nReady);
    for (const int iFd : m_fds) {
        EXPECT_EQ(iFd == iFast, m_Manager.IsReady(iFd)) << iFd;
    }
}

TEST_F(ATimerManager, WaitsNoLongerForWhatWasRemoved)
{
    const int iFd = iCreate(1);
    m_Manager.RemoveFd(iFd);
    EXPECT_EQ(0, m_Manager.iSelect(50, &m_nReady));
    EXPECT_EQ(0, m_nReady);
    EXPECT_FALSE(m_Manager.IsReady(iFd));
    EXPECT_NE(-1, fcntl(iFd, F_GETFD)) << "it stays open";
}

TEST_F(ATimerManager, LogsTheRemovalOfAnUnknownDescriptor)
{
    CThread::m_Logger.Init("timers");
    CSyslogReceiver::Get().Clear();
    iCreate(1000);
    m_Manager.RemoveFd(12345);
    ASSERT_TRUE(
        CSyslogReceiver::Get().bAwait("Cannot remove fd 12345 (read): no such file descriptor"));
    EXPECT_NE(std::string::npos, CSyslogReceiver::Get().Records()[0].szText.find("componentName"));
    EXPECT_EQ(LOG_ERR, CSyslogReceiver::Get().Records()[0].iLevel);
    EXPECT_EQ(1U, m_Manager.m_fdRead.size());
}

TEST_F(ATimerManager, FindsNothingReadyWhenASignalEndsItsWait)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGALRM, &action, nullptr)); // without SA_RESTART
    const int iFd = iCreate(60000);
    itimerval often = {}; // the first signal may come before the wait
    often.it_value.tv_usec = 50000;
    often.it_interval.tv_usec = 50000;
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
    EXPECT_EQ(EINTR, m_Manager.iSelect(kAmpleMs, &m_nReady));
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(-1, m_nReady);
    EXPECT_FALSE(m_Manager.IsReady(iFd)) << "whoever asks its timer would wait a minute";
}

TEST_F(ATimerManager, RefusesANegativeTime)
{
    const int iFd = iCreate(1);
    EXPECT_EQ(EINVAL, m_Manager.iSelect(-1, &m_nReady));
    EXPECT_EQ(-1, m_nReady);
    EXPECT_FALSE(m_Manager.IsReady(iFd));
}

TEST_F(ATimerManager, ReportsATimerThatCannotBeArmed)
{
    int iFd = -1;
    itimerspec spec = {};
    spec.it_value.tv_nsec = 1000000000; // one too many
    EXPECT_EQ(EINVAL, m_Manager.iCreateTimerFd(&iFd, spec));
    EXPECT_NE(-1, fcntl(iFd, F_GETFD)) << "open, and the caller's";
    EXPECT_TRUE(m_Manager.m_fdRead.empty());
    m_fds.push_back(iFd);
}

TEST_F(ATimerManager, ReportsThatThereAreNoDescriptors)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizers want descriptors of their own";
    }
    const ChildResult result = RunInChild([this] {
        rlimit none = {};
        setrlimit(RLIMIT_NOFILE, &none);
        int iFd = 0;
        itimerspec spec = AfterMs(1);
        const long lResult = m_Manager.iCreateTimerFd(&iFd, spec);
        return lResult == EMFILE && iFd == -1 && m_Manager.m_fdRead.empty() ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ATimerManager, LeavesOutDescriptorsThatTheMaskCannotName)
{
    RaiseDescriptorLimit();
    const int iHigh = fcntl(iCreate(1), F_DUPFD_CLOEXEC, 1024);
    ASSERT_GE(iHigh, 1024);
    m_fds.push_back(iHigh);
    m_Manager.RemoveFd(m_fds.front());
    m_Manager.m_fdRead.insert(iHigh);
    EXPECT_EQ(0, m_Manager.iSelect(50, &m_nReady));
    EXPECT_EQ(0, m_nReady);
    EXPECT_FALSE(m_Manager.IsReady(iHigh));
    EXPECT_EQ(50000000, m_Manager.m_timeout.tv_nsec) << "nothing beyond the mask was written";
}

TEST_F(AnEventTimer, HasNoDescriptorUntilItIsSet)
{
    EXPECT_EQ(0, m_Timer.iGetFd());
    EXPECT_FALSE(m_Timer.bIsReady(m_Manager));
    m_Timer.SetValue(m_Manager, 60, 30);
    EXPECT_GT(m_Timer.iGetFd(), 0);
    EXPECT_EQ(1U, m_Manager.m_fdRead.count(m_Timer.iGetFd()));
    EXPECT_EQ(60, m_Timer.m_Timer.it_value.tv_sec);
    EXPECT_EQ(30, m_Timer.m_Timer.it_interval.tv_sec);
    itimerspec armed = {};
    ASSERT_EQ(0, timerfd_gettime(m_Timer.iGetFd(), &armed));
    EXPECT_EQ(30, armed.it_interval.tv_sec);
    EXPECT_GT(armed.it_value.tv_sec, 30); // which has begun to pass
}

TEST_F(AnEventTimer, IsReadyOnceInEachPeriod)
{
    const Clock::time_point start = Clock::now();
    m_Timer.SetValue(m_Manager, 1, 1);
    for (int i = 1; i <= 2; ++i) {
        ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
        EXPECT_EQ(1, m_nReady);
        EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
        EXPECT_GE(Clock::now() - start, milliseconds(1000 * i));
    }
    EXPECT_EQ(0, m_Manager.iSelect(0, &m_nReady));
    const bool bAgain = m_Timer.bIsReady(m_Manager);
    EXPECT_TRUE(!bAgain || Clock::now() - start >= milliseconds(3000)); // on a slow machine
}

TEST_F(AnEventTimer, TellsOnceOfSeveralExpiries)
{
    m_Timer.SetValue(m_Manager, 1, 1);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    itimerspec fast = {};
    fast.it_value.tv_nsec = 1000000;
    fast.it_interval.tv_nsec = 1000000;
    ASSERT_EQ(0, timerfd_settime(m_Timer.iGetFd(), 0, &fast, nullptr));
    const timespec pause = ConvertMillisecondToTimeval(20);
    nanosleep(&pause, nullptr); // some twenty expiries
    const itimerspec off = {};
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    ASSERT_EQ(0, timerfd_settime(m_Timer.iGetFd(), 0, &off, nullptr));
    ASSERT_EQ(0, m_Manager.iSelect(0, &m_nReady));
    EXPECT_FALSE(m_Timer.bIsReady(m_Manager));
}

TEST_F(AnEventTimer, WaitsForTheNextExpiryWhenAskedTwice)
{
    const Clock::time_point start = Clock::now();
    m_Timer.SetValue(m_Manager, 1, 1);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    EXPECT_GE(Clock::now() - start, milliseconds(2000));
}

TEST_F(AnEventTimer, WaitsForTheNextExpiryWhateverSignalsCome)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGALRM, &action, nullptr)); // without SA_RESTART
    m_Timer.SetValue(m_Manager, 1, 1);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    itimerval often = {};
    often.it_value.tv_usec = 50000;
    often.it_interval.tv_usec = 50000;
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
}

TEST_F(AnEventTimer, IsNotReadyWhenItWasDisarmedAfterTheWait)
{
    m_Timer.SetValue(m_Manager, 1, 1);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    m_Timer.SetValue(m_Manager, 0, 0); // by the owner of another timer that was ready, too
    EXPECT_TRUE(m_Manager.IsReady(m_Timer.iGetFd()));
    EXPECT_FALSE(m_Timer.bIsReady(m_Manager)); // else for ever
}

TEST_F(AnEventTimer, ThatFiresOnceIsNotReadyWhenAskedTwice)
{
    m_Timer.SetValue(m_Manager, 1, 0);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    EXPECT_FALSE(m_Timer.bIsReady(m_Manager)); // else for ever
}

TEST_F(AnEventTimer, WaitsForTheNextExpiryWhenItWasSetAnewAfterTheWait)
{
    m_Timer.SetValue(m_Manager, 1, 0);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    const Clock::time_point start = Clock::now();
    m_Timer.SetValue(m_Manager, 1, 0);
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
}

TEST_F(AnEventTimer, TakesNoNegativeTime)
{
    m_Timer.SetValue(m_Manager, -1, 1);
    EXPECT_GT(m_Timer.iGetFd(), 0) << "it is created, and not waited for";
    EXPECT_TRUE(m_Manager.m_fdRead.empty());
    m_Timer.SetValue(m_Manager, 1, -1);
    EXPECT_EQ(0, m_Manager.iSelect(0, &m_nReady));
    EXPECT_FALSE(m_Timer.bIsReady(m_Manager));
    m_Manager.m_fdRead.insert(m_Timer.iGetFd()); // for the end of the test
}

TEST_F(ATimerManager, HasNoTimerThatOnceFoundNoDescriptor)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizers want descriptors of their own";
    }
    const ChildResult result = RunInChild([this] {
        COpenTimer timer;
        rlimit former = {};
        getrlimit(RLIMIT_NOFILE, &former);
        rlimit none = former;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
        timer.SetValue(m_Manager, 1, 1);
        setrlimit(RLIMIT_NOFILE, &former);
        timer.SetValue(m_Manager, 1, 1); // is not tried again
        return timer.iGetFd() == -1 && m_Manager.m_fdRead.empty() && !timer.bIsReady(m_Manager) ? 0
                                                                                                : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AnEventTimer, FiresOnceWithoutAnInterval)
{
    m_Timer.SetValue(m_Manager, 1, 0);
    ASSERT_EQ(0, m_Manager.iSelect(kAmpleMs, &m_nReady));
    EXPECT_TRUE(m_Timer.bIsReady(m_Manager));
    itimerspec armed = {};
    ASSERT_EQ(0, timerfd_gettime(m_Timer.iGetFd(), &armed));
    EXPECT_EQ(0, armed.it_value.tv_sec + armed.it_value.tv_nsec) << "it is disarmed";
}

TEST_F(AnEventTimer, IsSetAnewOnTheSameDescriptor)
{
    m_Timer.SetValue(m_Manager, 60, 0);
    const int iFd = m_Timer.iGetFd();
    m_Timer.SetValue(m_Manager, 0, 5); // disarms it
    EXPECT_EQ(iFd, m_Timer.iGetFd());
    itimerspec armed = {};
    ASSERT_EQ(0, timerfd_gettime(iFd, &armed));
    EXPECT_EQ(0, armed.it_value.tv_sec + armed.it_value.tv_nsec);
    EXPECT_EQ(1U, m_Manager.m_fdRead.size());
}

TEST(AnEndedEventTimer, ClosesItsDescriptor)
{
    CTimerManager manager;
    const size_t nBefore = nOpenDescriptors();
    {
        CEventTimer timer;
        timer.SetValue(manager, 60, 0);
        EXPECT_EQ(nBefore + 1, nOpenDescriptors());
        manager.RemoveFd(timer.iGetFd());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST(AnEndedEventTimer, ClosesDescriptor0WhenItWasNeverSet)
{
    const ChildResult result = RunInChild([] {
        {
            const CEventTimer timer;
        }
        return fcntl(0, F_GETFD) == -1 && errno == EBADF ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}
