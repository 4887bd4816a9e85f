/// @file
/// @brief Waiting for a descriptor with a limit.
#pragma once

#include "CDeadline.h"

#include <poll.h>

namespace QuorCtl
{
/**
 * @brief Waits until a descriptor is ready; poll(2).
 *
 * @param events   POLLIN or POLLOUT; an error or the end of the stream also counts as ready.
 * @param iWakeFd  Readable when the command is to be given up; -1 for none.
 * @return False: the deadline has passed.
 * @throw CInterrupted  @p iWakeFd is readable, and @p iFd cannot be written.
 */
bool bAwaitFd(int iFd, short events, const CDeadline& deadline, int iWakeFd);
/// @brief Waits @p iMs ms. @return True. @throw CInterrupted  @p iWakeFd became readable.
bool bPause(int iMs, int iWakeFd);
} // namespace QuorCtl
