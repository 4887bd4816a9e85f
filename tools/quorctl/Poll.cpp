#include "Poll.h"

#include "Failure.h"

#include <cerrno>
#include <system_error>

namespace QuorCtl
{
bool bAwaitFd(int iFd, short events, const CDeadline& deadline, int iWakeFd)
{
    pollfd entries[] = {{iFd, events, 0}, {iWakeFd, POLLIN, 0}}; // poll(2) leaves -1 out
    int iResult = 0;
    do {
        iResult = poll(entries, 2, deadline.iRemainingMs());
    } while (iResult == -1 && errno == EINTR);
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    // A connection that stands and a frame that is on its way come before an interruption.
    const bool bWritable = (entries[0].revents & POLLOUT) != 0;
    if (entries[1].revents != 0 && !bWritable) {
        throw CInterrupted();
    }
    return entries[0].revents != 0;
}

bool bPause(int iMs, int iWakeFd)
{
    return !bAwaitFd(-1, 0, CDeadline(iMs), iWakeFd);
}
} // namespace QuorCtl
