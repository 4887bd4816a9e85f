/// @file
/// @brief Keeps the asynchronous cancellation of thread bodies out of the library's own code.
#pragma once

#include <pthread.h>

namespace QuorCore
{
/// The calling thread runs a body that may be cancelled at any instruction.
extern __thread bool t_bAsynchronousCancel __attribute__((tls_model("initial-exec")));

/**
 * @brief Defers cancellation to cancellation points for a scope.
 *
 * A thread cancelled in the middle of malloc(3) or with a lock held leaves the whole process stuck.
 * Merely disabling cancellation is not enough: glibc acts on a request that arrives between the
 * check and the change of the state. Restoring the asynchronous type may act on a request, that is,
 * unwind out of the destructor: hence noexcept(false). In a thread that is not asynchronous, that
 * is, nearly always, it costs one look at a thread-local flag.
 */
class CDeferredCancel
{
public:
    CDeferredCancel() : m_bRestore(t_bAsynchronousCancel)
    {
        if (m_bRestore) {
            pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &m_iFormerType);
            t_bAsynchronousCancel = false;
        }
    }
    CDeferredCancel(const CDeferredCancel&) = delete;
    CDeferredCancel& operator=(const CDeferredCancel&) = delete;
    ~CDeferredCancel() noexcept(false)
    {
        if (m_bRestore) {
            int iIgnored = 0;
            t_bAsynchronousCancel = true;
            pthread_setcanceltype(m_iFormerType, &iIgnored);
        }
    }

private:
    const bool m_bRestore;
    int m_iFormerType = PTHREAD_CANCEL_DEFERRED; // a body may have deferred it by itself
};

/// The way in which a thread was to be cancelled; see DeferAnyCancel().
struct cancelType_t {
    int iType;  ///< As pthread_setcanceltype(3) has it.
    bool bBody; ///< t_bAsynchronousCancel.
};

/// Defers cancellation, also in a thread that was made asynchronous by other means than ours.
/// @return What RestoreCancel() wants.
inline cancelType_t DeferAnyCancel()
{
    cancelType_t former{PTHREAD_CANCEL_DEFERRED, t_bAsynchronousCancel};
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &former.iType);
    t_bAsynchronousCancel = false;
    return former;
}

/// Undoes DeferAnyCancel(); may act on a request if the type was the asynchronous one.
inline void RestoreCancel(const cancelType_t& former)
{
    t_bAsynchronousCancel = former.bBody;
    if (former.iType != PTHREAD_CANCEL_DEFERRED) {
        int iIgnored = PTHREAD_CANCEL_DEFERRED;
        pthread_setcanceltype(former.iType, &iIgnored);
    }
}

/**
 * @brief As CDeferredCancel, in any thread: for what the whole process depends on.
 *
 * It asks the C library, not the flag, which costs a call each way.
 */
class CDeferredAnyCancel
{
public:
    CDeferredAnyCancel() : m_former(DeferAnyCancel()) {}
    CDeferredAnyCancel(const CDeferredAnyCancel&) = delete;
    CDeferredAnyCancel& operator=(const CDeferredAnyCancel&) = delete;
    ~CDeferredAnyCancel() noexcept(false) { RestoreCancel(m_former); }

private:
    const cancelType_t m_former;
};

/**
 * @brief Holds cancellation off for a scope, in a thread where it is deferred.
 *
 * Not beyond all doubt if it was asynchronous a moment ago: a request that was under way by then
 * may yet be acted upon within a system call. There the scope must stand being unwound.
 */
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

/// @brief Within a CNoCancel: lets a request be acted upon for a scope, where others' code runs.
class CCancelAllowed
{
public:
    CCancelAllowed() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &m_iFormerState); }
    CCancelAllowed(const CCancelAllowed&) = delete;
    CCancelAllowed& operator=(const CCancelAllowed&) = delete;
    ~CCancelAllowed()
    {
        int iIgnored = 0;
        pthread_setcancelstate(m_iFormerState, &iIgnored);
    }

private:
    int m_iFormerState = PTHREAD_CANCEL_DISABLE;
};
} // namespace QuorCore
