/// @file
/// @brief What becomes of the signals of this process.
#pragma once

#include <csignal>

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
} // namespace TestSupport
