#include "libQuorCore/CProcess.h"

#include "libQuorCore/CSlotCallback.h"
#include "libQuorCore/CSlotCallbackManager.h"
#include "libQuorCore/CThread.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CWatchedProcess.h"
#include "support/CallFilter.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uid_t kNobody = 65534;
constexpr const char* kForEver = "exec sleep 1000";

#if defined(__SANITIZE_THREAD__)
constexpr bool kExitFlushes = true; // the sanitizer's own _exit() writes out what is buffered
#else
constexpr bool kExitFlushes = false;
#endif

static_assert(!std::is_copy_constructible_v<CProcess> && !std::is_copy_assignable_v<CProcess>);

/// Sets an environment variable to the end of the scope.
class CVariable
{
public:
    CVariable(const char* pszName, const std::string& szValue)
        : m_szName(pszName), m_szFormer(getenv(pszName) != nullptr ? getenv(pszName) : "")
    {
        setenv(pszName, szValue.c_str(), 1);
    }
    CVariable(const CVariable&) = delete;
    CVariable& operator=(const CVariable&) = delete;
    ~CVariable() { setenv(m_szName.c_str(), m_szFormer.c_str(), 1); }
    const std::string& szFormer() const { return m_szFormer; }

private:
    const std::string m_szName;
    const std::string m_szFormer;
};

/// Logs everything of the calling thread to the end of the scope.
class CLoggedThread
{
public:
    CLoggedThread()
    {
        CThread::m_Logger.Init("test");
        CThread::m_Logger.SetLogConfigForThread("test", &m_iLevel);
    }
    CLoggedThread(const CLoggedThread&) = delete;
    CLoggedThread& operator=(const CLoggedThread&) = delete;
    ~CLoggedThread() { CThread::m_Logger.CancelLogIdForThread(); }

private:
    int m_iLevel = LOG_DEBUG;
};

/// A thread of the library that runs a function: its signals are blocked, as those of all of them.
class CLibraryThread : public CThread
{
public:
    explicit CLibraryThread(std::function<void()> function)
        : CThread(nullptr, "library"), m_function(std::move(function))
    {
    }
    ~CLibraryThread() override { iStop(true, false); }
    long iRunThread() override
    {
        m_function();
        m_bDone = true;
        return 0;
    }
    void Run()
    {
        iCreateThread(false, 0);
        EXPECT_TRUE(bAwait([this] { return m_bDone.load(); }));
    }

private:
    const std::function<void()> m_function;
    std::atomic<bool> m_bDone{false};
};

class AProcess : public ::testing::Test
{
protected:
    void SetUp() override { m_Receiver.Clear(); }
    void TearDown() override
    {
        while (waitpid(-1, nullptr, WNOHANG) > 0) { // what a test has left to a reaper
        }
    }

    /// What a script writes to its standard output.
    std::string szRun(const std::string& szScript, const char* pszDirectory = nullptr,
                      const char** env = nullptr)
    {
        CPipe out;
        m_Process.Start(szScript, nullptr, &out, nullptr, pszDirectory, env);
        const std::string szOutput = szReadAll(out);
        EXPECT_EQ(0, m_Process.iWaitForExit(20));
        return szOutput;
    }

    CSyslogReceiver& m_Receiver = CSyslogReceiver::Get();
    const CLoggedThread m_Logged;
    CWatchedProcess m_Process;
};

TEST_F(AProcess, IsIdleAtFirst)
{
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_EQ(-1, m_Process.iGetLastExitCode());
    EXPECT_EQ(0, m_Process.iStop(true));
    EXPECT_EQ(0, m_Process.iStop(false));
    EXPECT_EQ(0, m_Process.iWaitForExit(5));
    EXPECT_FALSE(m_Process.bIsRunning(nullptr, 0));
    EXPECT_FALSE(m_Process.bIsRunning(nullptr, 5));
    EXPECT_EQ(0, m_Process.nStops() + m_Process.nLosts());
    EXPECT_TRUE(m_Receiver.Records().empty());
}

TEST_F(AProcess, KeepsAnExitCodeThatIsSet)
{
    m_Process.SetLastExitCode(42);
    EXPECT_EQ(42, m_Process.iGetLastExitCode());
}

TEST_F(AProcess, RunsAProgramWithTheTextsOfABlock)
{
    const std::string szArgs("[%s]\0a b\0c\0", 11);
    CPipe out;
    EXPECT_EQ(0, m_Process.iCreateProcess(false, nullptr, "printf", pBlock(szArgs), nullptr,
                                          nullptr, &out, nullptr));
    EXPECT_EQ("[a b][c]", szReadAll(out));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(0, m_Process.iGetLastExitCode());
    EXPECT_EQ("printf", m_Process.szGetLabel());
}

TEST_F(AProcess, RunsAProgramWithoutArguments)
{
    const std::string szEmpty;
    for (const char** args : {static_cast<const char**>(nullptr), pBlock(szEmpty)}) {
        m_Process.iCreateProcess(false, nullptr, "true", args, nullptr, nullptr, nullptr, nullptr);
        EXPECT_EQ(0, m_Process.iWaitForExit(20));
        EXPECT_EQ(0, m_Process.iGetLastExitCode());
    }
}

TEST_F(AProcess, RunsTheProgramThatItsLabelNames)
{
    m_Process.SetLabel("true");
    m_Process.iCreateProcess(false, nullptr, m_Process.szGetLabel().c_str(), nullptr, nullptr,
                             nullptr, nullptr, nullptr);
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(0, m_Process.iGetLastExitCode());
    EXPECT_EQ("true", m_Process.szGetLabel());
}

