#include "libQuorCore/synchro.h"

#include "libQuorCore/CThread.h"

#include "support/CSyslogReceiver.h"
#include "support/CWorker.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

// Some cases misuse a mutex to see how that is reported.
extern "C" const char* __tsan_default_options()
{
    return "report_mutex_bugs=0:report_destroy_locked=0";
}

namespace
{
using Clock = std::chrono::steady_clock;

long lSince(Clock::time_point start)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

/// @return Whether a call takes less than a second; made again while others had the processor.
template <class Call>
bool bWithinASecond(Call&& call)
{
    return bAwait([&] {
        const Clock::time_point start = Clock::now();
        call();
        return lSince(start) < 1000;
    });
}

/// Reads what the subject logs; the thread of the test logs all levels.
class ASynchroObject : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CThread::m_Logger.Init("synchro-test");
        CThread::m_Logger.SetLogConfigForThread("main", &m_iLevel);
        CThread::m_Logger.SetShowLine(false);
        m_Syslog.Clear();
    }
    void TearDown() override
    {
        CThread::m_Logger.CancelLogIdForThread();
        CThread::m_Logger.SetShowLine(true);
    }

    /// @return Level, function and text of each line since the last call.
    std::vector<std::string> Lines()
    {
        std::vector<std::string> lines;
        for (const CSyslogReceiver::Record& record : m_Syslog.Records()) {
            lines.push_back(std::to_string(record.iLevel) +
                            record.szText.substr(record.szText.find(')') + 1));
        }
        m_Syslog.Clear();
        return lines;
    }

    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
    int m_iLevel = LOG_DEBUG;
    CWorker m_Worker;
};

using Texts = std::vector<std::string>;

std::string szTryLockLine(int iResult)
{
    const std::string szSignature = "int QuorCore::CRecursiveLock::iTryLock(long int)";
    return "6 -- " + szSignature + " / " + szSignature +
           ": CRecursiveLock::iTryLock(), iReturn=" + std::to_string(iResult) + "\n";
}

class ARecursiveLock : public ASynchroObject
{
protected:
    void LockInWorker()
    {
        m_Worker.Run([this] { EXPECT_EQ(0, m_Lock.iLock()); });
    }
    void UnLockInWorker()
    {
        m_Worker.Run([this] { m_Lock.UnLock(); });
    }
    CRecursiveLock m_Lock;
};

TEST_F(ARecursiveLock, IsTakenAgainByItsHolderAndGivenBackAsOften)
{
    m_Worker.Run([this] {
        EXPECT_EQ(0, m_Lock.iLock());
        EXPECT_EQ(0, m_Lock.iTryLock(0));
        EXPECT_EQ(0, m_Lock.iTryLock(100));
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EBUSY, m_Lock.iTryLock(0));
        UnLockInWorker();
    }
    EXPECT_EQ(0, m_Lock.iTryLock(0));
    m_Lock.UnLock();
}

TEST_F(ARecursiveLock, WaitsUntilItIsFree)
{
    EXPECT_EQ(0, m_Lock.iLock());
    int iGuarded = 0;
    m_Worker.Start([&] {
        EXPECT_EQ(0, m_Lock.iLock());
        EXPECT_EQ(1, iGuarded);
        m_Lock.UnLock();
    });
    iGuarded = 1;
    m_Lock.UnLock();
    m_Worker.Finish();
}

TEST_F(ARecursiveLock, RefusesAtOnceWhenNoWaitIsAskedFor)
{
    LockInWorker();
    for (const long lMs : {0L, -1L, LONG_MIN}) {
        Texts expected;
        EXPECT_TRUE(bWithinASecond([&] {
            expected.push_back(szTryLockLine(EBUSY));
            EXPECT_EQ(EBUSY, m_Lock.iTryLock(lMs));
        }));
        EXPECT_EQ(expected, Lines());
    }
    UnLockInWorker();
}

TEST_F(ARecursiveLock, GivesUpWhenTheTimeIsOver)
{
    LockInWorker();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(ETIMEDOUT, m_Lock.iTryLock(250));
    EXPECT_LE(250, lSince(start));
    EXPECT_EQ(Texts{szTryLockLine(ETIMEDOUT)}, Lines());
    UnLockInWorker();
}

