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
            ++s_iInside;
        }
        m_pDispatcher = pDispatcher; // after the count: whoever closes either sees it or was seen
    }
    CDispatcherGate(const CDispatcherGate&) = delete;
    CDispatcherGate& operator=(const CDispatcherGate&) = delete;
    ~CDispatcherGate() noexcept(false)
    {
        if (--t_iScopes == 0) {
            --s_iInside;
        }
    }

    CSlotCallbackManager* pGet() const { return m_pDispatcher; } ///< Null when there is none.

    /// Withdraws @p pDispatcher from @p pointer if it is the one there, and waits until nobody who
    /// may have seen it is inside. Not from within a scope.
    static void Close(std::atomic<CSlotCallbackManager*>& pointer,
                      CSlotCallbackManager* pDispatcher);

private:
    static std::atomic<int> s_iInside; // threads within a scope
    // Scopes of the calling thread, one within another.
    static __thread int t_iScopes __attribute__((tls_model("initial-exec")));

    CDeferredCancel m_deferred; // a thread cancelled inside would keep the gate open for ever
    CSlotCallbackManager* m_pDispatcher;
};
} // namespace QuorCore
