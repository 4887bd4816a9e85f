/// @file
/// @brief A /dev of the test process's own, so that its syslog goes to no one else.
#pragma once

namespace TestSupport
{
/**
 * @brief Moves the calling process into a mount namespace with a nearly empty /dev.
 *
 * The new /dev has null, zero, full, random, urandom, tty, console, ptmx, ptys of its own, the
 * links to the standard streams and an empty shm, but no log. The /dev of the machine is not
 * touched, and nothing is left when the last process of the namespace ends. Rests on unshare(2),
 * mount(2) and, unless the caller may mount, on user_namespaces(7), where it keeps its user and
 * group.
 *
 * Threads: before the first one; the kernel moves only the calling thread.
 * Errors: throws std::system_error with the call that failed.
 */
void EnterPrivateDev();
} // namespace TestSupport
