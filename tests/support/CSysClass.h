/// @file
/// @brief A /sys/class of the test's own, with plain files for the kernel's.
#pragma once

#include "internal/CUniqueFd.h"

#include <string>
#include <vector>

namespace TestSupport
{
/**
 * @brief Covers /sys/class of the test's mount namespace with an empty file system in memory.
 *
 * For what plain files can show: which are opened and written, in what order, and what they hold
 * then. What a kernel makes of it is for a board to show. Errors: throws std::system_error.
 * Rests on mount(2).
 */
class CSysClass
{
public:
    CSysClass();
    CSysClass(const CSysClass&) = delete;
    CSysClass& operator=(const CSysClass&) = delete;
    ~CSysClass(); ///< Uncovers the machine's.

    /// @brief Makes a directory and all above it. @param szName  Relative to /sys/class.
    /// @return Its path, with a "/" at the end.
    std::string szMakeDirectory(const std::string& szName);
};

/// @brief Tells in what order the files of a directory are opened, written and closed. inotify(7).
class CFileJournal
{
public:
    explicit CFileJournal(const std::string& szDirectory);

    /// @return Since the last call: "open NAME", "write NAME", "close NAME" (closed after it was
    /// open
    ///         for writing). The same twice in a row is told once.
    std::vector<std::string> Take();

private:
    QuorCore::CUniqueFd m_Inotify;
};
} // namespace TestSupport
