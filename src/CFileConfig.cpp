#include "libQuorCore/CFileConfig.h"

#include "internal/CCancelGuard.h"
#include "internal/CHeldLock.h"
#include "internal/CUniqueFd.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <locale.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr mode_t kFileMode = 0644;          // never more, whatever the umask of a daemon admits
constexpr size_t kDirectoryPathMax = 128;   // characters of a path in which directories are sought
constexpr size_t kExecutablePathMax = 1024; // bytes, the terminator included

struct errorText_t {
    int iError;
    const char* szText;
};

/// What handleLastError() prints.
constexpr std::array<errorText_t, 14> kErrorTexts{{
    {EPERM, "FileAccessDeniedException\n"},
    {EACCES, "FileAccessDeniedException\n"},
    {ENOENT, "FileNotFoundException\n"},
    {EIO, "EIO\n"},
    {EEXIST, "EEXIST\n"},
    {ENOTDIR, "not a directory\n"},
    {EISDIR, "not a file\n"},
    {ENFILE, "too many open files\n"},
    {EMFILE, "too many open files\n"},
    {ENOSPC, "no space left on device"}, // no line feed: its readers know it so
    {EROFS, "FileReadOnlyException\n"},
    {ENAMETOOLONG, "ENAMETOOLONG\n"},
    {ENOTEMPTY, "directory not empty\n"},
    {EDQUOT, "disk quota exceeded\n"},
}};

struct CFileCloser {
    void operator()(FILE* pFile) const
    {
        const CNoCancel noCancel; // fclose() is a cancellation point, and this is a destructor
        std::fclose(pFile);
    }
};

struct CDirectoryCloser {
    void operator()(DIR* pDirectory) const
    {
        const CNoCancel noCancel;
        ::closedir(pDirectory);
    }
};

using CUniqueFile = std::unique_ptr<FILE, CFileCloser>;
using CUniqueDirectory = std::unique_ptr<DIR, CDirectoryCloser>;

const char* szOrEmpty(const char* szText)
{
    return szText == nullptr ? "" : szText;
}

/// Gives the thread the plain decimal point for a scope: a file must mean the same to a program
/// that calls setlocale(3) and to one that does not. Rests on uselocale(3).
class CPlainNumbers
{
public:
    CPlainNumbers() : m_former(::uselocale(PlainLocale())) {}
    CPlainNumbers(const CPlainNumbers&) = delete;
    CPlainNumbers& operator=(const CPlainNumbers&) = delete;
    ~CPlainNumbers() { ::uselocale(m_former); }

private:
    static locale_t PlainLocale()
    {
        static const locale_t plain = ::newlocale(LC_NUMERIC_MASK, "C", nullptr);
        return plain; // when there was no memory for it 0, with which nothing is changed
    }

    const locale_t m_former;
};

std::string szFromFloat(float fValue)
{
    const CPlainNumbers plain;
    return std::to_string(fValue);
}

float fFromText(const std::string& szText)
{
    const CPlainNumbers plain;
    return std::stof(szText);
}

/// Makes the file at least @p iSize bytes long on the disk, not just in its length.
/// @return 0, or an error number with the length as it was.
int iReserve(int iFd, off_t iFormerSize, off_t iSize)
{
    int iError = 0;
    do {
        iError = ::posix_fallocate(iFd, iFormerSize, iSize - iFormerSize);
    } while (iError == EINTR);
    if (iError != 0 && ::ftruncate(iFd, iFormerSize) != 0) {
        return errno;
    }
    return iError;
}

