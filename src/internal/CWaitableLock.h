/// @file
/// @brief A CRecursiveLock for the waits of the standard library.
#pragma once

#include "libQuorCore/synchro.h"

namespace QuorCore
{
/// A recursive lock with the calls that std::condition_variable_any makes; held once while waiting.
class CWaitableLock
{
public:
    explicit CWaitableLock(CRecursiveLock& lock) : m_lock(lock) {}
    void lock() { m_lock.iLock(); }
    void unlock() { m_lock.UnLock(); }

private:
    CRecursiveLock& m_lock;
};
} // namespace QuorCore
