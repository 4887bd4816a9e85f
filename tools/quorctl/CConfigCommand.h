/// @file
/// @brief quorctl config: what the daemon's data tree holds, and changes of it.
#pragma once

#include "CCommand.h"

#include <string>
#include <vector>

namespace QuorCtl
{
class CFrameLink;

/// @brief Reads or writes a daemon's tree by the commands 15 and 14, for daemons that have one.
class CConfigCommand : public CCommand
{
public:
    explicit CConfigCommand(CLI::App& parent);

    /// @throw CRefusal  There is no such attribute, or the daemon did not take the value.
    eExitStatus Run(const Settings& settings) const override;

private:
    eExitStatus Get(const Settings& settings) const;
    eExitStatus Set(const Settings& settings) const;

    CLI::App& m_get;
    CLI::App& m_set;
    std::string m_szPath;
    std::vector<std::string> m_arguments; ///< Of set: path and value, or the value alone.
};

/// @return The document in which @p szJson, of an attribute's value, stands at the attribute's
///         place: {"b":{"c":VALUE}} for "/a/b/c". The first label is the tree's own. Without a path
///         the document is @p szJson itself.
/// @throw CUsageError  The path is no full name, or the text no JSON.
std::string szDocumentFor(const std::string& szPath, const std::string& szJson);
} // namespace QuorCtl