TEST_F(ARecursiveLock, WaitsSecondsToo)
{
    LockInWorker();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(ETIMEDOUT, m_Lock.iTryLock(1200));
    EXPECT_LE(1200, lSince(start));
    EXPECT_GT(kAwaitLimitMs, lSince(start));
    UnLockInWorker();
}

TEST_F(ARecursiveLock, IsTakenWhenItBecomesFreeInTime)
{
    for (const long lMs : {static_cast<long>(kAwaitLimitMs), LONG_MAX}) {
        LockInWorker();
        m_Worker.Start([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // so that main waits
            m_Lock.UnLock();
        });
        EXPECT_EQ(0, m_Lock.iTryLock(lMs));
        m_Lock.UnLock();
        m_Worker.Finish();
    }
    EXPECT_EQ(Texts{}, Lines());
}

class ASpinLock : public ASynchroObject
{
protected:
    CSpinLock m_Lock;
};

TEST_F(ASpinLock, KeepsOthersOut)
{
    long lCount = 0; // not atomic
    const auto countUp = [&] {
        for (int i = 0; i < 20000; ++i) {
            EXPECT_EQ(0, m_Lock.iLock());
            ++lCount;
            m_Lock.UnLock();
        }
    };
    m_Worker.Start(countUp);
    countUp();
    m_Worker.Finish();
    EXPECT_EQ(40000, lCount);
}

TEST_F(ASpinLock, IsTakenAtOnceWhenFree)
{
    EXPECT_EQ(0, m_Lock.iTryLock(0));
    m_Lock.UnLock();
    EXPECT_EQ(0, m_Lock.iTryLock(LONG_MIN));
    m_Lock.UnLock();
}

TEST_F(ASpinLock, TriesEvery10MsUntilTheTimeIsUsedUp)
{
    EXPECT_EQ(0, m_Lock.iLock());
    m_Worker.Run([this] {
        EXPECT_TRUE(bWithinASecond([this] {
            const Clock::time_point start = Clock::now();
            EXPECT_EQ(EBUSY, m_Lock.iTryLock(35)); // at 0, 10, 20, 30 ms, with a pause after each
            EXPECT_LE(40, lSince(start));
        }));
    });
    m_Lock.UnLock();
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(ASpinLock, PausesOnceEvenWhenNoTimeIsGiven)
{
    EXPECT_EQ(0, m_Lock.iLock());
    m_Worker.Run([this] {
        for (const long lMs : {10L, 0L, -1L, LONG_MIN}) {
            EXPECT_TRUE(bWithinASecond([this, lMs] {
                const Clock::time_point start = Clock::now();
                EXPECT_EQ(EBUSY, m_Lock.iTryLock(lMs));
                EXPECT_LE(10, lSince(start));
            }));
        }
    });
    m_Lock.UnLock();
}

TEST_F(ASpinLock, IsTakenWhenItBecomesFreeInTime)
{
    EXPECT_EQ(0, m_Lock.iLock());
    m_Worker.Start([this] {
        EXPECT_EQ(0, m_Lock.iTryLock(kAwaitLimitMs));
        m_Lock.UnLock();
    });
    m_Lock.UnLock();
    m_Worker.Finish();
}

/// With the field that tells whether the semaphore was created.
class COpenEvent : public CEvent
{
public:
    using CEvent::m_bInit;
};

COpenEvent* g_pSignalledEvent = nullptr;

class AnEvent : public ASynchroObject
{
protected:
    /// Has SIGUSR1 interrupt system calls, and set @p pEvent if there is one.
    void HandleSignal(COpenEvent* pEvent)
    {
        g_pSignalledEvent = pEvent;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            if (g_pSignalledEvent != nullptr) {
                g_pSignalledEvent->iSetEvent();
            }
        };
        sigaction(SIGUSR1, &action, nullptr);
    }
    COpenEvent m_Event;
};

TEST_F(AnEvent, CountsWhatIsSet)
{
    EXPECT_EQ(0, m_Event.iSetEvent());
    EXPECT_EQ(0, m_Event.iSetEvent());
    EXPECT_EQ(0, m_Event.iWaitForEvent(0));
    EXPECT_EQ(0, m_Event.iWaitForEvent(0));
    EXPECT_EQ(-7, m_Event.iWaitForEvent(0));
}