TEST_F(AProcess, RunsAProgramUnderSudo)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("sudo"), "#!/bin/sh\nprintf '[%s]' \"$@\"\n");
    chmod(directory.szPath("sudo").c_str(), 0755);
    const CVariable path("PATH", directory.szPath() + ":" + getenv("PATH"));
    const std::string szArgs("-c\0id -u\0", 9);
    CPipe out;
    m_Process.iCreateProcess(true, nullptr, "sh", pBlock(szArgs), nullptr, nullptr, &out, nullptr);
    EXPECT_EQ("[sh][-c][id -u]", szReadAll(out));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ("sh", m_Process.szGetLabel());
}

TEST_F(AProcess, KeepsItsLabelForAVectorAndClosesThat)
{
    std::string szTrue = "true";
    std::vector<char*> argv = {szTrue.data()};
    EXPECT_EQ(0, m_Process.iCreateProcess(nullptr, argv, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ("watched", m_Process.szGetLabel());
    ASSERT_EQ(2U, argv.size());
    EXPECT_EQ(nullptr, argv[1]);
    m_Process.iCreateProcess(nullptr, argv, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(2U, argv.size());
}

TEST_F(AProcess, EndsWith127WithoutAProgram)
{
    std::vector<char*> empty;
    m_Process.iCreateProcess(nullptr, empty, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(127, m_Process.iGetLastExitCode());
    m_Process.iCreateProcess(false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(127, m_Process.iGetLastExitCode());
    EXPECT_EQ("", m_Process.szGetLabel());
}

TEST_F(AProcess, AddsVariablesToTheInheritedEnvironment)
{
    const CVariable inherited("QUORCORE_OLD", "inherited");
    const CVariable replaced("QUORCORE_NEW", "former");
    const std::string szVariables("QUORCORE_A=1 2\0QUORCORE_B=\0QUORCORE_NEW=new\0", 44);
    const std::string szScript =
        "printf '%s|%s|%s|%s' \"$QUORCORE_A\" \"${QUORCORE_B-unset}\" $QUORCORE_NEW $QUORCORE_OLD";
    EXPECT_EQ("1 2||new|inherited", szRun(szScript, nullptr, pBlock(szVariables)));
    EXPECT_EQ(nullptr, getenv("QUORCORE_A"));
    EXPECT_STREQ("former", getenv("QUORCORE_NEW"));
}

TEST_F(AProcess, StartsInADirectory)
{
    const CTempDirectory directory;
    const std::string szBefore = std::filesystem::current_path();
    EXPECT_EQ(directory.szPath() + "\n", szRun("pwd -P", directory.szPath().c_str()));
    EXPECT_EQ(szBefore, std::filesystem::current_path());
}

TEST_F(AProcess, LogsADirectoryThatIsNotThereAndGoesOn)
{
    const std::string szHere = std::filesystem::current_path();
    EXPECT_EQ(szHere + "\n", szRun("pwd -P", "/no/such%s"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot change directory /no/such%s"));
}

TEST_F(AProcess, ConnectsTheStandardStreams)
{
    CPipe in;
    CPipe out;
    CPipe err;
    m_Process.Start("cat; echo error >&2", &in, &out, &err);
    EXPECT_EQ(-1, in.hReadHandle());
    EXPECT_EQ(-1, out.hWriteHandle());
    EXPECT_EQ(-1, err.hWriteHandle());
    in.iWriteBytes("input", 5);
    in.CloseWrite(); // the child sees the end: it has not inherited this end itself
    EXPECT_EQ("input", szReadAll(out));
    EXPECT_EQ("error\n", szReadAll(err));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
}

TEST_F(AProcess, PutsOutputAndErrorsIntoOnePipe)
{
    CPipe both;
    m_Process.Start("echo output; echo error >&2", nullptr, &both, &both);
    EXPECT_EQ("output\nerror\n", szReadAll(both));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
}

TEST_F(AProcess, KeepsTheStreamsThatNoPipeReplaces)
{
    const ChildResult result = RunInChild([this] {
        m_Process.Start("echo output; echo error >&2; exit 3");
        m_Process.iWaitForExit(20);
        return m_Process.iGetLastExitCode();
    });
    EXPECT_EQ("output\n", result.szOutput);
    EXPECT_EQ("error\n", result.szErrors);
    EXPECT_EQ(3, result.iExitCode);
}

TEST_F(AProcess, KeepsAStreamWhosePipeIsClosed)
{
    const ChildResult result = RunInChild([this] {
        CPipe closed;
        closed.Close();
        m_Process.Start("echo output; echo error >&2", &closed, &closed, &closed);
        return m_Process.iWaitForExit(20);
    });
    EXPECT_EQ("output\n", result.szOutput);
    EXPECT_EQ("error\n", result.szErrors);
}

/// Closes some of its standard descriptors, so that the pipes get their numbers, and echoes a text
/// through a program all the same.
int iEchoWithClosedStreams(int iClosed)
{
    for (int iFd = 0; iFd <= 2; ++iFd) {
        if ((iClosed & 1 << iFd) != 0) {
            close(iFd);
        }
    }
    CPipe err;
    CPipe out;
    CPipe in;
    CWatchedProcess process;
    process.Start("cat; echo error >&2", &in, &out, &err);
    in.iWriteBytes("text", 4);
    in.CloseWrite();
    const bool bRight = szReadAll(out) == "text" && szReadAll(err) == "error\n";
    return process.iWaitForExit(20) == 0 && bRight ? 0 : 1;
}

TEST_F(AProcess, ConnectsPipesThatStandWhereTheStandardStreamsGo)
{
    for (int iClosed = 1; iClosed <= 7; ++iClosed) {
        EXPECT_EQ(0, RunInChild([=] { return iEchoWithClosedStreams(iClosed); }).iExitCode)
            << iClosed;
    }
}

TEST_F(AProcess, ConnectsOneOfTheStandardStreamsOfADaemonWithoutAny)
{
    const ChildResult result = RunInChild([] {
        close(0);
        close(1);
        close(2);
        CPipe out; // its ends are 0 and 1
        CWatchedProcess process;
        process.Start("echo text", nullptr, &out);
        const bool bRight = szReadAll(out) == "text\n";
        return process.iWaitForExit(20) == 0 && bRight ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AProcess, InheritsNoDescriptorButTheStandardOnes)
{
    const int iLow = open("/dev/null", O_RDONLY); // without close-on-exec
    const int iHigh = fcntl(iLow, F_DUPFD, 900);
    ASSERT_NE(-1, iHigh);
    EXPECT_EQ("0\n1\n2\n3\n", szRun("exec ls /proc/self/fd")); // 3 is the directory, of ls itself
    close(iLow);
    close(iHigh);
}

TEST_F(AProcess, LeavesNoDescriptorBehind)
{
    szRun("true");
    const size_t nBefore = nOpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        szRun("echo text");
        m_Process.Start(kForEver);
        EXPECT_EQ(0, m_Process.iStop(true));
        CProcess::iCmdSystem("/bin/true", 0, true);
        m_Process.iFindProcessId("no such program", false);
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(AProcess, StartsWithoutAWalkThroughTheWholeDescriptorTable)
{
    if (!bCanFilterCalls()) {
        GTEST_SKIP() << "no filters for system calls here";
    }
    const ChildResult result = RunInChild([this] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        ForbidCall(SYS_close, 1000, INT32_MAX);
        m_Process.Start("exit 5");
        m_Process.iWaitForExit(20);
        return m_Process.iGetLastExitCode();
    });
    EXPECT_EQ(5, result.iExitCode);
}

constexpr const char* kPrintSignals = "exec /bin/sed -nE '/^Sig(Blk|Ign|Cgt)/p' /proc/self/status";
constexpr const char* kNoSignals = "SigBlk:\t0000000000000000\n"
                                   "SigIgn:\t0000000000000000\n"
                                   "SigCgt:\t0000000000000000\n";

TEST_F(AProcess, GivesItsProgramFreshSignals)
{
    const ChildResult result = RunInChild([this] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        for (const int iSignal : {SIGHUP, SIGPIPE, SIGCHLD, SIGRTMAX}) {
            signal(iSignal, SIG_IGN);
        }
        m_Process.Start(kPrintSignals);
        int iStatus = 0;
        waitpid(m_Process.iGetPID(), &iStatus, 0);
        return 0;
    });
    EXPECT_EQ(kNoSignals, result.szOutput);
}

TEST_F(AProcess, GivesAProgramOfAThreadFreshSignals)
{
    std::string szSignals;
    CLibraryThread thread([&] { szSignals = szRun(kPrintSignals); });
    thread.Run();
    EXPECT_EQ(kNoSignals, szSignals);
}

TEST_F(AProcess, StopsAProgramThatHasHardlyStarted)
{
    std::atomic<int> nHandled{0};
    static std::atomic<int>* s_pnHandled = &nHandled;
    signal(SIGTERM, [](int) { ++*s_pnHandled; });
    for (int i = 0; i < 200; ++i) {
        m_Process.Start(kForEver);
        const pid_t pid = m_Process.iGetPID();
        ASSERT_EQ(0, m_Process.iStop(false));
        int iStatus = 0;
        ASSERT_TRUE(bAwait([&] { return waitpid(pid, &iStatus, WNOHANG) == pid; })) << i;
        EXPECT_EQ(SIGTERM, iStatus);
    }
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(0, nHandled);
}

TEST_F(AProcess, EndsWith127WhenItsProgramCannotBeRun)
{
    m_Process.iCreateProcess(false, nullptr, "/no/such/program", nullptr, nullptr, nullptr, nullptr,
                             nullptr);
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(127, m_Process.iGetLastExitCode());
    EXPECT_EQ(127 << 8, m_Process.iStatus());
}

TEST_F(AProcess, DoesNotEndLikeThisProcessWhenItsProgramCannotBeRun)
{
    const ChildResult result = RunInChild([this] {
        std::printf("buffered;");
        std::atexit([] { std::printf("handler;"); });
        m_Process.iCreateProcess(false, nullptr, "/no/such/program", nullptr, nullptr, nullptr,
                                 nullptr, nullptr);
        m_Process.iWaitForExit(20);
        std::printf("code %d;", m_Process.iGetLastExitCode());
        return 0;
    });
    EXPECT_EQ(kExitFlushes ? "buffered;buffered;code 127;" : "buffered;code 127;", result.szOutput);
}

TEST_F(AProcess, ReportsAForkThatFailed)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    const ChildResult result = RunInChild([this] {
        syslog(LOG_DEBUG, "connected"); // while it may
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        CPipe in;
        CPipe out;
        m_Process.SetLastExitCode(3);
        m_Process.Start("true", &in, &out);
        const bool bClosed = in.hReadHandle() == -1 && out.hWriteHandle() == -1;
        return bClosed && m_Process.iGetPID() == -1 && m_Process.iGetLastExitCode() == -1 &&
                       CProcess::iCmdSystem("/bin/true", 0, true) == -1 &&
                       CProcess::iCmdSystem("/bin/true", 0, false) == -1
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot fork process"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot fork process for /bin/true"));
    EXPECT_EQ("fork: Resource temporarily unavailable\nfork: Resource temporarily unavailable\n",
              result.szErrors);
}

TEST_F(AProcess, StartsWhileOtherThreadsLogAndAllocate)
{
    const int nStarts = nRounds(100);
    const ChildResult result = RunInChild([this, nStarts] {
        std::atomic<bool> bRun{true};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&bRun] {
                const CLoggedThread logged;
                while (bRun) {
                    QUORCORE_LOG(LOG_INFO, "%s", std::string(200, 'x').c_str());
                    CThread::m_Logger.strerrorT(EINVAL);
                }
            });
        }
        int nRight = 0;
        for (int i = 0; i < nStarts; ++i) {
            m_Process.Start("exit 6", nullptr, nullptr, nullptr, "/no/such"); // logs in the child
            m_Process.iWaitForExit(10);
            nRight += m_Process.iGetLastExitCode() == 6 ? 1 : 0;
        }
        bRun = false;
        for (std::thread& thread : threads) {
            thread.join();
        }
        return nRight;
    });
    EXPECT_EQ(nStarts, result.iExitCode);
}

/// One way in which a program ends, and what is made of it.
struct end_t {
    int iStatus;
    int iExitCode;
    const char* pszLine; ///< Begins the line, which names label and pid next.
    const char* pszRest;
};

class AnEndOfAProcess : public AProcess, public ::testing::WithParamInterface<end_t>
{
};

TEST_P(AnEndOfAProcess, IsDecodedAndLogged)
{
    const end_t& end = GetParam();
    m_Process.SetPid(5000000);
    m_Process.SetLastExitCode(99);
    m_Process.OnLost(end.iStatus);
    EXPECT_EQ(end.iExitCode, m_Process.iGetLastExitCode());
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_TRUE(
        bAwaitLogged(LOG_INFO, std::string(end.pszLine) + "watched - 5000000" + end.pszRest));
}

INSTANTIATE_TEST_SUITE_P(
    Every, AnEndOfAProcess,
    ::testing::Values(end_t{0, 0, "Child ended normally: ", " | exit code = 0"},
                      end_t{7 << 8, 7, "Child ended normally: ", " | exit code = 7"},
                      end_t{255 << 8, 255, "Child ended normally: ", " | exit code = 255"},
                      end_t{SIGKILL, -1, "Child ended because of an uncaught signal : ", ""},
                      end_t{SIGSEGV | 0x80, -1, "Child ended because of an uncaught signal : ", ""},
                      end_t{SIGSTOP << 8 | 0x7f, 0, "Child process has stopped : ", ""},
                      end_t{0xffff, -1, ": process ", ""}));

TEST_F(AProcess, KnowsTheExitCodeOfItsProgram)
{
    m_Process.Start("exit 42");
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(42, m_Process.iGetLastExitCode());
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_EQ(1, m_Process.nLosts());
    EXPECT_EQ(42 << 8, m_Process.iStatus());
}

TEST_F(AProcess, HasNoExitCodeForAProgramThatWasKilled)
{
    m_Process.Start("kill -KILL $$");
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(-1, m_Process.iGetLastExitCode());
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_EQ(1, m_Process.nLosts());
}

TEST_F(AProcess, ForgetsTheExitCodeWhenItStartsAgain)
{
    szRun("exit 3");
    EXPECT_EQ(3, m_Process.iGetLastExitCode());
    m_Process.Start(kForEver);
    EXPECT_EQ(-1, m_Process.iGetLastExitCode());
    m_Process.iStop(true);
}

TEST_F(AProcess, TakesAProgramThatHasStoppedForLost)
{
    CPipe out;
    m_Process.Start("echo $$; kill -STOP $$", nullptr, &out);
    char aPid[16] = {}; // the object may have forgotten it by the time that the start returns
    ASSERT_GT(out.iReadBytes(aPid, sizeof(aPid) - 1), 0);
    const pid_t pid = std::stoi(aPid);
    ASSERT_TRUE(bAwait([this] { return !m_Process.bIsRunning(nullptr, 0); }));
    EXPECT_EQ(0, m_Process.iGetLastExitCode());
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_TRUE(
        bAwaitLogged(LOG_INFO, "Child process has stopped : watched - " + std::to_string(pid)));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

/// Collects the messages about the ends of processes, on the dispatcher's thread.
class AnObservedProcess : public AProcess
{
protected:
    using ends_t = std::vector<std::pair<int32_t, int32_t>>;

    void SetUp() override
    {
        AProcess::SetUp();
        m_Dispatcher.pAddCallback(EVT_PROCESS_STOPPED, new CSlotCallback<AnObservedProcess>(
                                                           this, &AnObservedProcess::OnEnd));
        m_Process.SetEventManager(&m_Dispatcher, nullptr);
        ASSERT_EQ(0, m_Dispatcher.iCreateThread(true, kAwaitLimitMs));
    }
    void TearDown() override
    {
        m_Dispatcher.iStop(true, false);
        AProcess::TearDown();
    }

    void OnEnd(CMsg* pMsg)
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        EXPECT_EQ(&m_Process, pMsg->m_pOrigin);
        EXPECT_EQ(0U, pMsg->m_iDataSize);
        EXPECT_EQ(0U, pMsg->m_iPriority);
        m_Ends.emplace_back(pMsg->m_iParam1, pMsg->m_iParam2);
    }

    ends_t AwaitEnds(size_t nEnds)
    {
        const auto ends = [this] {
            const std::lock_guard<std::mutex> held(m_Lock);
            return m_Ends;
        };
        EXPECT_TRUE(bAwait([&] { return ends().size() >= nEnds; }));
        return ends();
    }

    CSlotCallbackManager m_Dispatcher{nullptr, "dispatcher"};
    std::mutex m_Lock;
    ends_t m_Ends; ///< Guarded by m_Lock.
};

TEST_F(AnObservedProcess, PostsAnEndWithPidAndStatus)
{
    m_Process.Start("exit 9");
    const pid_t pid = m_Process.iGetPID();
    m_Process.iWaitForExit(20);
    if (pid != -1) { // it had not ended before the start had returned
        EXPECT_EQ((ends_t{{pid, 9 << 8}}), AwaitEnds(1));
    } else {
        EXPECT_EQ(9 << 8, AwaitEnds(1)[0].second);
    }
}

TEST_F(AnObservedProcess, PostsItsLossAndItsStop)
{
    m_Process.Start(kForEver);
    const pid_t pid = m_Process.iGetPID();
    EXPECT_EQ(0, m_Process.iStop(true));
    EXPECT_EQ((ends_t{{pid, SIGTERM}, {0, 0}}), AwaitEnds(2));
    EXPECT_EQ(1, m_Process.nLosts());
    EXPECT_EQ(1, m_Process.nStops());
    EXPECT_EQ(-1, m_Process.iGetLastExitCode());
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, ": process watched - -1"));
}

TEST_F(AnObservedProcess, PostsAStopThatIsNotWaitedFor)
{
    m_Process.Start(kForEver);
    const pid_t pid = m_Process.iGetPID();
    EXPECT_EQ(0, m_Process.iStop(false));
    EXPECT_EQ((ends_t{{0, 0}}), AwaitEnds(1));
    EXPECT_EQ(0, m_Process.nLosts());
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, ": process watched - " + std::to_string(pid)));
    int iStatus = 0;
    EXPECT_EQ(pid, waitpid(pid, &iStatus, 0));
    EXPECT_EQ(SIGTERM, iStatus);
}

