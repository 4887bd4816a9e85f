/// @file
/// @brief A CThread whose hooks a test supplies, and small things to wait with.
#pragma once

#include "libQuorCore/CThread.h"

#include "support/CDeadline.h"
#include "support/ProcessFacts.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace TestSupport
{
/// @brief Opens once; threads wait for it with a limit.
class CDoor
{
public:
    void Open()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_bOpen = true;
        m_changed.notify_all();
    }

    /// @return False: it was not opened within @p iLimitMs.
    bool bPass(int iLimitMs = kAwaitLimitMs)
    {
        std::unique_lock<std::mutex> held(m_lock);
        return m_changed.wait_for(held, std::chrono::milliseconds(iLimitMs),
                                  [this] { return m_bOpen; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_bOpen = false;
};

/// @brief nThreads() once the thread sanitizer has its own one, which comes with the first thread.
inline size_t nThreadsAtRest()
{
    std::thread([] {}).join();
    size_t nBefore = 0;
    bAwait([&nBefore] {
        const size_t nFormer = std::exchange(nBefore, nThreads());
        usleep(1000);
        return nFormer == nThreads(); // the one that was joined is gone for the kernel, too
    });
    return nBefore;
}

/// @brief Measures on the monotonic clock.
class CStopwatch
{
public:
    int iElapsedMs() const
    {
        return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - m_start)
                                    .count());
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

/**
 * @brief Runs what the test gives it; by default loops while m_bRun is set.
 *
 * A hook that is set replaces the body, or runs before the base's own init and exit, whose result
 * it decides.
 */
class CTestThread : public QuorCore::CThread
{
public:
    using hook_t = std::function<long(CTestThread&)>;

    explicit CTestThread(hook_t body = nullptr, const char* szLabel = "worker",
                         CObject* pParent = nullptr)
        : CThread(pParent, szLabel), m_body(std::move(body))
    {
    }

    ~CTestThread() override
    {
        StopAndAwaitEnd();
        if (m_atEnd) {
            m_atEnd();
        }
    }

    long iInitInstance() override
    {
        const long lResult = m_init ? m_init(*this) : 0;
        return lResult != 0 ? lResult : CThread::iInitInstance();
    }

    long iRunThread() override { return m_body ? m_body(*this) : lLoop(); }

    long iExitInstance() override
    {
        const long lResult = m_exit ? m_exit(*this) : 0;
        CThread::iExitInstance();
        return lResult;
    }

    /// Polls the flag, as every loop does.
    long lLoop()
    {
        m_bRun = true;
        while (m_bRun) {
            usleep(1000);
        }
        return 0;
    }

    using CThread::m_bAutoDelete;
    using CThread::m_bRun;
    using CThread::m_bRunDynWait;
    using CThread::m_CallbackMap;
    using CThread::m_iNum;
    using CThread::m_pthreadAttr;
    using CThread::m_RecursiveLock;
    using CThread::m_StopLock;
    using CThread::m_threadId;

    hook_t m_init;
    hook_t m_body;
    hook_t m_exit;
    std::function<void()> m_atEnd; ///< At the end of the destructor.
};

/// @brief A body that can be cancelled anywhere and that nothing else ends.
inline long lPauseForEver(CTestThread& thread)
{
    thread.m_bRun = true;
    for (;;) {
        pause();
    }
}
} // namespace TestSupport
