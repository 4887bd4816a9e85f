#include "libQuorCore/CEventTimer.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
/// Tells whether a read would wait for ever: the timer is off, and has nothing to tell.
bool bSilent(int iFd)
{
    itimerspec left = {};
    pollfd expiry{iFd, POLLIN, 0};
    return timerfd_gettime(iFd, &left) == 0 && left.it_value.tv_sec == 0 &&
           left.it_value.tv_nsec == 0 && poll(&expiry, 1, 0) == 0;
}
} // namespace

CEventTimer::~CEventTimer()
{
    close(m_iFd);
}

void CEventTimer::SetValue(CTimerManager& mgr, long iValueSec, long iIntervalSec)
{
    m_Timer = {};
    m_Timer.it_value.tv_sec = static_cast<time_t>(iValueSec);
    m_Timer.it_interval.tv_sec = static_cast<time_t>(iIntervalSec);
    if (m_iFd == 0) {
        mgr.iCreateTimerFd(&m_iFd, m_Timer);
    }
    if (m_iFd != 0) {
        timerfd_settime(m_iFd, 0, &m_Timer, nullptr); // a second time for a new one: harmless
    }
}

bool CEventTimer::bIsReady(CTimerManager& mgr) const
{
    uint64_t iExpirations = 0;
    ssize_t lRead = -1;
    if (mgr.IsReady(m_iFd) && !bSilent(m_iFd)) {
        do {
            lRead = read(m_iFd, &iExpirations, sizeof(iExpirations));
        } while (lRead == -1 && errno == EINTR);
    }
    return lRead == static_cast<ssize_t>(sizeof(iExpirations));
}
} // namespace QuorCore
