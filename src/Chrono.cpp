#include "libQuorCore/Chrono.h"

#include "internal/Clock.h"

#include "libQuorCore/CThread.h"

#include <cerrno>

using QuorCore::CThread;
using QuorCore::kMsPerSecond;
using QuorCore::kNanosecondsPerMs;

namespace
{
const char* const m_szLabel = "Chrono"; // function name of every line that it logs

/// @return Whether the clock could be read; else that was logged.
bool bRead(timespec& now)
{
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        return true;
    }
    CThread::m_Logger.Log(LOG_ERR, __FILE__, __LINE__, m_szLabel, "gettimeofday error: %s",
                          CThread::m_Logger.strerrorT(errno).c_str());
    return false;
}
} // namespace

void Chrono::Raz()
{
    timespec now = {};
    if (bRead(now)) {
        m_timeOnRaz = now;
    }
}

uint32_t Chrono::GetElapsedTime() const
{
    timespec now = {};
    if (!bRead(now)) {
        return static_cast<uint32_t>(kMsPerSecond);
    }
    // In unsigned 32 bits, which wrap, but for the nanoseconds: a negative part goes towards zero.
    const auto iSeconds = static_cast<uint32_t>(now.tv_sec - m_timeOnRaz.tv_sec);
    const int64_t iNanoseconds = int64_t{now.tv_nsec} - m_timeOnRaz.tv_nsec;
    return static_cast<uint32_t>(kMsPerSecond) * iSeconds +
           static_cast<uint32_t>(iNanoseconds / kNanosecondsPerMs);
}
