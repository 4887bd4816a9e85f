/// @file
/// @brief The base of every active object: one POSIX thread with a start, a loop and an end.
#pragma once

#include "libQuorCore/CCallbackMap.h"
#include "libQuorCore/CLogger.h"
#include "libQuorCore/CObject.h"
#include "libQuorCore/CRunFlag.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/synchro.h"

#include <atomic>
#include <memory>
#include <pthread.h>

namespace QuorCore
{
/**
 * @brief Runs iInitInstance(), iRunThread() and iExitInstance() on a thread of its own.
 *
 * A derived class supplies iRunThread(), which raises m_bRun and loops while it is set.
 *
 * Threads: iCreateThread(), iStop(), iJoin() and iDetach() are for other threads than the one they
 * control; iStop() may also be called by the thread itself. The thread runs with every asynchronous
 * signal blocked, so that signals reach the main thread and no system call of a thread is cut
 * short; programs that a thread starts by other means than CProcess inherit that mask.
 * Cancellation (iStop with bCancel, or a thread that does not end within 10 s) is asynchronous
 * while iRunThread() runs, as pthread_setcanceltype(3) has it: a body that may be cancelled holds
 * no lock and allocates nothing outside the library's own calls, which defer it. Ownership: a
 * derived class whose members the thread uses calls StopAndAwaitEnd() in its own destructor;
 * ~CThread stops, cancels and waits as a last resort, because the object must outlive its thread.
 * Errors: by return value, error numbers of pthreads(7) or -1.
 */
class QUORCORE_API CThread : public CObject
{
public:
    /// @param pParent   Parent in the object tree or null; not owned.
    /// @param szLabel   Name of the thread in the log; copied.
    CThread(CObject* pParent, const char* szLabel);
    ~CThread() override;

    /// Logs the text of an error number at level 3. @return @p iError.
    virtual long iLogError(uint32_t iError);

    /**
     * @brief Asks the loop to end, and waits for it when told so.
     *
     * An auto-delete thread is only asked: it ends and deletes its object by itself, and nobody may
     * touch the object any more. A stop that finds another one under way logs "iStop is running"
     * and leaves it to that one.
     *
     * @param bJoin    Wait for the end, 10 s at most, after which the thread is cancelled. Waits,
     *                 too, for a thread that an earlier stop did not join, without cancelling it.
     * @param bCancel  Cancel the thread first.
     * @return 0 always.
     */
    virtual long iStop(bool bJoin, bool bCancel);

    /// @return 0 while m_bRun is set, else -1; derived threads report their health.
    virtual int iMonitoring();

    virtual long iRunThread(); ///< The body; nothing here. @return 0, or a result that is logged.

    /// Registers the thread with the logger and posts EVT_THREAD_STARTED. @return 0; other results
    /// of an override skip iRunThread().
    virtual long iInitInstance();

    /// Takes the thread from the logger and deletes its callbacks. @return 0.
    virtual long iExitInstance();

    /**
     * @brief Creates the thread, and waits for its loop when told so.
     *
     * A thread that was created and not yet stopped stays as it is: "is Running ? = %d" is logged
     * at level 6 and the result is 0.
     *
     * @param bWait     Wait until the loop has raised m_bRun.
     * @param iTimeout  Longest wait in ms; below 1 none. A thread that ends without having raised
     *                  m_bRun ends the wait.
     * @return 0; an error number of pthread_create(3); -1 when the loop did not start in time, in
     *         which case the thread was stopped again.
     */
    long iCreateThread(bool bWait, int iTimeout);

    /// The thread function. @param pThis  The CThread to run, or null. Does not return.
    static void* pThreadEntryPoint(void* pThis);

    bool bIsRunning() const { return m_threadId != 0 || m_bRun; } ///< Created or looping.
    bool bIsStarted() const { return m_threadId != 0 && m_bRun; } ///< Created and looping.
    pthread_t iGetThreadId() const { return m_threadId; }         ///< 0 when there is none.
    void ResetThreadId() { m_threadId = 0; }

    /**
     * @brief Lowers m_bRun and waits 10 s (monotonic clock) for the thread's end.
     * @return 0 ended; -1 nothing runs; ETIMEDOUT after 10 s: "can't stop !!" was logged and the
     *         thread cancelled, but not waited for again; EDEADLK for the thread itself.
     */
    long iJoin();

    /// Lets the thread end by itself. @return 0, or the error number of pthread_detach(3).
    long iDetach();

