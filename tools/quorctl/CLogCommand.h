/// @file
/// @brief quorctl log: shows and sets the log levels of the daemon's threads.
#pragma once

#include "CCommand.h"

#include <string>
#include <vector>

namespace QuorCtl
{
/// @brief "log list", which "log" alone means, too, and "log set".
class CLogCommand : public CCommand
{
public:
    explicit CLogCommand(CLI::App& parent);
    eExitStatus Run(const Settings& settings) const override;

private:
    eExitStatus List(const Settings& settings) const;
    eExitStatus Set(const Settings& settings) const;

    CLI::App& m_set;
    std::vector<std::string> m_assignments; ///< "THREAD=LEVEL", as given.
};
} // namespace QuorCtl
