/// @file
/// @brief quorctl version, pid and name: what the daemon says of itself.
#pragma once

#include "CCommand.h"
#include "CFrame.h"

#include <json/value.h>

namespace QuorCtl
{
/// What a query prints.
struct QueryResult {
    std::string szText; ///< Ends with a line feed.
    Json::Value json;
};

/// @brief Sends a request without data and prints what the answer's data says.
class CQueryCommand : public CCommand
{
public:
    /// @return What the answer's data says. @throw CRefusal  It is no such answer.
    using reader_t = QueryResult (*)(const std::string& szData);

    CQueryCommand(CLI::App& parent, const std::string& szName, const std::string& szDescription,
                  uint16_t iCommand, reader_t reader);
    eExitStatus Run(const Settings& settings) const override;

private:
    uint16_t m_iCommand;
    reader_t m_reader;
};

/// @name Readers of the three answers.
/// @{
QueryResult ReadVersion(const std::string& szData);
QueryResult ReadPid(const std::string& szData);
QueryResult ReadName(const std::string& szData);
/// @}
} // namespace QuorCtl