/// Is started again by the slot that hears of its end, before the end has been reported in full.
class CRestartedProcess : public CWatchedProcess
{
public:
    long iPostMessage(uint32_t iEventId, uint32_t iParam1, uint32_t iParam2, void* pData,
                      uint32_t iDataSize, int iPriority) override
    {
        const long lResult =
            CProcess::iPostMessage(iEventId, iParam1, iParam2, pData, iDataSize, iPriority);
        EXPECT_TRUE(bAwait([this] { return m_bRestarted.load(); }));
        return lResult;
    }
    void OnEnd(CMsg*)
    {
        Start(kForEver);
        m_bRestarted = true;
    }
    void Arm() { m_bRestarted = false; }

private:
    std::atomic<bool> m_bRestarted{false};
};

TEST_F(AProcess, KeepsTheProgramThatASlotStartsAfterAnEnd)
{
    CSlotCallbackManager dispatcher(nullptr, "dispatcher");
    CRestartedProcess process;
    dispatcher.pAddCallback(EVT_PROCESS_STOPPED, new CSlotCallback<CRestartedProcess>(
                                                     &process, &CRestartedProcess::OnEnd));
    process.SetEventManager(&dispatcher, nullptr);
    dispatcher.iCreateThread(true, kAwaitLimitMs);
    for (const auto& end : {std::function<void()>([&] { process.OnLost(SIGKILL); }),
                            std::function<void()>([&] { process.OnStop(); })}) {
        process.Start(kForEver);
        const pid_t first = process.iGetPID();
        ASSERT_GT(first, 0);
        kill(first, SIGKILL);
        waitpid(first, nullptr, 0);
        process.Arm();
        end();
        const pid_t second = process.iGetPID();
        EXPECT_GT(second, 0);
        EXPECT_NE(first, second);
        process.CObject::SetEventManager(nullptr, nullptr);
        EXPECT_EQ(0, process.iStop(true));
        EXPECT_EQ(-1, process.iGetLastExitCode());
        process.SetEventManager(&dispatcher, nullptr);
    }
    dispatcher.iStop(true, false);
}

