#include "libQuorCore/synchro.h"

#include "internal/Clock.h"
#include "internal/ThreadSanitizer.h"

#include "libQuorCore/CThread.h"

#include <cerrno>

namespace QuorCore
{
namespace
{
constexpr long kSpinPauseMs = 10;        // between two attempts on a spin lock
constexpr const char* kMutex = "CMutex"; // function name of every line that CMutex logs

/// Takes the mutex on the monotonic clock: pthread_mutex_timedlock(3) counts on the real-time
/// clock, which the network sets, and set back by an hour it makes the wait an hour longer. Held by
/// AJumpOfTheClock.NeitherEndsNorStretchesTheWaitForALock.
/// @return 0, ETIMEDOUT or another error number.
int iLockWithin(pthread_mutex_t& mutex, long iMs)
{
#ifdef QUORCORE_TSAN // it does not know pthread_mutex_clocklock(3)
    const timespec limit = After(Now(CLOCK_REALTIME), iMs);
    return pthread_mutex_timedlock(&mutex, &limit);
#else
    const CDeadline deadline(iMs);
    return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline.Limit());
#endif
}
} // namespace

CRecursiveLock::CRecursiveLock()
{
    pthread_mutexattr_init(&m_Attr);
    pthread_mutexattr_settype(&m_Attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_hMutex, &m_Attr);
}

CRecursiveLock::~CRecursiveLock()
{
    pthread_mutex_destroy(&m_hMutex);
    pthread_mutexattr_destroy(&m_Attr);
}

int CRecursiveLock::iLock()
{
    return pthread_mutex_lock(&m_hMutex);
}

int CRecursiveLock::iTryLock(long iMs)
{
    int iReturn = 0;
    if (iMs < 1) {
        iReturn = pthread_mutex_trylock(&m_hMutex);
    } else {
        iReturn = iLockWithin(m_hMutex, iMs);
    }
    if (iReturn != 0) {
        QUORCORE_LOG(LOG_INFO, "%s: CRecursiveLock::iTryLock(), iReturn=%d\n", __PRETTY_FUNCTION__,
                     iReturn);
    }
    return iReturn;
}

void CRecursiveLock::UnLock()
{
    pthread_mutex_unlock(&m_hMutex);
}

CSpinLock::CSpinLock()
{
    pthread_spin_init(&m_hLock, PTHREAD_PROCESS_PRIVATE);
}

CSpinLock::~CSpinLock()
{
    pthread_spin_destroy(&m_hLock);
}

int CSpinLock::iLock()
{
    return pthread_spin_lock(&m_hLock);
}

int CSpinLock::iTryLock(long iMs)
{
    int iReturn = pthread_spin_trylock(&m_hLock);
    while (iReturn != 0) {
        SleepMs(kSpinPauseMs);
        if (iMs <= kSpinPauseMs) { // compared before it is subtracted: the most negative time too
            break;
        }
        iMs -= kSpinPauseMs;
        iReturn = pthread_spin_trylock(&m_hLock);
    }
    return iReturn;
}

void CSpinLock::UnLock()
{
    pthread_spin_unlock(&m_hLock);
}

CEvent::CEvent() : m_bInit(sem_init(&m_hEvent, 0, 0) == 0) {}

CEvent::~CEvent()
{
    if (m_bInit) {
        sem_close(&m_hEvent); // for named semaphores; refuses this one and harms nothing. Meant.
        sem_destroy(&m_hEvent);
        m_bInit = false;
    }
}

int CEvent::iSetEvent()
{
    return m_bInit ? sem_post(&m_hEvent) : -1;
}

int CEvent::iWaitForEvent(long iMs)
{
    if (!m_bInit) {
        return -1;
    }
    if (iMs < 0) {
        return sem_wait(&m_hEvent);
    }
    if (sem_trywait(&m_hEvent) == 0) {
        return 0;
    }
    // On the monotonic clock, so that a clock that the network sets neither ends nor stretches it.
    const CDeadline deadline(iMs);
    int iResult = 0;
    do {
        iResult = sem_clockwait(&m_hEvent, CLOCK_MONOTONIC, &deadline.Limit());
    } while (iResult != 0 && errno == EINTR);
    if (iResult != 0) {
        return kTimedOut;
    }
    TsanAcquire(&m_hEvent);
    return 0;
}

int CEvent::iResetEvent()
{
    int iResult = 0;
    while ((iResult = sem_trywait(&m_hEvent)) == 0) {
    }
    return iResult;
}

const char* const CMutex::m_szLabel = "Mutex";

CMutex::CMutex(pthread_mutex_t* pMutex) : m_Mutex(pMutex)
{
    LockMutex(m_Mutex);
}

CMutex::~CMutex()
{
    UnlockMutex(m_Mutex);
}

