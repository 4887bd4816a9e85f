/// @file
/// @brief Makes a lock refuse to be taken.
#pragma once

#include "libQuorCore/synchro.h"

#include <climits>
#include <pthread.h>

namespace TestSupport
{
/**
 * @brief Takes a recursive lock as often as its counter can tell, for a scope: the next iLock() of
 *        this thread fails with EAGAIN, as pthread_mutex_lock(3) has it.
 *
 * The counter is set in the mutex of glibc directly, since four thousand million calls take long.
 */
class CUntakeableLock
{
public:
    explicit CUntakeableLock(QuorCore::CRecursiveLock& lock) : m_lock(lock)
    {
        m_lock.iLock();
        iCount() = UINT_MAX;
    }
    CUntakeableLock(const CUntakeableLock&) = delete;
    CUntakeableLock& operator=(const CUntakeableLock&) = delete;
    ~CUntakeableLock()
    {
        iCount() = 1;
        m_lock.UnLock();
    }

private:
    struct CReach : QuorCore::CRecursiveLock {
        static pthread_mutex_t CRecursiveLock::*pMutex() { return &CReach::m_hMutex; }
    };

    unsigned& iCount() { return (m_lock.*CReach::pMutex()).__data.__count; }

    QuorCore::CRecursiveLock& m_lock;
};
} // namespace TestSupport
