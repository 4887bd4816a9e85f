/// @file
/// @brief The flag that a thread's loop polls.
#pragma once

#include "libQuorCore/Export.h"

#include <atomic>

namespace QuorCore
{
class CThreadLife;

/**
 * @brief A bool that any thread may set and test, and that does not lose a stop.
 *
 * Used like a bool: a loop says `m_bRun = true; while (m_bRun) ...`. Two things are added. Raising
 * it wakes the thread that waits for the start at once. And once a stop was asked for, raising it
 * has no effect until the thread is created anew: a stop that comes between the creation of a
 * thread and the first line of its loop would otherwise be overwritten and the loop run on.
 *
 * Lowering it is safe in a signal handler.
 */
class QUORCORE_API CRunFlag
{
public:
    CRunFlag() = default;
    CRunFlag(const CRunFlag&) = delete;
    CRunFlag& operator=(const CRunFlag&) = delete;

    operator bool() const noexcept { return m_bOn.load(); }
    bool operator=(bool bOn);

private:
    friend class CThread;

    void AskStop();                 ///< Lowers the flag and keeps it down.
    void ForgetStop();              ///< Lets it be raised again: nobody is left who could miss it.
    void Rearm(CThreadLife* pLife); ///< For a new thread; @p pLife is told when it is raised.

    std::atomic<bool> m_bOn{false};
    std::atomic<bool> m_bStopAsked{false};
    std::atomic<CThreadLife*> m_pLife{nullptr}; ///< Not owned; told when the flag is raised.
};
} // namespace QuorCore
