/// @file
/// @brief Starts and supervises one child program.
#pragma once

#include "libQuorCore/CObject.h"
#include "libQuorCore/CPipe.h"
#include "libQuorCore/Export.h"

#include <atomic>
#include <sys/types.h>
#include <vector>

namespace QuorCore
{
class CProcessManager;

/**
 * @brief One child program: started, stopped, waited for, and told how it ended.
 *
 * Its label is the program. With the application's SIGCHLD reaper at work, a process that is in
 * CCoreApp::m_ProcessManager learns of its end by itself; any other learns of it when it is asked
 * (bIsRunning(), iWaitForExit(), iStop()). Either way OnLost() is called once for one end.
 *
 * Threads: one at a time, but for the end that the reaper's thread reports. A program may be
 * started again by the slot of EVT_PROCESS_STOPPED. Ownership: does not own the child: destroying
 * the object leaves it running; it takes itself out of its manager, waiting for an OnLost() that
 * another thread is in. A class that overrides OnLost() or OnStop() calls
 * CProcessManager::RemoveProcess() in its own destructor, which is early enough for its members.
 * Rests on fork(2), execvp(3), waitpid(2) and kill(2).
 */
class QUORCORE_API CProcess : public CObject
{
public:
    CProcess(CObject* pParent, const char* szLabel);
    ~CProcess() override;

    /// Reports a regular stop: posts EVT_PROCESS_STOPPED with 0, 0 and forgets the pid.
    virtual void OnStop();

    /**
     * @brief Reports an end: sets the exit code, posts EVT_PROCESS_STOPPED with pid and status and
     *        forgets the pid.
     * @param iStatus  As waitpid(2) gives it.
     */
    virtual void OnLost(int iStatus);

    pid_t iGetPID() const { return m_pid; }              ///< -1 when there is no child.
    int iGetLastExitCode() const { return m_iExitCode; } ///< -1 until an exit is decoded.
    void SetLastExitCode(int iCode) { m_iExitCode = iCode; }

    /**
     * @brief Starts a program.
     *
     * @param bSudo        Run it under "sudo".
     * @param szDirectory  Working directory of the child, or null.
     * @param szProgram    Looked up in PATH; becomes the label.
     * @param args         Not an array: the address of one block of texts, each closed by a zero
     *                     byte, the block by an empty text. Null for none.
     * @param env          Such a block of "NAME=value" texts added to the inherited environment.
     * @param pIn          Its reading end becomes the child's standard input, and is closed here.
     * @param pOut, pErr   Their writing ends become standard output and error, and are closed here.
     * @return 0 always; iGetPID() tells whether there is a child. A program that cannot be run ends
     *         with status 127.
     */
    int iCreateProcess(bool bSudo, const char* szDirectory, const char* szProgram,
                       const char** args, const char** env, CPipe* pIn, CPipe* pOut, CPipe* pErr);

    /// The same for an argument vector; a closing null entry is added when there is none.
    int iCreateProcess(const char* szDirectory, std::vector<char*>& argv, const char** env,
                       CPipe* pIn, CPipe* pOut, CPipe* pErr);

    /**
     * @brief Sends SIGTERM, waits for the end when told so, and calls OnStop().
     *
     * A child that has ended before, and was collected, is not signalled: its number may be that of
     * another process by now.
     *
     * @return 0, also when there is no child; without @p bWait -1 when the signal could not be sent
     *         (errno); with it -1 when the child still runs after 6 s.
     */
    int iStop(bool bWait);

    /// Waits for the end of the child. @param iSeconds  Limit in s; a second is added.
    /// @return 0 it has ended or there is none; -1 it still runs (logged).
    int iWaitForExit(uint32_t iSeconds);

    /**
     * @brief Asks for the child's state without waiting; an end that is found is reported.
     * @param szName    Command name of a running process to adopt when there is no child, or null.
     *                  Only the exact name of 15 characters at most that the kernel keeps is
     *                  compared; whoever runs a program of that name is adopted, and would be
     *                  stopped.
     * @param iRetries  Further attempts while no running child is found; there is no pause between.
     * @return Whether the child exists and runs; an adopted process that is no child of this one
     *         counts as lost.
     */
    bool bIsRunning(const char* szName, long iRetries);

    /// Finds a process by its command name in /proc, as bIsRunning() compares it, up to its first
    /// blank. @param bKeep  Adopt it. @return Its pid, or -1.
    int iFindProcessId(const char* szName, bool bKeep);

    /// Queues a signal with a value to a process; sigqueue(3). @param iPid  0: this process.
    /// @return 0, or -1 (logged).
    long iPostSignal(uint32_t iSignal, uint32_t iValue, int iPid);

    /**
     * @brief Runs a shell command line, with an empty environment: programs need their full path.
     * @param szCommand  For "/bin/sh -c". It runs with this daemon's rights: nothing that comes
     *                   from outside may be part of it unchecked.
     * @param iRetries   A command that fails is run again that often, 500 ms apart.
     * @param bWait      Wait for its end; otherwise it is left to the SIGCHLD reaper.
     * @return Its exit status; -1 when it was killed, could not be started or waited for; 0 without
     *         @p bWait.
     */
    static int iCmdSystem(const char* szCommand, int iRetries, bool bWait);

protected:
    std::atomic<pid_t> m_pid;     ///< -1 when there is no child.
    std::atomic<int> m_iExitCode; ///< Of the last end.

private:
    friend class CProcessManager;

    pid_t iPoll(pid_t pid, bool bLastTry);
    [[noreturn]] void RunChild(const char* szDirectory, const std::vector<char*>& argv,
                               const std::vector<char*>& environment, CPipe* pIn, CPipe* pOut,
                               CPipe* pErr);
    void ForgetChild(pid_t pid);

    std::atomic<bool> m_bOwnChild{false};              ///< Forked here rather than adopted by name.
    std::atomic<CProcessManager*> m_pManager{nullptr}; ///< Whose list names this object.
};
} // namespace QuorCore
