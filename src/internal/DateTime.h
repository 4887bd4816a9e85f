/// @file
/// @brief Dates as the attributes of the data tree use them.
#pragma once

#include <ctime>

namespace QuorCore
{
/**
 * @brief Reads a text in the form of UTC or in the local one; a failure is logged.
 * @param time  Receives the time; stays as it is on failure.
 */
bool bReadDateTime(const char* szText, bool bLocal, time_t& time);

/// @return The fields of the local time; all zero for a time that has none.
tm LocalFields(time_t time);
} // namespace QuorCore
