// The name tables of syslog(3), exported under their standard names for the daemons. Defined here,
// by the system's header, and nowhere else: a public header would define them in every source.
#define SYSLOG_NAMES
#include <cstddef> // the tables use NULL and do not declare it
#pragma GCC visibility push(default)
#include <syslog.h>
#pragma GCC visibility pop

#include "libQuorCore/CLogger.h"

#include "internal/CHeldLock.h"

#include "libQuorCore/CFileConfig.h"
#include "libQuorCore/CObject.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

// A function that may be called when the destructor has run: threads outlive the static objects. It
// looks at m_bReady first. The sanitizers are told that this is meant.
#define QUORCORE_AFTER_DESTRUCTION __attribute__((no_sanitize("vptr")))

namespace QuorCore
{
namespace
{
constexpr const char* kGeneralLabel = "GEN"; // of a thread that registered none
constexpr unsigned int kDumpMaxBytes = 2048; // hex digits of one dump fit a 4096-character text
constexpr int kMaxFrames = 32;               // of a backtrace

const int g_iDefaultLogLevel = kDefaultLogLevel;

/// Label of the calling thread in the process-wide logger; points into t_registration.
__thread const char* t_pszLogLabel __attribute__((tls_model("initial-exec"))) = nullptr;

/// Held while a line is composed and written, so that a fork does not copy a lock of the C
/// library's logger that no thread of the child would ever release.
pthread_mutex_t g_emitMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_strerrorMutex = PTHREAD_MUTEX_INITIALIZER;

/// Every logger there is, for a fork; linked by m_pNext, since no container exists as early as the
/// first logger. Taken before any other lock of a logger.
pthread_mutex_t g_allLoggersMutex = PTHREAD_MUTEX_INITIALIZER;
CLogger* g_pFirstLogger = nullptr; // guarded by g_allLoggersMutex
bool g_bForkGuarded = false;       // guarded by g_allLoggersMutex

/// Takes the thread from the process-wide logger on every way out, a cancellation included.
class CRegistration
{
public:
    ~CRegistration()
    {
        if (m_bActive) {
            CThread::m_Logger.CancelLogIdForThread();
        }
    }

    /// @return The thread's own copy of its label, which outlives the logger: threads may still log
    ///         while the process ends.
    const char* pszSet(const char* szLabel)
    {
        m_bActive = true;
        m_szLabel = szLabel;
        return m_szLabel.c_str();
    }

    void Clear() { m_bActive = false; }

private:
    bool m_bActive = false;
    std::string m_szLabel;
};

thread_local CRegistration t_registration;

const char* pszOrEmpty(const char* szText)
{
    return szText != nullptr ? szText : "";
}

unsigned long iOwnThreadId()
{
    return static_cast<unsigned long>(pthread_self());
}

void SetLevel(int* piLevel, int iLevel)
{
    if (piLevel != nullptr) {
        __atomic_store_n(piLevel, iLevel, __ATOMIC_RELAXED);
    }
}

int iReadLevel(const int* piLevel)
{
    return __atomic_load_n(piLevel, __ATOMIC_RELAXED);
}

/// A line under construction: on the stack, and on the heap only what does not fit there.
class CLine
{
public:
    CLine& operator<<(std::string_view szText)
    {
        if (m_szLong.empty() && m_iSize + szText.size() < sizeof(m_aShort)) {
            std::memcpy(m_aShort + m_iSize, szText.data(), szText.size());
            m_iSize += szText.size();
        } else {
            if (m_szLong.empty()) {
                m_szLong.assign(m_aShort, m_iSize);
            }
            m_szLong.append(szText);
        }
        return *this;
    }

