#include "support/CTempDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace TestSupport
{
CTempDirectory::CTempDirectory()
    : m_szPath(std::filesystem::temp_directory_path() / "quorcore.XXXXXX")
{
    if (mkdtemp(m_szPath.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + m_szPath);
    }
}

CTempDirectory::~CTempDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_szPath, ignored);
}
} // namespace TestSupport
