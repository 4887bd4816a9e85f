/// @file
/// @brief The application object of a daemon: command line, privileges, start, signals and end.
#pragma once

#include "libQuorCore/CFileNotification.h"
#include "libQuorCore/CProcessManager.h"
#include "libQuorCore/CSlotCallbackManager.h"
#include "libQuorCore/CThread.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/process_cap.h"

#include <string>

namespace QuorCore
{
/**
 * @brief Base of a daemon's application object; one for each process.
 *
 * The daemon's main thread calls, in this order: the constructor (which answers "--help" and
 * "--lib-quorcore-version" and ends the process then), iInitInstance() before any other thread
 * exists, iInitCallback(), m_callbackManager.iCreateThread() and the starts of its own threads,
 * ProcessSignal() until the end is asked for, the stops of its threads, iExitInstance().
 *
 * Owns the dispatcher, the file watcher and, while it lives, the process's handlers of SIGCHLD,
 * SIGTERM, SIGQUIT and SIGRTMIN+6 (of the last three only where the daemon had set none).
 */
class QUORCORE_API CCoreApp : public CThread
{
public:
    /**
     * @param pParent  Parent in the object tree or null; not owned.
     * @param argc, argv  The command line, as main() gets it: "--daemon" makes iInitInstance() turn
     *                    the process into a daemon; "--help" and "--lib-quorcore-version" print
     *                    their text and end the process with status 0; "--version" is the
     *                    application's to answer.
     */
    CCoreApp(CObject* pParent, int argc, char** argv);
    ~CCoreApp() override; ///< Restores the signal handlers.

    long iRunThread() override; ///< Waits in seconds while m_bRun is set, which it does not do.

    /**
     * @brief Loads the configuration, drops privileges, becomes a daemon, publishes dispatcher and
     *        watcher and installs the signal handlers, in this order.
     *
     * Runs on the main thread before any other thread exists: it may fork, and capabilities are a
     * thread's own. Starts the thread that reaps children, after all of that.
     *
     * @return 0; 1 privileges could not be dropped, nothing further was done; -3 a standard
     * exception while publishing; -4 the working directory could not be changed to "/", the rest
     * was done. Throws a `const char*` when it cannot become a daemon.
     */
    long iInitInstance() override;

    /// Stops all children, saves the configuration and takes the calling thread from the logger.
    /// @return 0.
    long iExitInstance() override;

    /// Registers OnThreadStarted() with the dispatcher. @return 0.
    virtual long iInitCallback();

    /// Gives a thread that has started the level of the configuration key "log_level_" + label (3
    /// where it is missing). On the dispatcher's thread. A value that is no number raises.
    virtual void OnThreadStarted(CMsg* pMsg);

    /// @return Whether an argument equals @p szParam.
    bool bIsParamArguments(int argc, char** argv, const char* szParam);
    /// @return The number after the last @p szParam, as atoi(3) reads it, or @p iDefault.
    int iGetParamArguments(int argc, char** argv, const char* szParam, int iDefault);
    /// @return The argument after the first @p szParam; it stays the command line's; or null.
    const char* szGetParamArguments(int argc, char** argv, const char* szParam);

    bool bRunAsDaemon(int argc, char** argv); ///< @return Whether "--daemon" is there.
    bool bIsRunningAsDaemon() const { return m_bRunningAsDaemon; }

    /// Forks (the parent ends with status 0), leaves the session and attaches the standard streams
    /// to /dev/null. Throws a `const char*` that names what failed. daemon(7).
    void Daemonize();

    /**
     * @brief Changes user and groups and keeps only the given capabilities, in all three sets.
     * @param szUser          User to become, or null for the present one. A name that the user
     *                        database answers for without an error but does not know leaves the
     *                        identity as it is, with a warning in the log.
     * @param szGroup         Group to become instead of the user's own, or null.
     * @param pCapabilities   List ended by -1. Null: nothing at all is changed.
     * @return 0, an errno value, EINVAL, or -1 from a failed system call (logged).
     */
    long iDropPermissions(const char* szUser, const char* szGroup,
                          const capability_t* pCapabilities);

    /**
     * @brief Waits, on the main thread, until the process is to end.
     *
     * Returns on SIGTERM, SIGQUIT (also when one came before, or between two waits). SIGCHLD, after
     * which ended children are reaped, and SIGRTMIN+6 lead to one iMonitoring() and a pause of a
     * second; then it returns if m_bRun is not set. The signals are not blocked while it waits.
     */
    void ProcessSignal();

    static CProcessManager m_ProcessManager; ///< The children of the process.

protected:
    bool m_bRunningAsDaemon; ///< "--daemon" was on the command line.
    std::string m_szUser;    ///< Run as; filled by the application before iInitInstance().
    std::string m_szGroup;   ///< Run as; may stay empty.

public:
    CSlotCallbackManager m_callbackManager; ///< The dispatcher of the process.
    CFileNotification m_fileNotification;   ///< The file watcher of the process.
};
} // namespace QuorCore