/// @param iDone  Receives how much of the text was written.
/// @return 0, or an error number.
int iWriteAll(int iFd, const std::string& szText, size_t& iDone)
{
    iDone = 0;
    while (iDone < szText.size()) {
        const ssize_t iWritten = ::write(iFd, szText.data() + iDone, szText.size() - iDone);
        if (iWritten > 0) {
            iDone += static_cast<size_t>(iWritten);
        } else if (iWritten == 0) {
            return EIO; // write(2) leaves open what it means; trying again could go on for ever
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/// Writes the content of a regular file and gives it its length.
/// @return 0, or an error number: then the file holds what was written, or, if that is nothing,
/// what
///         it held before.
int iRewrite(int iFd, off_t iFormerSize, const std::string& szText)
{
    const auto iSize = static_cast<off_t>(szText.size());
    int iError = iSize > iFormerSize ? iReserve(iFd, iFormerSize, iSize) : 0;
    if (iError != 0) {
        return iError;
    }
    size_t iDone = 0;
    iError = iWriteAll(iFd, szText, iDone);
    // Without room to spare some flash file systems fail here in spite of the reserve. What follows
    // the new lines then must not be the end of an old one, or the zeros of the reserve.
    const bool bUntouched = iError != 0 && iDone == 0;
    if (::ftruncate(iFd, bUntouched ? iFormerSize : static_cast<off_t>(iDone)) != 0) {
        return iError != 0 ? iError : errno;
    }
    return iError;
}

/// Replaces the content of a file; old content is touched only when the new one has its room.
/// @return 0, or an error number.
int iReplaceContent(const char* szPath, const std::string& szText)
{
    CUniqueFd file(::open(szPath, O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
    struct stat info {
    };
    if (!file || ::fstat(file.iGet(), &info) != 0) {
        return errno;
    }
    size_t iDone = 0; // a device has neither length nor room
    const int iError = S_ISREG(info.st_mode) ? iRewrite(file.iGet(), info.st_size, szText)
                                             : iWriteAll(file.iGet(), szText, iDone);
    if (iError != 0) {
        return iError;
    }
    // Network file systems tell only here that the disk was full. After EINTR it is closed too.
    return ::close(file.iRelease()) == 0 || errno == EINTR ? 0 : errno;
}

bool bIsRegularFile(int iDirectoryFd, const dirent& entry)
{
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_REG;
    }
    struct stat info {
    }; // some file systems do not tell the type, readdir(3)
    return ::fstatat(iDirectoryFd, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(info.st_mode);
}

void AppendRegularFiles(DIR* pDirectory, std::vector<std::string>& names)
{
    const int iDirectoryFd = ::dirfd(pDirectory);
    for (const dirent* pEntry = ::readdir(pDirectory); pEntry != nullptr;
         pEntry = ::readdir(pDirectory)) {
        if (bIsRegularFile(iDirectoryFd, *pEntry)) {
            names.emplace_back(pEntry->d_name);
        }
    }
}

/**
 * @brief Makes a directory the working one and hands its regular files to a function that removes.
 * @param remove  Gets the directory's descriptor and the names. Its result is the result.
 * @return -1 when the directory cannot be opened, which is logged.
 */
long iRemoveFiles(const char* szPath,
                  const std::function<long(int, const std::vector<std::string>&)>& remove)
{
    const CUniqueDirectory pDirectory(::opendir(szPath));
    if (!pDirectory) {
        const int iError = errno;
        // The name of another function. Intended: scripts that watch the log know these failures
        // by it. Held by AFileHelper.LogsAMissingDirectoryUnderTheNameOfTheListing.
        CThread::m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "iGetDirectoryList", "%s: %s", szPath,
                              CThread::m_Logger.strerrorT(iError).c_str());
        return -1;
    }
    // By descriptor, so that a working directory that another thread sets meanwhile does not send
    // the removals elsewhere, and so that a relative path means one directory.
    const int iDirectoryFd = ::dirfd(pDirectory.get());
    if (::fchdir(iDirectoryFd) != 0) {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "%s: %s", szPath, CThread::m_Logger.strerrorT(iError).c_str());
    }
    std::vector<std::string> names; // all of them first: the walk does not see its own removals
    AppendRegularFiles(pDirectory.get(), names);
    return remove(iDirectoryFd, names);
}

/// @return The text cut to what fits before a terminator in @p iSize bytes (1 or more).
std::string_view szCut(std::string_view szText, int iSize)
{
    return szText.substr(0, static_cast<size_t>(iSize) - 1);
}

void CopyTo(char* pBuffer, std::string_view szText)
{
    std::memcpy(pBuffer, szText.data(), szText.size());
    pBuffer[szText.size()] = '\0';
}
} // namespace

CFileConfig::CFileConfig() = default;

CFileConfig::~CFileConfig() = default;

void CFileConfig::SetFilename(const char* szFilename)
{
    const CHeldLock held(m_Lock);
    m_szFilename = szOrEmpty(szFilename);
}

const char* CFileConfig::pszGetFilename()
{
    const CHeldLock held(m_Lock);
    return m_szFilename.c_str();
}

void CFileConfig::RemoveAll()
{
    const CHeldLock held(m_Lock);
    m_map.clear();
}

long CFileConfig::iLoad()
{
    const CHeldLock held(m_Lock);
    if (!held) {
        return -1;
    }
    if (m_szFilename.empty()) {
        bMakeDefaultConfigName(m_szFilename, "/conf/", "_config.conf");
    }
    return iLoad(m_szFilename.c_str());
}

long CFileConfig::iLoad(const char* szPath)
{
    if (*szOrEmpty(szPath) == '\0') {
        return -1;
    }
    const CHeldLock held(m_Lock);
    if (!held) {
        return -1;
    }
    const CUniqueFile pFile(std::fopen(szPath, "re"));
    while (pFile && iParseLine(pFile.get()) == 0) {
    }
    return -1; // deliberate, see the header; held by AFileConfig.ReturnsMinusOneAfterAGoodLoad
}

long CFileConfig::iSave()
{
    const CDeferredCancel deferred;
    std::string szFilename;
    {
        const CHeldLock held(m_Lock);
        if (held) {
            szFilename = m_szFilename;
        }
    }
    return iSave(szFilename.c_str());
}

long CFileConfig::iSave(const char* szPath)
{
    const CDeferredCancel deferred;
    long iRet = -1;
    int iError = 0;
    if (*szOrEmpty(szPath) != '\0') {
        const CHeldLock held(m_Lock);
        if (held) {
            const CNoCancel noCancel; // a file cut short is no better for the thread being gone
            iError = iReplaceContent(szPath, szMakeText());
            iRet = iError == 0 ? 0 : -1;
        }
    }
    ::sync(); // seconds on a slow flash: nobody waits for the lock meanwhile
    if (iError != 0) {
        QUORCORE_LOG(LOG_ERR, "%s: %s", szPath, CThread::m_Logger.strerrorT(iError).c_str());
    }
    return iRet;
}

int CFileConfig::iParseLine(FILE* pFile)
{
    if (pFile == nullptr) {
        return -1;
    }
    const CDeferredCancel deferred;
    std::string szKey;
    std::string szValue;
    bool bInValue = false;
    int iByte = EOF; // an int: the byte 0xFF is not the end
    while ((iByte = ::getc_unlocked(pFile)) != EOF && iByte != '\r' && iByte != '\n') {
        if (bInValue) {
            szValue += static_cast<char>(iByte);
        } else if (iByte == '=') {
            bInValue = true;
        } else if (iByte != ' ') {
            szKey += static_cast<char>(iByte);
        }
    }
    const CHeldLock held(m_Lock); // not before: a pipe may keep its reader waiting
    if (held && !szKey.empty() && !szValue.empty()) {
        m_map[std::move(szKey)] = std::move(szValue);
    }
    return iByte == EOF ? -1 : 0;
}

int CFileConfig::iGetParameter(const char* szKey, int iDefault)
{
    const CHeldLock held(m_Lock);
    if (!held) {
        return iDefault;
    }
    const std::string* pValue = pFindOrAdd(szKey, std::to_string(iDefault));
    return pValue == nullptr ? iDefault : std::stoi(*pValue);
}

float CFileConfig::fGetParameter(const char* szKey, float fDefault)
{
    const CHeldLock held(m_Lock);
    if (!held) {
        return fDefault;
    }
    const std::string* pValue = pFindOrAdd(szKey, szFromFloat(fDefault));
    return pValue == nullptr ? fDefault : fFromText(*pValue);
}

std::string CFileConfig::szGetParameter(const char* szKey, const char* szDefault)
{
    const CHeldLock held(m_Lock);
    if (!held) {
        return {};
    }
    const std::string* pValue = pFindOrAdd(szKey, szOrEmpty(szDefault));
    return pValue == nullptr ? szOrEmpty(szDefault) : *pValue;
}

void CFileConfig::SetParameter(const char* szKey, int iValue)
{
    const CDeferredCancel deferred; // here and below: a cancelled thread must not leave malloc held
    Store(szKey, std::to_string(iValue));
}

void CFileConfig::SetParameter(const char* szKey, unsigned int iValue)
{
    const CDeferredCancel deferred;
    Store(szKey, std::to_string(iValue));
}

void CFileConfig::SetParameter(const char* szKey, float fValue)
{
    const CDeferredCancel deferred;
    Store(szKey, szFromFloat(fValue));
}

void CFileConfig::SetParameter(const char* szKey, const char* szValue)
{
    const CDeferredCancel deferred;
    Store(szKey, szOrEmpty(szValue));
}

/// @return The value that is there; null when there was none and the default was added.
const std::string* CFileConfig::pFindOrAdd(const char* szKey, const std::string& szDefault)
{
    const auto [entry, bAdded] = m_map.try_emplace(szOrEmpty(szKey), szDefault);
    return bAdded ? nullptr : &entry->second;
}

void CFileConfig::Store(const char* szKey, std::string szValue)
{
    {
        const CHeldLock held(m_Lock);
        if (held) {
            m_map[szOrEmpty(szKey)] = std::move(szValue);
        }
    }
    iSave();
}

std::string CFileConfig::szMakeText() const
{
    std::string szText;
    for (const auto& [szKey, szValue] : m_map) {
        szText.append(szKey).append("=").append(szValue).append("\n");
    }
    return szText;
}

bool bTouchFile(const char* szPath)
{
    const CDeferredCancel deferred;
    const int iFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    const CUniqueFd file(::open(szOrEmpty(szPath), iFlags, kFileMode));
    return static_cast<bool>(file);
}

long iMakeDirectory(const char* szPath, unsigned int iMode)
{
    const CDeferredCancel deferred;
    const std::string szWhole = szOrEmpty(szPath);
    const std::string szSearched = szWhole.substr(0, kDirectoryPathMax);
    const auto make = [&szWhole, iMode](const std::string& szDirectory) {
        if (::mkdir(szDirectory.c_str(), static_cast<mode_t>(iMode)) != 0) {
            const int iError = errno;
            QUORCORE_LOG(LOG_ERR, "%s: %s", szWhole.c_str(),
                         CThread::m_Logger.strerrorT(iError).c_str());
        }
    };
    for (size_t iSlash = szSearched.find('/'); iSlash != std::string::npos;
         iSlash = szSearched.find('/', iSlash + 1)) {
        if (iSlash > 0) {
            make(szSearched.substr(0, iSlash));
        }
    }
    make(szWhole);
    return 0;
}

long iSetCurrentDirectory(const char* szPath)
{
    const CDeferredCancel deferred;
    if (::chdir(szOrEmpty(szPath)) != 0) {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "%s: %s", szOrEmpty(szPath),
                     CThread::m_Logger.strerrorT(iError).c_str());
    }
    return 0;
}

long iGetDirectoryList(const char* szPath, std::vector<std::string>& names)
{
    const CDeferredCancel deferred;
    const CUniqueDirectory pDirectory(::opendir(szOrEmpty(szPath)));
    if (pDirectory) {
        AppendRegularFiles(pDirectory.get(), names);
    } else {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "%s: %s", szOrEmpty(szPath),
                     CThread::m_Logger.strerrorT(iError).c_str());
    }
    return names.empty() ? -1 : 0;
}

