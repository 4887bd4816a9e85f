/// @file
/// @brief The one diagnostic channel: syslog lines filtered by a level of each thread.
#pragma once

#include "libQuorCore/Export.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <map>
#include <pthread.h>
#include <string>
#include <syslog.h>

namespace QuorCore
{
class CFileConfig;

/// Level of a thread that registered none: errors and worse.
constexpr int kDefaultLogLevel = LOG_ERR;

/**
 * @brief The calling thread's level for the process-wide logger; never null.
 *
 * Lives outside the class and in the initial-exec model so that a call that is not emitted costs
 * two loads and a compare. Written by CLogger only; read it through CLogger::bIsEnabled().
 */
extern QUORCORE_API __thread const int* t_piLogLimit __attribute__((tls_model("initial-exec")));

/**
 * @brief Writes messages to syslog (facility local0, with the process id), each under the label of
 *        its thread, when the message's level does not exceed the thread's.
 *
 * The process has one, CThread::m_Logger, which exists before any other static object and until
 * after the last. Levels are the priorities of syslog(3), 0 emergency to 7 debug. A thread that
 * has not registered logs as "GEN" with level 3.
 *
 * Threads: any may call anything at any time; a message that is filtered out takes no lock.
 * Errors: nothing is reported; a lock that cannot be taken makes the call do nothing, and a line
 * for which there is no memory is lost. Log() and LogEvent() preserve errno and are no cancellation
 * points, so destructors may log. A forked child may log, too. Nothing may log from a signal
 * handler.
 */
class QUORCORE_API CLogger
{
public:
    CLogger();
    CLogger(const CLogger&) = delete;
    CLogger& operator=(const CLogger&) = delete;
    /// closelog(3), for the whole process, whichever logger goes; later calls of Log() do nothing.
    virtual ~CLogger();

    /**
     * @brief Opens the system log and lets messages flow.
     * @param szIdent  Name before every line; kept by the system logger as a pointer, so it must
     *                 live as long as the process.
     */
    void Init(const char* szIdent);

    void SetShowFile(bool bShow); ///< Source file in each line; off at first.
    void SetShowLine(bool bShow); ///< Source line in each line; on at first.

    /// @return Whether a message of @p iLevel of the calling thread would pass the process-wide
    ///         logger's filter.
    static bool bIsEnabled(int iLevel)
    {
        return iLevel <= __atomic_load_n(t_piLogLimit, __ATOMIC_RELAXED);
    }

    /**
     * @brief Writes one message if the calling thread's level admits it.
     *
     * The line reads: label(thread id) -- function / line : text. Label, file and function become
     * part of the format handed to syslog and are not escaped, so a "%" in them is taken as a
     * conversion. This is meant: never derive them from data that comes from outside, and pass such
     * data through "%s". Held by ALogger.TakesAPercentInALabelAsAConversion.
     *
     * @param iLevel       0 (emergency) to 7 (debug).
     * @param szFile       Source file of the caller.
     * @param iLine        Source line of the caller.
     * @param szFunction   Full signature of the calling function.
     * @param szFormat     As printf(3).
     */
    void Log(int iLevel, const char* szFile, int iLine, const char* szFunction,
             const char* szFormat, ...) __attribute__((format(printf, 6, 7)));

    /**
     * @brief Composes and writes one line without any filter.
     * @param iErrno  When not 0 the line names this number, followed by the text of the thread's
     *                current errno: the two may differ, which is kept, since scripts match both.
     */
    void LogEvent(const char* szLabel, int iLevel, const char* szFile, int iLine,
                  const char* szFunction, int iErrno, const char* szFormat, va_list args)
        __attribute__((format(printf, 8, 0)));

    /**
     * @brief Writes a buffer as hex digits at level 7: label, full size, at most 2048 bytes.
     *
     * A buffer above 2048 bytes shows its first 2047 only; the size named is always the full one.
     */
    void LogHexDump(const char* szFile, int iLine, const char* szFunction, const char* szLabel,
                    const unsigned char* pData, unsigned int iSize);

    /// Writes the calling thread's stack, at most 32 frames, as one record of level 0, unfiltered.
    void WriteBacktrace();

    /// @return The text of an error number; as strerror(3), safe in threads.
    std::string strerrorT(int iErrno);

    /**
     * @brief Registers the calling thread; a second registration replaces the first.
     * @param szLabel  Copied; null is taken as empty.
     * @param piLevel  The thread's level; not owned. It must live until the thread cancels its
     *                 registration or ends. Null: level 3.
     */
    void SetLogConfigForThread(const char* szLabel, int* piLevel);

    /// Takes the calling thread out of both tables.
    void CancelLogIdForThread();

    /// Takes every thread out whose level is @p piLevel: its owner is about to go. A thread other
    /// than the caller that is still registered with it must have ended.
    void ForgetLevel(const int* piLevel);

    /**
     * @brief Reads the calling thread's entries; without one the argument stays as it was.
     * @param szLabel  Receives the label; valid until the thread registers again or cancels.
     * @return Whether @p szLabel is not null.
     */
    bool bGetLogConfigForThread(const char*& szLabel, int& iLevel);

