/// @file
/// @brief What becomes of the signals of this process.
#pragma once

#include <csignal>
#include <ctime>

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
} // namespace TestSupport
