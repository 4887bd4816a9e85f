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
    explicit CDispatcherGate(const std::atomic<CSlotCallbackManager*>& pDispatcher);
    CDispatcherGate(const CDispatcherGate&) = delete;
    CDispatcherGate& operator=(const CDispatcherGate&) = delete;
    ~CDispatcherGate() noexcept(false);

    CSlotCallbackManager* pGet() const { return m_pDispatcher; } ///< Null when there is none.

    /// Withdraws @p pDispatcher from @p pointer if it is the one there, and waits until nobody who
    /// may have seen it is inside. Not from within a scope.
    static void Close(std::atomic<CSlotCallbackManager*>& pointer,
                      CSlotCallbackManager* pDispatcher);

private:
    CDeferredCancel m_deferred; // a thread cancelled inside would keep the gate open for ever
    CSlotCallbackManager* m_pDispatcher;
};
} // namespace QuorCore
