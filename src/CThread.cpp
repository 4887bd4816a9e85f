#include "libQuorCore/CThread.h"

#include "internal/CHeldLock.h"
#include "internal/CThreadLife.h"
#include "internal/Clock.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr size_t kStackSizeBytes = 0x1400000; // reserved, not used: 20 MiB
constexpr int kJoinLimitMs = 10000;           // for the end of a loop, then the thread is cancelled
constexpr int kUnwindLimitMs = 1000;          // from a thread's last line to its end
constexpr int kForcedStopGraceMs = 2000;      // a step of bDynWait() is 1 s, and nothing wakes it
constexpr int kHandshakeStepMs = 10;          // start time-outs count in these

/// The attributes that every thread is created with; pthread_attr_init(3).
class CThreadAttributes
{
public:
    CThreadAttributes() : m_iError(pthread_attr_init(&m_attributes)) {}
    CThreadAttributes(const CThreadAttributes&) = delete;
    CThreadAttributes& operator=(const CThreadAttributes&) = delete;
    ~CThreadAttributes() { pthread_attr_destroy(&m_attributes); }

    /// @return 0, or the first error number.
    int iPrepare()
    {
        // Signals are the main thread's business: a thread that took one would have its system call
        // cut short, and SIGCHLD could interrupt it with a lock held. The faults stay open.
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&blocked, iFault);
        }
        const size_t iPageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        if (m_iError == 0) {
            m_iError = pthread_attr_setstacksize(&m_attributes, kStackSizeBytes);
        }
        if (m_iError == 0) {
            m_iError = pthread_attr_setguardsize(&m_attributes, iPageSize);
        }
        if (m_iError == 0) {
            m_iError = pthread_attr_setsigmask_np(&m_attributes, &blocked);
        }
        return m_iError;
    }

    const pthread_attr_t* pGet() const { return &m_attributes; }

private:
    pthread_attr_t m_attributes{};
    int m_iError;
};

/// What the calling thread runs for; null in threads that are no CThread's.
__thread const CThreadLife* t_pOwnLife = nullptr;

/**
 * @brief What is done at the end of a thread, on every way out of it, a cancellation included.
 *
 * A thread-local object and none of a function: on 32-bit ARM a thread that is cancelled within the
 * first instructions of a function, or on the way into a library, cannot be unwound (the tables of
 * its ABI are exact at calls only) and ends without a single destructor of its functions' objects.
 * Those of thread-local objects run all the same.
 */
class CThreadLeave
{
public:
    CThreadLeave() = default;
    CThreadLeave(const CThreadLeave&) = delete;
    CThreadLeave& operator=(const CThreadLeave&) = delete;
    ~CThreadLeave() { Leave(); }

    void Enter(std::shared_ptr<CThreadLife> pLife) { m_pLife = std::move(pLife); }

    /// Takes the thread from the logger before its end is announced: one that nobody joins may
    /// otherwise do so when the process, and with it the logger, is already going down.
    void Leave()
    {
        if (m_pLife != nullptr) {
            CThread::m_Logger.CancelLogIdForThread();
            m_pLife->End();
            m_pLife.reset();
        }
    }

private:
    std::shared_ptr<CThreadLife> m_pLife; // null: nothing is left to do
};

bool bIsSelf(pthread_t thread)
{
    return pthread_equal(thread, pthread_self()) != 0;
}
} // namespace

std::atomic<int> CThread::m_iNum{0};

CThread::CThread(CObject* pParent, const char* szLabel)
    : CObject(pParent, szLabel), m_pthreadAttr(), m_CallbackMap("CCallbackMap"),
      m_iLogLevel(kDefaultLogLevel), m_pLife(std::make_shared<CThreadLife>())
{
    m_bIsThread = true;
    ++m_iNum;
}

CThread::~CThread()
{
    const CNoCancel noCancel; // it logs and waits, and must not be unwound
    if (m_threadId != 0) {
        CThread::iStop(true, !bIsOwnThread());
    }
    AwaitThreadEnd();
    WithdrawMessages(); // while slots may still ask for the label and set the level
    m_Logger.ForgetLevel(&m_iLogLevel);
}

