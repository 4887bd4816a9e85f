/// @file
/// @brief quorctl wait: returns when the daemon is there.
#pragma once

#include "CCommand.h"

namespace QuorCtl
{
/// @brief Connects again and again until a ping is answered or the time is over.
class CWaitCommand : public CCommand
{
public:
    explicit CWaitCommand(CLI::App& parent);

    /// @throw CTimeOut  The daemon did not answer in time; the text says why the last attempt
    /// failed.
    eExitStatus Run(const Settings& settings) const override;
};
} // namespace QuorCtl