long iEmptyDirectory(const char* szPath)
{
    const CDeferredCancel deferred;
    return iRemoveFiles(szOrEmpty(szPath),
                        [](int iDirectoryFd, const std::vector<std::string>& names) {
                            for (const std::string& szName : names) {
                                ::unlinkat(iDirectoryFd, szName.c_str(), 0);
                            }
                            return 0L;
                        });
}

long iDeleteFile(const char* szPath, const char* szName)
{
    const CDeferredCancel deferred;
    return iRemoveFiles(
        szOrEmpty(szPath), [szName](int iDirectoryFd, const std::vector<std::string>& names) {
            const auto found = std::find(names.begin(), names.end(), szOrEmpty(szName));
            return found == names.end() ? -1L : long{::unlinkat(iDirectoryFd, found->c_str(), 0)};
        });
}

void handleLastError()
{
    const int iError = errno; // first: what follows may change it
    const CDeferredCancel deferred;
    const auto* const pFound =
        std::find_if(kErrorTexts.begin(), kErrorTexts.end(),
                     [iError](const errorText_t& errorText) { return errorText.iError == iError; });
    std::fputs(pFound == kErrorTexts.end() ? CThread::m_Logger.strerrorT(iError).c_str()
                                           : pFound->szText,
               stdout);
}

