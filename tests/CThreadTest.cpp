#include "libQuorCore/CThread.h"

#include "libQuorCore/CSlotCallback.h"
#include "libQuorCore/CSlotCallbackManager.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTestThread.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"
#include "support/VirtualSlot.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <syslog.h>
#include <thread>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kFarFromMs = 5000; // what must not take the 10 s of a join that fails

/// Looks at all that the calling thread logs.
class CLoudLogger
{
public:
    CLoudLogger() { m_Syslog.Clear(); }

    /// @return Number of lines of this level that end in this text.
    size_t Count(int iLevel, const std::string& szText)
    {
        size_t nFound = 0;
        for (const CSyslogReceiver::Record& record : m_Syslog.Records()) {
            const std::string& szLine = record.szText;
            if (record.iLevel == iLevel && szLine.size() >= szText.size() &&
                szLine.compare(szLine.size() - szText.size(), szText.size(), szText) == 0) {
                ++nFound;
            }
        }
        return nFound;
    }

    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();

private:
    CLogLevel m_logLevel;
};

class AThread : public ::testing::Test
{
protected:
    void Start() { ASSERT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs)); }

    /// @return Whether the logger has an entry for a thread of this label.
    static bool bIsRegistered(const std::string& szLabel)
    {
        std::string szPage;
        CThread::m_Logger.iGetLogConfigHtml(szPage, "");
        return szPage.find("<td>" + szLabel + "</td>") != std::string::npos;
    }

    const size_t m_nThreads = nThreadsAtRest();
    CLoudLogger m_Log;
    CTestThread m_Thread;
};

// --- The object ---

TEST_F(AThread, IsCreatedWithoutOne)
{
    EXPECT_FALSE(m_Thread.bIsRunning());
    EXPECT_FALSE(m_Thread.bIsStarted());
    EXPECT_FALSE(m_Thread.m_bRun);
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
    EXPECT_EQ(3, *m_Thread.piGetLogLevel());
    EXPECT_FALSE(m_Thread.bIsAutoDelete());
    EXPECT_EQ("worker", m_Thread.szGetLabel());
    EXPECT_EQ(-1, m_Thread.iMonitoring());
    const pthread_attr_t zero = {};
    EXPECT_EQ(0, std::memcmp(&zero, &m_Thread.m_pthreadAttr, sizeof(zero)));
}

TEST_F(AThread, CountsTheObjectsEverConstructed)
{
    const int iBefore = CTestThread::m_iNum;
    {
        CTestThread first;
        CTestThread second;
        EXPECT_EQ(iBefore + 2, CTestThread::m_iNum);
    }
    EXPECT_EQ(iBefore + 2, CTestThread::m_iNum);
}

TEST_F(AThread, HasItsVirtualFunctionsWhereBinariesExpectThem)
{
    EXPECT_EQ(9, lVirtualSlot(&CThread::iLogError)); // behind those of CObject
    EXPECT_EQ(10, lVirtualSlot(&CThread::iStop));
    EXPECT_EQ(11, lVirtualSlot(&CThread::iMonitoring));
    EXPECT_EQ(12, lVirtualSlot(&CThread::iRunThread));
    EXPECT_EQ(13, lVirtualSlot(&CThread::iInitInstance));
    EXPECT_EQ(14, lVirtualSlot(&CThread::iExitInstance));
}

TEST_F(AThread, KeepsItsSettings)
{
    m_Thread.SetLogLevel(6);
    EXPECT_EQ(6, *m_Thread.piGetLogLevel());
    m_Thread.SetAutoDelete(true);
    EXPECT_TRUE(m_Thread.bIsAutoDelete());
    m_Thread.SetAutoDelete(false);
    EXPECT_FALSE(m_Thread.bIsAutoDelete());
    m_Thread.m_threadId = pthread_self();
    EXPECT_TRUE(m_Thread.bIsRunning());
    EXPECT_FALSE(m_Thread.bIsStarted());
    m_Thread.ResetThreadId();
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
}

TEST_F(AThread, LocksItself)
{
    EXPECT_EQ(0, m_Thread.iLock());
    EXPECT_EQ(0, m_Thread.iLock());
    std::thread([this] { EXPECT_EQ(EBUSY, m_Thread.m_RecursiveLock.iTryLock(0)); }).join();
    m_Thread.UnLock();
    m_Thread.UnLock();
    std::thread([this] {
        EXPECT_EQ(0, m_Thread.m_RecursiveLock.iTryLock(0));
        m_Thread.UnLock();
    }).join();
}

TEST_F(AThread, LogsAnErrorNumber)
{
    EXPECT_EQ(EACCES, m_Thread.iLogError(EACCES));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error = Permission denied"));
}

TEST_F(AThread, ForwardsItsCallbacksToItsMap)
{
    struct CNote : CInvokeCallback {
        explicit CNote(int& nCalls) : m_nCalls(nCalls) {}
        ~CNote() override { m_nCalls += 100; }
        void invoke(void*) const override { ++m_nCalls; }
        int& m_nCalls;
    };
    int nCalls = 0;
    CInvokeCallback* const pFirst = m_Thread.pAddCallback(1, new CNote(nCalls));
    m_Thread.pAddCallback(2, new CNote(nCalls));
    m_Thread.pAddCallback(3, new CNote(nCalls));
    EXPECT_EQ(0, m_Thread.m_CallbackMap.iDispatchMessage(1, nullptr));
    EXPECT_EQ(1, nCalls);
    m_Thread.RemoveCallback(pFirst);
    EXPECT_EQ(101, nCalls);
    m_Thread.RemoveEvent(2);
    EXPECT_EQ(201, nCalls);
    m_Thread.RemoveAllCallback();
    EXPECT_EQ(301, nCalls);
}

// --- Start ---

