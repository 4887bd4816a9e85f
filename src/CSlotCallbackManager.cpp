#include "libQuorCore/CSlotCallbackManager.h"

#include "internal/CDispatcherGate.h"
#include "internal/CHeldLock.h"
#include "internal/Clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr long kWakeUpMs = 1000;     // the loop looks after a stop this often
constexpr int64_t kLockRetryMs = 10; // a lock that cannot be taken is tried again
constexpr size_t kSpareNodes = 512;  // list nodes kept for the next messages
constexpr long kNoDispatcher = -5;

void DeleteOwned(const CMsg* pMsg)
{
    if (pMsg != nullptr && pMsg->m_bDoDelete) {
        delete pMsg;
    }
}
} // namespace

/// Ends the current message and gives the rest of the batch back on every way out of the loop, a
/// cancellation included.
class CSlotCallbackManager::CBatch
{
public:
    explicit CBatch(CSlotCallbackManager& manager) : m_manager(manager) {}
    CBatch(const CBatch&) = delete;
    CBatch& operator=(const CBatch&) = delete;
    ~CBatch() noexcept(false)
    {
        const CMsg* pDone = nullptr;
        {
            const CHeldLock<CRecursiveLock> held(m_manager.m_RecursiveLock);
            const std::lock_guard<std::mutex> batchHeld(m_manager.m_batchLock);
            pDone = m_manager.pChangeCurrent(nullptr);
            m_manager.ReturnBatch();
            if (!m_manager.m_listMsg.empty()) {
                m_manager.m_newMsgEvent.iSetEvent(); // for the next loop: their counts may be gone
            }
        }
        delete pDone;
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
    StopAndAwaitEnd();
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
        if (pMsg->m_iPriority != 0) {
            m_bUrgent = true;
        }
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
    const auto isWanted = [=](const CMsg* pMsg) {
        return pMsg != nullptr && pMsg->m_pOrigin == pOrigin && pMsg->m_iEventId == iEventId &&
               pMsg->m_pData == nullptr;
    };
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    const std::lock_guard<std::mutex> batchHeld(m_batchLock);
    return held && (std::any_of(m_batch.begin(), m_batch.end(), isWanted) ||
                    std::any_of(m_listMsg.begin(), m_listMsg.end(), isWanted));
}

void CSlotCallbackManager::RemoveAllMsg()
{
    std::list<CMsg*> removed;
    {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        if (!held) {
            return;
        }
        const std::lock_guard<std::mutex> batchHeld(m_batchLock);
        removed.splice(removed.end(), m_batch);
        removed.splice(removed.end(), m_listMsg);
    }
    for (const CMsg* pMsg : removed) {
        DeleteOwned(pMsg);
    }
}

long CSlotCallbackManager::iRunThread()
{
    const CDeferredCancel deferred;
    // A stop that did not join may have left a loop with a message in the hands of a slot. The flag
    // is not raised before that one has ended, or it would go on as well.
    const std::lock_guard<std::mutex> loopHeld(m_loopLock);
    long lResult = 0;
    {
        const std::lock_guard<std::mutex> batchHeld(m_batchLock);
        m_dispatchThread = pthread_self();
    }
    const CBatch batch(*this);
    m_bRun = true;
    while (m_bRun) {
        if (m_newMsgEvent.iWaitForEvent(kWakeUpMs) == 0) {
            // The counts of messages that are about to be taken; never after taking them, which
            // would drop the count of one that came in between.
            m_newMsgEvent.iResetEvent();
            DispatchQueued(lResult);
        }
    }
    DispatchQueued(lResult); // what the stop found; slots that go on posting keep nothing alive
    m_bRun = false;
    return lResult;
}

void CSlotCallbackManager::DispatchQueued(long& lResult)
{
    TakeBatch();
    while (CMsg* const pMsg = pTakeNext()) {
        lResult = iDispatch(pMsg);
    }
}

/// Takes all that is queued in one go: posting and dispatching then seldom meet at the lock.
void CSlotCallbackManager::TakeBatch()
{
    for (;;) {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        if (held) {
            const std::lock_guard<std::mutex> batchHeld(m_batchLock);
            ReturnBatch();
            m_batch.swap(m_listMsg);
            m_bUrgent = false;
            return;
        }
        SleepMs(kLockRetryMs);
    }
}

/// Puts what is left of the batch back into the queue, behind urgent messages that came since.
/// Under both locks.
void CSlotCallbackManager::ReturnBatch()
{
    if (!m_batch.empty()) {
        const auto firstNormal =
            std::find_if(m_listMsg.begin(), m_listMsg.end(), [](const CMsg* pMsg) {
                return pMsg == nullptr || pMsg->m_iPriority == 0;
            });
        m_listMsg.splice(firstNormal, m_batch);
    }
    if (m_listSpare.size() < kSpareNodes) {
        m_listSpare.splice(m_listSpare.end(), m_used);
    }
}

/// Ends the current message. @return The next of the batch, now the current one, or null.
CMsg* CSlotCallbackManager::pTakeNext()
{
    const CMsg* pDone = nullptr;
    CMsg* pNext = nullptr;
    if (m_bUrgent && m_bRun) {
        TakeBatch(); // anew, in the order that the queue has now
    }
    {
        const std::lock_guard<std::mutex> batchHeld(m_batchLock);
        while (pNext == nullptr && !m_batch.empty()) {
            pNext = m_batch.front();
            if (m_used.size() < kSpareNodes) {
                m_used.splice(m_used.end(), m_batch, m_batch.begin());
            } else {
                m_batch.pop_front();
            }
        }
        pDone = pChangeCurrent(pNext);
    }
    delete pDone;
    return pNext;
}

/**
 * Under m_batchLock. Notes of the next message what is asked after its dispatch, and by others
 * during it: one that is the poster's may be gone as soon as a slot has told that it arrived.
 * @return The former current message if it is to be deleted now, else null.
 */
const CMsg* CSlotCallbackManager::pChangeCurrent(CMsg* pNext)
{
    const bool bDelete =
        m_bCurrentOwned && m_pCurrent->m_bDoDelete; // a slot may have taken it over
    const CMsg* const pDone = bDelete ? m_pCurrent : nullptr;
    m_pCurrent = pNext;
    m_pCurrentOrigin = pNext != nullptr ? pNext->m_pOrigin : nullptr;
    m_bCurrentOwned = pNext != nullptr && pNext->m_bDoDelete;
    ++m_iDispatch;
    if (m_iAwaitingCurrent > 0) {
        m_dispatched.notify_all();
    }
    return pDone;
}

long CSlotCallbackManager::iDispatch(CMsg* pMsg)
{
    try {
        return m_CallbackMap.iDispatchMessage(pMsg->m_iEventId, pMsg);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s\n", exception.what());
    }
    return 0;
}

void CSlotCallbackManager::ForgetOrigin(const CObject* pOrigin)
{
    do { // again after a wait: the message that was the current one may be queued once more
        ForgetQueuedOrigin(pOrigin);
    } while (bAwaitCurrentOf(pOrigin));
}

/// Leaves the current message alone: a slot is looking at it.
void CSlotCallbackManager::ForgetQueuedOrigin(const CObject* pOrigin)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    const std::lock_guard<std::mutex> batchHeld(m_batchLock);
    for (const std::list<CMsg*>* pMessages : {&m_batch, &m_listMsg}) {
        for (CMsg* pMsg : *pMessages) {
            if (pMsg != nullptr && pMsg != m_pCurrent && pMsg->m_pOrigin == pOrigin) {
                pMsg->m_pOrigin = nullptr;
            }
        }
    }
}

/// @return Whether a message of this origin was the current one and had to be waited for.
bool CSlotCallbackManager::bAwaitCurrentOf(const CObject* pOrigin)
{
    std::unique_lock<std::mutex> batchHeld(m_batchLock);
    if (m_pCurrentOrigin != pOrigin) {
        return false;
    }
    if (pthread_equal(m_dispatchThread, pthread_self()) != 0) {
        m_pCurrent->m_pOrigin = nullptr; // a slot destroys the very object
        m_pCurrentOrigin = nullptr;
        return false;
    }
    ++m_iAwaitingCurrent;
    // By number: the next message may lie where this one lay.
    m_dispatched.wait(batchHeld,
                      [this, iDispatch = m_iDispatch] { return m_iDispatch != iDispatch; });
    --m_iAwaitingCurrent;
    return true;
}

long CSlotCallbackManager::iStop(bool bJoin, bool bCancel)
{
    if (m_bAutoDelete) {
        return CThread::iStop(bJoin, bCancel); // after which the object may be gone
    }
    AskStop();
    if (m_threadId != 0) {
        m_newMsgEvent.iSetEvent(); // so that the loop looks now; a count too many is an empty pass
    }
    return CThread::iStop(bJoin, bCancel);
}
} // namespace QuorCore
