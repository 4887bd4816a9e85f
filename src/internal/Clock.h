/// @file
/// @brief Deadlines and pauses on the monotonic clock, which nobody sets.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace QuorCore
{
constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kNanosecondsPerMs = 1000000;
constexpr int64_t kMsPerSecond = 1000;

/// @return @p now plus @p iMs ms (0 or more), held at the last second that time_t can name.
inline timespec After(timespec now, int64_t iMs)
{
    constexpr int64_t kLastSecond =
        sizeof(time_t) > 4 ? INT64_MAX / 2 : static_cast<int64_t>(INT32_MAX);
    int64_t iNanoseconds = now.tv_nsec + iMs % kMsPerSecond * kNanosecondsPerMs;
    int64_t iSeconds = iMs / kMsPerSecond;
    if (iNanoseconds >= kNanosecondsPerSecond) {
        iNanoseconds -= kNanosecondsPerSecond;
        ++iSeconds;
    }
    const int64_t iRoom = kLastSecond - static_cast<int64_t>(now.tv_sec);
    timespec later{};
    later.tv_sec = static_cast<time_t>(now.tv_sec + (iSeconds < iRoom ? iSeconds : iRoom));
    later.tv_nsec = static_cast<long>(iNanoseconds);
    return later;
}

/// @return The time of a clock; clock_gettime(2).
inline timespec Now(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

/// A limit on the monotonic clock.
class CDeadline
{
public:
    explicit CDeadline(int64_t iMs) : m_limit(After(Now(CLOCK_MONOTONIC), iMs)) {}

    const timespec& Limit() const { return m_limit; }

    /// @return ms left, rounded up; 0 when the time is over.
    int64_t iLeftMs() const
    {
        const timespec now = Now(CLOCK_MONOTONIC);
        const int64_t iSeconds = static_cast<int64_t>(m_limit.tv_sec) - now.tv_sec;
        const int64_t iNanoseconds = static_cast<int64_t>(m_limit.tv_nsec) - now.tv_nsec;
        if (iSeconds > INT64_MAX / kNanosecondsPerSecond - 1) {
            return iSeconds; // centuries: any large number will do
        }
        const int64_t iLeft = iSeconds * kNanosecondsPerSecond + iNanoseconds;
        return iLeft > 0 ? (iLeft + kNanosecondsPerMs - 1) / kNanosecondsPerMs : 0;
    }

private:
    timespec m_limit;
};

/// Sleeps @p iMs ms, whole, whatever signals come; clock_nanosleep(2).
inline void SleepMs(int64_t iMs)
{
    if (iMs > 0) {
        const CDeadline deadline(iMs);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline.Limit(), nullptr) ==
               EINTR) {
        }
    }
}
} // namespace QuorCore