TEST_F(AThread, RunsItsHooksInOrderOnAThreadOfItsOwn)
{
    std::string szOrder;
    bool bOther = true;
    const pthread_t creator = pthread_self();
    const auto note = [&](char cHook) {
        szOrder += cHook;
        bOther = bOther && pthread_equal(creator, pthread_self()) == 0 &&
                 pthread_equal(m_Thread.iGetThreadId(), pthread_self()) != 0;
        return 0L;
    };
    m_Thread.m_init = [&](CTestThread&) { return note('i'); };
    m_Thread.m_body = [&](CTestThread& self) {
        note('r');
        return self.lLoop();
    };
    m_Thread.m_exit = [&](CTestThread&) { return note('e'); };
    Start();
    EXPECT_TRUE(m_Thread.bIsStarted());
    EXPECT_EQ(0, m_Thread.iMonitoring());
    EXPECT_EQ(0, m_Thread.iStop(true, false));
    EXPECT_EQ("ire", szOrder);
    EXPECT_TRUE(bOther);
    EXPECT_FALSE(m_Thread.bIsRunning());
}

TEST_F(AThread, DoesNotWaitForItsStartUnlessAskedTo)
{
    for (const bool bWait : {false, true}) {
        CDoor mayStart;
        m_Thread.m_init = [&](CTestThread&) { return mayStart.bPass() ? 0 : -1; };
        EXPECT_EQ(0, m_Thread.iCreateThread(bWait, bWait ? 0 : kAwaitLimitMs));
        EXPECT_TRUE(m_Thread.bIsRunning());
        EXPECT_FALSE(m_Thread.bIsStarted());
        mayStart.Open();
        EXPECT_TRUE(bAwait([this] { return m_Thread.bIsStarted(); }));
        m_Thread.iStop(true, false);
    }
}

TEST_F(AThread, LogsASecondStartAndStaysAsItIs)
{
    Start();
    const pthread_t thread = m_Thread.iGetThreadId();
    EXPECT_EQ(0, m_Thread.iCreateThread(true, 10));
    EXPECT_EQ(1U, m_Log.Count(LOG_INFO, "is Running ? = 1"));
    EXPECT_TRUE(pthread_equal(thread, m_Thread.iGetThreadId()));
    EXPECT_EQ(m_nThreads + 1, nThreads());
    m_Thread.m_bRun = false;
    EXPECT_EQ(0, m_Thread.iCreateThread(true, 10)); // not stopped yet: the same
    EXPECT_EQ(1U, m_Log.Count(LOG_INFO, "is Running ? = 0"));
}

TEST_F(AThread, GivesUpABodyThatDoesNotRaiseItsFlagInTime)
{
    struct CNeverRaises : CThread {
        using CThread::CThread;
        ~CNeverRaises() override { iStop(true, false); }
        long iRunThread() override { return m_stopped.bPass() ? 0 : -1; }
        long iStop(bool bJoin, bool bCancel) override
        {
            m_szStops += bJoin ? "join" : "-";
            m_szStops += bCancel ? "cancel " : "- ";
            m_stopped.Open();
            return CThread::iStop(bJoin, bCancel);
        }
        CDoor m_stopped;
        std::string m_szStops;
    } thread(nullptr, "late");
    const CStopwatch time;
    EXPECT_EQ(-1, thread.iCreateThread(true, 25));
    EXPECT_GE(time.iElapsedMs(), 25);
    EXPECT_EQ("join- ", thread.m_szStops);
    EXPECT_EQ(0U, thread.iGetThreadId());
    EXPECT_EQ(1U, m_Log.Count(LOG_CRIT, "error: !bIsRunning() >  1000ms"));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error: Unknown error -1"));
}

TEST_F(AThread, EndsTheWaitForItsStartWhenItEndsWithoutOne)
{
    m_Thread.m_init = [](CTestThread&) { return 1L; };
    const CStopwatch time;
    EXPECT_EQ(-1, m_Thread.iCreateThread(true, kAwaitLimitMs));
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
    EXPECT_FALSE(m_Thread.bIsRunning());
}

TEST_F(AThread, CountsAStartThatWasOverBeforeAnybodyLooked)
{
    m_Thread.m_body = [](CTestThread& self) {
        self.m_bRun = true;
        self.m_bRun = false;
        return 0L;
    };
    EXPECT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
}

TEST_F(AThread, ReservesTwentyMebibytesOfStackBehindAPageOfGuard)
{
    size_t iStack = 0;
    size_t iGuard = 0;
    int iDetached = -1;
    m_Thread.m_body = [&](CTestThread& self) {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &iStack);
        pthread_attr_getguardsize(&attributes, &iGuard);
        pthread_attr_getdetachstate(&attributes, &iDetached);
        pthread_attr_destroy(&attributes);
        return self.lLoop();
    };
    Start();
    EXPECT_EQ(0x1400000U, iStack);
    EXPECT_EQ(static_cast<size_t>(sysconf(_SC_PAGESIZE)), iGuard);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, iDetached);
}

TEST_F(AThread, RunsWithEverySignalBlockedButTheFaults)
{
    sigset_t ofCreator;
    sigset_t ofThread;
    m_Thread.m_body = [&](CTestThread& self) {
        pthread_sigmask(SIG_BLOCK, nullptr, &ofThread);
        return self.lLoop();
    };
    Start();
    pthread_sigmask(SIG_BLOCK, nullptr, &ofCreator);
    for (const int iSignal : {SIGCHLD, SIGTERM, SIGQUIT, SIGINT, SIGHUP, SIGALRM, SIGUSR1, SIGPIPE,
                              SIGRTMIN, SIGRTMIN + 6, SIGRTMAX}) {
        EXPECT_EQ(1, sigismember(&ofThread, iSignal)) << iSignal;
        EXPECT_EQ(0, sigismember(&ofCreator, iSignal)) << iSignal;
    }
    for (const int iSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        EXPECT_EQ(0, sigismember(&ofThread, iSignal)) << iSignal;
    }
}

