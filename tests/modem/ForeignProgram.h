/// @file
/// @brief Programs that others wrote, unpacked and not installed.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
/**
 * @brief Finds a program below FOREIGN_ROOT, or installed. @return Its path; empty: it is not here.
 *
 * What scripts/setup found installed it has not unpacked.
 */
inline std::string szForeignProgram(const std::string& szName)
{
    for (const char* const pszDirectory :
         {FOREIGN_ROOT "/usr/bin/", FOREIGN_ROOT "/usr/sbin/", "/usr/bin/", "/usr/sbin/"}) {
        const std::string szPath = pszDirectory + szName;
        if (access(szPath.c_str(), X_OK) == 0) {
            return szPath;
        }
    }
    return "";
}

/// What a test says that is skipped.
inline std::string szMissing(const std::string& szName)
{
    return szName + " is neither unpacked nor installed, see scripts/modem-packages";
}

/// Lets programs find their libraries and Perl modules below FOREIGN_ROOT; for the rest of the
/// process. Where those of a machine are is in the name of its architecture.
inline void UseForeignLibraries()
{
    std::string szLibraries = FOREIGN_ROOT "/usr/lib";
    std::string szModules = FOREIGN_ROOT "/usr/share/perl5";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(szLibraries, error)) {
        if (entry.path().filename().string().find("-linux-gnu") != std::string::npos) {
            szLibraries += ':' + entry.path().string();
            for (const auto& version :
                 std::filesystem::directory_iterator(entry.path() / "perl5", error)) {
                szModules += ':' + version.path().string();
            }
        }
    }
    setenv("LD_LIBRARY_PATH", szLibraries.c_str(), 1);
    setenv("PERL5LIB", szModules.c_str(), 1);
}
} // namespace TestSupport
