/// @file
/// @brief A directory that a test has for itself.
#pragma once

#include <string>

namespace TestSupport
{
/**
 * @brief A new empty directory below TMPDIR or /tmp, removed with all its content at the end.
 *
 * Threads: the paths may be asked for from any. Errors: the constructor throws std::system_error;
 * what cannot be removed is left. Rests on mkdtemp(3).
 */
class CTempDirectory
{
public:
    CTempDirectory();
    CTempDirectory(const CTempDirectory&) = delete;
    CTempDirectory& operator=(const CTempDirectory&) = delete;
    ~CTempDirectory();

    /// @return Absolute path of the directory, without a slash at the end.
    const std::string& szPath() const { return m_szPath; }

    /// @param szName  Name relative to the directory; nothing needs to exist there.
    /// @return Absolute path of that name.
    std::string szPath(const std::string& szName) const { return m_szPath + '/' + szName; }

private:
    std::string m_szPath;
};
} // namespace TestSupport
