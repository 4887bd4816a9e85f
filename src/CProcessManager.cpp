#include "libQuorCore/CProcessManager.h"

#include "internal/CChildReaper.h"
#include "internal/CHeldLock.h"
#include "internal/CWaitableLock.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

namespace QuorCore
{
/// Marks a process as in use, so that its destructor waits. Made under the lock, ends without it.
class CProcessManager::CInUse
{
public:
    CInUse(CProcessManager& manager, CProcess* pProcess) : m_manager(manager)
    {
        m_use = m_manager.m_inUse.insert(m_manager.m_inUse.end(), {pProcess, pthread_self()});
    }
    CInUse(const CInUse&) = delete;
    CInUse& operator=(const CInUse&) = delete;
    ~CInUse() noexcept(false)
    {
        const CHeldLock<CRecursiveLock> held(m_manager.m_Lock);
        m_manager.m_inUse.erase(m_use);
        m_manager.m_released.notify_all();
    }

private:
    CDeferredCancel m_deferred;
    CProcessManager& m_manager;
    std::list<use_t>::iterator m_use;
};

CProcessManager::CProcessManager(CObject* pParent, const char* szLabel) : CObject(pParent, szLabel)
{
}

CProcessManager::~CProcessManager()
{
    CProcessManager::RemoveAll();
}

void CProcessManager::AddNewProcess(CProcess* pProcess)
{
    if (pProcess == nullptr) {
        return;
    }
    CProcessManager* const pFormer = pProcess->m_pManager;
    if (pFormer != nullptr && pFormer != this) {
        pFormer->RemoveProcess(pProcess);
    }
    pProcess->SetParent(this);
    {
        const CHeldLock<CRecursiveLock> held(m_Lock);
        if (!held) {
            return;
        }
        m_listProcess.push_back(pProcess);
        pProcess->m_pManager = this;
    }
    int iStatus = 0;
    const pid_t pid = pProcess->iGetPID();
    if (pid > 0 && CChildReaper::Get().Take(pid, iStatus) == CChildReaper::eEnd::COLLECTED) {
        pProcess->OnLost(iStatus); // it ended between its start and this call
    }
}

void CProcessManager::RemoveProcess(pid_t pid)
{
    const CHeldLock<CRecursiveLock> held(m_Lock);
    CProcess* const pProcess = held ? pFind(pid) : nullptr;
    if (pProcess != nullptr) {
        Remove(*pProcess);
    }
}

void CProcessManager::RemoveProcess(CProcess* pProcess)
{
    const CHeldLock<CRecursiveLock> held(m_Lock);
    if (held && pProcess != nullptr) {
        Remove(*pProcess);
    }
}

/// Under m_Lock, once.
void CProcessManager::Remove(CProcess& process)
{
    m_listProcess.remove(&process);
    if (process.m_pManager == this) {
        process.m_pManager = nullptr;
    }
    AwaitUnused({&process});
}

/// Under m_Lock, once: waits while another thread is in a call to one of the processes.
void CProcessManager::AwaitUnused(const std::list<CProcess*>& processes)
{
    const auto usedElsewhere = [&] {
        return std::any_of(m_inUse.begin(), m_inUse.end(), [&](const use_t& use) {
            return pthread_equal(use.user, pthread_self()) == 0 &&
                   std::find(processes.begin(), processes.end(), use.pProcess) != processes.end();
        });
    };
    CWaitableLock lock(m_Lock);
    std::unique_lock<CWaitableLock> held(lock, std::adopt_lock);
    m_released.wait(held, [&] { return !usedElsewhere(); });
    held.release(); // the caller's
}

void CProcessManager::RemoveAll()
{
    const CHeldLock<CRecursiveLock> held(m_Lock);
    if (!held) {
        return;
    }
    for (CProcess* pProcess : m_listProcess) {
        if (pProcess != nullptr && pProcess->m_pManager == this) {
            pProcess->m_pManager = nullptr;
        }
    }
    AwaitUnused(std::exchange(m_listProcess, {})); // they may be destroyed after this
}

void CProcessManager::StopAll(bool bWait)
{
    const CDeferredCancel deferred;
    std::list<CProcess*> processes;
    {
        const CHeldLock<CRecursiveLock> held(m_Lock);
        if (!held) {
            return;
        }
        processes = m_listProcess;
    }
    for (CProcess* pProcess : processes) {
        bWhileListed([=](const CProcess* pListed) { return pListed == pProcess; },
                     [=](CProcess& process) { process.iStop(bWait); });
    }
}

CProcess* CProcessManager::pGetProcess(pid_t pid)
{
    const CHeldLock<CRecursiveLock> held(m_Lock);
    return held ? pFind(pid) : nullptr;
}

/// Under m_Lock.
CProcess* CProcessManager::pFind(pid_t pid)
{
    const auto process =
        std::find_if(m_listProcess.begin(), m_listProcess.end(), [=](const CProcess* pProcess) {
            return pProcess != nullptr && pProcess->iGetPID() == pid;
        });
    return process != m_listProcess.end() ? *process : nullptr;
}

bool CProcessManager::bLoseProcess(pid_t pid, int iStatus)
{
    const CDeferredCancel deferred;
    return bWhileListed([=](const CProcess* pListed) { return pListed->iGetPID() == pid; },
                        [=](CProcess& process) { process.OnLost(iStatus); });
}

/// Calls @p use for the first process that @p wanted accepts, without the lock, since it may take
/// seconds; the process is not destroyed meanwhile. @return Whether there was one.
bool CProcessManager::bWhileListed(const std::function<bool(const CProcess*)>& wanted,
                                   const std::function<void(CProcess&)>& use)
{
    std::optional<CInUse> inUse;
    CProcess* pProcess = nullptr;
    {
        const CHeldLock<CRecursiveLock> held(m_Lock);
        if (!held) {
            return false;
        }
        const auto process =
            std::find_if(m_listProcess.begin(), m_listProcess.end(), [&](const CProcess* pListed) {
                return pListed != nullptr && wanted(pListed);
            });
        if (process == m_listProcess.end()) {
            return false;
        }
        pProcess = *process;
        inUse.emplace(*this, pProcess);
    }
    use(*pProcess);
    return true;
}
} // namespace QuorCore
