/// @file
/// @brief A second thread that does what a test tells it, step by step.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace TestSupport
{
/**
 * @brief A thread that stays alive between the steps it is given.
 *
 * Threads: one at a time gives steps. Errors: a step that takes longer than kAwaitLimitMs aborts
 * the test program, since neither the step nor the thread could be ended.
 */
class CWorker
{
public:
    CWorker();
    CWorker(const CWorker&) = delete;
    CWorker& operator=(const CWorker&) = delete;
    ~CWorker(); ///< Lets the thread end and joins it.

    /// @brief Runs @p step in the thread and returns when it is done.
    void Run(const std::function<void()>& step);

    /// @brief Lets the thread begin @p step and returns at once; the next call of Run(), Finish()
    ///        or the destructor waits for it.
    void Start(const std::function<void()>& step);

    void Finish(); ///< Waits for the end of the step that Start() began.

    pthread_t iId() { return m_Thread.native_handle(); }

private:
    void Loop();

    std::mutex m_Lock; ///< Guards the fields below.
    std::condition_variable m_Changed;
    std::function<void()> m_Step; ///< Empty: nothing to do.
    bool m_bEnd = false;
    std::thread m_Thread; ///< Last: it uses the others.
};
} // namespace TestSupport
