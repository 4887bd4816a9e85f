/// @file
/// @brief Hexadecimal text, trimming and splitting, path pieces, and the octet forms of the device.
///
/// All functions are in the global namespace, log nothing, and may be called by any thread. What
/// makes a text throws std::bad_alloc when there is no memory, and nothing else.
#pragma once

#include "libQuorCore/Export.h"

#include <cstdint>
#include <string>
#include <vector>

/// @name Hexadecimal text
/// @{

/// @param sep  Follows every byte, the last one included, unless it is 0.
/// @return Every byte as two upper-case digits.
QUORCORE_API std::string Hexlify(const std::string& bytes, char sep);
QUORCORE_API std::string Hexlify(const std::basic_string<unsigned char>& bytes, char sep);
/// @param bytes  @p length bytes; null is none.
QUORCORE_API std::string Hexlify(const unsigned char* bytes, unsigned int length, char sep);
QUORCORE_API std::string Hexlify(const char* bytes, unsigned int length, char sep);

/// @param text  @p length characters; all that are no digits are passed over. Null is none.
/// @return A byte for each pair of digits; an odd last one is dropped.
QUORCORE_API std::string UnHexlify(const char* text, unsigned int length);

/// @return 0 to 9 for a digit, 10 to 15 for an upper-case one; for any other character its code
///         less 87, modulo 256: 10 to 15 for a lower-case digit, and nonsense else.
QUORCORE_API uint8_t iHexCharToUint8(char c);

QUORCORE_API std::string szUint8ToHexChar(uint8_t iByte); ///< @return Two upper-case digits.

/// @return Each pair of characters as a byte, by iHexCharToUint8(); an odd last one is dropped.
QUORCORE_API std::basic_string<unsigned char> uszStringToUString(std::string& hex);
QUORCORE_API std::string uszStringToBytes(std::string& hex); ///< The same, as a std::string.

/// @return Every byte as two upper-case digits.
QUORCORE_API std::string szUStringToString(std::basic_string<unsigned char>& bytes);
/// @}

/// @name Text
/// @{

/// @param delimiters  Each of its characters separates; null is none.
/// @return The non-empty pieces, in order.
QUORCORE_API std::vector<std::string> SplitString(const char* delimiters, std::string text);

/// @return A variable of the environment, or an empty text; see getenv(3) for threads.
QUORCORE_API std::string GetEnv(const std::string& name);

QUORCORE_API bool IsBlank(char c);    ///< @return Whether it is one of GetBlanks().
QUORCORE_API const char* GetBlanks(); ///< @return Space, tab, carriage return, line feed.

/// @param set  Characters to remove; null: the blanks. @return The text without those it begins
///             with.
QUORCORE_API std::string StripHead(std::string text, const char* set);
QUORCORE_API std::string StripTail(std::string text, const char* set); ///< Those it ends with.
QUORCORE_API std::string Strip(std::string text, const char* set);     ///< Both.

/// Replaces every @p from, left to right, and goes on behind what was put in. An empty @p from does
/// nothing. The three may be the same object.
QUORCORE_API void replace(std::string& text, const std::string& from, const std::string& to);

QUORCORE_API std::string ToString(int iNumber); ///< @return In decimal.

/// @return As printf(3) would print it, of any length; empty for a format that it refuses.
QUORCORE_API std::string string_format(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

/// Appends what string_format() gives; @p text may be one of the arguments.
QUORCORE_API void string_append_format(std::string& text, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/// @}

/// @name Paths
/// @{
QUORCORE_API std::string Basename(const std::string& path); ///< @return What follows the last "/".

/// @return What stands before the last "/"; "." without one, "/" when it is the first character and
///         there is no other.
QUORCORE_API std::string Dirname(const std::string& path);
/// @}

/// @name The octet forms of the device
/// @{

/**
 * @brief Writes a time as the 12-byte date-time of IEC 62056-62, in local time.
 *
 * Big-endian year, month, day, day of week (Monday 1 to Sunday 7), hour, minute, second, hundredths
 * 0, deviation 0x8000 and clock status 0xFF: both not specified.
 *
 * @param time  Seconds since 1970, UTC.
 * @param size  Bytes at @p out.
 * @return 0; -1 for null, fewer than 12 bytes, or a time that has no local form.
 */
QUORCORE_API int iCompressedTimeToOctetStringTime(const long* time, unsigned char* out,
                                                  unsigned int size);

/**
 * @brief Reads such a date-time as local time; day of week and all behind the second are ignored.
 *
 * @param in    12 bytes.
 * @param time  Receives the seconds since 1970, UTC; untouched on failure.
 * @return 1, where the other direction has 0: callers test for it, and both are kept. -1 for null,
 *         for what the form marks as not specified, for a field out of its range, and for a time
 *         that a long cannot hold.
 */
QUORCORE_API int iOctetStringTimeToCompressedTime(unsigned char* in, long* time);

/// Writes a byte for each pair of digits. @param out  Room for half of @p hex's size.
QUORCORE_API void EncodeMacExtendedAddr(char* out, const std::string& hex);

/// Gives @p count bytes as lower-case digits, two each.
QUORCORE_API void DecodeMacExtendedAddr(const char* bytes, unsigned char count, std::string& out);

/// Gives a concentrator's identifier, a text of digits, as bytes, as UnHexlify() does.
QUORCORE_API void EncodeConcentratorId(std::string& out, const std::string& id);

/// Reverses the bytes in place; nothing for null or a count below 2.
QUORCORE_API void RevertBytesArray(unsigned char* bytes, int count);

/// @return A reversed copy.
QUORCORE_API std::basic_string<unsigned char>
uszRevertUString(std::basic_string<unsigned char> bytes);
/// @}