long iMakeTempFile(const char* szName, char* pBuffer, int iSize)
{
    const CDeferredCancel deferred;
    int iError = EINVAL;
    if (pBuffer != nullptr && iSize >= 1) {
        std::string szPath;
        for (const char* szPiece : {"/tmp/", szOrEmpty(szName), "_XXXXXX"}) {
            szPath.append(szPiece, ::strnlen(szPiece, static_cast<size_t>(iSize)));
        }
        CopyTo(pBuffer, szPath);
        const CUniqueFd file(::mkostemp(pBuffer, O_CLOEXEC));
        iError = file ? 0 : errno;
    }
    if (iError != 0) {
        std::fputs(CThread::m_Logger.strerrorT(iError).c_str(), stdout);
    }
    return iError;
}

bool bGetFullPathName(char* pBuffer, int iSize)
{
    if (pBuffer == nullptr || iSize < 1) {
        return false;
    }
    const ssize_t iLength =
        ::readlink("/proc/self/exe", pBuffer, static_cast<size_t>(iSize) - 1); // room for the 0
    pBuffer[std::max<ssize_t>(iLength, 0)] = '\0';
    return iLength > 0;
}

bool bGetFileName(char* pBuffer, int iSize)
{
    std::array<char, kExecutablePathMax> aPath{};
    if (pBuffer == nullptr || iSize < 1 ||
        !bGetFullPathName(aPath.data(), static_cast<int>(aPath.size()))) {
        return false;
    }
    const std::string_view szPath = aPath.data();
    CopyTo(pBuffer, szCut(szPath.substr(szPath.rfind('/') + 1), iSize)); // npos + 1 is 0
    return *pBuffer != '\0';
}