TEST_F(AThread, IsCancelledAsynchronouslyInItsBodyOnly)
{
    std::array<int, 3> aTypes = {-1, -1, -1};
    const auto iType = [] {
        int iFormer = 0;
        int iIgnored = 0;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &iFormer);
        pthread_setcanceltype(iFormer, &iIgnored);
        return iFormer;
    };
    m_Thread.m_init = [&](CTestThread&) { return aTypes[0] = iType(), 0L; };
    m_Thread.m_body = [&](CTestThread& self) {
        aTypes[1] = iType();
        return self.lLoop();
    };
    m_Thread.m_exit = [&](CTestThread&) { return aTypes[2] = iType(), 0L; };
    Start();
    m_Thread.iStop(true, false);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, aTypes[0]);
    EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, aTypes[1]);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, aTypes[2]);
}

TEST_F(AThread, StaysDeferredWhenItsBodyDeferredItsCancellation)
{
    int iType = -1;
    m_Thread.m_body = [&](CTestThread& self) {
        int iIgnored = 0;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &iIgnored);
        self.iPostMessage(1, 0, 0, nullptr, 0, 0); // each call of the library defers it, too
        self.Sleep(1);
        QUORCORE_LOG(LOG_ERR, "a line");
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &iType);
        return self.lLoop();
    };
    Start();
    m_Thread.iStop(true, false);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, iType);
}

