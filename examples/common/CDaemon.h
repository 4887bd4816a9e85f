/// @file
/// @brief What the example daemons have in common: their life from the command line to the end.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <functional>

/**
 * @brief An application that reads its settings, does its work until it is told to end, and leaves
 * by the book.
 *
 * Option beside those of the library: "--config FILE". A derived class stops its threads in its own
 * destructor, too: an exception may leave iRun() before it has.
 */
class CDaemon : public QuorCore::CCoreApp
{
public:
    CDaemon(int argc, char** argv);

    /// Runs the daemon from its start to its end. @return The exit status of the process.
    int iRun();

    /// Reads the settings, then does what the library does.
    /// @return As CCoreApp::iInitInstance(); kBadSettings when a setting cannot be used.
    long iInitInstance() override;

    /// Registers the slot. @return 0.
    long iInitCallback() override;

    /// Slot: somebody has changed log levels over the wire. On the dispatcher's thread.
    void OnConfigSave(QuorCore::CMsg* pMsg);

    static constexpr long kBadSettings = 2;

protected:
    /// Reads the keys of the configuration, which is loaded, before there are threads and before
    /// privileges are dropped. @return False, with a line in the log: the daemon does not start.
    virtual bool bReadSettings() = 0;

    /// Starts the threads and works until the end: mostly in ProcessSignal(). @return Whether it
    /// could be done, as the exit status then tells.
    virtual bool bWork() = 0;

    virtual void Stop() = 0; ///< Stops all threads, of which none may be there.
    virtual void Save() {}   ///< After work that was done: keeps what is more than settings.
};

/**
 * @brief The whole of a main(): names the process, runs it, and says why it could not be started.
 * @param szName  Of the daemon, for the log and those who ask; it must outlive the process'
 * threads.
 * @param run     Makes the daemon and runs it; on the calling thread.
 * @return The exit status.
 */
int iRunMain(const char* szName, const std::function<int()>& run);

/// Prints the version when "--version" asks for it. @return Whether it did.
bool bPrintVersion(CDaemon& daemon, int argc, char** argv);

/// Prints the version, or runs the daemon and tells the terminal when it was not started.
/// @return The exit status.
int iRunDaemon(CDaemon& daemon, int argc, char** argv);
