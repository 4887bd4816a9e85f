/// @file
/// @brief A moment on the monotonic clock by which a command must be over.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace QuorCtl
{
using Clock = std::chrono::steady_clock;

/// @brief A limit that starts to run when the object is made; setting the clock does not move it.
class CDeadline
{
public:
    /// @param iLimitMs  From now, in ms, 0 or more.
    explicit CDeadline(int iLimitMs)
        : m_End(Clock::now() + std::chrono::milliseconds(iLimitMs)), m_iLimitMs(iLimitMs)
    {
    }

    /// @param end  The moment itself.
    explicit CDeadline(Clock::time_point end) : m_End(end), m_iLimitMs(iMsUntil(end)) {}

    /// @return A deadline that never passes.
    static CDeadline Never() { return CDeadline(Clock::time_point::max()); }

    /// @return The time that was given at first, in ms: what a message names.
    int iLimitMs() const { return m_iLimitMs; }

    bool bPassed() const { return bEndless() ? false : Clock::now() >= m_End; }

    /// @return Time left in ms, rounded up, 0 when it has passed, -1 when it never does: what
    ///         poll(2) takes.
    int iRemainingMs() const { return bEndless() ? -1 : iMsUntil(m_End); }

    /// @return The @p iShare-th part of what is left, for the first of so many attempts.
    CDeadline Share(int iShare) const
    {
        return bEndless() ? *this : CDeadline(iRemainingMs() / std::max(iShare, 1));
    }

private:
    bool bEndless() const { return m_End == Clock::time_point::max(); }

    static int iMsUntil(Clock::time_point end)
    {
        if (end == Clock::time_point::max()) {
            return -1;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
    }

    Clock::time_point m_End;
    int m_iLimitMs;
};
} // namespace QuorCtl
