/// @file
/// @brief The eight levels of syslog(3) by number and by name.
#pragma once

#include <optional>
#include <string>

namespace QuorCtl
{
/// @param iLevel  0 to 7. @return "emerg" to "debug"; "unknown" for any other number.
const char* szLevelName(int iLevel);

/// @param szText  A number from 0 to 7 or a name as above. @return None: it is neither.
std::optional<int> ParseLevel(const std::string& szText);

/// @return "5 notice"; "? unknown" for a level that is none.
std::string szLevel(int iLevel);
} // namespace QuorCtl