/// Asks for its state while its end is being reported.
class CAskingProcess : public CWatchedProcess
{
public:
    void OnLost(int iStatus) override
    {
        EXPECT_FALSE(bIsRunning(nullptr, 0));
        CWatchedProcess::OnLost(iStatus);
    }
};

TEST_F(AProcess, ReportsAnEndOnceToWhoAsksMeanwhile)
{
    CAskingProcess process;
    process.Start("exit 4");
    EXPECT_EQ(0, process.iWaitForExit(20));
    EXPECT_EQ(1, process.nLosts());
    EXPECT_EQ(4, process.iGetLastExitCode());
}

TEST_F(AProcess, GivesUpAProgramThatIgnoresTheStop)
{
    CPipe out;
    m_Process.Start("trap '' TERM; echo ready; exec sleep 1000", nullptr, &out);
    char aReady[6] = {};
    ASSERT_EQ(6, out.iReadBytes(aReady, sizeof(aReady)));
    const pid_t pid = m_Process.iGetPID();
    ASSERT_GT(pid, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, m_Process.iStop(true));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5900));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot wait for process " + std::to_string(pid)));
    EXPECT_EQ(0, m_Process.nLosts());
    EXPECT_EQ(1, m_Process.nStops());
    EXPECT_EQ(-1, m_Process.iGetPID());
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(AProcess, TellsThatItMayNotStopAProgram)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    CWatchedProcess ofRoot;
    ofRoot.Start(kForEver);
    const ChildResult result = RunInChild([&] {
        if (setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        m_Process.SetPid(ofRoot.iGetPID());
        return m_Process.iStop(false) == -1 && errno == EPERM && m_Process.nStops() == 1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_TRUE(ofRoot.bIsRunning(nullptr, 0));
    ofRoot.iStop(true);
}

TEST_F(AProcess, NeverSignalsGroupsOfProcesses)
{
    if (!bCanFilterCalls()) {
        GTEST_SKIP() << "no filters for system calls here";
    }
    const ChildResult result = RunInChild([this] {
        ForbidCall(SYS_kill, 0, 0);
        ForbidCall(SYS_kill, 0x80000000U, 0xffffffffU);
        for (const pid_t pid : {0, -1, -2, -4711}) {
            m_Process.SetPid(pid);
            m_Process.iStop(false);
            m_Process.iStop(true);
            m_Process.bIsRunning(nullptr, 2);
        }
        return m_Process.nStops() + m_Process.nLosts();
    });
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AProcess, TellsWhetherItRuns)
{
    CPipe in;
    m_Process.Start("read line; exit 8", &in);
    const pid_t pid = m_Process.iGetPID();
    EXPECT_GT(pid, 0);
    EXPECT_TRUE(m_Process.bIsRunning(nullptr, 0));
    EXPECT_TRUE(m_Process.bIsRunning("any", 5));
    EXPECT_EQ(pid, m_Process.iGetPID());
    in.CloseWrite();
    ASSERT_TRUE(bAwait([this] { return !m_Process.bIsRunning(nullptr, 0); }));
    EXPECT_EQ(8, m_Process.iGetLastExitCode());
    EXPECT_FALSE(m_Process.bIsRunning(nullptr, 0));
    EXPECT_EQ(1, m_Process.nLosts());
}

TEST_F(AProcess, LosesAChildThatSomebodyElseCollected)
{
    m_Process.Start(kForEver);
    const pid_t pid = m_Process.iGetPID();
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_FALSE(m_Process.bIsRunning(nullptr, 3)); // the last of four attempts tells
    EXPECT_EQ(1U, m_Receiver.Count("waitpid error: watched - " + std::to_string(pid)));
    EXPECT_EQ(1, m_Process.nLosts());
    EXPECT_EQ(0, m_Process.iStatus());
    EXPECT_EQ(0, m_Process.iGetLastExitCode());
    EXPECT_EQ(-1, m_Process.iGetPID());
}

TEST_F(AProcess, WaitsAsLongAsItIsToldTo)
{
    m_Process.Start(kForEver);
    const std::string szPid = std::to_string(m_Process.iGetPID());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, m_Process.iWaitForExit(0));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot wait for process " + szPid));
    ASSERT_EQ(szPid, std::to_string(m_Process.iGetPID()));
    EXPECT_EQ(0, m_Process.iPostSignal(SIGKILL, 0, m_Process.iGetPID())); // takes one process only
    EXPECT_EQ(0, m_Process.iWaitForExit(UINT32_MAX));
}

TEST_F(AProcess, WaitsOnAfterASignal)
{
    struct sigaction action = {}; // without SA_RESTART
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    CPipe in;
    m_Process.Start("read line; exit 2", &in);
    std::atomic<bool> bDone{false};
    const pthread_t waiter = pthread_self();
    std::thread disturber([&] {
        for (int i = 0; i < 100; ++i) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        in.CloseWrite();
    });
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    disturber.join();
    EXPECT_EQ(2, m_Process.iGetLastExitCode());
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(AProcess, LeavesItsChildAloneWhenItIsDestroyed)
{
    pid_t pid = -1;
    {
        CProcess process(nullptr, "short-lived");
        std::string szSleep = "sleep";
        std::string szLong = "1000";
        std::vector<char*> argv = {szSleep.data(), szLong.data()};
        process.iCreateProcess(nullptr, argv, nullptr, nullptr, nullptr, nullptr);
        pid = process.iGetPID();
    }
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG));
    kill(pid, SIGKILL);
    EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
}

