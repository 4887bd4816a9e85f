/// @file
/// @brief The dispatcher: one thread through which all messages of the process go.
#pragma once

#include "libQuorCore/CObject.h"
#include "libQuorCore/CThread.h"
#include "libQuorCore/Export.h"

#include <condition_variable>
#include <list>
#include <mutex>

namespace QuorCore
{
/**
 * @brief Queues messages and calls, on its own thread, the callbacks of each message's event id.
 *
 * Messages are handled one at a time in queue order, urgent ones (m_iPriority not 0) first, the
 * latest urgent one before earlier ones. A message that no callback wants is dropped. Callbacks
 * are registered with pAddCallback(event id, callback); they run without the queue's lock and may
 * post. A slow callback delays every later message.
 *
 * The queue has no bound: who posts faster than the slots work fills memory. The library's own
 * endpoints never have more than one ping or pong event of theirs waiting.
 *
 * Threads: any may post, also while the dispatcher is stopped (messages wait) or destroyed (-5). An
 * object of a derived class is withdrawn before that, by SetEventManager(): who posts calls its
 * virtual functions, and those of a derived class go first.
 * Ownership: a message with m_bDoDelete is the dispatcher's once posted. One without it is never
 * deleted, and not touched any more when its last slot has returned.
 */
class QUORCORE_API CSlotCallbackManager : public CThread
{
public:
    CSlotCallbackManager(CObject* pParent, const char* szLabel);

    /// Stops the thread, withdraws itself from CObject and deletes the messages it owns.
    ~CSlotCallbackManager() override;

    /**
     * @brief Queues a message and wakes the thread.
     * @return 0; -1 when the thread could not be woken: the message stays queued. 0 also when the
     *         lock could not be taken: the message is then neither queued nor deleted.
     */
    long iPost(CMsg* pMsg);

    /**
     * @brief Builds an owned message with a copy of the payload and posts it through
     * iPostMessage(), that is, to the dispatcher of the process.
     * @return As iPostMessage(); whenever it was not queued for lack of a dispatcher (-5) or of
     *         memory (-1) nothing is left over.
     */
    long iPost(CObject* pOrigin, uint32_t iEventId, uint32_t iParam1, uint32_t iParam2, void* pData,
               uint32_t iDataSize, int iPriority);

    /// @return Whether a message without payload, of this origin and event, is still queued. Who
    ///         posts at a peer's pace asks first, so that a flood does not fill the queue.
    bool bIsQueued(const CObject* pOrigin, uint32_t iEventId);

    void RemoveAllMsg(); ///< Empties the queue; deletes the messages that are the dispatcher's.

    long iRunThread() override;

    /// Wakes the loop; what is queued by then still goes out.
    long iStop(bool bJoin, bool bCancel) override;

protected:
    std::list<CMsg*> m_listMsg; ///< Front is next. Guarded by m_RecursiveLock.
    CEvent m_newMsgEvent;       ///< One count per posted message.

private:
    friend class CObject;
    class CBatch;

    void ForgetOrigin(const CObject* pOrigin);
    void Insert(CMsg* pMsg);
    void DispatchQueued(long& lResult);
    void TakeBatch();
    void ReturnBatch();
    CMsg* pTakeNext();
    const CMsg* pChangeCurrent(CMsg* pNext);
    void ForgetQueuedOrigin(const CObject* pOrigin);
    bool bAwaitCurrentOf(const CObject* pOrigin);
    long iDispatch(CMsg* pMsg);

    std::mutex m_loopLock;              ///< Held by the loop, before all others: there is one.
    std::list<CMsg*> m_listSpare;       ///< Used nodes for new messages. Guarded as m_listMsg.
    std::atomic<bool> m_bUrgent{false}; ///< An urgent message came after the batch was taken.

    std::mutex m_batchLock;     ///< Taken after m_RecursiveLock; guards what follows.
    std::list<CMsg*> m_batch;   ///< Taken from m_listMsg in one go, in its order.
    std::list<CMsg*> m_used;    ///< Nodes of the batch that were dispatched.
    CMsg* m_pCurrent = nullptr; ///< Being dispatched.
    const CObject* m_pCurrentOrigin = nullptr; ///< Its origin.
    bool m_bCurrentOwned = false;              ///< It is the dispatcher's.
    unsigned m_iDispatch = 0;                  ///< Number of the dispatch.
    std::condition_variable m_dispatched;      ///< The dispatch of the current one has ended.
    int m_iAwaitingCurrent = 0;                ///< Threads that wait for that.
    pthread_t m_dispatchThread{};              ///< The thread of the loop.
};
} // namespace QuorCore
