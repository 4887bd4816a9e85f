#include "support/Files.h"

#include "internal/CUniqueFd.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr size_t kChunkBytes = 64 * 1024;

[[noreturn]] void Throw(const std::string& szCall)
{
    throw std::system_error(errno, std::generic_category(), szCall);
}

QuorCore::CUniqueFd Open(const std::string& szPath, int iFlags)
{
    QuorCore::CUniqueFd fd(open(szPath.c_str(), iFlags | O_CLOEXEC, 0644));
    if (!fd) {
        Throw("open " + szPath);
    }
    return fd;
}
} // namespace

std::string szReadFile(const std::string& szPath)
{
    const QuorCore::CUniqueFd fd = Open(szPath, O_RDONLY);
    std::string szContent;
    std::array<char, kChunkBytes> chunk;
    ssize_t lRead = 0;
    while ((lRead = read(fd.iGet(), chunk.data(), chunk.size())) > 0) {
        szContent.append(chunk.data(), static_cast<size_t>(lRead));
    }
    if (lRead == -1) {
        Throw("read " + szPath);
    }
    return szContent;
}

void WriteFile(const std::string& szPath, const std::string& szContent)
{
    const QuorCore::CUniqueFd fd = Open(szPath, O_WRONLY | O_CREAT | O_TRUNC);
    const ssize_t lWritten = write(fd.iGet(), szContent.data(), szContent.size());
    if (lWritten != static_cast<ssize_t>(szContent.size())) {
        Throw("write " + szPath);
    }
}
} // namespace TestSupport
