/// @file
/// @brief Whole files in one call.
#pragma once

#include <string>

namespace TestSupport
{
/// @brief The content of a file, byte by byte.
/// @param szPath  Any readable file, those of procfs and sysfs included.
/// @throw std::system_error  It cannot be opened or read.
std::string szReadFile(const std::string& szPath);

/// @brief Writes a file in one write(2), as procfs and sysfs ask for; made anew or cut to length 0.
/// @param szPath     File in a directory that exists.
/// @param szContent  All it shall hold; any bytes.
/// @throw std::system_error  It cannot be opened or written whole.
void WriteFile(const std::string& szPath, const std::string& szContent);
} // namespace TestSupport
