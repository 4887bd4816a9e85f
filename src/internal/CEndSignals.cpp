#include "internal/CEndSignals.h"

#include "libQuorCore/CRunFlag.h"

#include <atomic>
#include <cerrno>
#include <pthread.h>

namespace QuorCore
{
namespace
{
constexpr time_t kSliceSec = 1; // a recorded signal is looked for at least this often

// What the handler touches: lock-free, and alive as long as the process.
std::atomic<int> g_iEndSignal{0}; // recorded and not yet taken
std::atomic<bool> g_bMonitoringAsked{false};
std::atomic<bool> g_bChildEnded{false};
std::atomic<CRunFlag*> g_pRun{nullptr};
std::atomic<pthread_t> g_waiter{0}; // in iAwait()
std::atomic<bool> g_bInstalled[3];  // by place in Handled()

static_assert(std::atomic<CRunFlag*>::is_always_lock_free, "used in a signal handler");

/// @return Whether this thread is in iAwait().
bool bAwaitsHere()
{
    const pthread_t waiter = g_waiter;
    return waiter != 0 && pthread_equal(waiter, pthread_self()) != 0;
}

void OnSignal(int iSignal)
{
    const int iSavedErrno = errno;
    const pthread_t waiter = g_waiter;
    if (waiter != 0 && pthread_equal(waiter, pthread_self()) == 0) {
        pthread_kill(waiter, iSignal); // wakes it at once, or is recorded there: never both
    } else if (iSignal == CEndSignals::iMonitoringSignal()) {
        g_bMonitoringAsked = true;
    } else {
        g_iEndSignal = iSignal;
        if (CRunFlag* pRun = g_pRun) {
            *pRun = false;
        }
    }
    errno = iSavedErrno;
}

int iHandled(int iPlace)
{
    const int aSignals[] = {SIGTERM, SIGQUIT, CEndSignals::iMonitoringSignal()};
    return aSignals[iPlace];
}

/// @return A recorded signal, taken now, or 0.
int iTakeRecorded()
{
    const int iEndSignal = g_iEndSignal.exchange(0);
    if (iEndSignal != 0) {
        return iEndSignal;
    }
    if (g_bMonitoringAsked.exchange(false)) {
        return CEndSignals::iMonitoringSignal();
    }
    return g_bChildEnded.exchange(false) ? SIGCHLD : 0;
}
} // namespace

void CEndSignals::Install(CRunFlag* pRun)
{
    g_pRun = pRun;
    for (int iPlace = 0; iPlace < 3; ++iPlace) {
        struct sigaction action = {};
        if (sigaction(iHandled(iPlace), nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action = {};
            action.sa_handler = OnSignal;
            g_bInstalled[iPlace] = sigaction(iHandled(iPlace), &action, nullptr) == 0;
        }
    }
}

void CEndSignals::Restore(const CRunFlag* pRun)
{
    if (g_pRun != pRun) {
        return;
    }
    for (int iPlace = 0; iPlace < 3; ++iPlace) {
        struct sigaction action = {};
        if (g_bInstalled[iPlace].exchange(false) &&
            sigaction(iHandled(iPlace), nullptr, &action) == 0 && action.sa_handler == OnSignal) {
            action = {};
            action.sa_handler = SIG_DFL;
            sigaction(iHandled(iPlace), &action, nullptr);
        }
    }
    g_pRun = nullptr;
    while (iTakeRecorded() != 0) {
    }
}

void CEndSignals::RecordChild()
{
    if (bAwaitsHere()) { // between two slices; in the pause after a round nobody is told
        g_bChildEnded = true;
    }
}

int CEndSignals::iAwait(const sigset_t& signals)
{
    g_waiter = pthread_self();
    int iSignal = 0;
    while ((iSignal = iTakeRecorded()) == 0) {
        const timespec slice{kSliceSec, 0};
        iSignal = sigtimedwait(&signals, nullptr, &slice);
        if (iSignal > 0) {
            break;
        }
    }
    g_waiter = 0;
    return iSignal;
}

void CEndSignals::Pause(int iSeconds)
{
    if (g_iEndSignal == 0) {
        const timespec pause{iSeconds, 0};
        nanosleep(&pause, nullptr);
    }
}
} // namespace QuorCore
