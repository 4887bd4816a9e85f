/// @file
/// @brief Labels that are positions.
#pragma once

#include <string>

namespace QuorCore
{
/// @return Whether a text is one digit or more, and nothing else.
inline bool bIsDigits(const std::string& szText)
{
    return !szText.empty() && szText.find_first_not_of("0123456789") == std::string::npos;
}
} // namespace QuorCore
