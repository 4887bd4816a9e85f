/// @file
/// @brief quorctl bench: how many frames the daemon answers, and how fast.
#pragma once

#include "CCommand.h"

namespace QuorCtl
{
/// @brief Sends pings over several connections at once, from one thread with epoll(7).
class CBenchCommand : public CCommand
{
public:
    explicit CBenchCommand(CLI::App& parent);

    /// @throw CTimeOut  Nothing came for the time-out while answers were due.
    eExitStatus Run(const Settings& settings) const override;

private:
    int64_t m_iConnections = 1;
    int64_t m_iRequests = 1000;
    int64_t m_iRunMs = 0; ///< 0: m_iRequests counts.
    int64_t m_iDataBytes = 0;
    int64_t m_iPipeline = 1;
};
} // namespace QuorCtl