TEST_F(AThread, ReportsThatTheSystemHasNoRoomForIt)
{
    const ChildResult result = RunInChild([] {
        CLoudLogger log;
        if (geteuid() == 0 && setuid(54321) != 0) { // the limit does not bind root
            return 1;
        }
        const rlimit limit = {0, 0};
        setrlimit(RLIMIT_NPROC, &limit);
        CTestThread thread;
        if (thread.iCreateThread(true, 100) != EAGAIN || thread.bIsRunning()) {
            return 2;
        }
        return log.Count(LOG_ERR, "error: Resource temporarily unavailable") == 1 ? 0 : 3;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

TEST_F(AThread, RegistersWithTheLogger)
{
    EXPECT_FALSE(bIsRegistered("worker"));
    Start();
    EXPECT_TRUE(bIsRegistered("worker"));
}

TEST_F(AThread, AnnouncesItsStart)
{
    struct CListener : CObject {
        explicit CListener(CObject* pAwaited) : CObject(nullptr, "listener"), m_pAwaited(pAwaited)
        {
        }
        void OnStarted(CMsg* pMsg)
        {
            if (pMsg->m_pOrigin == m_pAwaited) { // the dispatcher announces itself, too
                m_bEmpty = pMsg->m_iParam1 == 0 && pMsg->m_iParam2 == 0 &&
                           pMsg->m_pData == nullptr && pMsg->m_iPriority == 0;
                m_heard.Open();
            }
        }
        CObject* const m_pAwaited;
        bool m_bEmpty = false;
        CDoor m_heard;
    } listener(&m_Thread);
    CSlotCallbackManager dispatcher(nullptr, "dispatcher");
    dispatcher.pAddCallback(EVT_THREAD_STARTED,
                            new CSlotCallback<CListener>(&listener, &CListener::OnStarted));
    listener.SetEventManager(&dispatcher, nullptr);
    ASSERT_EQ(0, dispatcher.iCreateThread(true, kAwaitLimitMs));
    Start();
    EXPECT_TRUE(listener.m_heard.bPass());
    EXPECT_TRUE(listener.m_bEmpty);
}

TEST_F(AThread, LogsUnderItsLabelAndByItsLevel)
{
    CDoor logged;
    m_Thread.SetLogLevel(LOG_INFO);
    m_Thread.m_body = [&](CTestThread& self) {
        QUORCORE_LOG(LOG_INFO, "line of info");
        QUORCORE_LOG(LOG_DEBUG, "line of debug");
        logged.Open();
        return self.lLoop();
    };
    Start();
    EXPECT_TRUE(logged.bPass());
    EXPECT_EQ(1U, m_Log.m_Syslog.Count("worker("));
    EXPECT_EQ(1U, m_Log.Count(LOG_INFO, "line of info"));
    EXPECT_EQ(0U, m_Log.m_Syslog.Count("line of debug"));
}

TEST_F(AThread, LeavesLoggerAndCallbacksBehindAtItsEnd)
{
    m_Thread.pAddCallback(1, new CSlotCallback<CTestThread>(&m_Thread, nullptr));
    Start();
    m_Thread.iStop(true, false);
    EXPECT_FALSE(bIsRegistered("worker"));
    EXPECT_EQ(-1, m_Thread.m_CallbackMap.iDispatchMessage(1, nullptr));
}

TEST_F(AThread, IsCreatedAnewAfterAStop)
{
    int nRuns = 0;
    m_Thread.m_body = [&](CTestThread& self) {
        ++nRuns;
        return self.lLoop();
    };
    for (int i = 0; i < 3; ++i) {
        Start();
        m_Thread.iStop(true, false);
        EXPECT_FALSE(m_Thread.bIsRunning());
    }
    EXPECT_EQ(3, nRuns);
}

// --- The way through the hooks ---

TEST_F(AThread, SkipsItsBodyWhenItCannotBeInitialised)
{
    bool bRan = false;
    CDoor exited;
    m_Thread.m_init = [](CTestThread&) { return static_cast<long>(ENODEV); };
    m_Thread.m_body = [&](CTestThread&) { return bRan = true, 0L; };
    m_Thread.m_exit = [&](CTestThread&) { return exited.Open(), 0L; };
    ASSERT_EQ(0, m_Thread.iCreateThread(false, 0));
    EXPECT_TRUE(exited.bPass());
    m_Thread.iStop(true, false);
    EXPECT_FALSE(bRan);
    EXPECT_TRUE(m_Log.m_Syslog.bAwait("error: No such device"));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error: No such device"));
    EXPECT_EQ(1U, m_Log.m_Syslog.Count("-- CThread::pThreadEntryPoint / "));
}

TEST_F(AThread, LogsTheResultOfItsBody)
{
    m_Thread.m_body = [](CTestThread& self) { return self.lLoop(), static_cast<long>(EIO); };
    Start();
    m_Thread.iStop(true, false);
    EXPECT_TRUE(m_Log.m_Syslog.bAwait("error: Input/output error"));
    EXPECT_EQ(1U, m_Log.m_Syslog.Count("-- CThread::pThreadEntryPoint / "));
}

TEST_F(AThread, LogsNothingAtAGoodEnd)
{
    m_Thread.m_exit = [](CTestThread&) { return 99L; }; // is nobody's result
    Start();
    m_Thread.iStop(true, false);
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_EQ(0U, m_Log.m_Syslog.Records().size());
}

TEST_F(AThread, LogsThatItsFunctionWasGivenNothingToRun)
{
    pthread_t thread = 0;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, &CThread::pThreadEntryPoint, nullptr));
    EXPECT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error: Unknown error -1"));
    EXPECT_EQ(1U, m_Log.m_Syslog.Count("-- CThread::pThreadEntryPoint / "));
}

/// In a child, whose standard output is looked at. @return 0: ended in order and unregistered.
int iThrowIn(CTestThread::hook_t CTestThread::*hook)
{
    CLoudLogger log;
    CTestThread thread([](CTestThread&) { return 0L; });
    std::atomic<int> nExits{0};
    thread.m_exit = [&](CTestThread&) { return ++nExits, 0L; };
    thread.*hook = [&](CTestThread&) -> long {
        nExits += hook == &CTestThread::m_exit ? 1 : 0;
        throw std::runtime_error("told why");
    };
    if (thread.iCreateThread(false, 0) != 0 || !bAwait([&] { return nExits == 1; })) {
        return 1;
    }
    thread.iStop(true, false);
    if (nExits != 1 || log.Count(LOG_ERR, "told why;") != 1) {
        return 2;
    }
    std::string szPage;
    CThread::m_Logger.iGetLogConfigHtml(szPage, "");
    return szPage.find("<td>worker</td>") == std::string::npos ? 0 : 3;
}

TEST_F(AThread, SurvivesAnExceptionOfEachHook)
{
    for (CTestThread::hook_t CTestThread::*hook :
         {&CTestThread::m_init, &CTestThread::m_body, &CTestThread::m_exit}) {
        const ChildResult result = RunInChild([hook] { return iThrowIn(hook); });
        EXPECT_EQ(0, result.iExitCode);
        EXPECT_EQ("told why", result.szOutput);
    }
}

TEST_F(AThread, SurvivesASecondExceptionOnTheWayOut)
{
    const ChildResult result = RunInChild([] {
        CLoudLogger log;
        CTestThread thread;
        thread.m_body = [](CTestThread&) -> long { throw std::runtime_error("first"); };
        thread.m_exit = [](CTestThread&) -> long { throw std::runtime_error("second"); };
        thread.iCreateThread(false, 0);
        thread.iStop(true, false);
        return log.Count(LOG_ERR, "first;") == 1 && log.Count(LOG_ERR, "second;") == 1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("first", result.szOutput);
}

// --- Auto-delete ---

/// Lives on the heap and tells when it goes.
class AnAutoDeleteThread : public AThread
{
protected:
    AnAutoDeleteThread()
    {
        m_pOwn->SetAutoDelete(true);
        m_pOwn->m_atEnd = [this] {
            m_deleter = pthread_self();
            m_deleted.Open();
        };
    }

    ~AnAutoDeleteThread() override
    {
        EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    }

    CTestThread* m_pOwn = new CTestThread(nullptr, "loner");
    CDoor m_deleted;
    pthread_t m_deleter = 0;
};

TEST_F(AnAutoDeleteThread, HasNoIdWhileItRunsAndDeletesItsObject)
{
    pthread_t thread = 0;
    m_pOwn->m_body = [&](CTestThread& self) {
        thread = pthread_self();
        EXPECT_EQ(0U, self.iGetThreadId());
        return self.lLoop();
    };
    ASSERT_EQ(0, m_pOwn->iCreateThread(true, kAwaitLimitMs));
    EXPECT_TRUE(m_pOwn->bIsRunning());
    EXPECT_FALSE(m_pOwn->bIsStarted());      // for lack of an id
    EXPECT_EQ(0, m_pOwn->iStop(true, true)); // neither joins nor cancels
    EXPECT_TRUE(m_deleted.bPass());
    EXPECT_TRUE(pthread_equal(thread, m_deleter));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_EQ(0U, m_Log.m_Syslog.Records().size());
}

TEST_F(AnAutoDeleteThread, IsOnlyAskedToStop)
{
    CDoor mayEnd;
    m_pOwn->m_body = [&](CTestThread& self) {
        self.m_bRun = true;
        EXPECT_TRUE(mayEnd.bPass());
        EXPECT_FALSE(self.m_bRun);
        return 0L;
    };
    ASSERT_EQ(0, m_pOwn->iCreateThread(true, kAwaitLimitMs));
    EXPECT_EQ(0, m_pOwn->iStop(true, true));
    mayEnd.Open();
    EXPECT_TRUE(m_deleted.bPass());
}

TEST_F(AnAutoDeleteThread, MayBeGoneBeforeItsCreatorReturns)
{
    m_pOwn->m_body = [](CTestThread& self) { return self.m_bRun = true, 0L; };
    EXPECT_EQ(0, m_pOwn->iCreateThread(true, kAwaitLimitMs));
    EXPECT_TRUE(m_deleted.bPass());
    for (int i = 0; i < nRounds(500); ++i) {
        auto* const pThread = new CTestThread([](CTestThread&) { return 0L; });
        pThread->SetAutoDelete(true);
        EXPECT_EQ(-1, pThread->iCreateThread(true, 1 + i % 20)); // never raises its flag
    }
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AnAutoDeleteThread, DeletesItsObjectAlsoWhenItCannotBeInitialised)
{
    m_pOwn->m_init = [](CTestThread&) { return 5L; };
    ASSERT_EQ(0, m_pOwn->iCreateThread(false, 0));
    EXPECT_TRUE(m_deleted.bPass());
}

TEST_F(AnAutoDeleteThread, LeavesItsObjectToOthersAfterAnException)
{
    m_pOwn->m_body = [](CTestThread&) -> long { throw std::runtime_error("loner's\n"); };
    ASSERT_EQ(0, m_pOwn->iCreateThread(false, 0));
    EXPECT_TRUE(m_Log.m_Syslog.bAwait("loner's"));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_FALSE(m_deleted.bPass(0));
    delete m_pOwn;
    EXPECT_TRUE(m_deleted.bPass(0));
}

TEST_F(AThread, TellsWhichWaitAnAutoDeleteThreadMissed)
{
    struct CLate : CThread {
        CLate(CDoor& mayEnd, std::atomic<int>& nStops)
            : CThread(nullptr, "late"), m_mayEnd(mayEnd), m_nStops(nStops)
        {
            SetAutoDelete(true);
        }
        long iRunThread() override { return m_mayEnd.bPass() ? 0 : -1; }
        long iStop(bool bJoin, bool bCancel) override
        {
            m_nStops += bJoin && !bCancel ? 1 : 100;
            return CThread::iStop(bJoin, bCancel);
        }
        CDoor& m_mayEnd;
        std::atomic<int>& m_nStops;
    };
    CDoor mayEnd;
    std::atomic<int> nStops{0};

    EXPECT_EQ(-1, (new CLate(mayEnd, nStops))->iCreateThread(true, 25)); // no multiple of 10
    EXPECT_EQ(0, nStops);
    EXPECT_EQ(1U, m_Log.Count(LOG_CRIT, "error: Success ; (m_threadId == 0) > 30000ms"));
    EXPECT_EQ(0U, m_Log.m_Syslog.Count("!bIsRunning()"));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error: Unknown error -1"));

    m_Log.m_Syslog.Clear();
    EXPECT_EQ(-1, (new CLate(mayEnd, nStops))->iCreateThread(true, 20));
    EXPECT_EQ(1, nStops);
    EXPECT_EQ(1U, m_Log.Count(LOG_CRIT, "error: !bIsRunning() >  1000ms"));
    EXPECT_EQ(0U, m_Log.m_Syslog.Count("(m_threadId == 0)"));
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "error: Unknown error -1"));
    mayEnd.Open();
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

// --- Stop ---

TEST_F(AThread, StopsWithoutOne)
{
    m_Thread.m_bRun = true;
    EXPECT_EQ(0, m_Thread.iStop(true, true));
    EXPECT_FALSE(m_Thread.m_bRun);
    EXPECT_EQ(0U, m_Log.m_Syslog.Records().size());
}

TEST_F(AThread, IsGoneAfterAStopThatJoins)
{
    std::atomic<bool> bExited{false};
    m_Thread.m_exit = [&](CTestThread&) { return bExited = true, 0L; };
    Start();
    EXPECT_EQ(0, m_Thread.iStop(true, false));
    EXPECT_TRUE(bExited);
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, EndsByItselfAfterAStopThatDoesNotJoin)
{
    CDoor mayEnd;
    m_Thread.m_body = [&](CTestThread& self) {
        self.lLoop();
        return mayEnd.bPass() ? 0 : -1;
    };
    Start();
    EXPECT_EQ(0, m_Thread.iStop(false, false));
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
    EXPECT_EQ(m_nThreads + 1, nThreads());
    mayEnd.Open();
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, IsAwaitedByTheStopThatFollowsOneThatDidNotJoin)
{
    CDoor mayEnd;
    std::atomic<bool> bExited{false};
    m_Thread.m_body = [&](CTestThread& self) {
        self.lLoop();
        return mayEnd.bPass() ? 0 : -1;
    };
    m_Thread.m_exit = [&](CTestThread&) { return bExited = true, 0L; };
    Start();
    m_Thread.iStop(false, false);
    std::thread opener([&] { mayEnd.Open(); });
    EXPECT_EQ(0, m_Thread.iStop(true, false));
    EXPECT_TRUE(bExited);
    opener.join();
}

TEST_F(AThread, GivesItsStackBackWhenNobodyJoinsIt)
{
    if (kSanitized) {
        GTEST_SKIP() << "sanitizers map more memory than any limit";
    }
    const ChildResult result = RunInChild([] {
        const rlimit limit = {1U << 30U, 1U << 30U}; // room for less than 50 stacks
        setrlimit(RLIMIT_AS, &limit);
        const size_t nBefore = nThreads();
        CTestThread thread;
        for (int i = 0; i < 200; ++i) {
            if (thread.iCreateThread(true, kAwaitLimitMs) != 0) {
                return 1;
            }
            thread.iStop(false, false);
            if (!bAwait([=] { return nThreads() == nBefore; })) {
                return 2;
            }
        }
        return 0;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AThread, IsCancelledWhenAskedTo)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    m_Thread.m_body = lPauseForEver;
    std::atomic<bool> bExited{false};
    m_Thread.m_exit = [&](CTestThread&) { return bExited = true, 0L; };
    Start();
    const CStopwatch time;
    EXPECT_EQ(0, m_Thread.iStop(true, true));
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
    EXPECT_FALSE(bExited); // a cancelled thread does not get there
    EXPECT_FALSE(m_Thread.bIsRunning());
    EXPECT_FALSE(bIsRegistered("worker")); // and is taken from the logger all the same
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

// Anywhere between its run flag and its first system call: where a thread cannot be unwound, as in
// the first instructions of a function on 32-bit ARM, its end is announced all the same.
TEST_F(AThread, IsGoneWhereverInItsFirstStepsItIsCancelled)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    m_Thread.m_body = lPauseForEver;
    for (int i = 0; i < 20; ++i) {
        Start();
        const CStopwatch time;
        ASSERT_EQ(0, m_Thread.iStop(true, true));
        ASSERT_LT(time.iElapsedMs(), kFarFromMs);
        ASSERT_FALSE(m_Thread.bIsRunning());
        ASSERT_FALSE(bIsRegistered("worker"));
    }
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, IsCancelledInABodyThatOnlyComputes)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    m_Thread.m_body = [](CTestThread& self) -> long {
        self.m_bRun = true;
        for (volatile unsigned i = 0;; i = i + 1) {
        }
    };
    Start();
    EXPECT_EQ(0, m_Thread.iStop(false, true));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, LogsAStopThatFindsAnotherUnderWay)
{
    CDoor mayEnd;
    m_Thread.m_body = [&](CTestThread& self) {
        self.lLoop();
        return mayEnd.bPass() ? 0 : -1;
    };
    Start();
    std::atomic<int> nReturned{0};
    const auto stop = [&] {
        EXPECT_EQ(0, m_Thread.iStop(true, false));
        ++nReturned;
    };
    std::thread first(stop);
    std::thread second(stop);
    EXPECT_TRUE(bAwait([&] { return nReturned == 1; })); // the other one waits for the thread
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "iStop is running"));
    mayEnd.Open();
    first.join();
    second.join();
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "iStop is running"));
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
}

