#include "support/CChild.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace TestSupport
{
namespace
{
constexpr int kPollMs = 5;           // between two looks at whether the child has ended
constexpr int kNotStartedCode = 127; // as the shell says that a command cannot be run
constexpr size_t kChunkBytes = 4096;

void Check(int iResult, const char* pszCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), pszCall);
    }
}

struct Pipe {
    QuorCore::CUniqueFd readEnd; ///< Non-blocking.
    QuorCore::CUniqueFd writeEnd;
};

Pipe NewPipe()
{
    std::array<int, 2> ends = {-1, -1};
    Check(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    Pipe pipe{QuorCore::CUniqueFd(ends[0]), QuorCore::CUniqueFd(ends[1])};
    Check(fcntl(ends[0], F_SETFL, O_NONBLOCK), "fcntl");
    return pipe;
}

// Appends what the pipe holds at the moment. At its end the pipe is closed.
void ReadAvailable(QuorCore::CUniqueFd& pipe, std::string& szText)
{
    std::array<char, kChunkBytes> chunk;
    ssize_t lRead = 0;
    while (pipe && (lRead = read(pipe.iGet(), chunk.data(), chunk.size())) != -1) {
        szText.append(chunk.data(), static_cast<size_t>(lRead));
        if (lRead == 0) {
            pipe.Reset();
        }
    }
}

// What the child does. An exception may not reach the frames of GoogleTest: it ends the child, as
// it would end a daemon.
[[noreturn]] void RunAndExit(const std::function<int()>& function, int iOutput,
                             int iErrors) noexcept
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int iNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(iNull, STDIN_FILENO);
    dup2(iOutput, STDOUT_FILENO);
    dup2(iErrors, STDERR_FILENO);
    const int iExitCode = function();
    fflush(nullptr);
    _exit(iExitCode); // no handlers of atexit(3): they are the test's
}
} // namespace

CChild::CChild(const std::function<int()>& function)
{
    Pipe output = NewPipe();
    Pipe errors = NewPipe();
    fflush(nullptr); // or the child would write the test's buffered text a second time
    m_iPid = fork();
    Check(m_iPid, "fork");
    if (m_iPid == 0) {
        RunAndExit(function, output.writeEnd.iGet(), errors.writeEnd.iGet());
    }
    m_OutputPipe = std::move(output.readEnd);
    m_ErrorsPipe = std::move(errors.readEnd);
}

CChild::~CChild()
{
    Await(0);
}

void CChild::Signal(int iSignal) const
{
    if (!m_bEnded) { // else the number may be another process's already
        Check(kill(m_iPid, iSignal), "kill");
    }
}

bool CChild::bAwaitOutput(const std::string& szPart, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    bool bMayCome = true;
    while (m_szOutput.find(szPart) == std::string::npos) {
        if (!bMayCome) {
            return false;
        }
        bMayCome = bRunning() && !deadline.bPassed(); // asked first: what is there still counts
        CollectOutput(bMayCome ? kPollMs : 0);
    }
    return true;
}

ChildResult CChild::Await(int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    ChildResult result;
    while (bRunning()) {
        if (!result.bTimedOut && deadline.bPassed()) {
            result.bTimedOut = true;
            Signal(SIGKILL);
        }
        CollectOutput(kPollMs);
    }
    CollectOutput(0);
    result.szOutput = m_szOutput;
    result.szErrors = m_szErrors;
    if (!result.bTimedOut) {
        result.iExitCode = WIFEXITED(m_iStatus) ? WEXITSTATUS(m_iStatus) : -1;
        result.iSignal = WIFSIGNALED(m_iStatus) ? WTERMSIG(m_iStatus) : 0;
    }
    return result;
}

bool CChild::bRunning()
{
    if (!m_bEnded) {
        m_bEnded = waitpid(m_iPid, &m_iStatus, WNOHANG) != 0;
    }
    return !m_bEnded;
}

void CChild::CollectOutput(int iWaitMs)
{
    std::array<pollfd, 2> pipes = {
        {{m_OutputPipe.iGet(), POLLIN, 0}, {m_ErrorsPipe.iGet(), POLLIN, 0}}};
    poll(pipes.data(), pipes.size(), iWaitMs); // a pipe that was closed, -1, is left out: poll(2)
    ReadAvailable(m_OutputPipe, m_szOutput);
    ReadAvailable(m_ErrorsPipe, m_szErrors);
}

ChildResult RunInChild(const std::function<int()>& function, int iLimitMs)
{
    return CChild(function).Await(iLimitMs);
}

ChildResult RunProgram(const std::vector<std::string>& args, int iLimitMs)
{
    std::vector<char*> argv; // execvp(3) takes pointers to non-const, and changes nothing
    for (const std::string& szArg : args) {
        argv.push_back(const_cast<char*>(szArg.c_str()));
    }
    argv.push_back(nullptr);
    const auto exec = [&argv] {
        execvp(argv[0], argv.data());
        perror(argv[0]);
        return kNotStartedCode;
    };
    return RunInChild(exec, iLimitMs);
}
} // namespace TestSupport
