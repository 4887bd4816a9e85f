#include "internal/Sigpipe.h"

#include <csignal>

namespace QuorCore
{
namespace
{
// A function and not SIG_IGN: a program that this process executes gets the default back, and dies
// of a broken pipe as a filter should, while an ignored signal would stay ignored in it.
extern "C" void OnSigpipe(int) {}

bool bHandleSigpipe()
{
    struct sigaction action = {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) {
        return false;
    }
    action.sa_handler = OnSigpipe;
    action.sa_flags = SA_RESTART; // no system call of any thread is cut short
    sigemptyset(&action.sa_mask);
    return sigaction(SIGPIPE, &action, nullptr) == 0;
}
} // namespace

void EnsureSigpipeHandled()
{
    static const bool bHandled = bHandleSigpipe();
    static_cast<void>(bHandled);
}
} // namespace QuorCore
