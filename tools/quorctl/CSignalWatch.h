/// @file
/// @brief Lets a command that runs until ctrl-C end in order.
#pragma once

#include "CDescriptor.h"

namespace QuorCtl
{
/**
 * @brief Turns SIGINT and SIGTERM from now on into a readable descriptor.
 *
 * For the life of the process: the signals stay blocked after the object has gone. To be made
 * before any thread. Rests on signalfd(2). Errors: throws std::system_error.
 */
class CSignalWatch
{
public:
    CSignalWatch();

    /// @return Readable once a signal has come, and it stays so.
    int iFd() const { return m_fd.iGet(); }

private:
    CDescriptor m_fd;
};
} // namespace QuorCtl