    void SetAllLogLevel(int iLevel); ///< Every registered level.

    /// Sets the level at @p iIndex, which counts all threads in thread-id order from 0, those
    /// without a level included; beyond the end nothing changes.
    void SetLogLevel(int iIndex, int iLevel);

    /// Applies (index, level) byte pairs; an odd last byte is ignored.
    void SetLogLevel(const uint8_t* pPairs, int iSize);

    /**
     * @brief Builds the page on which a person sees and chooses the levels.
     *
     * Label and action stand in the page as they are: markup in them is not escaped, so an action
     * that comes from a peer is that peer's own markup. The Id of a row counts the threads that
     * have a level, where SetLogLevel(index, ...) counts all: they agree as long as no thread
     * registers without a level. Both are meant.
     *
     * @param szPage    Receives the page.
     * @param szAction  Target of the form.
     * @return The page's length in bytes.
     */
    int iGetLogConfigHtml(std::string& szPage, const char* szAction);

    /// Reserved for daemons that parse the page's form themselves; the library has no body for it.
    int iSetLogConfigHtml(std::string& szPage);

    /**
     * @brief Sets every registered level from "log_level_" + label (3 where the key is missing).
     * @return 0 always. A value that is no number raises std::invalid_argument, one out of range
     *         std::out_of_range; levels already set stay.
     */
    int iSetLogLevel(CFileConfig* pConfig);

    /// Stores every registered level under "log_level_" + label, each of which saves the file.
    /// @return 0 always.
    int iGetLogLevel(CFileConfig* pConfig);

protected:
    std::atomic<bool> m_bShowFile;
    std::atomic<bool> m_bShowLine;
    std::atomic<bool> m_bReady; ///< Set by Init(); false again after destruction.
    pthread_mutex_t m_hMutex;   ///< Recursive; guards both tables.
    pthread_mutexattr_t m_Attr;
    std::map<unsigned long, std::string> m_LabelTable; ///< By thread id.
    std::map<unsigned long, int*> m_levelTable;        ///< By thread id; the levels are borrowed.

private:
    bool bRefuses(int iLevel) const;
    void LogIfAdmitted(int iLevel, const char* szFile, int iLine, const char* szFunction,
                       const char* szFormat, va_list args) __attribute__((format(printf, 6, 0)));
    void EmitLine(const char* szLabel, int iLevel, const char* szFile, int iLine,
                  const char* szFunction, int iErrno, int iCurrentErrno, const char* szFormat,
                  va_list args) __attribute__((format(printf, 9, 0)));
    void EmitHexDump(const char* szFile, int iLine, const char* szFunction, const char* szLabel,
                     const unsigned char* pData, unsigned int iSize);
    void JoinAllLoggers();
    void LeaveAllLoggers();
    static void PrepareFork();
    static void ResumeParent();
    static void ResumeChild();

    CLogger* m_pNext = nullptr; ///< In the list of all loggers, which has a lock of its own.
};

/**
 * @brief Logs "Entering f()..." where it is made and "Leaving f()..." where its scope ends.
 *
 * On leaving, the file is the one given and the line is always 0.
 */
class QUORCORE_API CFunctionCallLogger
{
public:
    /// @param szIgnored  Accepted and not used: the place of a signature in the common argument
    ///                   order of log calls, kept so that one macro serves them all.
    CFunctionCallLogger(int iLevel, const char* szFile, int iLine, const char* szIgnored,
                        const char* szFunctionName);
    CFunctionCallLogger(const CFunctionCallLogger&) = delete;
    CFunctionCallLogger& operator=(const CFunctionCallLogger&) = delete;
    /// Where cancellation is asynchronous, a request may be acted upon at its end.
    ~CFunctionCallLogger() noexcept(false);

private:
    std::string functionName;
    std::string componentName;
    int level;
};
} // namespace QuorCore

/// Logs through the process-wide logger, adding what only the caller's place knows. The arguments
/// are not evaluated when the calling thread's level filters the message out, the level is
/// evaluated twice when it does not.
#define QUORCORE_LOG(iLevel, ...)                                                                  \
    do {                                                                                           \
        if (::QuorCore::CLogger::bIsEnabled(iLevel)) {                                             \
            ::QuorCore::CThread::m_Logger.Log((iLevel), __FILE__, __LINE__, __PRETTY_FUNCTION__,   \
                                              __VA_ARGS__);                                        \
        }                                                                                          \
    } while (false)

/// Logs a buffer as hex digits at debug level.
#define QUORCORE_LOG_HEX(szLabel, pData, iSize)                                                    \
    do {                                                                                           \
        if (::QuorCore::CLogger::bIsEnabled(LOG_DEBUG)) {                                          \
            ::QuorCore::CThread::m_Logger.LogHexDump(__FILE__, __LINE__, __PRETTY_FUNCTION__,      \
                                                     (szLabel), (pData), (iSize));                 \
        }                                                                                          \
    } while (false)

/// Logs entry and exit of the enclosing function.
#define QUORCORE_LOG_CALL(iLevel)                                                                  \
    const ::QuorCore::CFunctionCallLogger quorcoreCallLogger((iLevel), __FILE__, __LINE__, "",     \
                                                             __func__)