TEST_F(AnEvent, IsDrainedByAReset)
{
    for (int i = 0; i < 5; ++i) {
        m_Event.iSetEvent();
    }
    EXPECT_EQ(-1, m_Event.iResetEvent());
    EXPECT_EQ(-7, m_Event.iWaitForEvent(0));
    EXPECT_EQ(-1, m_Event.iResetEvent());
}

TEST_F(AnEvent, WakesWhoWaitsInAnyForm)
{
    for (const long lMs : {-1L, LONG_MIN, static_cast<long>(kAwaitLimitMs), LONG_MAX}) {
        m_Worker.Start([this, lMs] { EXPECT_EQ(0, m_Event.iWaitForEvent(lMs)); });
        EXPECT_EQ(0, m_Event.iSetEvent());
        m_Worker.Finish();
        EXPECT_EQ(-7, m_Event.iWaitForEvent(0)) << "the wait took its count";
    }
}

TEST_F(AnEvent, LetsOneWaitPassForEachCount)
{
    CWorker second;
    std::atomic<int> iPassed{0};
    const auto wait = [&] {
        EXPECT_EQ(0, m_Event.iWaitForEvent(-1));
        ++iPassed;
    };
    m_Worker.Start(wait);
    second.Start(wait);
    m_Event.iSetEvent();
    EXPECT_TRUE(bAwait([&] { return iPassed == 1; }));
    m_Event.iSetEvent();
    m_Worker.Finish();
    second.Finish();
    EXPECT_EQ(2, iPassed);
}

TEST_F(AnEvent, ShowsWhoWaitedWhatWasDoneBeforeItWasSet)
{
    long lDone = 0; // not atomic: the event orders the two threads
    m_Worker.Start([&] {
        for (long i = 1; i <= 1000; ++i) {
            EXPECT_EQ(0, m_Event.iWaitForEvent(kAwaitLimitMs));
            EXPECT_LE(i, __atomic_load_n(&lDone, __ATOMIC_RELAXED));
        }
        EXPECT_EQ(1000, lDone);
    });
    for (long i = 1; i <= 1000; ++i) {
        __atomic_store_n(&lDone, i, __ATOMIC_RELAXED);
        m_Event.iSetEvent();
    }
    m_Worker.Finish();
}

TEST_F(AnEvent, WaitsItsTimeWhateverSignalsCome)
{
    HandleSignal(nullptr);
    std::atomic<bool> bWaited{false};
    m_Worker.Start([&] {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(-7, m_Event.iWaitForEvent(1500));
        EXPECT_LE(1500, lSince(start));
        EXPECT_GT(kAwaitLimitMs, lSince(start));
        bWaited = true;
    });
    EXPECT_TRUE(bAwait([&] {
        pthread_kill(m_Worker.iId(), SIGUSR1);
        return bWaited.load();
    }));
    EXPECT_EQ(Texts{}, Lines()) << "a time that is over is no failure to log";
}

TEST_F(AnEvent, EndsAnUnlimitedWaitOnASignal)
{
    HandleSignal(nullptr);
    std::atomic<bool> bWaited{false};
    m_Worker.Start([&] {
        EXPECT_EQ(-1, m_Event.iWaitForEvent(-1));
        EXPECT_EQ(EINTR, errno);
        bWaited = true;
    });
    EXPECT_TRUE(bAwait([&] {
        pthread_kill(m_Worker.iId(), SIGUSR1);
        return bWaited.load();
    }));
}

TEST_F(AnEvent, MayBeSetInASignalHandler)
{
    HandleSignal(&m_Event);
    EXPECT_EQ(0, raise(SIGUSR1));
    EXPECT_EQ(0, m_Event.iWaitForEvent(0));
    EXPECT_EQ(-7, m_Event.iWaitForEvent(0));
}

TEST_F(AnEvent, RefusesToServeWithoutASemaphore)
{
    m_Event.iSetEvent();
    m_Event.m_bInit = false; // as after a failed creation
    EXPECT_EQ(-1, m_Event.iSetEvent());
    EXPECT_EQ(-1, m_Event.iWaitForEvent(0));
    EXPECT_EQ(-1, m_Event.iWaitForEvent(-1));
    EXPECT_EQ(-1, m_Event.iResetEvent()); // does not look at the flag: it drains what there is
    m_Event.m_bInit = true;
    EXPECT_EQ(-7, m_Event.iWaitForEvent(0));
}