    /// @return The line so far; valid until the next part is added.
    const char* pszText()
    {
        if (!m_szLong.empty()) {
            return m_szLong.c_str();
        }
        m_aShort[m_iSize] = '\0';
        return m_aShort;
    }

private:
    char m_aShort[512]; // up to m_iSize
    size_t m_iSize = 0;
    std::string m_szLong; // empty until it is needed
};

/// The digits of a number, as a text that lives as long as the object.
class CDigits
{
public:
    template <class Integer>
    explicit CDigits(Integer iNumber, int iBase = 10)
        : m_pEnd(std::to_chars(std::begin(m_aDigits), std::end(m_aDigits), iNumber, iBase).ptr)
    {
    }
    operator std::string_view() const
    {
        return std::string_view(m_aDigits, static_cast<size_t>(m_pEnd - m_aDigits));
    }

private:
    char m_aDigits[24]; // of 64 bits, with a sign
    const char* m_pEnd;
};

template <class Integer>
void AppendNumber(std::string& szText, Integer iNumber)
{
    szText.append(CDigits(iNumber));
}

bool bIsProcessLogger(const CLogger* pLogger)
{
    return pLogger == &CThread::m_Logger;
}

std::string szLevelKey(const std::string& szLabel)
{
    return "log_level_" + szLabel;
}
} // namespace

__thread const int* t_piLogLimit __attribute__((tls_model("initial-exec"))) = &g_iDefaultLogLevel;

CLogger::CLogger() : m_bShowFile(false), m_bShowLine(true), m_bReady(false)
{
    pthread_mutexattr_init(&m_Attr);
    pthread_mutexattr_settype(&m_Attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_hMutex, &m_Attr);
    JoinAllLoggers();
}

CLogger::~CLogger()
{
    // First, and seen by every thread that still logs while the process ends: Log() tests it before
    // it touches anything else.
    m_bReady = false;
    LeaveAllLoggers();
    {
        const CHeldMutex held(g_emitMutex);
        closelog();
    }
    {
        const CHeldMutex held(m_hMutex);
        m_LabelTable.clear();
        m_levelTable.clear();
    }
    pthread_mutex_destroy(&m_hMutex);
    pthread_mutexattr_destroy(&m_Attr);
}

void CLogger::JoinAllLoggers()
{
    const CHeldMutex held(g_allLoggersMutex);
    m_pNext = g_pFirstLogger;
    g_pFirstLogger = this;
    if (!g_bForkGuarded) {
        g_bForkGuarded = pthread_atfork(PrepareFork, ResumeParent, ResumeChild) == 0;
    }
}

void CLogger::LeaveAllLoggers()
{
    const CHeldMutex held(g_allLoggersMutex);
    CLogger** ppLink = &g_pFirstLogger;
    while (*ppLink != nullptr && *ppLink != this) {
        ppLink = &(*ppLink)->m_pNext;
    }
    if (*ppLink != nullptr) {
        *ppLink = m_pNext;
    }
}

void CLogger::PrepareFork()
{
    pthread_mutex_lock(&g_allLoggersMutex);
    for (CLogger* pLogger = g_pFirstLogger; pLogger != nullptr; pLogger = pLogger->m_pNext) {
        pthread_mutex_lock(&pLogger->m_hMutex);
    }
    pthread_mutex_lock(&g_emitMutex);
    pthread_mutex_lock(&g_strerrorMutex);
}

void CLogger::ResumeParent()
{
    pthread_mutex_unlock(&g_strerrorMutex);
    pthread_mutex_unlock(&g_emitMutex);
    for (CLogger* pLogger = g_pFirstLogger; pLogger != nullptr; pLogger = pLogger->m_pNext) {
        pthread_mutex_unlock(&pLogger->m_hMutex);
    }
    pthread_mutex_unlock(&g_allLoggersMutex);
}

void CLogger::ResumeChild()
{
    // Made anew after the release, which the recursive ones refuse: they belong to a thread id of
    // the parent.
    ResumeParent();
    pthread_mutex_init(&g_strerrorMutex, nullptr);
    pthread_mutex_init(&g_emitMutex, nullptr);
    for (CLogger* pLogger = g_pFirstLogger; pLogger != nullptr; pLogger = pLogger->m_pNext) {
        pthread_mutex_init(&pLogger->m_hMutex, &pLogger->m_Attr);
    }
    pthread_mutex_init(&g_allLoggersMutex, nullptr);
}

void CLogger::Init(const char* szIdent)
{
    void* pFrame = nullptr;
    backtrace(&pFrame, 1); // loads what it needs now, not in the middle of a crash
    const CHeldMutex held(g_emitMutex);
    openlog(szIdent, LOG_PID, LOG_LOCAL0);
    m_bReady = true;
}

void CLogger::SetShowFile(bool bShow)
{
    m_bShowFile = bShow;
}

void CLogger::SetShowLine(bool bShow)
{
    m_bShowLine = bShow;
}

/// @return Whether it takes but a look to see that a message of @p iLevel does not pass: a call
///         that is filtered out shall cost nothing else.
QUORCORE_AFTER_DESTRUCTION inline bool CLogger::bRefuses(int iLevel) const
{
    if (__builtin_expect(bIsProcessLogger(this), 1)) {
        if (__builtin_expect(!bIsEnabled(iLevel), 1)) {
            return true;
        }
    }
    return !m_bReady.load(std::memory_order_relaxed);
}

QUORCORE_AFTER_DESTRUCTION
void CLogger::Log(int iLevel, const char* szFile, int iLine, const char* szFunction,
                  const char* szFormat, ...)
{
    if (bRefuses(iLevel)) {
        return;
    }
    va_list args;
    va_start(args, szFormat);
    LogIfAdmitted(iLevel, szFile, iLine, szFunction, szFormat, args);
    va_end(args);
}

void CLogger::LogIfAdmitted(int iLevel, const char* szFile, int iLine, const char* szFunction,
                            const char* szFormat, va_list args)
{
    const char* szLabel = kGeneralLabel;
    int iLimit = kDefaultLogLevel;
    if (bIsProcessLogger(this)) { // the thread's own copy of its entries: no lock on the way
        iLimit = iReadLevel(t_piLogLimit);
        if (t_pszLogLabel != nullptr) {
            szLabel = t_pszLogLabel;
        }
    } else {
        bGetLogConfigForThread(szLabel, iLimit);
    }
    if (iLevel <= iLimit) {
        LogEvent(szLabel, iLevel, szFile, iLine, szFunction, 0, szFormat, args);
    }
}

// A thread may be cancelled at any instruction of LogEvent() and LogHexDump(), so these have
// nothing to clean up, not even a guard: a cancellation that finds a function with clean-up code
// outside of its calls is std::terminate(). What they call lets no exception out, only a
// cancellation, after which nobody needs the former type.
void CLogger::LogEvent(const char* szLabel, int iLevel, const char* szFile, int iLine,
                       const char* szFunction, int iErrno, const char* szFormat, va_list args)
{
    const int iSavedErrno = errno; // before any call that may change it
    const cancelType_t former = DeferAnyCancel();
    EmitLine(szLabel, iLevel, szFile, iLine, szFunction, iErrno, iSavedErrno, szFormat, args);
    RestoreCancel(former);
    errno = iSavedErrno;
}

void CLogger::EmitLine(const char* szLabel, int iLevel, const char* szFile, int iLine,
                       const char* szFunction, int iErrno, int iCurrentErrno, const char* szFormat,
                       va_list args)
try {
    const CNoCancel noCancel; // syslog(3) is a cancellation point, but a destructor may log
    CLine line;
    line << pszOrEmpty(szLabel) << "(" << CDigits(iOwnThreadId(), 16) << ") -- "
         << pszOrEmpty(szFunction) << " / ";
    if (m_bShowFile) {
        line << pszOrEmpty(szFile) << " - ";
    }
    if (m_bShowLine) {
        line << CDigits(iLine) << " : ";
    }
    if (iErrno != 0) {
        // The number given and the text of the current errno: they may differ. Meant, and held by
        // ALogger.NamesTheErrnoGivenAndTheTextOfTheCurrentOne.
        line << "errno:" << CDigits(iErrno) << " (" << strerrorT(iCurrentErrno) << ")\t";
    }
    line << pszOrEmpty(szFormat);

    const CHeldMutex held(g_emitMutex);
    errno = iCurrentErrno; // for a "%m" of the caller
    vsyslog(iLevel, line.pszText(), args);
} catch (const std::bad_alloc&) {
    // The line is lost. The caller has other worries now.
}

QUORCORE_AFTER_DESTRUCTION
void CLogger::LogHexDump(const char* szFile, int iLine, const char* szFunction, const char* szLabel,
                         const unsigned char* pData, unsigned int iSize)
{
    if (bRefuses(LOG_DEBUG)) {
        return;
    }
    const int iSavedErrno = errno;
    const cancelType_t former = DeferAnyCancel();
    EmitHexDump(szFile, iLine, szFunction, szLabel, pData, iSize);
    RestoreCancel(former);
    errno = iSavedErrno;
}

void CLogger::EmitHexDump(const char* szFile, int iLine, const char* szFunction,
                          const char* szLabel, const unsigned char* pData, unsigned int iSize)
try {
    static constexpr char kDigits[] = "0123456789abcdef";
    const unsigned int iDumped = iSize > kDumpMaxBytes ? kDumpMaxBytes - 1 : iSize;
    std::string szText(pszOrEmpty(szLabel));
    szText.reserve(szText.size() + 16 + 2 * static_cast<size_t>(iDumped));
    szText.append(" ");
    AppendNumber(szText, iSize);
    szText.append(":");
    if (pData != nullptr) {
        for (const unsigned char* pByte = pData; pByte != pData + iDumped; ++pByte) {
            szText.push_back(kDigits[*pByte >> 4]);
            szText.push_back(kDigits[*pByte & 0x0f]);
        }
    }
    Log(LOG_DEBUG, szFile, iLine, szFunction, "%s", szText.c_str());
} catch (const std::bad_alloc&) {
    // The line is lost, as in EmitLine().
}

void CLogger::WriteBacktrace()
{
    const CDeferredAnyCancel deferred;
    const CNoCancel noCancel; // as in EmitLine()
    void* aFrames[kMaxFrames];
    const int iFrames = backtrace(aFrames, kMaxFrames);
    if (iFrames < 1) {
        const CHeldMutex held(g_emitMutex);
        syslog(LOG_NOTICE, "asked for backtrace but got a null size");
        return;
    }
    const std::unique_ptr<char*, decltype(&std::free)> symbols(backtrace_symbols(aFrames, iFrames),
                                                               &std::free);
    if (symbols == nullptr) {
        return; // no memory
    }
    char** const aszSymbols = symbols.get();
    if (iFrames == 1 && std::strcmp(aszSymbols[0], "[(nil)]") == 0) {
        return;
    }
    std::string szText;
    for (int i = 0; i < iFrames; ++i) {
        szText.append("\t").append(aszSymbols[i]).append("\n");
    }
    const CHeldMutex held(g_emitMutex);
    syslog(LOG_EMERG, "%s", szText.c_str());
}

std::string CLogger::strerrorT(int iErrno)
{
    const CHeldMutex held(g_strerrorMutex);
    const char* szText = std::strerror(iErrno);
    return std::string(pszOrEmpty(szText));
}

void CLogger::SetLogConfigForThread(const char* szLabel, int* piLevel)
{
    const CHeldMutex held(m_hMutex);
    if (!held) {
        return;
    }
    m_LabelTable[iOwnThreadId()] = pszOrEmpty(szLabel);
    m_levelTable[iOwnThreadId()] = piLevel;
    if (bIsProcessLogger(this)) {
        t_pszLogLabel = t_registration.pszSet(pszOrEmpty(szLabel));
        t_piLogLimit = piLevel != nullptr ? piLevel : &g_iDefaultLogLevel;
    }
}

void CLogger::CancelLogIdForThread()
{
    if (bIsProcessLogger(this)) {
        t_pszLogLabel = nullptr;
        t_piLogLimit = &g_iDefaultLogLevel;
        t_registration.Clear(); // nothing is left to do at the thread's very end
    }
    const CHeldMutex held(m_hMutex);
    if (!held) {
        return;
    }
    m_LabelTable.erase(iOwnThreadId());
    m_levelTable.erase(iOwnThreadId());
}

void CLogger::ForgetLevel(const int* piLevel)
{
    if (bIsProcessLogger(this) && t_piLogLimit == piLevel) {
        t_pszLogLabel = nullptr;
        t_piLogLimit = &g_iDefaultLogLevel;
    }
    const CHeldMutex held(m_hMutex);
    if (!held) {
        return;
    }
    for (auto entry = m_levelTable.begin(); entry != m_levelTable.end();) {
        if (entry->second == piLevel) {
            m_LabelTable.erase(entry->first);
            entry = m_levelTable.erase(entry);
        } else {
            ++entry;
        }
    }
}

bool CLogger::bGetLogConfigForThread(const char*& szLabel, int& iLevel)
{
    const CHeldMutex held(m_hMutex);
    if (held) {
        const auto label = m_LabelTable.find(iOwnThreadId());
        if (label != m_LabelTable.end()) {
            szLabel = label->second.c_str();
        }
        const auto level = m_levelTable.find(iOwnThreadId());
        if (level != m_levelTable.end() && level->second != nullptr) {
            iLevel = iReadLevel(level->second);
        }
    }
    return szLabel != nullptr;
}

void CLogger::SetAllLogLevel(int iLevel)
{
    const CHeldMutex held(m_hMutex);
    if (held) {
        for (const auto& entry : m_levelTable) {
            SetLevel(entry.second, iLevel);
        }
    }
}

void CLogger::SetLogLevel(int iIndex, int iLevel)
{
    const CHeldMutex held(m_hMutex);
    if (!held) {
        return;
    }
    int iPosition = 0; // counts threads without a level too, unlike the page's Id. Meant.
    for (const auto& entry : m_levelTable) {
        if (iPosition == iIndex) {
            SetLevel(entry.second, iLevel);
            return;
        }
        ++iPosition;
    }
}

void CLogger::SetLogLevel(const uint8_t* pPairs, int iSize)
{
    for (int k = 0; pPairs != nullptr && k + 1 < iSize; k += 2) {
        SetLogLevel(static_cast<int>(pPairs[k]), static_cast<int>(pPairs[k + 1]));
    }
}

int CLogger::iGetLogConfigHtml(std::string& szPage, const char* szAction)
{
    static constexpr const char* kLevelNames[] = {"emergency", "alert",  "critical", "error",
                                                  "warning",   "notice", "info",     "debug"};
    const CDeferredAnyCancel deferred; // beyond the lock: the page is allocated
    {
        const CHeldMutex held(m_hMutex);
        if (held) {
            szPage = "<!DOCTYPE html><html><head><title>Log ctrl</title></head><body>\n"
                     "<h2>Log control : ";
            szPage.append(g_versionFW.szAppName,
                          strnlen(g_versionFW.szAppName, sizeof(g_versionFW.szAppName)));
            szPage.append("</h2>\nNumber of sources: ");
            AppendNumber(szPage, m_levelTable.size());
            szPage.append("<br>\n<form name=\"logform\" method=\"get\" action=\"");
            szPage.append(pszOrEmpty(szAction));
            szPage.append("\">\n<table border=\"1\">\n"
                          "<tr><th>Id</th><th>Name</th><th>Min Level</th></tr>\n");
            int iId = 0; // counts the threads that have a level, unlike SetLogLevel(index). Meant.
            for (const auto& entry : m_levelTable) {
                if (entry.second == nullptr) {
                    continue;
                }
                const int iCurrent = iReadLevel(entry.second);
                szPage.append("<tr><td>");
                AppendNumber(szPage, iId);
                szPage.append("</td><td>").append(m_LabelTable[entry.first]).append("</td>");
                szPage.append("<td><select name=min_");
                AppendNumber(szPage, iId);
                szPage.append(">");
                for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
                    szPage.append("<option value=\"");
                    AppendNumber(szPage, iLevel);
                    szPage.append(iLevel == iCurrent ? "\" selected>" : "\">");
                    AppendNumber(szPage, iLevel);
                    szPage.append("-").append(kLevelNames[iLevel]).append("</option>");
                }
                szPage.append("</select></td>\t\n");
                ++iId;
            }
        }
    }
    szPage.append("</table>\n<input type=\"submit\" value=\"Apply\">\n</body></html>\n");
    return static_cast<int>(szPage.size());
}

