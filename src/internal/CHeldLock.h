/// @file
/// @brief Holds a lock to the end of the scope.
#pragma once

#include "internal/CCancelGuard.h"

#include <pthread.h>

namespace QuorCore
{
/**
 * @brief Holds a CRecursiveLock or CSpinLock; ask it whether the lock was taken.
 *
 * Cancellation is deferred as long as it holds, so that a cancelled thread unwinds through the
 * guard and leaves the lock free.
 */
template <class Lock>
class CHeldLock
{
public:
    /// Tag of a lock that the caller has taken already.
    struct adopt_t {
    };

    explicit CHeldLock(Lock& lock) : m_lock(lock), m_iResult(lock.iLock()) {}
    CHeldLock(Lock& lock, adopt_t) : m_lock(lock), m_iResult(0) {}
    CHeldLock(const CHeldLock&) = delete;
    CHeldLock& operator=(const CHeldLock&) = delete;
    ~CHeldLock() noexcept(false)
    {
        if (m_iResult == 0) {
            m_lock.UnLock();
        }
    }

    explicit operator bool() const { return m_iResult == 0; } ///< False: it was not taken.
    int iResult() const { return m_iResult; } ///< What the lock answered; 0: it was taken.

private:
    CDeferredCancel m_deferred; // before the lock is taken, and until it is free
    Lock& m_lock;
    const int m_iResult;
};

/// Holds a raw mutex, with cancellation deferred in any thread; ask it whether it was taken.
class CHeldMutex
{
public:
    explicit CHeldMutex(pthread_mutex_t& mutex)
        : m_mutex(mutex), m_bHeld(pthread_mutex_lock(&mutex) == 0)
    {
    }
    CHeldMutex(const CHeldMutex&) = delete;
    CHeldMutex& operator=(const CHeldMutex&) = delete;
    ~CHeldMutex() noexcept(false)
    {
        if (m_bHeld) {
            pthread_mutex_unlock(&m_mutex);
        }
    }

    explicit operator bool() const { return m_bHeld; } ///< False: it was not taken.

private:
    CDeferredAnyCancel m_deferred; // before the mutex is taken, and until it is free
    pthread_mutex_t& m_mutex;
    const bool m_bHeld;
};
} // namespace QuorCore