/// Subject is CMutex; the raw mutex is one that tells its misuse.
class AMutex : public ASynchroObject
{
protected:
    void SetUp() override
    {
        ASynchroObject::SetUp();
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(&m_Checking, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void TearDown() override
    {
        pthread_mutex_destroy(&m_Checking);
        ASynchroObject::TearDown();
    }
    int iTryInWorker(pthread_mutex_t* pMutex)
    {
        int iResult = -1;
        m_Worker.Run([&] {
            iResult = pthread_mutex_trylock(pMutex);
            if (iResult == 0) {
                pthread_mutex_unlock(pMutex);
            }
        });
        return iResult;
    }
    pthread_mutex_t m_Checking{};
};

const char* const kLockFailed =
    "6 -- CMutex / static int QuorCore::CMutex::LockMutex(pthread_mutex_t*): "
    "Failed to lock mutex, err : 35\n";
const char* const kUnlockFailed =
    "6 -- CMutex / static int QuorCore::CMutex::UnlockMutex(pthread_mutex_t*): "
    "Failed to unlock mutex\n";

TEST_F(AMutex, HasALabel)
{
    EXPECT_EQ("Mutex", std::string(CMutex::m_szLabel));
}

TEST_F(AMutex, IsMadeLockedUnlockedAndDestroyed)
{
    pthread_mutex_t mutex;
    EXPECT_EQ(0L, CMutex::InitMutex(&mutex));
    EXPECT_EQ(0, CMutex::LockMutex(&mutex));
    EXPECT_EQ(EBUSY, iTryInWorker(&mutex));
    EXPECT_EQ(0, CMutex::UnlockMutex(&mutex));
    EXPECT_EQ(0, iTryInWorker(&mutex));
    bool bInitialized = true;
    CMutex::DestroyMutex(&mutex, bInitialized);
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(AMutex, ReportsThatAnInitialisedOneWasDestroyed)
{
    pthread_mutex_t mutex;
    bool bInitialized = false;
    EXPECT_EQ(0, CMutex::InitMutex(&mutex, bInitialized));
    EXPECT_TRUE(bInitialized);
    EXPECT_EQ(-601, CMutex::DestroyMutex(&mutex, bInitialized));
    EXPECT_FALSE(bInitialized);
    EXPECT_EQ(0, CMutex::DestroyMutex(&mutex, bInitialized)) << "there is none";
    EXPECT_FALSE(bInitialized);
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(AMutex, ReportsTheSameOfOneThatIsInUse)
{
    pthread_mutex_lock(&m_Checking);
    bool bInitialized = true;
    EXPECT_EQ(-601, CMutex::DestroyMutex(&m_Checking, bInitialized));
    EXPECT_FALSE(bInitialized);
    EXPECT_EQ(Texts{"6 -- CMutex / static int QuorCore::CMutex::DestroyMutex(pthread_mutex_t*, "
                    "bool&): Failed to destroy mutex, status=16\n"},
              Lines());
    pthread_mutex_unlock(&m_Checking);
}

TEST_F(AMutex, LogsThatItCannotBeLocked)
{
    EXPECT_EQ(0, CMutex::LockMutex(&m_Checking));
    EXPECT_EQ(-602, CMutex::LockMutex(&m_Checking));
    EXPECT_EQ(Texts{kLockFailed}, Lines());
    EXPECT_EQ(0, CMutex::UnlockMutex(&m_Checking));
}

TEST_F(AMutex, LogsThatItCannotBeUnlocked)
{
    EXPECT_EQ(-603, CMutex::UnlockMutex(&m_Checking));
    EXPECT_EQ(Texts{kUnlockFailed}, Lines());
}

TEST_F(AMutex, IsHeldForAScope)
{
    {
        const CMutex held(&m_Checking);
        EXPECT_EQ(EBUSY, iTryInWorker(&m_Checking));
    }
    EXPECT_EQ(0, iTryInWorker(&m_Checking));
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(AMutex, IsUnlockedByAGuardThatCouldNotLockIt)
{
    pthread_mutex_lock(&m_Checking);
    {
        const CMutex notHeld(&m_Checking);
        EXPECT_EQ(Texts{kLockFailed}, Lines());
    }
    EXPECT_EQ(0, iTryInWorker(&m_Checking)) << "the guard gave the former lock back";
    EXPECT_EQ(Texts{}, Lines());
    EXPECT_EQ(-603, CMutex::UnlockMutex(&m_Checking));
}

class AConditionVariable : public ASynchroObject
{
protected:
    CConditionVariable m_Condition;
};

TEST_F(AConditionVariable, HasALabel)
{
    EXPECT_EQ("ConditionVariable", std::string(CConditionVariable::m_szLabel));
}

TEST_F(AConditionVariable, DestroysNothingThatWasNeverInitialised)
{
    {
        const CConditionVariable unused;
    }
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(AConditionVariable, FailsBeforeItIsInitialised)
{
    EXPECT_EQ(-602, m_Condition.Lock());
    EXPECT_EQ(-603, m_Condition.Unlock());
    Lines();
    EXPECT_EQ(-613, m_Condition.Signal());
    EXPECT_EQ(-613, m_Condition.LockAndSignal());
    EXPECT_EQ((Texts(2, "2 -- int QuorCore::CConditionVariable::Signal() / "
                        "Failed to signal condition variable")),
              Lines());
    EXPECT_EQ(-612, m_Condition.Wait());
    EXPECT_EQ(-612, m_Condition.LockAndWait());
    EXPECT_EQ((Texts(2, "2 -- int QuorCore::CConditionVariable::Wait() / "
                        "Failed to wait for condition variable")),
              Lines());
}

TEST_F(AConditionVariable, StaysAsItIsWhenItIsInitialisedAgain)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    EXPECT_EQ(0, m_Condition.Lock());
    EXPECT_EQ(0, m_Condition.Initialize());
    m_Worker.Run([this] {
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(m_Condition.GetMutex())) << "still the locked one";
    });
    EXPECT_EQ(0, m_Condition.Unlock());
}

TEST_F(AConditionVariable, HasADefaultMutexOfItsOwn)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    EXPECT_EQ(0, m_Condition.Lock());
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(m_Condition.GetMutex())) << "not recursive";
    EXPECT_EQ(0, m_Condition.Unlock());
    EXPECT_EQ(0, pthread_mutex_trylock(m_Condition.GetMutex()));
    EXPECT_EQ(0, m_Condition.Unlock());
}

TEST_F(AConditionVariable, KeepsNoSignalForLater)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    EXPECT_EQ(0, m_Condition.Signal());
    EXPECT_EQ(0, m_Condition.LockAndSignal());
    EXPECT_EQ(0, pthread_mutex_trylock(m_Condition.GetMutex())) << "given back";
    m_Condition.Unlock();
}

TEST_F(AConditionVariable, WakesAWaiter)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    bool bReady = false; // guarded by the condition's mutex
    m_Worker.Start([&] {
        EXPECT_EQ(0, m_Condition.Lock());
        while (!bReady) {
            EXPECT_EQ(0, m_Condition.Wait());
        }
        EXPECT_EQ(0, m_Condition.Unlock());
    });
    EXPECT_EQ(0, m_Condition.Lock());
    bReady = true;
    EXPECT_EQ(0, m_Condition.Signal());
    EXPECT_EQ(0, m_Condition.Unlock());
    m_Worker.Finish();
    EXPECT_EQ(Texts{}, Lines());
}

TEST_F(AConditionVariable, WakesAWaiterWithItsLockTaken)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    std::atomic<bool> bWoken{false};
    m_Worker.Start([&] {
        EXPECT_EQ(0, m_Condition.LockAndWait());
        bWoken = true;
    });
    EXPECT_TRUE(bAwait([&] { // it may not wait yet
        EXPECT_EQ(0, m_Condition.LockAndSignal());
        return bWoken.load();
    }));
    m_Worker.Finish();
    EXPECT_EQ(0, pthread_mutex_trylock(m_Condition.GetMutex())) << "given back after the wait";
    m_Condition.Unlock();
}

TEST_F(AConditionVariable, GivesItsLockBackWhenAWaiterIsCancelled)
{
    EXPECT_EQ(0, m_Condition.Initialize());
    std::thread waiter([this] {
        for (;;) {
            m_Condition.LockAndWait();
        }
    });
    pthread_cancel(waiter.native_handle());
    waiter.join();
    EXPECT_EQ(0, pthread_mutex_trylock(m_Condition.GetMutex()));
    m_Condition.Unlock();
}
} // namespace