    void Sleep(int iMs); ///< Sleeps that many ms, whole, whatever signals come; below 1 not at all.

    /**
     * @brief Sleeps in steps of a second until the time is over, m_bRun is cleared or StopDynWait()
     *        is called. At least one second is always slept.
     * @return m_bRun.
     */
    bool bDynWait(int iSeconds);

    /// The same in steps of @p iStepMs (below 1: 1), at least one of them.
    void YieldCPU(int iTotalMs, int iStepMs);

    void StopDynWait() { m_bRunDynWait = false; } ///< Ends a wait after its current step.

    int iLock() { return m_RecursiveLock.iLock(); } ///< @return 0, or an error number.
    void UnLock() { m_RecursiveLock.UnLock(); }

    /// @name The thread's callbacks, as CCallbackMap has them.
    /// A thread that ends empties its map: what was registered before a restart is registered anew.
    /// A cancelled one leaves it as it is: RemoveAllCallback() before a restart.
    /// @{
    CInvokeCallback* pAddCallback(uint32_t iEventId, CInvokeCallback* pCallback);
    void RemoveEvent(uint32_t iEventId);
    void RemoveCallback(CInvokeCallback* pCallback);
    void RemoveAllCallback();
    /// @}

    bool bIsAutoDelete() const { return m_bAutoDelete; }
    /// The thread detaches itself and deletes its object, made with new, when it ends. Set before
    /// the thread is created.
    void SetAutoDelete(bool bOn) { m_bAutoDelete = bOn; }

    void SetLogLevel(int iLevel) { __atomic_store_n(&m_iLogLevel, iLevel, __ATOMIC_RELAXED); }
    int* piGetLogLevel() { return &m_iLogLevel; } ///< Others read and write it without a lock.

    static CLogger m_Logger; ///< The logger of the process.

protected:
    /// For destructors: iStop(true, false), and waits as long as the thread still uses the object,
    /// however it was stopped before. A thread that does not end is logged every 10 s at level 2.
    void StopAndAwaitEnd();

    /// The second half of it: for an object that was stopped already, maybe without waiting.
    void AwaitThreadEnd();

    /// Before a cancellation: gives a thread that was told to end two seconds to do so by itself,
    /// more than a step of bDynWait() takes. Cancelled at the moment it wakes, it may be in no
    /// state to be unwound on 32-bit ARM. Returns at once in the thread itself, and if there is
    /// none.
    void LetThreadEnd();

    /// The object as a thread, or null. Asks a plain field rather than the type information, which
    /// changes while an object is being destroyed: a slot may look at the origin of a message just
    /// then, and ~CThread waits for it.
    static CThread* pAsThread(CObject* pObject);

    /// Lowers m_bRun so that the loop cannot raise it again before the thread is created anew: the
    /// first step of a stop. An iStop() that ends what the loop waits for calls it before it does.
    void AskStop() { m_bRun.AskStop(); }

    CRunFlag m_bRun;                        ///< The loop goes on while it is set.
    std::atomic<bool> m_bRunDynWait{false}; ///< An interruptible wait goes on while it is set.
    std::atomic<pthread_t> m_threadId{0};   ///< 0 when there is no thread to join.
    pthread_attr_t m_pthreadAttr;           ///< Zeroed; kept for derived classes, not used here.
    CRecursiveLock m_RecursiveLock;         ///< For the state of derived classes.
    CRecursiveLock m_StopLock;              ///< Held by the stop that is under way.
    CCallbackMap m_CallbackMap;
    static std::atomic<int> m_iNum; ///< Threads ever constructed; never counted down.
    int m_iLogLevel;                ///< Accessed atomically: the logger has its address.
    std::atomic<bool> m_bAutoDelete{false};

private:
    long iStartThread(bool bAutoDelete);
    static void AbandonStart(CThread& thread, bool bAutoDelete, int iTimeout, CThreadLife& life);
    long iRunHooks();
    long iRunCancellable();
    void ExitAfterException();
    unsigned iKnownThread();
    bool bIsKnown(unsigned iThread) const;
    bool bIsOwnThread() const;
    void CancelThread(unsigned iThread);
    void GiveUpThread(unsigned iThread);
    long lJoinKnown(unsigned iThread, int iMs);
    void ForgetServedStop();

    std::shared_ptr<CThreadLife> m_pLife; ///< The thread's too; outlives an auto-delete object.
};
} // namespace QuorCore
