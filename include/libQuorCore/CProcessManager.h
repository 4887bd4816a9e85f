/// @file
/// @brief The list of the application's child processes.
#pragma once

#include "libQuorCore/CObject.h"
#include "libQuorCore/CProcess.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/synchro.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <pthread.h>
#include <sys/types.h>

namespace QuorCore
{
/**
 * @brief Hands the end of a child to its CProcess, and stops all children at exit.
 *
 * Processes are not owned and are in one manager at a time; each takes itself out when it is
 * destroyed. Threads: any. OnLost() and iStop() are called without the list's lock.
 */
class QUORCORE_API CProcessManager : public CObject
{
public:
    CProcessManager(CObject* pParent, const char* szLabel);
    ~CProcessManager() override; ///< Leaves the children alone; nobody may be inside.

    /// Becomes the parent of @p pProcess and lists it; null is ignored. An end that was reaped
    /// before it was listed is reported now.
    void AddNewProcess(CProcess* pProcess);

    void RemoveProcess(pid_t pid);          ///< Takes the first process with that pid out.
    void RemoveProcess(CProcess* pProcess); ///< Waits for a call into it from another thread.
    void RemoveAll(); ///< Empties the list, waiting as RemoveProcess(); nothing is deleted.

    /// Calls iStop() of every process, in list order; with @p bWait up to 6 s for each.
    void StopAll(bool bWait);

    CProcess* pGetProcess(pid_t pid); ///< The first with that pid, or null.

    /// Calls OnLost() of the process with that pid. @param iStatus  As waitpid(2) gives it.
    void LostProcess(pid_t pid, int iStatus) { bLoseProcess(pid, iStatus); }

    /// LostProcess(), telling whether there was such a process.
    bool bLoseProcess(pid_t pid, int iStatus);

protected:
    std::list<CProcess*> m_listProcess; ///< Not owned. Guarded by m_Lock.
    CRecursiveLock m_Lock;

private:
    class CInUse;

    struct use_t {
        CProcess* pProcess;
        pthread_t user;
    };

    bool bWhileListed(const std::function<bool(const CProcess*)>& wanted,
                      const std::function<void(CProcess&)>& use);
    CProcess* pFind(pid_t pid);
    void Remove(CProcess& process);
    void AwaitUnused(const std::list<CProcess*>& processes);

    std::list<use_t> m_inUse;               ///< Calls into processes under way. Same guard.
    std::condition_variable_any m_released; ///< One of them is over.
};
} // namespace QuorCore
