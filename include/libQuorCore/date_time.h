/// @file
/// @brief Times as texts: the forms that JSON documents and file names have.
#pragma once

#include "libQuorCore/Export.h"

#include <ctime>
#include <string>

namespace QuorCore
{
/**
 * @name Times as texts, and back.
 *
 * A time is a number of seconds since 1970-01-01 UTC. There are two forms: UTC, as
 * 1970-01-01T00:00:00Z, and local time with its distance to UTC, as 1970-01-01T01:00:00+0100. Local
 * time is that of the TZ of the process.
 *
 * Threads: any. Errors: a time that has no date, and a text above 79 bytes, give an empty text.
 * Rests on strftime(3), strptime(3), gmtime_r(3), localtime_r(3) and timegm(3).
 */
/// @{

/// @return The current time in the local form, or in that of UTC.
QUORCORE_API std::string GetCurrentDateTime(bool bLocal);
/// @return The current local time in a form of the caller's, as strftime(3) has it.
QUORCORE_API std::string GetCurrentDateTime(const std::string& szFormat);
/// The same; without it a literal would be taken for a flag. Null gives an empty text.
QUORCORE_API std::string GetCurrentDateTime(const char* szFormat);

QUORCORE_API std::string GetDateTimeString(time_t time, bool bLocal);
QUORCORE_API std::string GetDateTimeString(time_t time, const std::string& szFormat);
QUORCORE_API std::string GetDateTimeString(time_t time, const char* szFormat);

/// @return The current date alone, as 20261121.
QUORCORE_API std::string szGetCurrentContainerDateTime(bool bLocal);

/// @return The current local time for a file name, as 20261121-223000.
QUORCORE_API std::string FileGetCurrentDateTime();

/**
 * @brief Reads a text of one of the two forms.
 *
 * The local form names its distance to UTC, which is what counts, not the TZ of the process. What
 * stands behind a text that can be read is ignored.
 *
 * @return The time; -1 when the text cannot be read, which is logged as "strptime() failed".
 */
QUORCORE_API time_t iConvertCurrentDateTime(const char* szText, bool bLocal);

/// Reads a text as 2026-11-21T22:30:00.UTC, whatever zone it names, as UTC.
/// @return As iConvertCurrentDateTime(). The fields are traced at debug level.
QUORCORE_API time_t iConvertCurrentTime(const char* szText);

/**
 * @brief Turns a text of the UTC form into the local form, in place.
 * @return The text; unchanged when it cannot be read, which is logged as "strptime() failed".
 */
QUORCORE_API std::string getLocalTimeFromUTC(std::string& szText);
/// @}
} // namespace QuorCore
