/// @file
/// @brief What a command sends, from a file or from standard input.
#pragma once

#include "CDeadline.h"

#include <string>

namespace QuorCtl
{
/**
 * @brief Reads a file, or standard input, up to one byte more than a frame's data may have.
 *
 * As long as the deadline allows: a terminal or a pipe may have nothing for ever.
 *
 * @param szFile   "-" is standard input.
 * @param szWhich  What messages call it, without the file's name; as "--file ".
 * @throw CUsageError  It cannot be read. @throw CTimeOut  It has no end in time.
 */
std::string szReadInput(const std::string& szFile, const std::string& szWhich,
                        const CDeadline& deadline);
} // namespace QuorCtl
