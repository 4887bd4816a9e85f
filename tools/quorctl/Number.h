/// @file
/// @brief Numbers in the text of a command line or a page.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace QuorCtl
{
/// @param szText  Decimal digits, a leading 0 included, or 0x and hex digits; a minus before them.
/// @return None: it is something else, or lies outside of @p iMin to @p iMax.
std::optional<int64_t> ParseNumber(const std::string& szText, int64_t iMin, int64_t iMax);
} // namespace QuorCtl
