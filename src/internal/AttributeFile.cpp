#include "internal/AttributeFile.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr mode_t kNewFileMode = 0666; // as fopen(3); less the umask
} // namespace

CUniqueFd OpenAttribute(const std::string& szPath, eWriteMode mode)
{
    // Without O_NONBLOCK a pipe in the file's place would be waited for until somebody reads it.
    const int iFlags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK |
                       (mode == eWriteMode::APPEND ? O_APPEND : O_TRUNC);
    return CUniqueFd(open(szPath.c_str(), iFlags, kNewFileMode));
}

void WriteAttribute(const CUniqueFd& file, const std::string& szText)
{
    ssize_t lWritten = 0;
    do {
        lWritten = szText.empty() ? 0 : write(file.iGet(), szText.data(), szText.size());
    } while (lWritten < 0 && errno == EINTR);
}
} // namespace QuorCore
