/// @file
/// @brief Child processes, whose output and end a test looks at.
#pragma once

#include "internal/CUniqueFd.h"
#include "support/CDeadline.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace TestSupport
{
/// @brief How a child ended and what it wrote until then.
struct ChildResult {
    bool bTimedOut = false; ///< It outlived its limit and was killed; there is no other result.
    int iExitCode = -1;     ///< As given to exit(3); -1 if it did not exit.
    int iSignal = 0;        ///< What killed it; 0 if nothing did.
    std::string szOutput;   ///< All of its standard output.
    std::string szErrors;   ///< All of its standard error.
};

/**
 * @brief A function that runs in a forked child process.
 *
 * The child ends by _exit(2) with the function's result, or as the function has it: by exit(3), a
 * signal, an exception (std::terminate). Its standard streams are /dev/null and two pipes to the
 * test. An assertion of GoogleTest in there is not seen by the test: use result and output. It dies
 * with the thread that made it. Its lines in the syslog reach the test's receiver.
 *
 * Threads: fork before the test has any others, as after fork(2) their locks stay taken.
 * Errors: the constructor throws std::system_error. Rests on fork(2), waitpid(2), prctl(2).
 */
class CChild
{
public:
    /// @param function  Runs in the child; its result is the exit code, 0 to 255.
    explicit CChild(const std::function<int()>& function);
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;
    ~CChild(); ///< Kills the child if it still runs, and collects it.

    pid_t iPid() const { return m_iPid; }

    /// @param iSignal  Sent to the child; nothing happens once it was awaited.
    void Signal(int iSignal) const;

    /// @brief Waits until the child has written @p szPart to its standard output.
    /// @return False: it has not within @p iLimitMs, or it ended without.
    bool bAwaitOutput(const std::string& szPart, int iLimitMs = kAwaitLimitMs);

    /// @brief Waits for the end of the child. It is killed when @p iLimitMs ms have passed.
    ChildResult Await(int iLimitMs = kAwaitLimitMs);

private:
    bool bRunning();
    void CollectOutput(int iWaitMs);

    pid_t m_iPid = -1;
    int m_iStatus = 0;                ///< Of waitpid(2), once the child was collected.
    bool m_bEnded = false;            ///< The child was collected.
    QuorCore::CUniqueFd m_OutputPipe; ///< Read end, non-blocking.
    QuorCore::CUniqueFd m_ErrorsPipe; ///< Read end, non-blocking.
    std::string m_szOutput;           ///< What came through the pipes so far.
    std::string m_szErrors;
};

/// @brief Runs a function in a child and waits for its end; see CChild.
ChildResult RunInChild(const std::function<int()>& function, int iLimitMs = kAwaitLimitMs);

/// @brief Runs a program and waits for its end.
/// @param args  Its path or its name in PATH, then its arguments. Exit code 127: cannot be started.
ChildResult RunProgram(const std::vector<std::string>& args, int iLimitMs = kAwaitLimitMs);
} // namespace TestSupport