void CThread::StopAndAwaitEnd()
{
    const CNoCancel noCancel; // for destructors
    iStop(true, false);
    AwaitThreadEnd();
}

void CThread::AwaitThreadEnd()
{
    if (bIsOwnThread()) {
        return; // an auto-delete thread
    }
    while (!m_pLife->bAwaitEnd(kJoinLimitMs)) { // the object must outlive its thread
        QUORCORE_LOG(LOG_CRIT, "%s : destroyed before its thread has ended, waiting",
                     m_szLabel.c_str());
    }
}

void CThread::LetThreadEnd()
{
    if (!bIsOwnThread()) {
        m_pLife->bAwaitEnd(kForcedStopGraceMs);
    }
}

bool CThread::bIsOwnThread() const
{
    return t_pOwnLife == m_pLife.get();
}

CThread* CThread::pAsThread(CObject* pObject)
{
    return pObject != nullptr && pObject->m_bIsThread ? static_cast<CThread*>(pObject) : nullptr;
}

long CThread::iLogError(uint32_t iError)
{
    QUORCORE_LOG(LOG_ERR, "error = %s", m_Logger.strerrorT(static_cast<int>(iError)).c_str());
    return static_cast<long>(iError);
}

int CThread::iMonitoring()
{
    return m_bRun ? 0 : -1;
}

long CThread::iRunThread()
{
    return 0;
}

long CThread::iInitInstance()
{
    m_Logger.SetLogConfigForThread(m_szLabel.c_str(), &m_iLogLevel);
    iPostMessage(EVT_THREAD_STARTED, 0, 0, nullptr, 0, 0);
    return 0;
}

long CThread::iExitInstance()
{
    m_Logger.CancelLogIdForThread(); // first: a callback's destructor may throw
    m_CallbackMap.RemoveAllCallback();
    return 0;
}

long CThread::iCreateThread(bool bWait, int iTimeout)
{
    const CDeferredCancel deferred;
    const bool bAutoDelete = m_bAutoDelete;
    const std::shared_ptr<CThreadLife> pLife = m_pLife; // an auto-delete object may go before us
    long lResult = 0;
    {
        const std::lock_guard<std::mutex> held(pLife->CreateLock());
        if (m_threadId != 0) {
            QUORCORE_LOG(LOG_INFO, "is Running ? = %d", static_cast<int>(m_bRun));
            return 0;
        }
        lResult = iStartThread(bAutoDelete);
    }
    if (lResult == 0 && bWait && iTimeout >= 1 && !pLife->bAwaitRaise(iTimeout)) {
        AbandonStart(*this, bAutoDelete, iTimeout, *pLife);
        lResult = -1;
    }
    if (lResult != 0) {
        QUORCORE_LOG(LOG_ERR, "error: %s", m_Logger.strerrorT(static_cast<int>(lResult)).c_str());
    }
    return lResult;
}

long CThread::iStartThread(bool bAutoDelete)
{
    CThreadAttributes attributes;
    int iError = attributes.iPrepare();
    if (iError != 0) {
        return iError;
    }
    CThreadLife& life = *m_pLife;
    life.Begin();
    m_bRun.Rearm(&life);
    pthread_t thread = 0;
    iError = pthread_create(&thread, attributes.pGet(), pThreadEntryPoint, this);
    if (iError != 0) {
        life.Fail();
    } else if (!bAutoDelete) { // that one is detached by itself, and its object may be gone
        m_threadId = thread;
    }
    return iError;
}

/// Static, since @p thread may be gone if it is an auto-delete one.
void CThread::AbandonStart(CThread& thread, bool bAutoDelete, int iTimeout, CThreadLife& life)
{
    // An auto-delete thread has no id while it runs. The wait for an id counts down in steps of
    // 10 ms and complains only when it ends below 0, so a time-out that is a multiple of 10 gets
    // past it to the wait for the loop. Meant, since callers chose their time-outs with it; held by
    // AThread.TellsWhichWaitAnAutoDeleteThreadMissed.
    if (bAutoDelete && iTimeout % kHandshakeStepMs != 0) {
        QUORCORE_LOG(LOG_CRIT, "error: %s ; (m_threadId == 0) > 30000ms",
                     m_Logger.strerrorT(0).c_str());
        return;
    }
    if (bAutoDelete) {
        life.WhileObjectLives([&thread] { thread.iStop(true, false); });
    } else {
        thread.iStop(true, false);
    }
    QUORCORE_LOG(LOG_CRIT, "error: !bIsRunning() >  1000ms");
}

