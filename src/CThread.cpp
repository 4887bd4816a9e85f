#include "libQuorCore/CThread.h"

#include "internal/CHeldLock.h"
#include "internal/CThreadLife.h"
#include "internal/Clock.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr size_t kStackSizeBytes = 0x1400000; // reserved, not used: 20 MiB
constexpr int kJoinLimitMs = 10000;           // for the end of a loop, then the thread is cancelled
constexpr int kUnwindLimitMs = 1000;          // from a thread's last line to its end
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
    const pthread_t thread = m_threadId;
    if (thread != 0) {
        CThread::iStop(true, true);
    }
    if (!bIsSelf(thread) && !m_pLife->bDeletesItself()) {
        while (!m_pLife->bAwaitEnd(kJoinLimitMs)) { // the object must outlive its thread
            QUORCORE_LOG(LOG_CRIT, "%s : destroyed before its thread has ended, waiting",
                         m_szLabel.c_str());
        }
    }
    WithdrawMessages(); // while slots may still ask for the label and set the level
    m_Logger.ForgetLevel(&m_iLogLevel);
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
        AbandonStart(bAutoDelete, iTimeout, *pLife);
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

void CThread::AbandonStart(bool bAutoDelete, int iTimeout, CThreadLife& life)
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
        life.WhileObjectLives([this] { iStop(true, false); });
    } else {
        iStop(true, false);
    }
    QUORCORE_LOG(LOG_CRIT, "error: !bIsRunning() >  1000ms");
}

void* CThread::pThreadEntryPoint(void* pThis)
{
    long lResult = -1;
    if (pThis != nullptr) {
        CThread* const pThread = static_cast<CThread*>(pThis);
        const CThreadEnd end(pThread->m_pLife);
        lResult = pThread->iRunHooks();
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
    if (pLife->bEnter()) {
        m_threadId = pthread_self();
    }
    if (bAutoDelete) {
        iDetach();
    }
    long lResult = -1;
    bool bExited = false;
    try {
        lResult = iInitInstance();
        if (lResult == 0) {
            const CAsynchronousCancel cancel;
            lResult = iRunThread();
        }
        bExited = true;
        iExitInstance();
    } catch (const std::exception& exception) {
        std::cout << exception.what() << std::flush;
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
    const pthread_t thread = iKnownThread();
    if (thread != 0) {
        if (bCancel) {
            pthread_cancel(thread);
        }
        if (bJoin) {
            iJoin();
        }
    }
    GiveUpThread();
    if (m_pLife->bAwaitEnd(0)) {
        m_bRun.ForgetStop();
    }
    return 0;
}

pthread_t CThread::iKnownThread()
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock()); // its creator may yet store it
    return m_threadId;
}

void CThread::GiveUpThread()
{
    const std::lock_guard<std::mutex> held(m_pLife->CreateLock());
    const pthread_t thread = m_threadId.exchange(0);
    if (thread != 0) {
        pthread_detach(thread); // not joined: its stack goes when it ends
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
    const std::lock_guard<std::mutex> held(m_JoinLock);
    const pthread_t thread = iKnownThread();
    if (thread == 0) {
        return -1;
    }
    const int iUnwindMs = m_pLife->bAwaitEnd(kJoinLimitMs) ? kUnwindLimitMs : 0;
    const timespec limit = After(Now(CLOCK_REALTIME), iUnwindMs);
    const int iError = pthread_timedjoin_np(thread, nullptr, &limit);
    if (iError == 0) {
        ResetThreadId(); // a second join of this id would be undefined
    } else if (iError == ETIMEDOUT) {
        QUORCORE_LOG(LOG_ERR, "can't stop !!");
        pthread_cancel(thread);
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
    do {
        SleepMs(kMsPerSecond);
        --iSeconds;
    } while (m_bRun && iSeconds > 0 && m_bRunDynWait);
    return m_bRun;
}

void CThread::YieldCPU(int iTotalMs, int iStepMs)
{
    const CDeferredCancel deferred;
    const int iStep = std::max(iStepMs, 1);
    m_bRunDynWait = true;
    do {
        Sleep(iStep);
        iTotalMs -= iStep;
    } while (m_bRun && iTotalMs >= 1 && m_bRunDynWait);
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