/// A process that has given itself a name, 15 characters at most, until it is destroyed.
class CNamedChild
{
public:
    explicit CNamedChild(const std::string& szName)
        : m_Child([szName] {
              prctl(PR_SET_NAME, szName.c_str());
              std::printf("named");
              std::fflush(stdout);
              pause();
              return 0;
          })
    {
        EXPECT_TRUE(m_Child.bAwaitOutput("named"));
    }
    pid_t iPid() const { return m_Child.iPid(); }

private:
    CChild m_Child;
};

/// A name that no other test has.
std::string szUniqueName(const std::string& szBegin)
{
    return szBegin + std::to_string(getpid() % 1000000);
}

TEST_F(AProcess, FindsAProgramByItsName)
{
    const std::string szName = szUniqueName("quor");
    EXPECT_EQ(-1, m_Process.iFindProcessId(szName.c_str(), false));
    const CNamedChild named(szName);
    EXPECT_EQ(named.iPid(), m_Process.iFindProcessId(szName.c_str(), false));
    EXPECT_EQ(-1, m_Process.iGetPID());
    EXPECT_EQ(named.iPid(), m_Process.iFindProcessId(szName.c_str(), true));
    EXPECT_EQ(named.iPid(), m_Process.iGetPID());
    EXPECT_EQ(-1, m_Process.iFindProcessId(szName.substr(1).c_str(), true));
    EXPECT_EQ(-1, m_Process.iFindProcessId((szName + "x").c_str(), true));
    EXPECT_EQ(-1, m_Process.iFindProcessId("", true));
    EXPECT_EQ(-1, m_Process.iFindProcessId(nullptr, true));
    EXPECT_EQ(named.iPid(), m_Process.iGetPID());
}