TEST_F(AThread, StopsItself)
{
    const CStopwatch time;
    CDoor stopped;
    m_Thread.m_body = [&](CTestThread& self) {
        self.m_bRun = true;
        EXPECT_EQ(0, self.iStop(true, false));
        EXPECT_EQ(0, self.iStop(true, false)); // waits for nobody: it would be for itself
        EXPECT_FALSE(self.m_bRun);
        stopped.Open();
        return 0L;
    };
    ASSERT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
    EXPECT_TRUE(stopped.bPass());
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
}

TEST_F(AThread, CancelsItself)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    std::atomic<bool> bReturned{false};
    m_Thread.m_body = [&](CTestThread& self) {
        self.m_bRun = true;
        self.iStop(true, true);
        bReturned = true;
        return 0L;
    };
    ASSERT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_FALSE(bReturned);
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
}

TEST_F(AThread, NeverLosesAStopThatRacesWithItsStart)
{
    const CStopwatch time;
    for (int i = 0; i < nRounds(1000); ++i) {
        ASSERT_EQ(0, m_Thread.iCreateThread(false, 0));
        for (volatile int iDelay = 0; iDelay < i * 20; iDelay = iDelay + 1) {
        }
        m_Thread.iStop(i % 3 != 0, false);
        EXPECT_FALSE(m_Thread.m_bRun);
    }
    m_Thread.iStop(true, false);
    EXPECT_EQ(0U, m_Log.m_Syslog.Count("can't stop !!"));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

// --- Join and detach ---

TEST_F(AThread, CannotBeJoinedWhenThereIsNone)
{
    EXPECT_EQ(-1, m_Thread.iJoin());
    m_Thread.m_bRun = true;
    EXPECT_NE(0, m_Thread.iJoin());
    EXPECT_FALSE(m_Thread.m_bRun);
}

TEST_F(AThread, IsJoinedOnce)
{
    Start();
    EXPECT_EQ(0, m_Thread.iJoin());
    EXPECT_FALSE(m_Thread.m_bRun);
    EXPECT_EQ(-1, m_Thread.iJoin());
    EXPECT_EQ(0, m_Thread.iStop(true, true));
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
}

TEST_F(AThread, CannotJoinItself)
{
    std::atomic<long> lResult{0};
    m_Thread.m_body = [&](CTestThread& self) {
        self.m_bRun = true;
        lResult = self.iJoin();
        return 0L;
    };
    Start();
    EXPECT_EQ(0, m_Thread.iJoin());
    EXPECT_EQ(EDEADLK, lResult);
}

TEST_F(AThread, IsCancelledWhenItDoesNotEndWithinTenSeconds)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    m_Thread.m_body = lPauseForEver;
    Start();
    const CStopwatch time;
    EXPECT_EQ(ETIMEDOUT, m_Thread.iJoin());
    EXPECT_GE(time.iElapsedMs(), 10000);
    EXPECT_LT(time.iElapsedMs(), 10000 + kFarFromMs);
    EXPECT_EQ(1U, m_Log.Count(LOG_ERR, "can't stop !!"));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_FALSE(bIsRegistered("worker"));
}

