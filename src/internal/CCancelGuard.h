/// @file
/// @brief Keeps the asynchronous cancellation of thread bodies out of the library's own code.
#pragma once

#include <pthread.h>

namespace QuorCore
{
/**
 * @brief Defers cancellation to cancellation points for a scope.
 *
 * A thread cancelled in the middle of malloc(3) or with a lock held leaves the whole process stuck.
 * Merely disabling cancellation is not enough: glibc acts on a request that arrives between the
 * check and the change of the state. Restoring the asynchronous type may act on a request, that is,
 * unwind out of the destructor: hence noexcept(false).
 */
class CDeferredCancel
{
public:
    CDeferredCancel() { pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &m_iFormerType); }
    CDeferredCancel(const CDeferredCancel&) = delete;
    CDeferredCancel& operator=(const CDeferredCancel&) = delete;
    ~CDeferredCancel() noexcept(false)
    {
        if (m_iFormerType != PTHREAD_CANCEL_DEFERRED) {
            int iIgnored = 0;
            pthread_setcanceltype(m_iFormerType, &iIgnored);
        }
    }

private:
    int m_iFormerType = PTHREAD_CANCEL_DEFERRED;
};

/// Holds cancellation off for a scope that must not be unwound, in a thread where it is deferred.
class CNoCancel
{
public:
    CNoCancel() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iFormerState); }
    CNoCancel(const CNoCancel&) = delete;
    CNoCancel& operator=(const CNoCancel&) = delete;
    ~CNoCancel()
    {
        int iIgnored = 0;
        pthread_setcancelstate(m_iFormerState, &iIgnored);
    }

private:
    int m_iFormerState = PTHREAD_CANCEL_ENABLE;
};
} // namespace QuorCore