long CMutex::InitMutex(pthread_mutex_t* pMutex)
{
    const int iError = pthread_mutex_init(pMutex, nullptr);
    if (iError != 0) {
        CThread::m_Logger.Log(LOG_INFO, __FILE__, __LINE__, kMutex, "Failed to create mutex: %s\n",
                              CThread::m_Logger.strerrorT(iError).c_str());
        return SYNCHRO_MUTEX_CREATE;
    }
    return 0;
}

int CMutex::InitMutex(pthread_mutex_t* pMutex, bool& bInitialized)
{
    const int iResult = static_cast<int>(InitMutex(pMutex));
    bInitialized = iResult == 0;
    return iResult;
}

int CMutex::DestroyMutex(pthread_mutex_t* pMutex, bool& bInitialized)
{
    if (!bInitialized) {
        return 0;
    }
    const int iStatus = pthread_mutex_destroy(pMutex);
    if (iStatus != 0) {
        CThread::m_Logger.Log(LOG_INFO, __FILE__, __LINE__, kMutex,
                              "%s: Failed to destroy mutex, status=%d\n", __PRETTY_FUNCTION__,
                              iStatus);
    }
    bInitialized = false;
    // Not a failure: callers learn that there was a mutex. Held by
    // AMutex.ReportsThatAnInitialisedOneWasDestroyed.
    return SYNCHRO_MUTEX_DESTROYED;
}

int CMutex::LockMutex(pthread_mutex_t* pMutex)
{
    const int iError = pthread_mutex_lock(pMutex);
    if (iError != 0) {
        CThread::m_Logger.Log(LOG_INFO, __FILE__, __LINE__, kMutex,
                              "%s: Failed to lock mutex, err : %d\n", __PRETTY_FUNCTION__, iError);
        return SYNCHRO_MUTEX_LOCK;
    }
    return 0;
}

int CMutex::UnlockMutex(pthread_mutex_t* pMutex)
{
    if (pthread_mutex_unlock(pMutex) != 0) {
        CThread::m_Logger.Log(LOG_INFO, __FILE__, __LINE__, kMutex, "%s: Failed to unlock mutex\n",
                              __PRETTY_FUNCTION__);
        return SYNCHRO_MUTEX_UNLOCK;
    }
    return 0;
}

const char* const CConditionVariable::m_szLabel = "ConditionVariable";

CConditionVariable::CConditionVariable()
    : m_LockInitialized(false), m_Lock(), m_ConditionVariableInitialized(false),
      m_ConditionVariable()
{
}

CConditionVariable::~CConditionVariable()
{
    if (m_ConditionVariableInitialized) {
        pthread_cond_destroy(&m_ConditionVariable);
        m_ConditionVariableInitialized = false;
    }
    CMutex::DestroyMutex(&m_Lock, m_LockInitialized);
}

int CConditionVariable::Initialize()
{
    if (m_ConditionVariableInitialized) {
        return 0; // what exists may be in use
    }
    if (!m_LockInitialized) {
        const int iResult = CMutex::InitMutex(&m_Lock, m_LockInitialized);
        if (iResult != 0) {
            QUORCORE_LOG(LOG_ERR, "Failed to init mutex : CConditionVariable m_Lock\n");
            return iResult;
        }
    }
    if (pthread_cond_init(&m_ConditionVariable, nullptr) != 0) {
        QUORCORE_LOG(LOG_CRIT, "Failed to create condition variable");
        return SYNCHRO_COND_CREATE;
    }
    m_ConditionVariableInitialized = true;
    return 0;
}

int CConditionVariable::Lock()
{
    return m_LockInitialized ? CMutex::LockMutex(&m_Lock) : SYNCHRO_MUTEX_LOCK;
}

int CConditionVariable::Unlock()
{
    return m_LockInitialized ? CMutex::UnlockMutex(&m_Lock) : SYNCHRO_MUTEX_UNLOCK;
}

int CConditionVariable::Signal()
{
    if (!m_ConditionVariableInitialized || pthread_cond_signal(&m_ConditionVariable) != 0) {
        QUORCORE_LOG(LOG_CRIT, "Failed to signal condition variable");
        return SYNCHRO_COND_SIGNAL;
    }
    return 0;
}

int CConditionVariable::Wait()
{
    if (!m_ConditionVariableInitialized || pthread_cond_wait(&m_ConditionVariable, &m_Lock) != 0) {
        QUORCORE_LOG(LOG_CRIT, "Failed to wait for condition variable");
        return SYNCHRO_COND_WAIT;
    }
    return 0;
}

int CConditionVariable::LockAndSignal()
{
    if (!m_LockInitialized) {
        return Signal();
    }
    const CMutex held(&m_Lock);
    return Signal();
}

int CConditionVariable::LockAndWait()
{
    if (!m_LockInitialized) {
        return Wait();
    }
    const CMutex held(&m_Lock);
    return Wait();
}
} // namespace QuorCore
