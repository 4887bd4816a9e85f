/// @file
/// @brief Waiting with a limit, for states that announce themselves by no event.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace TestSupport
{
/// Limit in ms for what must happen. Paid only by a test that fails, so it is generous: sixteen
/// tests may share two processors, with a build beside them, and those of ARM may be emulated.
constexpr int kAwaitLimitMs = 60000;

/// @brief A moment on the monotonic clock by which something must have happened.
class CDeadline
{
public:
    /// @param iLimitMs  From now, in ms, 0 or more.
    explicit CDeadline(int iLimitMs)
        : m_End(std::chrono::steady_clock::now() + std::chrono::milliseconds(iLimitMs))
    {
    }

    bool bPassed() const { return std::chrono::steady_clock::now() >= m_End; }

    /// @return Time left in ms, rounded up; 0 when it has passed. What poll(2) takes.
    int iRemainingMs() const
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_End - std::chrono::steady_clock::now());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }

private:
    std::chrono::steady_clock::time_point m_End;
};

/**
 * @brief Asks again and again until the answer is yes: after 1 ms, then less and less often, at
 *        least every 8 ms. Many tests wait at the same time.
 *
 * @param predicate  Called in the caller's thread, at least once, and a last time at the limit.
 * @param iLimitMs   Time allowed in ms.
 * @return True as soon as the predicate is, false if it is not by the limit.
 */
template <class Predicate>
bool bAwait(Predicate&& predicate, int iLimitMs = kAwaitLimitMs)
{
    constexpr std::chrono::milliseconds kPauseMax(8);
    const CDeadline deadline(iLimitMs);
    for (std::chrono::milliseconds pause(1);; pause = std::min(2 * pause, kPauseMax)) {
        const bool bLast = deadline.bPassed(); // before the question, which may itself take long
        if (predicate()) {
            return true;
        }
        if (bLast) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
}
} // namespace TestSupport