TEST_F(AProcess, FindsProgramsWithOddNames)
{
    for (const char* pszOdd : {"(q)", "q)", "(q", "q)(", "((", "q%s"}) {
        const std::string szName = pszOdd + szUniqueName("o") + pszOdd;
        const CNamedChild named(szName);
        const std::string szKept = szName.substr(0, 15); // what the kernel keeps
        EXPECT_EQ(named.iPid(), m_Process.iFindProcessId(szKept.c_str(), false)) << szName;
    }
}

TEST_F(AProcess, KnowsANameUpToItsFirstBlankOnly)
{
    const std::string szBegin = szUniqueName("b");
    const CNamedChild named(szBegin + " two");
    EXPECT_EQ(named.iPid(), m_Process.iFindProcessId(szBegin.c_str(), false));
    EXPECT_EQ(-1, m_Process.iFindProcessId((szBegin + " two").c_str(), false));
}

TEST_F(AProcess, AdoptsARunningChildByItsName)
{
    const std::string szName = szUniqueName("adopt");
    const CNamedChild named(szName);
    EXPECT_TRUE(m_Process.bIsRunning(szName.c_str(), 0));
    EXPECT_EQ(named.iPid(), m_Process.iGetPID());
    m_Process.SetPid(-1);
    EXPECT_FALSE(m_Process.bIsRunning("no such name", 3));
    EXPECT_EQ(0, m_Process.nLosts());
}

