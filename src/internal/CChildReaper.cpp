#include "internal/CChildReaper.h"

#include "internal/CCancelGuard.h"
#include "internal/CEndSignals.h"

#include <cerrno>
#include <pthread.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace QuorCore
{
namespace
{
/// Blocks all signals of the calling thread for a scope; a thread that is made in it inherits that.
class CBlockedSignals
{
public:
    CBlockedSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_former);
    }
    CBlockedSignals(const CBlockedSignals&) = delete;
    CBlockedSignals& operator=(const CBlockedSignals&) = delete;
    ~CBlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); } // leaves errno alone

    void Keep() { sigfillset(&m_former); } ///< Beyond the scope, too.

private:
    sigset_t m_former;
};
} // namespace

CChildReaper& CChildReaper::Get()
{
    static CChildReaper* const s_pReaper =
        new CChildReaper; // a signal may come after all else ended
    return *s_pReaper;
}

void CChildReaper::Start(const void* pUser, lost_t lost)
{
    const std::lock_guard<std::mutex> held(m_startLock);
    m_pUser = pUser;
    m_lost = lost;
    if (bStarted()) {
        return;
    }
    if (!m_bWakeMade) {
        m_bWakeMade = sem_init(&m_wake, 0, 0) == 0;
    }
    m_bRun = true;

    {
        const CBlockedSignals blocked;
        const int iError = pthread_create(&m_thread, nullptr, pRunThread, this);
        if (iError != 0) {
            throw std::system_error(iError, std::generic_category(), "pthread_create");
        }
        m_startedIn = getpid();
    }

    struct sigaction action = {}; // no flags, empty mask
    action.sa_handler = OnSignal;
    sigaction(SIGCHLD, &action, &m_former);
    sem_post(&m_wake); // for children that ended before
}

void CChildReaper::Stop(const void* pUser)
{
    const std::lock_guard<std::mutex> held(m_startLock);
    if (m_pUser == pUser) {
        End();
    }
}

void CChildReaper::StopAtExit()
{
    const std::lock_guard<std::mutex> held(m_startLock);
    End();
}

/// Under m_startLock.
void CChildReaper::End()
{
    if (!bStarted()) {
        return;
    }
    struct sigaction current = {};
    if (sigaction(SIGCHLD, nullptr, &current) == 0 && current.sa_handler == OnSignal) {
        sigaction(SIGCHLD, &m_former, nullptr); // the daemon may have put its own there since
    }
    m_bRun = false;
    if (pthread_equal(m_thread, pthread_self()) == 0) { // not in an OnLost() that calls exit(3)
        sem_post(&m_wake);
        pthread_join(m_thread, nullptr);
    }
    m_startedIn = 0;
    m_lost = nullptr;
}

/// Under m_startLock. A process that was forked off has the handler, but not the thread.
bool CChildReaper::bStarted() const
{
    return m_startedIn == getpid();
}

void CChildReaper::OnSignal(int)
{
    const int iSavedErrno = errno;
    sem_post(&Get().m_wake);
    CEndSignals::RecordChild();
    errno = iSavedErrno;
}

void* CChildReaper::pRunThread(void* pReaper)
{
    CChildReaper& reaper = *static_cast<CChildReaper*>(pReaper);
    while (reaper.m_bRun) {
        if (sem_wait(&reaper.m_wake) == 0) {
            reaper.Reap();
        }
    }
    return nullptr;
}

void CChildReaper::Reap()
{
    const CDeferredCancel deferred;
    while (m_lost.load() != nullptr && bReapOne()) {
    }
}

/// @return Whether there was a child to collect.
bool CChildReaper::bReapOne()
{
    pid_t pid = -1;
    int iStatus = 0;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        pid = waitpid(-1, &iStatus, WNOHANG);
        if (pid <= 0) {
            return false;
        }
        const auto claim = m_claims.find(pid);
        if (claim != m_claims.end()) {
            claim->second.bCollected = true;
            claim->second.bDelivering = true;
            claim->second.iStatus = iStatus;
            claim->second.deliverer = std::this_thread::get_id();
        }
    }
    const lost_t lost = m_lost;
    const bool bDelivered = lost != nullptr && lost(pid, iStatus);

    const std::lock_guard<std::mutex> held(m_lock);
    const auto claim = m_claims.find(pid);
    if (claim != m_claims.end()) {
        if (bDelivered) {
            m_claims.erase(claim);
        } else {
            claim->second.bDelivering = false; // kept for who claimed it
        }
        m_delivered.notify_all();
    }
    return true;
}

pid_t CChildReaper::iFork()
{
    CBlockedSignals blocked;
    const pid_t pid = fork();
    if (pid == 0) {
        int iIgnored = 0; // a request for the parent's thread is not for its copy
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &iIgnored);
        blocked.Keep();
    }
    return pid;
}

pid_t CChildReaper::iForkClaimed()
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_lock);
    const pid_t pid = iFork();
    if (pid > 0) {
        m_claims[pid] = claim_t();
    }
    return pid;
}

int CChildReaper::iSignal(pid_t pid, int iSignal)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_lock); // nobody is reaped meanwhile
    const auto claim = m_claims.find(pid);
    if (claim == m_claims.end() || claim->second.bCollected) {
        errno = ESRCH;
        return -1;
    }
    return kill(pid, iSignal);
}

void CChildReaper::Forget(pid_t pid)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_lock);
    m_claims.erase(pid);
    m_delivered.notify_all();
}

CChildReaper::eEnd CChildReaper::Take(pid_t pid, int& iStatus)
{
    const CDeferredCancel deferred;
    std::unique_lock<std::mutex> held(m_lock);
    for (;;) {
        const auto claim = m_claims.find(pid);
        if (claim == m_claims.end()) {
            return eEnd::DELIVERED;
        }
        if (!claim->second.bCollected) {
            return eEnd::UNKNOWN;
        }
        if (!claim->second.bDelivering) {
            iStatus = claim->second.iStatus;
            m_claims.erase(claim);
            return eEnd::COLLECTED;
        }
        if (claim->second.deliverer == std::this_thread::get_id()) {
            return eEnd::DELIVERED; // asked from within the delivery
        }
        m_delivered.wait(held);
    }
}
} // namespace QuorCore
