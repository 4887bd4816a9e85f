#include "internal/JsonFile.h"

#include "internal/CUniqueFd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace QuorCore
{
namespace
{
constexpr mode_t kNewFileMode = 0644;        // less the umask
constexpr size_t kFileMaxBytes = 64U << 20U; // of a file that is read
constexpr size_t kNameMaxBytes = 255;        // of a name, in Linux' file systems
constexpr size_t kReadStepBytes = 64U * 1024U;

bool bWriteAll(int iFd, const std::string& szText)
{
    size_t done = 0;
    while (done < szText.size()) {
        const ssize_t written = ::write(iFd, szText.data() + done, szText.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    return true;
}

/// A name beside the file that no other thread or process uses.
std::string szPartialName(const std::string& szPath)
{
    static std::atomic<unsigned> s_iCount{0};
    const size_t slash = szPath.rfind('/');
    const std::string szDirectory = slash == std::string::npos ? "" : szPath.substr(0, slash + 1);
    return szDirectory + kPartialFilePrefix + std::to_string(::getpid()) + "-" +
           std::to_string(s_iCount++);
}

bool bWriteInPlace(const std::string& szPath, const std::string& szText)
{
    const CUniqueFd file(::open(szPath.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC));
    return file && bWriteAll(file.iGet(), szText);
}

bool bWriteAndRename(const std::string& szPath, const std::string& szText, mode_t mode, bool bKeep)
{
    const std::string szPartial = szPartialName(szPath);
    const int iFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    CUniqueFd file(::open(szPartial.c_str(), iFlags, mode));
    if (!file) {
        return false;
    }
    // On the disk before it has the name: else a power cut may leave the name with nothing in it.
    const bool bWritten = (!bKeep || ::fchmod(file.iGet(), mode) == 0) &&
                          bWriteAll(file.iGet(), szText) && ::fsync(file.iGet()) == 0;
    file.Reset();
    if (bWritten && ::rename(szPartial.c_str(), szPath.c_str()) == 0) {
        return true;
    }
    const int iError = errno;
    ::unlink(szPartial.c_str());
    errno = iError;
    return false;
}
} // namespace

bool bIsFileName(const std::string& szLabel)
{
    // A "." in front is more than "." and "..": files under way have it.
    return !szLabel.empty() && szLabel[0] != '.' && szLabel.size() <= kNameMaxBytes &&
           szLabel.find('/') == std::string::npos && szLabel.find('\0') == std::string::npos;
}

bool bReplaceFile(const std::string& szPath, const std::string& szText, bool bFollow)
{
    const CNoCancel noCancel; // a file under way is not left behind
    struct stat status = {};
    if (::lstat(szPath.c_str(), &status) != 0) {
        return errno == ENOENT && bWriteAndRename(szPath, szText, kNewFileMode, false);
    }
    if (S_ISREG(status.st_mode)) {
        return bWriteAndRename(szPath, szText, status.st_mode & 0777U, true);
    }
    if (!bFollow) {
        errno = S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
        return false;
    }
    return bWriteInPlace(szPath, szText);
}

bool bReadFile(const std::string& szPath, std::string& szText, bool bFollow)
{
    szText.clear();
    // Not blocking: a label may be the name of a pipe without a writer.
    const int iFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (bFollow ? 0 : O_NOFOLLOW);
    const CUniqueFd file(::open(szPath.c_str(), iFlags));
    struct stat status = {};
    if (!file || ::fstat(file.iGet(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    ssize_t count = 1;
    while (count != 0) {
        const size_t before = szText.size();
        if (before > kFileMaxBytes) {
            errno = EFBIG;
            return false;
        }
        szText.resize(before + kReadStepBytes);
        count = ::read(file.iGet(), &szText[before], kReadStepBytes);
        const bool bFailed = count < 0 && errno != EINTR;
        szText.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (bFailed) {
            return false;
        }
    }
    szText.resize(std::min(szText.find('\0'), szText.size()));
    return true;
}
} // namespace QuorCore