TEST_F(AProcess, TakesAnAdoptedStrangerForLost)
{
    const std::string szName = szUniqueName("strange");
    const CNamedChild stranger(szName);
    const ChildResult result = RunInChild([&] { // whose sibling it is
        const bool bRuns = m_Process.bIsRunning(szName.c_str(), 0);
        return !bRuns && m_Process.nLosts() == 1 && m_Process.iGetLastExitCode() == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_TRUE(
        bAwaitLogged(LOG_INFO, "waitpid error: watched - " + std::to_string(stranger.iPid())));
}

TEST_F(AProcess, StopsAProgramThatItHasAdopted)
{
    const std::string szName = szUniqueName("stop");
    const CNamedChild named(szName);
    EXPECT_EQ(named.iPid(), m_Process.iFindProcessId(szName.c_str(), true));
    EXPECT_EQ(0, m_Process.iStop(true));
    EXPECT_EQ(SIGTERM, m_Process.iStatus());
}

TEST_F(AProcess, PostsASignalWithAValue)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGRTMIN + 1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    EXPECT_EQ(0, m_Process.iPostSignal(static_cast<uint32_t>(SIGRTMIN + 1), 0xfffffffeU, 0));
    siginfo_t info = {};
    EXPECT_EQ(SIGRTMIN + 1, sigwaitinfo(&set, &info));
    EXPECT_EQ(SI_QUEUE, info.si_code);
    EXPECT_EQ(-2, info.si_value.sival_int);
    EXPECT_EQ(getpid(), info.si_pid);
    if (sizeof(void*) > sizeof(int)) {
        EXPECT_EQ(0xfffffffeU, reinterpret_cast<uintptr_t>(info.si_value.sival_ptr));
    }
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

TEST_F(AProcess, PostsASignalToAnotherProcess)
{
    m_Process.Start(kForEver);
    EXPECT_EQ(0, m_Process.iPostSignal(SIGKILL, 1, m_Process.iGetPID()));
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(SIGKILL, m_Process.iStatus());
}

TEST_F(AProcess, LogsASignalThatCannotBePosted)
{
    EXPECT_EQ(-1, m_Process.iPostSignal(SIGUSR1, 0, -1));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, ":  No such process"));
    EXPECT_EQ(-1, m_Process.iPostSignal(9999, 0, 0));
    EXPECT_EQ(-1, m_Process.iPostSignal(UINT32_MAX, 0, 0));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, ":  Invalid argument"));
}

class ACommand : public AProcess
{
protected:
    /// A script that adds a line to a file, and how many there are.
    std::string szCounted(const std::string& szThen)
    {
        return "echo run >> " + m_Directory.szPath("runs") + "; " + szThen;
    }
    size_t nRuns() { return szReadFile(m_Directory.szPath("runs")).size() / std::strlen("run\n"); }

