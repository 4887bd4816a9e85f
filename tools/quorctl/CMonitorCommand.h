/// @file
/// @brief quorctl monitor: shows what the daemon sends on its own.
#pragma once

#include "CCommand.h"

namespace QuorCtl
{
/// @brief Prints each frame that comes, until ctrl-C or a count, and answers the daemon's pings.
class CMonitorCommand : public CCommand
{
public:
    explicit CMonitorCommand(CLI::App& parent);

    /// @throw CLinkFailure  The daemon closed the connection.
    eExitStatus Run(const Settings& settings) const override;

private:
    int64_t m_iCount = 0; ///< 0: no end.
    bool m_bPings = false;
};
} // namespace QuorCtl
