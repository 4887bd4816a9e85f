#include "libQuorCore/CSlotCallbackManager.h"

#include "internal/CDispatcherGate.h"
#include "internal/CHeldLock.h"
#include "internal/CWaitableLock.h"
#include "internal/Clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <iostream>
#include <new>

namespace QuorCore
{
namespace
{
constexpr long kWakeUpMs = 1000;     // the loop looks after a stop this often
constexpr int64_t kLockRetryMs = 10; // a lock that cannot be taken is tried again
constexpr size_t kSpareNodes = 256;  // list nodes kept for the next messages
constexpr long kNoDispatcher = -5;
} // namespace

/// Ends the current message on every way out of the loop, a cancellation included.
class CSlotCallbackManager::CCurrent
{
public:
    explicit CCurrent(CSlotCallbackManager& manager) : m_manager(manager) {}
    CCurrent(const CCurrent&) = delete;
    CCurrent& operator=(const CCurrent&) = delete;
    ~CCurrent() noexcept(false)
    {
        const CHeldLock<CRecursiveLock> held(m_manager.m_RecursiveLock);
        m_manager.EndCurrent();
    }

private:
    CSlotCallbackManager& m_manager;
};

CSlotCallbackManager::CSlotCallbackManager(CObject* pParent, const char* szLabel)
    : CThread(pParent, szLabel)
{
}

CSlotCallbackManager::~CSlotCallbackManager()
{
    CSlotCallbackManager::iStop(true, false);
    CDispatcherGate::Close(m_pCallbackManager, this);
    RemoveAllMsg();
}

long CSlotCallbackManager::iPost(CMsg* pMsg)
{
    if (pMsg == nullptr) {
        return -1;
    }
    {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        if (!held) {
            return 0;
        }
        if (pMsg->m_pOrigin != nullptr) {
            pMsg->m_pOrigin->m_bPosted.store(true, std::memory_order_relaxed);
        }
        Insert(pMsg);
    }
    const long lResult = m_newMsgEvent.iSetEvent();
    if (lResult < 0) {
        m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "CCallbackManager", " %s",
                     m_Logger.strerrorT(errno).c_str());
    }
    return lResult;
}

/// Reuses a node of the list where there is one: posting is on every hot path.
void CSlotCallbackManager::Insert(CMsg* pMsg)
{
    const auto where = pMsg->m_iPriority != 0 ? m_listMsg.begin() : m_listMsg.end();
    if (m_listSpare.empty()) {
        m_listMsg.insert(where, pMsg);
    } else {
        m_listSpare.front() = pMsg;
        m_listMsg.splice(where, m_listSpare, m_listSpare.begin());
    }
}

long CSlotCallbackManager::iPost(CObject* pOrigin, uint32_t iEventId, uint32_t iParam1,
                                 uint32_t iParam2, void* pData, uint32_t iDataSize, int iPriority)
{
    CMsg* const pMsg = new (std::nothrow)
        CMsg(pOrigin, true, iEventId, iParam1, iParam2, pData, iDataSize, iPriority);
    if (pMsg == nullptr) {
        return -1;
    }
    const long lResult = iPostMessage(pMsg);
    if (lResult == kNoDispatcher) {
        delete pMsg; // nobody took it
    }
    return lResult;
}

bool CSlotCallbackManager::bIsQueued(const CObject* pOrigin, uint32_t iEventId)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    return held && std::any_of(m_listMsg.begin(), m_listMsg.end(), [=](const CMsg* pMsg) {
               return pMsg != nullptr && pMsg->m_pOrigin == pOrigin &&
                      pMsg->m_iEventId == iEventId && pMsg->m_pData == nullptr;
           });
}

void CSlotCallbackManager::RemoveAllMsg()
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held) {
        return;
    }
    for (const CMsg* pMsg : m_listMsg) {
        if (pMsg != nullptr && pMsg->m_bDoDelete) {
            delete pMsg;
        }
    }
    m_listMsg.clear();
}

long CSlotCallbackManager::iRunThread()
{
    const CDeferredCancel deferred;
    long lResult = 0;
    m_dispatchThread = pthread_self();
    m_bRun = true;
    while (m_bRun) {
        if (m_newMsgEvent.iWaitForEvent(kWakeUpMs) != 0) {
            continue;
        }
        // The counts of messages that are about to be taken; never after taking them, which would
        // drop the count of one that came in between.
        m_newMsgEvent.iResetEvent();
        const CCurrent current(*this);
        size_t iLeft = SIZE_MAX;
        while (CMsg* const pMsg = pTakeNext(iLeft)) {
            lResult = iDispatch(pMsg);
        }
    }
    m_bRun = false;
    return lResult;
}

/**
 * Ends the current message and takes the next.
 * @param iLeft  Messages that may still be taken. A stop sets it to those that are queued then:
 * they are dispatched, but slots that go on posting do not keep the loop alive.
 * @return The next message, now the current one; null when there is none to take.
 */
CMsg* CSlotCallbackManager::pTakeNext(size_t& iLeft)
{
    for (;;) {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        if (!held) {
            SleepMs(kLockRetryMs);
            continue;
        }
        EndCurrent();
        if (!m_bRun) {
            iLeft = std::min(iLeft, m_listMsg.size());
        }
        while (!m_listMsg.empty() && iLeft > 0) {
            m_pCurrent = m_listMsg.front();
            --iLeft;
            if (m_listSpare.size() < kSpareNodes) {
                m_listSpare.splice(m_listSpare.begin(), m_listMsg, m_listMsg.begin());
            } else {
                m_listMsg.pop_front();
            }
            if (m_pCurrent != nullptr) {
                return m_pCurrent;
            }
        }
        return nullptr;
    }
}

long CSlotCallbackManager::iDispatch(CMsg* pMsg)
{
    try {
        return m_CallbackMap.iDispatchMessage(pMsg->m_iEventId, pMsg);
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << std::endl;
    }
    return 0;
}

/// Under m_RecursiveLock.
void CSlotCallbackManager::EndCurrent()
{
    const CMsg* const pMsg = m_pCurrent;
    m_pCurrent = nullptr;
    if (pMsg != nullptr && pMsg->m_bDoDelete) {
        delete pMsg;
    }
    if (m_iAwaitingCurrent > 0) {
        m_dispatched.notify_all();
    }
}

void CSlotCallbackManager::ForgetOrigin(const CObject* pOrigin)
{
    CWaitableLock lock(m_RecursiveLock);
    std::unique_lock<CWaitableLock> held(lock);
    for (CMsg* pMsg : m_listMsg) {
        if (pMsg != nullptr && pMsg->m_pOrigin == pOrigin) {
            pMsg->m_pOrigin = nullptr;
        }
    }
    if (m_pCurrent == nullptr || m_pCurrent->m_pOrigin != pOrigin) {
        return;
    }
    if (pthread_equal(m_dispatchThread, pthread_self()) != 0) {
        m_pCurrent->m_pOrigin = nullptr; // a slot destroys the very object
        return;
    }
    ++m_iAwaitingCurrent;
    const CMsg* const pMsg = m_pCurrent;
    m_dispatched.wait(held, [=] { return m_pCurrent != pMsg || pMsg->m_pOrigin != pOrigin; });
    --m_iAwaitingCurrent;
}

long CSlotCallbackManager::iStop(bool bJoin, bool bCancel)
{
    m_bRun = false;
    if (m_threadId != 0) {
        m_newMsgEvent.iSetEvent(); // so that the loop looks now; a count too many is an empty pass
    }
    return CThread::iStop(bJoin, bCancel);
}
} // namespace QuorCore