void* CThread::pThreadEntryPoint(void* pThis)
{
    long lResult = -1;
    if (pThis != nullptr) {
        CThread* const pThread = static_cast<CThread*>(pThis);
        thread_local CThreadLeave leave;
        leave.Enter(pThread->m_pLife);
        t_pOwnLife = pThread->m_pLife.get();
        lResult = pThread->iRunHooks();
        t_pOwnLife = nullptr;
        leave.Leave();
    }
    if (lResult != 0) {
        m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "CThread::pThreadEntryPoint", "error: %s",
                     m_Logger.strerrorT(static_cast<int>(lResult)).c_str());
    }
    pthread_exit(nullptr);
}

long CThread::iRunHooks()
{
    const bool bAutoDelete = m_bAutoDelete;
    const std::shared_ptr<CThreadLife> pLife = m_pLife;
    {
        // Whoever creates the thread has stored its id once this lock is free. An auto-delete
        // thread stores its own, as its creator must not touch the object any more.
        const std::lock_guard<std::mutex> created(pLife->CreateLock());
        if (pLife->bEnter() && bAutoDelete) {
            m_threadId = pthread_self();
        }
    }
    if (bAutoDelete) {
        iDetach();
    }
    long lResult = -1;
    bool bExited = false;
    try {
        lResult = iInitInstance();
        if (lResult == 0) {
            lResult = iRunCancellable();
        }
        bExited = true;
        iExitInstance();
    } catch (const std::exception& exception) {
        DeferAnyCancel(); // the body may have thrown
        std::fputs(exception.what(), stdout);
        std::fflush(stdout);
        QUORCORE_LOG(LOG_ERR, "%s;", exception.what());
        if (!bExited) {
            ExitAfterException();
        }
        return lResult;
    }
    if (bAutoDelete) {
        ResetThreadId();
        pLife->AnnounceDeletion();
        delete this;
    }
    return lResult;
}

/// Runs the body as a thread that can be cancelled at any instruction. Such a thread is unwound
/// from wherever it is, and a function with clean-ups of its own ends the process when that is
/// between two of its calls: hence no object and no handler in here, and not inlined where there
/// are some.
__attribute__((noinline)) long CThread::iRunCancellable()
{
    RestoreCancel({PTHREAD_CANCEL_ASYNCHRONOUS, true});
    const long lResult = iRunThread();
    DeferAnyCancel();
    return lResult;
}

void CThread::ExitAfterException()
{
    try {
        iExitInstance();
    } catch (const std::exception& exception) {
        QUORCORE_LOG(LOG_ERR, "%s;", exception.what());
    }
}

long CThread::iStop(bool bJoin, bool bCancel)
{
    const CDeferredCancel deferred;
    const bool bAutoDelete = m_bAutoDelete; // asked first: once lowered, the object may be gone
    AskStop();
    if (bAutoDelete) {
        return 0;
    }
    if (m_StopLock.iTryLock(0) != 0) {
        QUORCORE_LOG(LOG_ERR, "iStop is running");
        return 0;
    }
    const CHeldLock<CRecursiveLock> stopping(m_StopLock, {});
    const unsigned iThread = iKnownThread();
    if (iThread != 0) {
        AskStop(); // again: it may have been created since, which forgets a stop
        if (bCancel) {
            CancelThread(iThread);
        }
        if (bJoin) {
            iJoin();
        }
        GiveUpThread(iThread);
    } else if (bJoin && !bIsOwnThread()) {
        m_pLife->bAwaitEnd(kJoinLimitMs); // of a thread that an earlier stop gave up
    }
    ForgetServedStop();
    return 0;
}

/// @return The number of the thread that has its id in m_threadId; 0 when there is none. Unlike the
/// id, which the system gives to the next thread again, the number names one thread for ever.
unsigned CThread::iKnownThread()
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock()); // its creator may yet store it
    return m_threadId != 0 ? m_pLife->iNumber() : 0;
}

