#include "CTreeStore.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace QuorCore;

namespace
{
constexpr const char* kCurrent = "current";
constexpr const char* kNext = ".current"; // the link until it takes its name
constexpr const char* kUnreadable = "unreadable-";
const std::string kStatePrefix = "state-";
constexpr size_t kStateDigitsMax = 18; // what 64 bits take without a look at it
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr size_t kFileBytesMax = 16U << 20U; // of a record that is read
constexpr size_t kLabelBytesMax = 255 - 11;  // of a file name, with "unreadable-" in front
constexpr std::chrono::seconds kLockWait{2};
constexpr std::chrono::milliseconds kLockPause{20};
constexpr int kWholeDepth = 1000; // levels of records; no tree has as many

/// Owns one descriptor.
class CFile
{
public:
    explicit CFile(int iFd) : m_iFd(iFd) {}
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;
    ~CFile()
    {
        const int iError = errno; // a failure path reports the true cause
        if (m_iFd != -1) {
            close(m_iFd);
        }
        errno = iError;
    }
    explicit operator bool() const { return m_iFd != -1; }
    int iGet() const { return m_iFd; }

private:
    const int m_iFd;
};

CFile OpenDirectory(int iAtFd, const char* szName)
{
    return CFile(openat(iAtFd, szName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// @return The names in a directory; none when it cannot be read, and errno says why.
std::vector<std::string> Names(int iDirectoryFd)
{
    std::vector<std::string> names;
    const int iFd = openat(iDirectoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(iFd != -1 ? fdopendir(iFd) : nullptr,
                                                         &closedir);
    if (pDirectory == nullptr) {
        const CFile closed(iFd);
        return names;
    }
    while (const dirent* const pEntry = readdir(pDirectory.get())) {
        const std::string szName = pEntry->d_name;
        if (szName != "." && szName != "..") {
            names.push_back(szName);
        }
    }
    return names;
}

bool bIsState(const std::string& szName)
{
    const size_t digits = szName.size() - std::min(szName.size(), kStatePrefix.size());
    return szName.compare(0, kStatePrefix.size(), kStatePrefix) == 0 && digits >= 1 &&
           digits <= kStateDigitsMax &&
           std::all_of(szName.end() - static_cast<std::ptrdiff_t>(digits), szName.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

/// Whether the file of a label stays in the directory, and is none that is hidden.
bool bIsFileName(const std::string& szLabel)
{
    return !szLabel.empty() && szLabel[0] != '.' && szLabel.size() <= kLabelBytesMax &&
           szLabel.find('/') == std::string::npos && szLabel.find('\0') == std::string::npos;
}

bool bWriteFile(int iDirectoryFd, const std::string& szName, const std::string& szText)
{
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const CFile file(openat(iDirectoryFd, szName.c_str(), kFlags, kFileMode));
    size_t done = 0;
    while (file && done < szText.size()) {
        const ssize_t written = write(file.iGet(), szText.data() + done, szText.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
    return file && fsync(file.iGet()) == 0;
}

/// Not through a link, and not from what is no regular file. @return False: errno says why.
bool bReadFile(int iDirectoryFd, const std::string& szName, std::string& szText)
{
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC;
    const CFile file(openat(iDirectoryFd, szName.c_str(), kFlags));
    struct stat status = {};
    if (!file || fstat(file.iGet(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > kFileBytesMax) {
        errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
        return false;
    }
    szText.resize(static_cast<size_t>(status.st_size)); // nobody else writes it
    size_t done = 0;
    while (done < szText.size()) {
        const ssize_t count = read(file.iGet(), &szText[done], szText.size() - done);
        if (count == 0 || (count < 0 && errno != EINTR)) {
            errno = count == 0 ? EIO : errno;
            return false;
        }
        done += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return true;
}

std::string szFileText(const Json::Value& members)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "\t";
    return Json::writeString(builder, members) + '\n';
}

/// Lets what is read-only be written as long as it lives: who saved it may read it back.
class CWritable
{
public:
    explicit CWritable(CObjectData& node) { Lift(node); }
    CWritable(const CWritable&) = delete;
    CWritable& operator=(const CWritable&) = delete;
    ~CWritable()
    {
        for (CObjectData* pNode : m_lifted) {
            pNode->SetReadOnly(true);
        }
    }

private:
    void Lift(CObjectData& node)
    {
        if (node.bIsReadOnly()) {
            m_lifted.push_back(&node);
            node.SetReadOnly(false);
        }
        auto* const pRecord = dynamic_cast<CRecord*>(&node);
        if (pRecord == nullptr || dynamic_cast<CListBase*>(&node) != nullptr) {
            return; // reading may delete the items of a list
        }
        CObjectData* pChild = nullptr;
        for (int i = 0; (pChild = pRecord->pGetAt(i)) != nullptr; ++i) {
            Lift(*pChild);
        }
    }

    std::vector<CObjectData*> m_lifted;
};
} // namespace

CTreeStore::~CTreeStore()
{
    if (m_iDirectoryFd != -1) {
        close(m_iDirectoryFd);
    }
}

bool CTreeStore::bOpen(const std::string& szDirectory)
{
    const std::lock_guard<std::mutex> saving(m_saveLock);
    m_szDirectory = szDirectory;
    if (m_szDirectory.empty()) {
        return true;
    }
    if (!bTakeDirectory()) {
        return false;
    }
    if (!bFindCurrent()) { // it is somebody else's: nothing of it is touched
        close(std::exchange(m_iDirectoryFd, -1));
        return false;
    }
    RemoveOthers();
    ReadAll();
    constexpr int kMakeFiles = W_OK | X_OK;
    return faccessat(m_iDirectoryFd, ".", kMakeFiles, AT_EACCESS) == 0 ||
           bFail("it cannot be written", "");
}

bool CTreeStore::bTakeDirectory()
{
    if (m_iDirectoryFd != -1) {
        close(std::exchange(m_iDirectoryFd, -1));
    }
    if (mkdir(m_szDirectory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        return bFail("it cannot be made", "");
    }
    m_iDirectoryFd = open(m_szDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_iDirectoryFd == -1) {
        return bFail("it cannot be opened", "");
    }
    // The daemon that this one takes the place of may be busy with its last save.
    const auto begin = std::chrono::steady_clock::now();
    bool bLocked = flock(m_iDirectoryFd, LOCK_EX | LOCK_NB) == 0;
    while (!bLocked && errno == EWOULDBLOCK &&
           std::chrono::steady_clock::now() - begin < kLockWait) {
        std::this_thread::sleep_for(kLockPause);
        bLocked = flock(m_iDirectoryFd, LOCK_EX | LOCK_NB) == 0;
    }
    if (!bLocked) {
        const bool bResult = bFail("another process has it", "");
        close(std::exchange(m_iDirectoryFd, -1));
        return bResult;
    }
    return true;
}

/// @return False: the name is taken by what this class has not made.
bool CTreeStore::bFindCurrent()
{
    m_szCurrent.clear();
    char aTarget[64]; // longer than the name of any state
    const ssize_t length = readlinkat(m_iDirectoryFd, kCurrent, aTarget, sizeof(aTarget));
    if (length == -1) {
        return errno == ENOENT || bFail("not a link to a state", kCurrent);
    }
    m_szCurrent.assign(aTarget, static_cast<size_t>(length));
    if (!bIsState(m_szCurrent)) {
        errno = EINVAL;
        return bFail("not a link to a state", kCurrent);
    }
    return true;
}

void CTreeStore::RemoveOthers()
{
    for (const std::string& szName : Names(m_iDirectoryFd)) {
        const bool bState = bIsState(szName) && szName != m_szCurrent;
        if ((bState && !bRemoveState(szName)) ||
            (szName == kNext && unlinkat(m_iDirectoryFd, kNext, 0) != 0)) {
            bFail("cannot be removed", szName);
        }
    }
}

bool CTreeStore::bRemoveState(const std::string& szState) const
{
    {
        const CFile state = OpenDirectory(m_iDirectoryFd, szState.c_str());
        if (!state) {
            return false;
        }
        for (const std::string& szName : Names(state.iGet())) {
            unlinkat(state.iGet(), szName.c_str(), 0); // what stays keeps the directory, too
        }
    }
    return unlinkat(m_iDirectoryFd, szState.c_str(), AT_REMOVEDIR) == 0;
}

void CTreeStore::ReadAll()
{
    m_bSaved = false;
    if (m_szCurrent.empty()) {
        QUORCORE_LOG(LOG_NOTICE, "%s: nothing was saved yet", m_szDirectory.c_str());
        return;
    }
    const CFile state = OpenDirectory(m_iDirectoryFd, m_szCurrent.c_str());
    if (!state) {
        bFail("cannot be opened", m_szCurrent);
        return;
    }
    int iRead = 0;
    int iUnread = 0;
    {
        const std::lock_guard<std::mutex> held(m_tree.Lock());
        CObjectData* pChild = nullptr;
        for (int i = 0; (pChild = m_tree.pGetAt(i)) != nullptr; ++i) {
            ++(bRead(*pChild, state.iGet()) ? iRead : iUnread);
        }
    }
    QUORCORE_LOG(LOG_NOTICE, "%s: %d records were read from %s, %d were not", m_szDirectory.c_str(),
                 iRead, m_szCurrent.c_str(), iUnread);
    m_bSaved = iUnread == 0 && bPublish(m_saved);
}

bool CTreeStore::bRead(CObjectData& child, int iStateFd)
{
    const std::string& szLabel = child.szGetLabel();
    std::string szText;
    std::string szCause;
    if (!bIsFileName(szLabel)) {
        szCause = "its label is no file name";
    } else if (!bReadFile(iStateFd, szLabel, szText)) {
        const int iError = errno;
        szCause = CThread::m_Logger.strerrorT(iError);
    } else {
        const CWritable writable(child);
        CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, false);
        if (child.iMoWrite(context, &szText, &szCause, "") == CContextJson::kOk) {
            return true;
        }
        // Saving will drop the state that it is in; somebody may want to see what it was.
        const std::string szKept = kUnreadable + szLabel;
        unlinkat(m_iDirectoryFd, szKept.c_str(), 0);
        linkat(iStateFd, szLabel.c_str(), m_iDirectoryFd, szKept.c_str(), 0);
    }
    QUORCORE_LOG(LOG_ERR, "%s: not read, it stays as it was built: %s/%s/%s: %s",
                 child.szGetFullName().c_str(), m_szDirectory.c_str(), m_szCurrent.c_str(),
                 szLabel.c_str(), szCause.c_str());
    return false;
}

bool CTreeStore::bSave()
{
    const std::lock_guard<std::mutex> saving(m_saveLock);
    if (m_szDirectory.empty()) {
        return true;
    }
    if (m_iDirectoryFd == -1) {
        QUORCORE_LOG(LOG_ERR, "%s: not saved, it was not to be had at the start",
                     m_szDirectory.c_str());
        return false;
    }
    std::vector<record_t> records;
    if (!bPublish(records)) {
        return false;
    }
    const auto bSame = [](const record_t& left, const record_t& right) {
        return left.szLabel == right.szLabel && left.members == right.members;
    };
    if (m_bSaved &&
        std::equal(records.begin(), records.end(), m_saved.begin(), m_saved.end(), bSame)) {
        return true;
    }
    const std::string szState = szNextState();
    if (!bWriteState(szState, records) || !bSwitchTo(szState)) {
        if (szState != m_szCurrent) {
            bRemoveState(szState);
        }
        return false;
    }
    m_saved = std::move(records);
    m_bSaved = true;
    RemoveOthers();
    QUORCORE_LOG(LOG_NOTICE, "%s: saved as %s", m_szDirectory.c_str(), szState.c_str());
    return true;
}

// What is null is left out: an attribute that no request may set null could not be read back else.
bool CTreeStore::bPublish(std::vector<record_t>& records)
{
    records.clear();
    const std::lock_guard<std::mutex> held(m_tree.Lock());
    CObjectData* pChild = nullptr;
    for (int i = 0; (pChild = m_tree.pGetAt(i)) != nullptr; ++i) {
        if (!bIsFileName(pChild->szGetLabel())) {
            QUORCORE_LOG(LOG_ERR, "%s: not saved, its label is no file name",
                         pChild->szGetFullName().c_str());
            continue;
        }
        record_t record{pChild->szGetLabel(), {}};
        CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, false, false);
        if (!pChild->bSerializeValueJson(context, record.members, kWholeDepth)) {
            // For want of memory, say: what there is of it must not take the place of the whole.
            QUORCORE_LOG(LOG_ERR, "%s: not saved, it cannot be published",
                         pChild->szGetFullName().c_str());
            return false;
        }
        records.push_back(std::move(record));
    }
    return true;
}

std::string CTreeStore::szNextState() const
{
    uint64_t iLast = 0;
    for (const std::string& szName : Names(m_iDirectoryFd)) {
        if (bIsState(szName)) {
            iLast = std::max<uint64_t>(iLast, std::stoull(szName.substr(kStatePrefix.size())));
        }
    }
    return kStatePrefix + std::to_string(iLast + 1);
}

bool CTreeStore::bWriteState(const std::string& szState, const std::vector<record_t>& records) const
{
    if (mkdirat(m_iDirectoryFd, szState.c_str(), kDirectoryMode) != 0) {
        return bFail("not saved, cannot be made", szState);
    }
    const CFile state = OpenDirectory(m_iDirectoryFd, szState.c_str());
    if (!state) {
        return bFail("not saved, cannot be opened", szState);
    }
    for (const record_t& record : records) {
        if (!bWriteFile(state.iGet(), record.szLabel, szFileText(record.members))) {
            return bFail("not saved, cannot be written", szState + '/' + record.szLabel);
        }
    }
    // On the disk before the link names it: else a power cut may leave a link to nothing.
    return (fsync(state.iGet()) == 0 && fsync(m_iDirectoryFd) == 0) ||
           bFail("not saved, does not reach the disk", szState);
}

bool CTreeStore::bSwitchTo(const std::string& szState)
{
    unlinkat(m_iDirectoryFd, kNext, 0); // of a save that failed
    if (symlinkat(szState.c_str(), m_iDirectoryFd, kNext) != 0 ||
        renameat(m_iDirectoryFd, kNext, m_iDirectoryFd, kCurrent) != 0) {
        return bFail("not saved, cannot be linked", szState);
    }
    m_szCurrent = szState;
    return fsync(m_iDirectoryFd) == 0 || bFail("does not reach the disk", kCurrent);
}

/// Logs a failed system call. @return False.
bool CTreeStore::bFail(const char* szWhat, const std::string& szName) const
{
    const int iError = errno;
    QUORCORE_LOG(LOG_ERR, "%s%s%s: %s: %s", m_szDirectory.c_str(), szName.empty() ? "" : "/",
                 szName.c_str(), szWhat, CThread::m_Logger.strerrorT(iError).c_str());
    return false;
}
