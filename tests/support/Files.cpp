#include "support/Files.h"

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

int iOpen(const std::string& szPath, int iFlags)
{
    const int iFd = open(szPath.c_str(), iFlags | O_CLOEXEC, 0644);
    if (iFd == -1) {
        throw std::system_error(errno, std::generic_category(), "open " + szPath);
    }
    return iFd;
}

void CloseAndThrow(int iFd, const std::string& szCall)
{
    const int iError = errno;
    close(iFd);
    throw std::system_error(iError, std::generic_category(), szCall);
}
} // namespace

std::string szReadFile(const std::string& szPath)
{
    const int iFd = iOpen(szPath, O_RDONLY);
    std::string szContent;
    std::array<char, kChunkBytes> chunk;
    ssize_t lRead = 0;
    while ((lRead = read(iFd, chunk.data(), chunk.size())) > 0) {
        szContent.append(chunk.data(), static_cast<size_t>(lRead));
    }
    if (lRead == -1) {
        CloseAndThrow(iFd, "read " + szPath);
    }
    close(iFd);
    return szContent;
}

void WriteFile(const std::string& szPath, const std::string& szContent)
{
    const int iFd = iOpen(szPath, O_WRONLY | O_CREAT | O_TRUNC);
    if (write(iFd, szContent.data(), szContent.size()) != static_cast<ssize_t>(szContent.size())) {
        CloseAndThrow(iFd, "write " + szPath);
    }
    close(iFd);
}
} // namespace TestSupport
