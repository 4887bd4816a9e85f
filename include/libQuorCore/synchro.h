/// @file
/// @brief Locks, a counting event and a condition variable over POSIX threads.
#pragma once

#include "libQuorCore/Export.h"

#include <pthread.h>
#include <semaphore.h>

namespace QuorCore
{
/// What CMutex and CConditionVariable return beside 0.
enum eSynchroError : int {
    SYNCHRO_MUTEX_CREATE = -600,    ///< The mutex could not be created.
    SYNCHRO_MUTEX_DESTROYED = -601, ///< An initialised mutex was destroyed: a report, no failure.
    SYNCHRO_MUTEX_LOCK = -602,      ///< Locking failed.
    SYNCHRO_MUTEX_UNLOCK = -603,    ///< Unlocking failed.
    SYNCHRO_COND_CREATE = -610,     ///< The condition variable could not be created.
    SYNCHRO_COND_WAIT = -612,       ///< Waiting failed.
    SYNCHRO_COND_SIGNAL = -613,     ///< Signalling failed.
};

/// What a bounded wait returns when its time is over.
constexpr int kTimedOut = -7;

/**
 * @brief A lock that the thread holding it may take again; every iLock() needs an UnLock().
 *
 * Threads: any. A thread that is cancelled while it holds the lock leaves it held: inside the
 * library every holder defers cancellation. Rests on pthread_mutex_lock(3), type recursive.
 */
class QUORCORE_API CRecursiveLock
{
public:
    CRecursiveLock();
    CRecursiveLock(const CRecursiveLock&) = delete;
    CRecursiveLock& operator=(const CRecursiveLock&) = delete;
    virtual ~CRecursiveLock(); ///< The lock must be free.

    /// Waits without limit. @return 0 when taken, else the error number of pthread_mutex_lock(3).
    int iLock();

    /**
     * @brief Takes the lock within a time; a failure is logged at level 6.
     * @param iMs  Longest wait in ms; below 1 a single attempt. Measured on the monotonic clock,
     *             so that a clock that is set meanwhile neither ends nor stretches the wait.
     * @return 0 when taken, EBUSY (no wait asked for), ETIMEDOUT, or another error number.
     */
    int iTryLock(long iMs);

    /// Gives one iLock() back; only by the thread that holds it.
    void UnLock();

protected:
    pthread_mutex_t m_hMutex;
    pthread_mutexattr_t m_Attr;
};

/**
 * @brief A lock that spins; for a few instructions on several cores, never across a call that
 * waits.
 *
 * The library itself does not use it: on one core with real-time priorities a spinning thread
 * starves the holder. Rests on pthread_spin_lock(3), private to the process.
 */
class QUORCORE_API CSpinLock
{
public:
    CSpinLock();
    CSpinLock(const CSpinLock&) = delete;
    CSpinLock& operator=(const CSpinLock&) = delete;
    virtual ~CSpinLock();

    /// Spins without limit. @return 0 when taken, else an error number.
    int iLock();

    /**
     * @brief Tries every 10 ms until taken or the time is used up.
     *
     * At least one attempt is made, and a failed attempt always costs its 10 ms pause, also with
     * @p iMs of 0 or less: callers use the call itself as their back-off.
     *
     * @param iMs  Time in ms.
     * @return The last attempt's result: 0 when taken, EBUSY when not.
     */
    int iTryLock(long iMs);

    void UnLock(); ///< Only by the thread that holds it.

protected:
    pthread_spinlock_t m_hLock;
};

/**
 * @brief A counting wake-up signal: every iSetEvent() lets one iWaitForEvent() pass.
 *
 * Threads: any may set, several may wait. Signals are counted, not merged. Rests on an unnamed
 * semaphore, sem_overview(7).
 */
class QUORCORE_API CEvent
{
public:
    CEvent(); ///< Count 0.
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;
    virtual ~CEvent(); ///< Nobody may be waiting.

    /// Adds one to the count; safe in a signal handler. @return 0, or -1 (errno as sem_post(3)).
    int iSetEvent();

    /**
     * @brief Takes one from the count, waiting for it when there is none.
     * @param iMs  Longest wait in ms on the monotonic clock; 0 polls; negative waits for ever. A
     *             signal does not end a limited wait, but ends an unlimited one with -1 (EINTR).
     * @return 0 taken; -7 not in time; -1 no semaphore, or an unlimited wait that failed.
     */
    int iWaitForEvent(long iMs);

    /// Drains the count to 0. @return -1 always: the result of the attempt that found nothing.
    int iResetEvent();

protected:
    sem_t m_hEvent;
    bool m_bInit; ///< The semaphore exists.
};

/**
 * @brief Holds a raw mutex for a scope, and the static calls to make, lock and destroy one.
 *
 * The mutex is a default one: taken twice by a thread it deadlocks. Every failure is logged at
 * level 6 under the function name "CMutex". The guard unlocks what it was given even when locking
 * had failed. Rests on pthread_mutex_init(3).
 */
class QUORCORE_API CMutex
{
public:
    static const char* const m_szLabel; ///< "Mutex"

    explicit CMutex(pthread_mutex_t* pMutex); ///< Locks @p pMutex, which stays the caller's.
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;
    ~CMutex(); ///< Unlocks it.

    /// Creates a default mutex. @return 0 or -600.
    static long InitMutex(pthread_mutex_t* pMutex);
    /// Creates a default mutex. @param bInitialized  Receives whether it exists. @return 0 or -600.
    static int InitMutex(pthread_mutex_t* pMutex, bool& bInitialized);
    /**
     * @brief Destroys a mutex if @p bInitialized tells that it exists, and clears the flag.
     * @return 0 when there was none; -601 when one was destroyed, well or not: callers read it as
     *         "it was there", not as a failure.
     */
    static int DestroyMutex(pthread_mutex_t* pMutex, bool& bInitialized);
    /// @return 0 or -602.
    static int LockMutex(pthread_mutex_t* pMutex);
    /// @return 0 or -603.
    static int UnlockMutex(pthread_mutex_t* pMutex);

private:
    pthread_mutex_t* m_Mutex; ///< Borrowed.
};

/**
 * @brief A condition variable with its mutex; nothing exists until Initialize().
 *
 * Wait() may return without a signal (pthread_cond_wait(3)): callers test their own state. Before
 * Initialize() every call fails with its own code. Threads: any.
 */
class QUORCORE_API CConditionVariable
{
public:
    static const char* const m_szLabel; ///< "ConditionVariable"

    CConditionVariable();
    CConditionVariable(const CConditionVariable&) = delete;
    CConditionVariable& operator=(const CConditionVariable&) = delete;
    ~CConditionVariable(); ///< Nobody may be waiting.

    /// Creates both; a second call changes nothing. @return 0, -600 or -610.
    int Initialize();
    /// @return The mutex; owned by this object.
    pthread_mutex_t* GetMutex() { return &m_Lock; }
    int Lock();   ///< @return 0 or -602.
    int Unlock(); ///< @return 0 or -603.
    int Signal(); ///< Wakes one waiter. @return 0 or -613.
    /// Waits without limit; the caller holds the mutex. @return 0 or -612.
    int Wait();
    int LockAndSignal(); ///< Signal() under the mutex. @return As Signal().
    int LockAndWait();   ///< Wait() under the mutex. @return As Wait().

private:
    bool m_LockInitialized;
    pthread_mutex_t m_Lock;
    bool m_ConditionVariableInitialized;
    pthread_cond_t m_ConditionVariable;
};
} // namespace QuorCore