/// Under the life's CreateLock. @return Whether m_threadId still is the id of that thread, which
/// then is neither joined nor detached.
bool CThread::bIsKnown(unsigned iThread) const
{
    return m_threadId != 0 && m_pLife->iNumber() == iThread;
}

void CThread::CancelThread(unsigned iThread)
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock());
    if (bIsKnown(iThread)) {
        pthread_cancel(m_threadId);
    }
}

void CThread::GiveUpThread(unsigned iThread)
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock());
    if (bIsKnown(iThread)) {
        pthread_detach(m_threadId.exchange(0)); // not joined: its stack goes when it ends
    }
}

/// Lets the flag be raised again when no thread is left that would have to see the stop.
void CThread::ForgetServedStop()
{
    if (m_pLife->bAwaitEnd(0)) {
        m_bRun.ForgetStop();
    }
}

long CThread::iJoin()
{
    const CDeferredCancel deferred;
    if (!bIsRunning()) {
        return -1;
    }
    AskStop();
    if (bIsSelf(m_threadId)) {
        return EDEADLK;
    }
    const unsigned iThread = iKnownThread();
    long lResult = -1;
    if (iThread != 0) {
        const bool bEnded = m_pLife->bAwaitEnd(kJoinLimitMs, iThread);
        lResult = lJoinKnown(iThread, bEnded ? kUnwindLimitMs : 0);
    }
    if (lResult == ETIMEDOUT) {
        QUORCORE_LOG(LOG_ERR, "can't stop !!");
        CancelThread(iThread);
    }
    ForgetServedStop();
    return lResult;
}

/// @return As iJoin(); -1 also when another thread has joined or detached it meanwhile.
long CThread::lJoinKnown(unsigned iThread, int iMs)
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock());
    if (!bIsKnown(iThread)) {
        return -1;
    }
    const timespec limit = After(Now(CLOCK_REALTIME), iMs);
    const int iError = pthread_timedjoin_np(m_threadId, nullptr, &limit);
    if (iError == 0) {
        ResetThreadId(); // a second join of this id would be undefined
    }
    return iError;
}

long CThread::iDetach()
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held) {
        return 0;
    }
    const std::lock_guard<std::mutex> known(m_pLife->CreateLock());
    const pthread_t thread = m_threadId.exchange(0);
    const int iError = thread != 0 ? pthread_detach(thread) : 0;
    if (iError != 0) {
        QUORCORE_LOG(LOG_ERR, "pthread_detach error: %s", m_Logger.strerrorT(iError).c_str());
    }
    return iError;
}

void CThread::Sleep(int iMs)
{
    const CDeferredCancel deferred;
    SleepMs(iMs);
}

bool CThread::bDynWait(int iSeconds)
{
    const CDeferredCancel deferred;
    m_bRunDynWait = true;
    int iLeft = std::max(iSeconds, 1);
    do {
        SleepMs(kMsPerSecond);
        --iLeft;
    } while (m_bRun && iLeft > 0 && m_bRunDynWait);
    return m_bRun;
}

void CThread::YieldCPU(int iTotalMs, int iStepMs)
{
    const CDeferredCancel deferred;
    const int iStep = std::max(iStepMs, 1);
    m_bRunDynWait = true;
    int iLeftMs = std::max(iTotalMs, 1);
    do {
        Sleep(iStep);
        iLeftMs -= iStep;
    } while (m_bRun && iLeftMs >= 1 && m_bRunDynWait);
}

CInvokeCallback* CThread::pAddCallback(uint32_t iEventId, CInvokeCallback* pCallback)
{
    return m_CallbackMap.pAddCallback(iEventId, pCallback);
}

void CThread::RemoveEvent(uint32_t iEventId)
{
    m_CallbackMap.RemoveEvent(iEventId);
}

void CThread::RemoveCallback(CInvokeCallback* pCallback)
{
    m_CallbackMap.RemoveCallback(pCallback);
}

void CThread::RemoveAllCallback()
{
    m_CallbackMap.RemoveAllCallback();
}
} // namespace QuorCore
