/// @file
/// @brief Keeps the process alive when a peer goes away while it is being written to.
#pragma once

namespace QuorCore
{
/// Gives SIGPIPE a handler that does nothing, unless the program has chosen something itself. Works
/// once for the process; later calls cost nothing. sigaction(2).
void EnsureSigpipeHandled();
} // namespace QuorCore