TEST_F(AThread, DetachesNothingWhenThereIsNone)
{
    EXPECT_EQ(0, m_Thread.iDetach());
}

TEST_F(AThread, EndsByItselfOnceDetached)
{
    Start();
    EXPECT_EQ(0, m_Thread.iDetach());
    EXPECT_EQ(0U, m_Thread.iGetThreadId());
    EXPECT_TRUE(m_Thread.bIsRunning());
    m_Thread.m_bRun = false;
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, LogsThatItCannotBeDetached)
{
    const ChildResult result = RunInChild([] { // a sanitizer may have its own opinion
        CLoudLogger log;
        CDoor mayEnd;
        std::thread other([&] { mayEnd.bPass(); });
        CTestThread thread;
        thread.m_threadId = other.native_handle();
        other.detach();
        const long lResult = thread.iDetach();
        mayEnd.Open();
        return lResult == EINVAL && thread.iGetThreadId() == 0 &&
                       log.Count(LOG_ERR, "pthread_detach error: Invalid argument") == 1
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

// --- Waits ---

TEST_F(AThread, SleepsWhole)
{
    const CStopwatch time;
    m_Thread.Sleep(30);
    EXPECT_GE(time.iElapsedMs(), 30);
}

TEST_F(AThread, DoesNotSleepForNoTime)
{
    const CStopwatch time;
    m_Thread.Sleep(0);
    m_Thread.Sleep(-1);
    m_Thread.Sleep(INT_MIN);
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
}

/// Interrupts the main thread every 10 ms.
class CInterrupter
{
public:
    CInterrupter()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &m_former); // without SA_RESTART
        const itimerval interval = {{0, 10000}, {0, 10000}};
        setitimer(ITIMER_REAL, &interval, nullptr);
    }
    CInterrupter(const CInterrupter&) = delete;
    CInterrupter& operator=(const CInterrupter&) = delete;
    ~CInterrupter()
    {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &m_former, nullptr);
    }

private:
    struct sigaction m_former = {};
};

