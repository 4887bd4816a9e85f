/// @file
/// @brief Frames as a person or a script reads them.
#pragma once

#include "CFrame.h"

#include <json/value.h>
#include <string>

namespace QuorCtl
{
/// @return A line of the header's words, then the data: as text if it is, else as a hex dump.
std::string szFrameText(const CFrame& frame);

/// @return One line: the local time, the words that tell frames apart, and how the data begins.
std::string szFrameLine(const CFrame& frame);

/// @return All words of the header, and the data; see SetBytes().
Json::Value JsonFrame(const CFrame& frame);

/// @return The local time of day, "23:59:59.999".
std::string szTimeOfDay();
} // namespace QuorCtl
