/// @file
/// @brief Whole files of the data tree, read and replaced.
#pragma once

#include <string>

namespace QuorCore
{
/// Names that begin so are files under way, never those of a label.
constexpr const char* kPartialFilePrefix = ".quorcore-";

/// @return Whether a label names a file within a directory and nothing else: not empty, no "." in
///         front, neither "/" nor NUL, at most 255 bytes.
bool bIsFileName(const std::string& szLabel);

/**
 * @brief Replaces the content of a file.
 *
 * A regular file is replaced in one step, by rename(2), and keeps its mode and, as far as the
 * process may give files away, its owner; a new one gets 0644, less the umask. Written in place are
 * what is no regular file, and a file in whose directory nothing may be made or replaced.
 *
 * @param bFollow  Whether a link may be followed, and what is no regular file be written at all.
 * @return Whether all was written; errno tells why not, and the file is as it was unless it was
 *         written in place.
 */
bool bReplaceFile(const std::string& szPath, const std::string& szText, bool bFollow);

/**
 * @brief Reads a file up to its end or its first NUL.
 * @param bFollow  Whether the last part of the path may be a link.
 * @return Whether it is a regular file, was read, and has 64 MiB at most; errno tells why not.
 */
bool bReadFile(const std::string& szPath, std::string& szText, bool bFollow);
} // namespace QuorCore
