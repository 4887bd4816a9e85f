/// @file
/// @brief Writing to the small text files by which the kernel offers its devices.
#pragma once

#include "internal/CUniqueFd.h"

#include <string>

namespace QuorCore
{
/// What becomes of the content that is there.
enum class eWriteMode { TRUNCATE, APPEND };

/// @brief Opens a file as fopen(3) with "w" or "a", close-on-exec, and never waits for it.
/// @return Empty when that failed, with errno.
CUniqueFd OpenAttribute(const std::string& szPath, eWriteMode mode);

/// @brief Writes a text in one write(2): the kernel takes each as a whole setting.
void WriteAttribute(const CUniqueFd& file, const std::string& szText);
} // namespace QuorCore
