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
constexpr int kPartialTries = 100; // names of files under way that may be taken

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

/// Creates a file beside the one at @p szPath. One that is there already is never taken: it is a
/// leftover, or was put there by somebody who waits for what we write through it.
CUniqueFd CreatePartial(const std::string& szPath, mode_t mode, std::string& szPartial)
{
    static std::atomic<unsigned> s_iCount{0};
    const size_t slash = szPath.rfind('/');
    const std::string szDirectory = slash == std::string::npos ? "" : szPath.substr(0, slash + 1);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    CUniqueFd file;
    errno = EEXIST;
    for (int i = 0; i < kPartialTries && !file && errno == EEXIST; ++i) {
        szPartial = szDirectory + kPartialFilePrefix + std::to_string(::getpid()) + "-" +
                    std::to_string(s_iCount++);
        file.Reset(::open(szPartial.c_str(), kFlags, mode));
    }
    return file;
}

/// @param bFollow  Also through a link, and to what is no regular file.
bool bWriteInPlace(const std::string& szPath, const std::string& szText, bool bFollow)
{
    // Not blocking: a pipe may have no reader.
    const int iFlags = O_WRONLY | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC |
                       (bFollow ? O_CREAT : O_NOFOLLOW); // a link may lead to a file to be made
    const CUniqueFd file(::open(szPath.c_str(), iFlags, kNewFileMode));
    return file && ::fcntl(file.iGet(), F_SETFL, 0) == 0 && bWriteAll(file.iGet(), szText);
}

/// @param pFormer  The file to be replaced, whose mode and owner stay; null: there is none.
bool bWriteAndRename(const std::string& szPath, const std::string& szText,
                     const struct stat* pFormer)
{
    const mode_t mode = pFormer != nullptr ? pFormer->st_mode & 0777U : kNewFileMode;
    std::string szPartial;
    CUniqueFd file = CreatePartial(szPath, mode, szPartial);
    if (!file) {
        return false;
    }
    bool bWritten = true;
    if (pFormer != nullptr) {
        // A file keeps its readers. Not every process may give files away, nor every file system.
        const bool bGiven = ::fchown(file.iGet(), pFormer->st_uid, pFormer->st_gid) == 0;
        bWritten =
            (bGiven || errno == EPERM || errno == EINVAL) && ::fchmod(file.iGet(), mode) == 0;
    }
    // On the disk before it has the name: else a power cut may leave the name with nothing in it.
    bWritten = bWritten && bWriteAll(file.iGet(), szText) && ::fsync(file.iGet()) == 0;
    file.Reset();
    if (bWritten && ::rename(szPartial.c_str(), szPath.c_str()) == 0) {
        return true;
    }
    const int iError = errno;
    ::unlink(szPartial.c_str());
    errno = iError;
    return false;
}

/// Whether a file cannot be replaced there for the directory's sake, or as it is mounted by itself.
bool bMustStay(int iError)
{
    return iError == EACCES || iError == EPERM || iError == EROFS || iError == EBUSY;
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
        return errno == ENOENT && bWriteAndRename(szPath, szText, nullptr);
    }
    if (S_ISREG(status.st_mode)) {
        return bWriteAndRename(szPath, szText, &status) ||
               (bMustStay(errno) && bWriteInPlace(szPath, szText, false));
    }
    if (!bFollow) {
        errno = S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
        return false;
    }
    return bWriteInPlace(szPath, szText, true);
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