bool bGetCurrentDirectory(char* pBuffer, int iSize)
{
    std::array<char, kExecutablePathMax> aPath{};
    if (pBuffer == nullptr || iSize < 1 ||
        !bGetFullPathName(aPath.data(), static_cast<int>(aPath.size()))) {
        return false;
    }
    const std::string_view szPath = aPath.data();
    const size_t iSlash = szPath.rfind('/');
    CopyTo(pBuffer, szCut(szPath.substr(0, iSlash == std::string_view::npos ? 0 : iSlash), iSize));
    return *pBuffer != '\0';
}

bool bMakeFullConfigName(std::string& szOut, const char* szPart1, const char* szPart2,
                         const char* szPart3)
{
    const CDeferredCancel deferred;
    std::array<char, kExecutablePathMax> aDirectory{};
    if (!bGetCurrentDirectory(aDirectory.data(), static_cast<int>(aDirectory.size()))) {
        return false;
    }
    std::string szName = aDirectory.data();
    szName.append(szOrEmpty(szPart1)).append(szOrEmpty(szPart2)).append(szOrEmpty(szPart3));
    szOut = std::move(szName);
    return true;
}

bool bMakeDefaultConfigName(std::string& szOut, const char* szDirectory, const char* szSuffix)
{
    std::array<char, kExecutablePathMax> aFileName{};
    return bGetFileName(aFileName.data(), static_cast<int>(aFileName.size())) &&
           bMakeFullConfigName(szOut, szDirectory, aFileName.data(), szSuffix);
}
} // namespace QuorCore
