/// @file
/// @brief quorctl ping: is the daemon there, and how fast does it answer?
#pragma once

#include "CCommand.h"

namespace QuorCtl
{
class CFrameLink;
class CPingStatistics;
class CPrinter;

/// @brief Pings again and again over one connection, until ctrl-C or a count.
class CPingCommand : public CCommand
{
public:
    explicit CPingCommand(CLI::App& parent);

    /// @throw CTimeOut  No ping was answered.
    eExitStatus Run(const Settings& settings) const override;

private:
    void PingAll(CFrameLink& link, const Settings& settings, const CPrinter& printer,
                 CPingStatistics& statistics) const;

    int64_t m_iCount = 0; ///< 0: no end.
    int64_t m_iIntervalMs = 1000;
};
} // namespace QuorCtl
