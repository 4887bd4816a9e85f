/// @file
/// @brief Bytes from outside as text that a terminal, a person or JSON can take.
#pragma once

#include <optional>
#include <string>

namespace QuorCtl
{
/// @return The text that printf(3) would print.
std::string szFormat(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));

/// @return Whether the bytes are UTF-8 as RFC 3629 has it: shortest forms, no surrogates.
bool bIsUtf8(const std::string& szBytes);

/// @return Whether they are UTF-8 without control characters other than tab and line ends,
///         which are a line feed with or without a return before it.
bool bIsPrintable(const std::string& szBytes);

/// @return The text with each byte that is a control character or no UTF-8 as "\x1b", a backslash
///         doubled: nothing in it moves a cursor or ends a line.
std::string szVisible(const std::string& szBytes);

/// @return Two lower-case digits for each byte.
std::string szHex(const std::string& szBytes);

/// @return Lines of 16 bytes: offset, bytes, and what of them is ASCII; each ends with a line feed.
std::string szHexDump(const std::string& szBytes);

/// @param szDigits  Pairs of hex digits of either case; blanks and colons between pairs are
/// skipped.
/// @return None: there is something else in it.
std::optional<std::string> FromHex(const std::string& szDigits);

/// @return The text up to its first 0 byte, or all of it.
std::string szUpToZero(const std::string& szBytes);
} // namespace QuorCtl