TEST_F(AThread, SleepsOutWhatASignalInterrupts)
{
    const CInterrupter interrupter;
    const CStopwatch time;
    m_Thread.Sleep(200);
    EXPECT_GE(time.iElapsedMs(), 200);
    EXPECT_FALSE(m_Thread.bDynWait(0));
    EXPECT_GE(time.iElapsedMs(), 1200);
}

TEST_F(AThread, WaitsASecondAtLeast)
{
    m_Thread.m_bRun = true;
    for (const int iSeconds : {0, INT_MIN}) {
        const CStopwatch time;
        EXPECT_TRUE(m_Thread.bDynWait(iSeconds));
        EXPECT_GE(time.iElapsedMs(), 1000);
        EXPECT_LT(time.iElapsedMs(), 2000 + kFarFromMs);
    }
    EXPECT_TRUE(m_Thread.m_bRunDynWait);
}

TEST_F(AThread, WaitsAsManySecondsAsItIsTold)
{
    m_Thread.m_bRun = true;
    const CStopwatch time;
    EXPECT_TRUE(m_Thread.bDynWait(2));
    EXPECT_GE(time.iElapsedMs(), 2000);
}

TEST_F(AThread, EndsAWaitEarlyWhenItIsToldTo)
{
    m_Thread.m_bRun = true;
    std::thread waiter([this] { EXPECT_TRUE(m_Thread.bDynWait(1000)); });
    ASSERT_TRUE(bAwait([this] { return m_Thread.m_bRunDynWait.load(); }));
    m_Thread.StopDynWait();
    waiter.join();

    std::thread yielder([this] { m_Thread.YieldCPU(1000000, 5); });
    ASSERT_TRUE(bAwait([this] { return m_Thread.m_bRunDynWait.load(); }));
    m_Thread.StopDynWait();
    yielder.join();
}

TEST_F(AThread, EndsAWaitWhenItIsStopped)
{
    m_Thread.m_body = [](CTestThread& self) {
        self.m_bRun = true;
        EXPECT_FALSE(self.bDynWait(1000));
        self.YieldCPU(1000000, 10);
        return 0L;
    };
    Start();
    const CStopwatch time;
    m_Thread.iStop(true, false);
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
}

TEST_F(AThread, YieldsOneStepAtLeast)
{
    m_Thread.m_bRun = true;
    for (const int iTotalMs : {0, -1, INT_MIN, 1}) {
        const CStopwatch time;
        m_Thread.YieldCPU(iTotalMs, 20);
        EXPECT_GE(time.iElapsedMs(), 20);
        EXPECT_LT(time.iElapsedMs(), kFarFromMs);
    }
}

TEST_F(AThread, YieldsInStepsUntilTheTimeIsOver)
{
    m_Thread.m_bRun = true;
    const CStopwatch time;
    m_Thread.YieldCPU(50, 20); // three steps
    EXPECT_GE(time.iElapsedMs(), 60);
}

TEST_F(AThread, TakesAStepBelowOneAsOne)
{
    m_Thread.m_bRun = true;
    const CStopwatch time;
    m_Thread.YieldCPU(5, 0);
    m_Thread.YieldCPU(5, INT_MIN);
    EXPECT_GE(time.iElapsedMs(), 10);
    EXPECT_LT(time.iElapsedMs(), kFarFromMs);
}

// --- Destruction ---

TEST_F(AThread, OutlivesNoObjectAsALastResort)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    struct CBare : CThread { // does not stop in its own destructor
        using CThread::CThread;
        long iRunThread() override
        {
            m_bRun = true;
            for (;;) {
                pause();
            }
        }
    };
    {
        CBare thread(nullptr, "bare");
        ASSERT_EQ(0, thread.iCreateThread(true, kAwaitLimitMs));
        EXPECT_TRUE(bIsRegistered("bare"));
    }
    EXPECT_FALSE(bIsRegistered("bare"));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(AThread, IsAwaitedByItsDestructorWhenItStoppedItself)
{
    CDoor stopped;
    CDoor mayEnd;
    std::atomic<bool> bExited{false};
    {
        CTestThread thread([&](CTestThread& self) {
            self.m_bRun = true;
            self.iStop(false, false);
            stopped.Open();
            return mayEnd.bPass() ? 0 : -1;
        });
        thread.m_exit = [&](CTestThread&) { return bExited = true, 0L; };
        ASSERT_EQ(0, thread.iCreateThread(true, kAwaitLimitMs));
        ASSERT_TRUE(stopped.bPass());
        mayEnd.Open();
    }
    EXPECT_TRUE(bExited);
}

