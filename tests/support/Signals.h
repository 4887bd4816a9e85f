/// @file
/// @brief What becomes of the signals of this process, and signals for its threads.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <pthread.h>
#include <thread>

namespace TestSupport
{
using handler_t = void (*)(int);

/// @return The handler of a signal, SIG_DFL or SIG_IGN. sigaction(2).
inline handler_t Disposition(int iSignal)
{
    struct sigaction action = {};
    sigaction(iSignal, nullptr, &action);
    return action.sa_handler;
}

/**
 * @brief Makes the calling thread one that signals can be sent to, for threads of tests.
 *
 * The thread sanitizer loses a signal that comes while a thread makes the first system call of its
 * life that may block: it is making its list of signals then. The common main does this for the
 * main thread.
 */
inline void WaitOnce()
{
    const timespec shortest{0, 1};
    nanosleep(&shortest, nullptr);
}

/// @brief Sends the thread that makes it a signal every ms of its life, for waits that may begin
///        at any time. pthread_kill(3).
class CRepeatedSignal
{
public:
    explicit CRepeatedSignal(int iSignal)
        : m_Sender([this, iSignal, receiver = pthread_self()] {
              while (!m_bEnd) {
                  pthread_kill(receiver, iSignal);
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
              }
          })
    {
    }
    CRepeatedSignal(const CRepeatedSignal&) = delete;
    CRepeatedSignal& operator=(const CRepeatedSignal&) = delete;
    ~CRepeatedSignal()
    {
        m_bEnd = true;
        m_Sender.join();
    }

private:
    std::atomic<bool> m_bEnd{false};
    std::thread m_Sender;
};
} // namespace TestSupport
