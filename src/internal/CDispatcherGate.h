/// @file
/// @brief Lets threads reach the dispatcher of the process while another thread may destroy it.
#pragma once

#include "internal/CCancelGuard.h"

#include <atomic>

namespace QuorCore
{
class CSlotCallbackManager;

/**
 * @brief Holds the dispatcher open for a scope: its destructor waits until nobody is inside.
 *
 * A count instead of a lock, since posting is on every hot path; a scope within another one of the
 * same thread costs nothing.
 */
class CDispatcherGate
{
public:
    explicit CDispatcherGate(const std::atomic<CSlotCallbackManager*>& pDispatcher)
    {
        if (t_iScopes++ == 0) {
            t_iSide = s_iSide.load(std::memory_order_relaxed);
            ++s_aInside[t_iSide];
        }
        m_pDispatcher = pDispatcher; // after the count: whoever closes either sees it or was seen
    }
    CDispatcherGate(const CDispatcherGate&) = delete;
    CDispatcherGate& operator=(const CDispatcherGate&) = delete;
    ~CDispatcherGate() noexcept(false)
    {
        if (--t_iScopes == 0) {
            --s_aInside[t_iSide];
        }
    }

    CSlotCallbackManager* pGet() const { return m_pDispatcher; } ///< Null when there is none.

    /// Withdraws @p pDispatcher from @p pointer if it is the one there, and waits until nobody who
    /// may have seen it is inside. Not from within a scope.
    static void Close(std::atomic<CSlotCallbackManager*>& pointer,
                      CSlotCallbackManager* pDispatcher);

    /// Puts @p pDispatcher, or null, there, and waits in the same way for the former one, which may
    /// then be destroyed.
    static void Replace(std::atomic<CSlotCallbackManager*>& pointer,
                        CSlotCallbackManager* pDispatcher);

private:
    static void AwaitLeaving();

    // Threads within a scope, each on the side that was the open one when it came. Who waits turns
    // the side, so that those who come meanwhile do not make the wait last for ever.
    static std::atomic<int> s_aInside[2];
    static std::atomic<unsigned> s_iSide;
    // Of the calling thread: its scopes, one within another, and where the outermost one counts.
    static __thread int t_iScopes __attribute__((tls_model("initial-exec")));
    static __thread unsigned t_iSide __attribute__((tls_model("initial-exec")));

    CDeferredCancel m_deferred; // a thread cancelled inside would keep the gate open for ever
    CSlotCallbackManager* m_pDispatcher;
};
} // namespace QuorCore