TEST_F(AThread, LeavesNoLevelBehindInTheLogger)
{
    for (const bool bCancel : {false, !kSanitized}) {
        auto pThread = std::make_unique<CTestThread>(bCancel ? lPauseForEver : nullptr, "leaver");
        ASSERT_EQ(0, pThread->iCreateThread(true, kAwaitLimitMs));
        EXPECT_TRUE(bIsRegistered("leaver"));
        pThread->iStop(true, bCancel);
        pThread.reset();
        EXPECT_FALSE(bIsRegistered("leaver"));
        CThread::m_Logger.SetAllLogLevel(LOG_DEBUG); // would write through what was left
    }
}

TEST_F(AThread, IsDestroyedWhileItsDestroyerIsBeingCancelled)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    std::atomic<bool> bDestroyed{false};
    m_Thread.m_body = [&](CTestThread& self) {
        int iIgnored = 0;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &iIgnored);
        self.m_bRun = true;
        {
            CTestThread inner; // its destructor logs and waits, which are cancellation points
            EXPECT_EQ(0, inner.iCreateThread(true, kAwaitLimitMs));
            pthread_cancel(pthread_self());
        }
        bDestroyed = true;
        pause();
        return 0L;
    };
    Start();
    EXPECT_TRUE(bAwait([&] { return bDestroyed.load(); }));
    m_Thread.iStop(true, false);
}

// --- Under load ---

TEST_F(AThread, BearsStartsStopsJoinsAndDetachesOfSeveralThreads)
{
    constexpr int kThreads = 4;
    const int nTurns = nRounds(3000);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i, nTurns] {
            std::minstd_rand random(i + 1);
            for (int n = 0; n < nTurns; ++n) {
                switch (random() % 6) {
                case 0:
                    m_Thread.iStop(true, false);
                    break;
                case 1:
                    m_Thread.iStop(false, false);
                    break;
                case 2:
                    m_Thread.iJoin();
                    break;
                case 3:
                    if (n % 16 == 0) {
                        m_Thread.iDetach();
                        m_Thread.iStop(false, false);
                    }
                    break;
                default:
                    m_Thread.iCreateThread(n % 2 == 0, 50);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_Thread.iStop(true, false);
    EXPECT_FALSE(m_Thread.bIsRunning());
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_EQ(0U, m_Log.m_Syslog.Count("can't stop !!"));
}

TEST_F(AThread, IsCancelledAtAnyInstructionOfItsLife)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
#ifdef __arm__
    GTEST_SKIP() << "32-bit ARM can be unwound at calls only";
#endif
    const auto cancelAtEach = [] { // in a child, where std::terminate() would end only this
        CThread::m_Logger.Init("CThreadTest");
        for (int i = 0; i < nRounds(5000); ++i) {
            CTestThread thread([](CTestThread& self) {
                self.m_bRun = true;
                return 0L;
            });
            thread.iCreateThread(false, 0);
            for (volatile int iDelay = 0; iDelay < (i % 500) * 50; iDelay = iDelay + 1) {
            }
            thread.iStop(true, true);
        }
        return 0;
    };
    const ChildResult result = RunInChild(cancelAtEach, 2 * kAwaitLimitMs); // it is much to do
    EXPECT_EQ(0, result.iExitCode) << result.iSignal << result.szErrors;
}

TEST_F(AThread, LeavesNothingBehindWhenManyComeAndGoInAnyOrder)
{
    const size_t nDescriptors = nOpenDescriptors();
    std::minstd_rand random(1);
    std::vector<std::unique_ptr<CTestThread>> threads(8);
    for (int i = 0; i < nRounds(2000); ++i) {
        std::unique_ptr<CTestThread>& pThread = threads[random() % threads.size()];
        switch (random() % 5) {
        case 0:
            pThread.reset();
            break;
        case 1:
            if (pThread) {
                pThread->iStop(i % 2 == 0, false);
            }
            break;
        case 2: {
            auto* const pLoner = new CTestThread([](CTestThread&) { return 0L; });
            pLoner->SetAutoDelete(true);
            pLoner->iCreateThread(false, 0);
            break;
        }
        default:
            if (!pThread) {
                pThread = std::make_unique<CTestThread>();
            }
            pThread->iCreateThread(i % 2 == 0, 1000);
        }
    }
    threads.clear();
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    EXPECT_EQ(nDescriptors, nOpenDescriptors());
}

TEST_F(AThread, LogsOnInAChildThatWasForkedAmongLoggingThreads)
{
    if (kSanitized) {
        GTEST_SKIP() << "sanitizers do not bear a fork among running threads";
    }
    std::vector<std::unique_ptr<CTestThread>> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(std::make_unique<CTestThread>([](CTestThread& self) {
            self.m_bRun = true;
            while (self.m_bRun) {
                QUORCORE_LOG(LOG_ERR, "%s", CThread::m_Logger.strerrorT(EIO).c_str());
            }
            return 0L;
        }));
        ASSERT_EQ(0, threads.back()->iCreateThread(true, kAwaitLimitMs));
    }
    for (int i = 0; i < nRounds(100); ++i) {
        const ChildResult result = RunInChild([] {
            QUORCORE_LOG(LOG_ERR, "from the child: %s", CThread::m_Logger.strerrorT(EIO).c_str());
            return 0;
        });
        ASSERT_EQ(0, result.iExitCode);
    }
    EXPECT_EQ(static_cast<size_t>(nRounds(100)),
              m_Log.m_Syslog.Count("from the child: Input/output error"));
}
} // namespace