int CLogger::iSetLogLevel(CFileConfig* pConfig)
{
    if (pConfig == nullptr) {
        return 0;
    }
    // The configuration is asked without the logger's lock: it may raise, and may wait for its own.
    const CDeferredAnyCancel deferred; // beyond the lock: the labels are allocated
    std::vector<std::pair<unsigned long, std::string>> labels;
    {
        const CHeldMutex held(m_hMutex);
        if (!held) {
            return 0;
        }
        for (const auto& entry : m_levelTable) {
            if (entry.second != nullptr) {
                labels.emplace_back(entry.first, m_LabelTable[entry.first]);
            }
        }
    }
    for (const auto& label : labels) {
        const int iLevel =
            pConfig->iGetParameter(szLevelKey(label.second).c_str(), kDefaultLogLevel);
        const CHeldMutex held(m_hMutex);
        const auto entry = m_levelTable.find(label.first);
        if (held && entry != m_levelTable.end()) { // the thread may have ended meanwhile
            SetLevel(entry->second, iLevel);
        }
    }
    return 0;
}

int CLogger::iGetLogLevel(CFileConfig* pConfig)
{
    if (pConfig == nullptr) {
        return 0;
    }
    // Each setter rewrites the file and flushes the disks: not while every log call waits.
    const CDeferredAnyCancel deferred; // beyond the lock: the labels are allocated
    std::vector<std::pair<std::string, int>> levels;
    {
        const CHeldMutex held(m_hMutex);
        if (!held) {
            return 0;
        }
        for (const auto& entry : m_levelTable) {
            if (entry.second != nullptr) {
                levels.emplace_back(m_LabelTable[entry.first], iReadLevel(entry.second));
            }
        }
    }
    for (const auto& level : levels) {
        pConfig->SetParameter(szLevelKey(level.first).c_str(), level.second);
    }
    return 0;
}

CFunctionCallLogger::CFunctionCallLogger(int iLevel, const char* szFile, int iLine,
                                         const char* /*szIgnored*/, const char* szFunctionName)
    : level(iLevel)
{
    const CDeferredAnyCancel deferred; // the copies are allocated
    functionName = pszOrEmpty(szFunctionName);
    componentName = pszOrEmpty(szFile);
    CThread::m_Logger.Log(level, componentName.c_str(), iLine, "", "Entering %s()...",
                          functionName.c_str());
}

CFunctionCallLogger::~CFunctionCallLogger() noexcept(false)
{
    const CDeferredAnyCancel deferred;
    CThread::m_Logger.Log(level, componentName.c_str(), 0, "", "Leaving %s()...",
                          functionName.c_str());
    std::string().swap(functionName); // freed here, not when cancellation is as it was
    std::string().swap(componentName);
}
} // namespace QuorCore
