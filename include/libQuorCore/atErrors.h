/// @file
/// @brief The error numbers of modems as texts.
#pragma once

#include "libQuorCore/Export.h"

namespace QuorCore
{
/// @return The text of "+CME ERROR: n" by 3GPP TS 27.007, clause 9.2; null for a number that it
/// does not have. Static.
QUORCORE_API const char* pszCmeError(int iError);

/// @return The text of "+CMS ERROR: n" by 3GPP TS 27.005, clause 3.2.5, and those that it refers
/// to, TS 24.011 annex E and TS 23.040 clause 9.2.3.22; null for a number without one. Static.
QUORCORE_API const char* pszCmsError(int iError);

/// @param pszText  A text as the modem has it; upper and lower case count alike.
/// @return Its number; -1 for a text of the modem's own, and for null.
QUORCORE_API int iCmeError(const char* pszText);
QUORCORE_API int iCmsError(const char* pszText); ///< The same for "+CMS ERROR: text".
} // namespace QuorCore
