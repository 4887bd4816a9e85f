#include "libQuorCore/CTimerManager.h"

#include "internal/Clock.h"

#include "libQuorCore/CThread.h"

#include <cerrno>
#include <sys/timerfd.h>

namespace QuorCore
{
namespace
{
bool bHasBit(int iFd)
{
    return 0 <= iFd && iFd < FD_SETSIZE;
}
} // namespace

timespec ConvertMillisecondToTimeval(int iMs)
{
    timespec time = {};
    time.tv_sec = static_cast<time_t>(iMs / kMsPerSecond);
    time.tv_nsec = static_cast<long>(iMs % kMsPerSecond * kNanosecondsPerMs);
    return time;
}

CTimerManager::CTimerManager()
{
    FD_ZERO(&m_readFdMask);
}

long CTimerManager::iCreateTimerFd(int* piFd, itimerspec& spec)
{
    *piFd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    if (*piFd == -1 || timerfd_settime(*piFd, 0, &spec, nullptr) == -1) {
        return errno;
    }
    m_fdRead.insert(*piFd);
    return 0;
}

void CTimerManager::RemoveFd(int iFd)
{
    if (m_fdRead.erase(iFd) == 0) {
        // The function name is the one that every daemon's log has had. Held by
        // ATimerManager.LogsTheRemovalOfAnUnknownDescriptor.
        CThread::m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "componentName",
                              "Cannot remove fd %d (read): no such file descriptor", iFd);
    }
}

bool CTimerManager::IsReady(int iFd) const
{
    return bHasBit(iFd) && FD_ISSET(iFd, &m_readFdMask);
}

long CTimerManager::iSelect(int iTimeoutMs, int* piResult)
{
    m_timeout = ConvertMillisecondToTimeval(iTimeoutMs);
    FD_ZERO(&m_readFdMask);
    int iLargest = -1;
    for (const int iFd : m_fdRead) {
        if (bHasBit(iFd)) {
            FD_SET(iFd, &m_readFdMask);
            iLargest = iFd;
        }
    }
    const int iResult = pselect(iLargest + 1, &m_readFdMask, nullptr, nullptr, &m_timeout, nullptr);
    const int iError = errno;
    if (piResult != nullptr) {
        *piResult = iResult;
    }
    if (iResult == -1) {
        FD_ZERO(&m_readFdMask); // it still is the request: every timer would look ready
        return iError;
    }
    return 0;
}
} // namespace QuorCore
