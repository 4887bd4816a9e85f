/// @file
/// @brief Processes of the test's own, so that a signal to too many reaches no one else.
#pragma once

#include <functional>

namespace TestSupport
{
/**
 * @brief Runs a function as a process in a process-id and mount namespace of its own.
 *
 * A library that stops processes can be wrong in the worst way: a kill(2) of process -1 ends all
 * that root may signal. In here that is the test and its children. Whatever the function leaves
 * running ends with it, as does all when the calling process is killed. Rests on
 * pid_namespaces(7). Who may not make such a namespace runs the function as it is.
 *
 * Threads: before the first one. The function's exit runs static destructors as usual; the calling
 * process must leave with the result.
 *
 * @return What the function returned; ended by a signal, the calling process ends by it, too.
 */
int iRunAmongOwnProcesses(const std::function<int()>& run);
} // namespace TestSupport
