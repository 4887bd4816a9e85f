/// @file
/// @brief Waits for any of several timers.
#pragma once

#include "libQuorCore/Export.h"

#include <ctime>
#include <set>
#include <sys/select.h>

namespace QuorCore
{
/// @return @p iMs ms as seconds and nanoseconds, whatever the name says.
QUORCORE_API timespec ConvertMillisecondToTimeval(int iMs);

/**
 * @brief The descriptors of several CEventTimers, and a wait for all of them.
 *
 *     CTimerManager manager;
 *     CEventTimer timer;
 *     timer.SetValue(manager, 1, 1);
 *     int nReady = 0;
 *     while (manager.iSelect(5000, &nReady) == 0) {
 *         if (timer.bIsReady(manager)) { ... }
 *     }
 *
 * Threads: one, the owner's. Ownership: the descriptors are not its own. Errors: by return value,
 * as errno. Rests on timerfd_create(2) and pselect(2).
 */
class QUORCORE_API CTimerManager
{
public:
    CTimerManager();
    virtual ~CTimerManager() = default;

    /**
     * @brief Makes a timer on the monotonic clock, arms it, and waits for it from now on.
     * @param piFd  Receives the descriptor, which is the caller's; -1 when it could not be made.
     * @param spec  Relative to now; timerfd_settime(2).
     * @return 0, or an error number: of a failure to arm it, too, after which the descriptor stays
     *         open and is not waited for.
     */
    long iCreateTimerFd(int* piFd, itimerspec& spec);

    /// Waits no longer for it; it stays open. One that is unknown is logged at level 3.
    void RemoveFd(int iFd);

    bool IsReady(int iFd) const; ///< @return Whether the last iSelect() found it ready.

    /**
     * @brief Waits until a timer is ready or the time is over.
     *
     * Descriptors of 1024 and more are not waited for: the mask has no bit for them.
     *
     * @param iTimeoutMs  0 or more ms.
     * @param piResult    Receives the number of ready descriptors, 0 after the time; -1 on error.
     * @return 0, or an error number: EINTR when a signal came, EINVAL for a negative time. None is
     *         ready then.
     */
    long iSelect(int iTimeoutMs, int* piResult);

protected:
    std::set<int> m_fdRead;  ///< Those to wait for.
    fd_set m_readFdMask;     ///< Those that are ready.
    timespec m_timeout = {}; ///< Of the last wait.
};
} // namespace QuorCore
