/// @file
/// @brief A timer that a CTimerManager waits for.
#pragma once

#include "libQuorCore/CTimerManager.h"
#include "libQuorCore/Export.h"

#include <ctime>

namespace QuorCore
{
/**
 * @brief A one-shot or periodic timer on the monotonic clock.
 *
 * Its destructor closes descriptor m_iFd, also when that is 0 because the timer was never set: a
 * process keeps 0 to 2 occupied, as a daemon of this library does. The manager does not hear of it,
 * so the owner calls CTimerManager::RemoveFd() first.
 *
 * Threads: one, the manager's. Rests on timerfd_create(2).
 */
class QUORCORE_API CEventTimer
{
public:
    CEventTimer() = default;
    CEventTimer(const CEventTimer&) = delete;
    CEventTimer& operator=(const CEventTimer&) = delete;
    ~CEventTimer();

    int iGetFd() { return m_iFd; } ///< @return Its descriptor; 0 before it was set.

    /**
     * @brief Sets the timer, for the first time or anew.
     * @param iValueSec     Until it fires in s; 0 disarms it.
     * @param iIntervalSec  From then on in s; 0: only once.
     */
    void SetValue(CTimerManager& mgr, long iValueSec, long iIntervalSec);

    /**
     * @brief Tells whether it has fired, once however often it did since.
     *
     * To be asked once after each CTimerManager::iSelect(): asked again, it waits for the timer to
     * fire anew. Meant, since the descriptor blocks; held by
     * AnEventTimer.WaitsForTheNextExpiryWhenAskedTwice. A timer that will not, since it was
     * disarmed in the meantime or fires only once, is not ready.
     */
    bool bIsReady(CTimerManager& mgr) const;

protected:
    itimerspec m_Timer = {};
    int m_iFd = 0; ///< 0: there is none yet.
};
} // namespace QuorCore