    const CTempDirectory m_Directory;
};

TEST_F(ACommand, ReturnsItsExitStatus)
{
    EXPECT_EQ(0, CProcess::iCmdSystem("true", 0, true));
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "command true exited, ret = 0"));
    EXPECT_EQ(255, CProcess::iCmdSystem("exit 255", 0, true));
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "command exit 255 exited, ret = 255"));
    EXPECT_EQ(127, CProcess::iCmdSystem("/no/such/program 2> /dev/null", 0, true));
}

TEST_F(ACommand, IsRunAgainWhenItFails)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(3, CProcess::iCmdSystem(szCounted("exit 3").c_str(), 2, true));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(3U, nRuns());
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1000 + kAwaitLimitMs));
}

TEST_F(ACommand, IsRunOnceWhenItSucceedsOrMayNotBeRepeated)
{
    EXPECT_EQ(0, CProcess::iCmdSystem(szCounted("exit 0").c_str(), 5, true));
    EXPECT_EQ(1U, nRuns());
    EXPECT_EQ(3, CProcess::iCmdSystem(szCounted("exit 3").c_str(), 0, true));
    EXPECT_EQ(3, CProcess::iCmdSystem(szCounted("exit 3").c_str(), -1, true));
    EXPECT_EQ(3U, nRuns());
}

TEST_F(ACommand, EndsItsRepetitionsWithTheFirstSuccess)
{
    const std::string szScript =
        szCounted("test $(/usr/bin/wc -l < ") + m_Directory.szPath("runs") + ") -ge 2";
    EXPECT_EQ(0, CProcess::iCmdSystem(szScript.c_str(), 5, true));
    EXPECT_EQ(2U, nRuns());
}

TEST_F(ACommand, FailsWhenItIsKilled)
{
    EXPECT_EQ(-1, CProcess::iCmdSystem("kill -TERM $$", 0, true));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "command kill -TERM $$ interrupted, sig = 15"));
}

TEST_F(ACommand, ReturnsZeroAtOnceWhenItIsNotWaitedFor)
{
    EXPECT_EQ(0, CProcess::iCmdSystem(szCounted("exit 3").c_str(), 5, false));
    ASSERT_TRUE(bAwait(
        [this] { return std::filesystem::exists(m_Directory.szPath("runs")) && nRuns() == 1; }));
    int iStatus = 0;
    EXPECT_GT(waitpid(-1, &iStatus, 0), 0); // left to a reaper
    EXPECT_EQ(3 << 8, iStatus);
    EXPECT_EQ(1U, nRuns());
}

TEST_F(ACommand, HasNoEnvironment)
{
    const CVariable variable("QUORCORE_SEEN", "yes");
    const std::string szFile = m_Directory.szPath("environment");
    EXPECT_EQ(0, CProcess::iCmdSystem(
                     ("/usr/bin/tr '\\0' '\\n' < /proc/$$/environ > " + szFile).c_str(), 0, true));
    EXPECT_EQ("", szReadFile(szFile));
}

TEST_F(ACommand, HasNoSignalBlockedAndNoneHandled)
{
    const std::string szFile = m_Directory.szPath("signals");
    CLibraryThread thread([&] {
        CProcess::iCmdSystem((std::string(kPrintSignals) + " > " + szFile).c_str(), 0, true);
    });
    thread.Run();
    EXPECT_EQ(kNoSignals, szReadFile(szFile));
}

TEST_F(ACommand, InheritsNoDescriptorOfAPipe)
{
    const CPipe pipe;
    const std::string szEnd = "/proc/$$/fd/" + std::to_string(pipe.hWriteHandle());
    EXPECT_EQ(0, CProcess::iCmdSystem("test -e /proc/$$/fd/2", 0, true));
    EXPECT_EQ(1, CProcess::iCmdSystem(("test -e " + szEnd).c_str(), 0, true));
}

TEST_F(ACommand, FailsWithoutAShell)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to change the root directory";
    }
    const ChildResult result = RunInChild([this] {
        std::printf("buffered;");
        std::atexit([] { std::printf("handler;"); });
        QUORCORE_LOG(LOG_INFO, "connected");
        if (chroot(m_Directory.szPath().c_str()) != 0) {
            return 2;
        }
        return CProcess::iCmdSystem("true", 0, true);
    });
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_EQ(kExitFlushes ? "buffered;buffered;" : "buffered;", result.szOutput);
    EXPECT_EQ("execve: No such file or directory\n", result.szErrors);
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Cannot execve process for true"));
}

TEST_F(ACommand, FailsWhenItsStatusIsNotKept)
{
    const ChildResult result = RunInChild([] {
        signal(SIGCHLD, SIG_IGN); // the kernel forgets ended children
        return CProcess::iCmdSystem("true", 0, true) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "waitpid() failed: 10"));
}

TEST_F(ACommand, IsWaitedForInSpiteOfSignals)
{
    struct sigaction action = {}; // without SA_RESTART
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const pthread_t waiter = pthread_self();
    std::atomic<bool> bRun{true};
    std::thread disturber([&] {
        while (bRun) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(4, CProcess::iCmdSystem("/bin/sleep 0.1; exit 4", 0, true));
    bRun = false;
    disturber.join();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(ACommand, IsNotRunWithoutAText)
{
    EXPECT_EQ(-1, CProcess::iCmdSystem(nullptr, 3, true));
    EXPECT_TRUE(m_Receiver.Records().empty());
}
} // namespace
