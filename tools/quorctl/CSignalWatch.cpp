#include "CSignalWatch.h"

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <system_error>

namespace QuorCtl
{
CSignalWatch::CSignalWatch()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_fd = CDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (m_fd.iGet() == -1) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}
} // namespace QuorCtl
