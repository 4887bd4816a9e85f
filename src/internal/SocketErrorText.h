/// @file
/// @brief The words in which endpoints log socket errors.
#pragma once

namespace QuorCore
{
/// @return The text for an error number of errno(3), or null for one that has none. Static.
const char* pszSocketErrorText(long lError);
} // namespace QuorCore
