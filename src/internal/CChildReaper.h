/// @file
/// @brief Collects ended children in an ordinary thread and hands each status to the right waiter.
#pragma once

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>
#include <thread>

namespace QuorCore
{
/**
 * @brief The process's one place that knows which children it waits for.
 *
 * A SIGCHLD handler that reaped by itself would take locks, allocate and log in the middle of
 * whatever it interrupted. This handler only posts a semaphore; a thread with all signals blocked
 * does the rest. Reaping any child takes the status away from whoever waits for that very child, so
 * a waiter claims its child as it forks it, and finds here what the reaper took.
 *
 * Threads: any. Lives to the end of the process.
 */
class CChildReaper
{
public:
    /// Who is told of a reaped child. @return Whether it was his.
    using lost_t = bool (*)(pid_t pid, int iStatus);

    /// What became of a claimed child that waitpid(2) does not know any more.
    enum class eEnd {
        UNKNOWN,   ///< Not collected here.
        COLLECTED, ///< Its status is handed out now, once.
        DELIVERED, ///< Its status went elsewhere, or was handed out before.
    };

    static CChildReaper& Get();

    /// Installs the SIGCHLD handler and starts the thread. @param pUser  Whose Stop() ends them.
    /// Throws std::system_error when there can be no thread.
    void Start(const void* pUser, lost_t lost);

    /// Ends the thread and restores the former handler, if @p pUser was the last to start them.
    void Stop(const void* pUser);

    /// The same whoever started them: what they report to is about to be destroyed.
    void StopAtExit();

    /// Collects every ended child now; nothing when not started.
    void Reap();

    /// fork(2) whose child has all signals blocked until it has dropped the handlers of the parent:
    /// these would swallow a signal that is meant to end the child.
    static pid_t iFork();

    /// iFork(); in the parent the child is claimed before it can be reaped.
    pid_t iForkClaimed();

    /// kill(2) for a claimed child that was not collected yet: once it was, the number may be that
    /// of a stranger. @return 0, or -1 with errno, ESRCH when it was.
    int iSignal(pid_t pid, int iSignal);

    /// Withdraws a claim: nobody will ask for this child again.
    void Forget(pid_t pid);

    /**
     * @brief Asks for a claimed child that waitpid(2) does not know any more, waiting for a
     * delivery that another thread has under way.
     * @param iStatus  Receives the status with COLLECTED.
     */
    eEnd Take(pid_t pid, int& iStatus);

private:
    struct claim_t {
        bool bCollected = false;
        bool bDelivering = false;
        int iStatus = 0;
        std::thread::id deliverer;
    };

    CChildReaper() = default;

    static void OnSignal(int);
    static void* pRunThread(void* pReaper);
    void End();
    bool bStarted() const;
    bool bReapOne();

    std::mutex m_lock; // held over every reaping and forking; guards the claims
    std::condition_variable m_delivered;
    std::map<pid_t, claim_t> m_claims;

    std::mutex m_startLock; // guards what follows
    const void* m_pUser = nullptr;
    pthread_t m_thread{};
    pid_t m_startedIn = 0; // the process that the thread runs in; 0 without
    struct sigaction m_former = {};
    std::atomic<lost_t> m_lost{nullptr};
    std::atomic<bool> m_bRun{false};
    sem_t m_wake{}; // created once, never destroyed: a late signal may still post it
    bool m_bWakeMade = false;
};
} // namespace QuorCore
