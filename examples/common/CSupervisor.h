/// @file
/// @brief The thread that looks after the endpoints of an example daemon.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <vector>

/**
 * @brief Calls iMonitoring() of every endpoint once in each period.
 *
 * An endpoint does not watch itself. Its iMonitoring() pings the peer and closes the connection
 * when nothing was received for 40 s, so the period must be well below that. A peer that reads
 * nothing may hold one call for 10 s: nothing urgent belongs on this thread.
 *
 * Ownership: the endpoints are not owned. They are named before the thread is created and live
 * until it has been stopped. The thread is created once.
 */
class CSupervisor : public QuorCore::CThread
{
public:
    CSupervisor(CObject* pParent, const char* szLabel) : CThread(pParent, szLabel) {}
    ~CSupervisor() override { CSupervisor::iStop(true, false); }

    void Supervise(QuorCore::CThread& endpoint) { m_endpoints.push_back(&endpoint); }
    void SetPeriod(int iSeconds) { m_iPeriodSec = iSeconds; } ///< @param iSeconds  1 to 30.

    long iRunThread() override
    {
        m_bRun = true;
        while (m_bRun && m_StopEvent.iWaitForEvent(1000L * m_iPeriodSec) == QuorCore::kTimedOut) {
            for (QuorCore::CThread* pEndpoint : m_endpoints) {
                const bool bHealthy = pEndpoint->iMonitoring() == 0;
                QUORCORE_LOG(LOG_DEBUG, "%s %s", pEndpoint->szGetLabel().c_str(),
                             bHealthy ? "was pinged" : "has no peer");
            }
        }
        return 0;
    }

    /// Ends the wait at once instead of at the end of the period.
    long iStop(bool bJoin, bool bCancel) override
    {
        m_StopEvent.iSetEvent();
        return CThread::iStop(bJoin, bCancel);
    }

private:
    std::vector<QuorCore::CThread*> m_endpoints; ///< Unchanged while the thread runs.
    int m_iPeriodSec = 10;
    QuorCore::CEvent m_StopEvent; ///< Set by iStop(), whatever the thread is doing then.
};
