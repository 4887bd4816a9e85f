/// @file
/// @brief Keeps a descriptor open while some thread works on it, though another gives it up.
#pragma once

#include "internal/CCancelGuard.h"

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace QuorCore
{
/**
 * @brief Counts who is using the descriptors that some slots name.
 *
 * A thread that closes a connection must not close the descriptor under a thread that is reading
 * it: the number would soon be another file's, and that file would be read. So users pin the
 * descriptor, and who gives it up only shuts the connection down, which ends every call on it; the
 * last user closes it.
 *
 * Threads: any. No call blocks, except for the close(2) of the last user, which may linger.
 */
class CFdGate
{
public:
    CFdGate();
    CFdGate(const CFdGate&) = delete;
    CFdGate& operator=(const CFdGate&) = delete;

    /// Pins the descriptor that @p slot names. @return The descriptor, or -1: nothing is pinned.
    int iEnter(const std::atomic<int>& slot);

    /// Unpins what iEnter() gave; closes it when it was retired and this was its last user.
    void Leave(int iFd);

    /// Takes the descriptor out of @p slot, ends its connection, and has it closed, here or by its
    /// last user. Nothing happens when the slot is at -1.
    void Retire(std::atomic<int>& slot);

private:
    struct Entry {
        int iFd;
        int iPins;
        bool bRetired;
    };

    Entry& Find(int iFd);

    std::mutex m_lock;
    std::vector<Entry> m_entries; // pinned ones only, so one or two; guarded by m_lock
};

/// Pins one descriptor at a time, to the end of the scope at the latest.
class CFdPin
{
public:
    explicit CFdPin(CFdGate& gate) : m_gate(gate) {} ///< Pins nothing yet.
    CFdPin(CFdGate& gate, const std::atomic<int>& slot) : m_gate(gate) { iEnter(slot); }
    CFdPin(const CFdPin&) = delete;
    CFdPin& operator=(const CFdPin&) = delete;
    ~CFdPin() noexcept(false) { Leave(); }

    /// Pins what @p slot names instead of what was pinned; at no cost when that is the same.
    /// @return The descriptor, or -1.
    int iEnter(const std::atomic<int>& slot)
    {
        const int iFd = slot;
        if (iFd == -1 || iFd != m_iFd) {
            Leave();
            m_iFd = m_gate.iEnter(slot);
        }
        return m_iFd;
    }

    void Leave() ///< Unpins what was pinned.
    {
        if (m_iFd != -1) {
            m_gate.Leave(std::exchange(m_iFd, -1));
        }
    }

    int iGet() const { return m_iFd; } ///< The descriptor, or -1.

private:
    CDeferredCancel m_deferred; // a cancelled thread unpins on its way out
    CFdGate& m_gate;
    int m_iFd = -1;
};
} // namespace QuorCore
