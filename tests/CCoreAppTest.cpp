#include "libQuorCore/CCoreApp.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CTestApp.h"
#include "support/CWatchedProcess.h"
#include "support/CallFilter.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/ProcessFacts.h"
#include "support/Signals.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uid_t kNobody = 65534; // its group, "nogroup", has the same number
constexpr const char* kForEver = "exec sleep 1000";

class ACoreApp : public CAppTest
{
};

// The command line.

TEST_F(ACoreApp, PrintsItsUsageWithCarriageReturnsAndEnds)
{
    const std::string szUsage = "USAGE: program --daemon\r\nUSAGE: program --version\r\n";
    const std::vector<std::vector<std::string>> lines = {
        {"--help"},
        {"--daemon", "--help"},
        {"--lib-quorcore-version", "--help"},
        {"x", "--daemon", "y", "--help"},
    };
    for (const std::vector<std::string>& line : lines) {
        const ChildResult result = RunInChild([&] {
            const CTestApp app(line);
            return 99;
        });
        EXPECT_EQ(0, result.iExitCode);
        EXPECT_EQ(szUsage, result.szOutput);
        EXPECT_EQ("", result.szErrors);
    }
}

TEST_F(ACoreApp, DoesNotForkToPrintItsUsage)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer forks to look for leaks at exit";
#endif
    if (!bCanFilterCalls()) {
        GTEST_SKIP() << "no filters for system calls here";
    }
    const ChildResult result = RunInChild([&] {
        RefuseCall(SYS_clone, EPERM);
        ForbidCall(SYS_clone, 0, UINT32_MAX);
        const CTestApp app({"--help", "--daemon"});
        return 99;
    });
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ACoreApp, PrintsTheVersionOfTheLibraryWithoutALineFeedAndEnds)
{
    for (const std::vector<std::string>& line : {std::vector<std::string>{"--lib-quorcore-version"},
                                                 {"--daemon", "--lib-quorcore-version"}}) {
        const ChildResult result = RunInChild([&] {
            const CTestApp app(line);
            return 99;
        });
        EXPECT_EQ(0, result.iExitCode);
        EXPECT_EQ("2.3", result.szOutput);
    }
}

TEST_F(ACoreApp, LeavesOtherOptionsToTheApplication)
{
    const ChildResult result = RunInChild([] {
        const CTestApp version({"--version"});
        const CTestApp similar({"--helpful", "-help", "--HELP", "--daemon=1"});
        return similar.bIsRunningAsDaemon() ? 1 : 42;
    });
    EXPECT_EQ(42, result.iExitCode);
    EXPECT_EQ("", result.szOutput);
}

TEST_F(ACoreApp, IsConstructedWithItsParts)
{
    CObject parent(nullptr, "parent");
    std::string szProgram = "--daemon"; // the program's own name is no option
    char* argv[] = {szProgram.data(), nullptr};
    CCoreApp app(&parent, 1, argv);
    EXPECT_EQ("CCoreApp", app.szGetLabel());
    EXPECT_EQ(&parent, app.pGetParent());
    EXPECT_FALSE(app.bIsRunningAsDaemon());
    EXPECT_EQ("CCallbackManager", app.m_callbackManager.szGetLabel());
    EXPECT_EQ(&app, app.m_callbackManager.pGetParent());
    EXPECT_EQ("CFileNotification", app.m_fileNotification.szGetLabel());
    EXPECT_EQ(&app, app.m_fileNotification.pGetParent());
    EXPECT_EQ("CCallbackManager", CCoreApp::m_ProcessManager.szGetLabel()); // the same: meant
    EXPECT_EQ(nullptr, CCoreApp::m_ProcessManager.pGetParent());
    const CTestApp empty;
    EXPECT_EQ("", empty.szUser());
    EXPECT_EQ("", empty.szGroup());
}

TEST_F(ACoreApp, FindsAnArgument)
{
    CTestApp app({"--one", "two", "", "--daemon"});
    EXPECT_TRUE(app.bIsRunningAsDaemon());
    EXPECT_TRUE(app.bRunAsDaemon(app.iArgc(), app.argv()));
    EXPECT_FALSE(app.bRunAsDaemon(app.iArgc() - 1, app.argv()));
    for (const char* pszThere : {"--one", "two", ""}) {
        EXPECT_TRUE(app.bIsParamArguments(app.iArgc(), app.argv(), pszThere));
    }
    for (const char* pszNot : {"--on", "--one ", "program", "TWO"}) {
        EXPECT_FALSE(app.bIsParamArguments(app.iArgc(), app.argv(), pszNot));
    }
    EXPECT_FALSE(app.bIsParamArguments(0, nullptr, "--one"));
}

TEST_F(ACoreApp, ReadsTheNumberAfterTheLastMatch)
{
    CTestApp app({"--port", "80", "--port", "-443x", "--word", "x", "--port"});
    const auto iGet = [&](const char* pszName) {
        return app.iGetParamArguments(app.iArgc(), app.argv(), pszName, 7);
    };
    EXPECT_EQ(-443, iGet("--port")); // the last one has no value and does not count
    EXPECT_EQ(0, iGet("--word"));
    EXPECT_EQ(7, iGet("--none"));
    EXPECT_EQ(0, iGet("80")); // "--port" as a number
    EXPECT_EQ(7, iGet("program"));
    EXPECT_EQ(7, app.iGetParamArguments(2, app.argv(), "--port", 7)); // in the last position
    EXPECT_EQ(7, app.iGetParamArguments(0, nullptr, "--port", 7));
}

TEST_F(ACoreApp, FindsTheTextAfterTheFirstMatch)
{
    CTestApp app({"--name", "first", "--name", "second", "--last"});
    const auto szGet = [&](const char* pszName) {
        return app.szGetParamArguments(app.iArgc(), app.argv(), pszName);
    };
    EXPECT_EQ(app.argv()[2], szGet("--name")); // the very text of the command line
    EXPECT_STREQ("--last", szGet("second"));
    EXPECT_EQ(nullptr, szGet("--last"));
    EXPECT_EQ(nullptr, szGet("--none"));
    EXPECT_EQ(nullptr, app.szGetParamArguments(0, nullptr, "--name"));
}

// Start and end.

TEST_F(ACoreApp, StartsAndEnds)
{
    WriteFile(m_szConfig, "known=1\n");
    CTestApp app({}, m_szConfig);
    EXPECT_EQ(0, app.iInitInstance());
    EXPECT_EQ(1, app.m_FileConfig.iGetParameter("known", 0));
    EXPECT_EQ(2, app.m_FileConfig.iGetParameter("added", 2));
    EXPECT_EQ(0, app.iInitCallback());
    EXPECT_EQ(0, app.iExitInstance());
    EXPECT_EQ("added=2\nknown=1\n", szReadFile(m_szConfig));
}

TEST_F(ACoreApp, PublishesItsDispatcher)
{
    CTestApp app({}, m_szConfig);
    EXPECT_EQ(-5, app.iPostMessage(77, 0, 0, nullptr, 0, 0));
    ASSERT_EQ(0, app.iInitInstance());
    EXPECT_EQ(0, app.iPostMessage(77, 0, 0, nullptr, 0, 0));
    EXPECT_TRUE(app.m_callbackManager.bIsQueued(&app, 77));
}

TEST_F(ACoreApp, LogsUnderItsLabelFromItsStartToItsEnd)
{
    CTestApp app({}, m_szConfig);
    const auto szLabel = [] {
        const char* pszLabel = "none";
        int iLevel = 0;
        CThread::m_Logger.bGetLogConfigForThread(pszLabel, iLevel);
        return std::string(pszLabel);
    };
    app.iInitInstance();
    EXPECT_EQ("CCoreApp", szLabel());
    app.iExitInstance();
    EXPECT_EQ("none", szLabel());
}

TEST_F(ACoreApp, HandlesItsSignalsToItsEnd)
{
    const int aSignals[] = {SIGCHLD, SIGTERM, SIGQUIT, SIGRTMIN + 6};
    {
        CTestApp app({}, m_szConfig);
        app.iInitInstance();
        for (const int iSignal : aSignals) {
            EXPECT_NE(SIG_DFL, Disposition(iSignal)) << iSignal;
        }
        struct sigaction action = {};
        sigaction(SIGCHLD, nullptr, &action);
        EXPECT_EQ(0, action.sa_flags & (SA_RESTART | SA_NOCLDSTOP | SA_SIGINFO));
    }
    for (const int iSignal : aSignals) {
        EXPECT_EQ(SIG_DFL, Disposition(iSignal)) << iSignal;
    }
}

TEST_F(ACoreApp, LeavesTheDaemonsOwnHandlersAlone)
{
    const handler_t own = [](int) {};
    signal(SIGCHLD, own);
    signal(SIGTERM, own);
    {
        CTestApp app({}, m_szConfig);
        app.iInitInstance();
        EXPECT_NE(own, Disposition(SIGCHLD));
        EXPECT_EQ(own, Disposition(SIGTERM));
    }
    EXPECT_EQ(own, Disposition(SIGCHLD));
    EXPECT_EQ(own, Disposition(SIGTERM));
    signal(SIGCHLD, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
}

TEST_F(ACoreApp, LeavesNothingBehind)
{
    const auto live = [this] {
        CTestApp app({}, m_szConfig);
        app.iInitInstance();
        app.iInitCallback();
        app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
        CProcess::iCmdSystem("true", 0, true);
        app.m_callbackManager.iStop(true, false);
        app.iExitInstance();
    };
    live();
    const size_t nDescriptors = nOpenDescriptors();
    const size_t nThreadsBefore = nThreads();
    live();
    EXPECT_EQ(nDescriptors, nOpenDescriptors());
    EXPECT_TRUE(bAwait([=] { return nThreads() == nThreadsBefore; }));
}

TEST_F(ACoreApp, GivesCommandsNoDescriptor)
{
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    app.m_fileNotification.iCreateThread(true, kAwaitLimitMs);
    app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
    const std::string szFile = m_Directory.szPath("descriptors");
    // The shell gets what this process had from the start, and no more.
    EXPECT_EQ(0, CProcess::iCmdSystem(("/bin/ls -l /proc/$$/fd > " + szFile).c_str(), 0, true));
    const std::string szListed = szReadFile(szFile);
    EXPECT_EQ(std::string::npos, szListed.find("inotify"));
    EXPECT_EQ(std::string::npos, szListed.find("event"));
    app.m_fileNotification.iStop(true, false);
}

TEST_F(ACoreApp, StopsAllChildrenAtItsEnd)
{
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    std::array<CWatchedProcess, 3> processes;
    for (CWatchedProcess& process : processes) {
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
        process.Start(kForEver);
    }
    app.iExitInstance();
    for (const CWatchedProcess& process : processes) {
        EXPECT_EQ(-1, process.iGetPID());
        EXPECT_EQ(SIGTERM, process.iStatus());
        EXPECT_EQ(1, process.nLosts());
    }
}

TEST_F(ACoreApp, FailsToStartWithoutAReaperAndStaysStoppable)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    const ChildResult result = RunInChild([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        CTestApp app;
        const long lResult = app.iInitInstance();
        raise(SIGCHLD);
        sigset_t set;
        sigprocmask(SIG_SETMASK, nullptr, &set);
        return lResult == -3 && sigismember(&set, SIGTERM) == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ACoreApp, WaitsAsAThreadWhileItsRunFlagIsSet)
{
    CTestApp app({}, m_szConfig);
    EXPECT_EQ(0, app.iRunThread()); // does not set the flag itself
    app.SetRun(true);
    ASSERT_EQ(0, app.iCreateThread(false, 0));
    EXPECT_TRUE(bAwait([&] { return m_Receiver.Count("") == 0 && app.bIsStarted(); }));
    app.iStop(true, false);
    EXPECT_FALSE(app.bRun());
    EXPECT_FALSE(app.bIsRunning());
}

// Threads that start.

class AStartedThread : public ACoreApp
{
protected:
    class CLabelled : public CThread
    {
    public:
        explicit CLabelled(const char* pszLabel) : CThread(nullptr, pszLabel) {}
        ~CLabelled() override { iStop(true, false); }
        long iRunThread() override
        {
            m_bRun = true;
            while (m_bRun) {
                Sleep(1);
            }
            return 0;
        }
    };
};

TEST_F(AStartedThread, IsIgnoredWithoutAMessage)
{
    CTestApp app({}, m_szConfig);
    app.OnThreadStarted(nullptr);
    EXPECT_TRUE(m_Receiver.Records().empty());
}

TEST_F(AStartedThread, IsMissedWhereTheOriginIsNone)
{
    CTestApp app({}, m_szConfig);
    CMsg message;
    app.OnThreadStarted(&message);
    EXPECT_EQ(1U, m_Receiver.Count("Thread = NULL"));
    CObject object(nullptr, "object");
    message.m_pOrigin = &object;
    app.OnThreadStarted(&message);
    EXPECT_EQ(2U, m_Receiver.Count("Thread = NULL"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Thread = NULL"));
}

TEST_F(ACoreApp, AppliesTheConfiguredLevelToAThreadThatStarts)
{
    WriteFile(m_szConfig, "log_level_CCoreApp=7\nlog_level_chatty=6\n");
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    *app.piGetLogLevel() = LOG_DEBUG;
    CThread chatty(nullptr, "chatty");
    CMsg message;
    message.m_pOrigin = &chatty;
    app.OnThreadStarted(&message);
    EXPECT_EQ(6, *chatty.piGetLogLevel());
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, " : Thread : chatty - pid : 0x0 - log level : "));
}

TEST_F(ACoreApp, GivesAThreadWithoutALevelTheDefaultAndSavesIt)
{
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    CThread silent(nullptr, "silent");
    silent.SetLogLevel(LOG_DEBUG);
    CMsg message;
    message.m_pOrigin = &silent;
    app.OnThreadStarted(&message);
    EXPECT_EQ(LOG_ERR, *silent.piGetLogLevel());
    app.iExitInstance();
    EXPECT_EQ("log_level_silent=3\n", szReadFile(m_szConfig));
}

TEST_F(AStartedThread, GetsItsLevelThroughTheDispatcher)
{
    WriteFile(m_szConfig, "log_level_worker=5\n");
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    app.iInitCallback();
    app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
    CLabelled worker("worker");
    worker.iCreateThread(true, kAwaitLimitMs);
    EXPECT_TRUE(bAwait(
        [&] { return __atomic_load_n(worker.piGetLogLevel(), __ATOMIC_RELAXED) == LOG_NOTICE; }));
    worker.iStop(true, false);
    app.m_callbackManager.iStop(true, false);
}

TEST_F(AStartedThread, IsHandledByTheApplicationsOverride)
{
    class COverriding : public CTestApp
    {
    public:
        using CTestApp::CTestApp;
        void OnThreadStarted(CMsg*) override { m_bCalled = true; }
        std::atomic<bool> m_bCalled{false};
    };
    COverriding app({}, m_szConfig);
    app.iInitInstance();
    app.iInitCallback();
    app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
    EXPECT_TRUE(bAwait([&] { return app.m_bCalled.load(); })); // by the dispatcher's own start
    app.m_callbackManager.iStop(true, false);
}

TEST_F(AStartedThread, LeavesTheDispatcherAliveWhenItsLevelIsNoNumber)
{
    WriteFile(m_szConfig, "log_level_odd=chatty\n");
    CTestApp app({}, m_szConfig);
    app.iInitInstance();
    app.iInitCallback();
    app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
    CLabelled odd("odd");
    odd.iCreateThread(true, kAwaitLimitMs);
    CLabelled later("later");
    later.SetLogLevel(LOG_DEBUG);
    later.iCreateThread(true, kAwaitLimitMs);
    EXPECT_TRUE(bAwait(
        [&] { return __atomic_load_n(later.piGetLogLevel(), __ATOMIC_RELAXED) == LOG_ERR; }));
    odd.iStop(true, false);
    later.iStop(true, false);
    app.m_callbackManager.iStop(true, false);
}

// Static objects.

/// Uses the process manager and the logger before main() and after it.
class CStaticUser
{
public:
    CStaticUser()
    {
        CCoreApp::m_ProcessManager.AddNewProcess(&m_Process);
        QUORCORE_LOG(LOG_ERR, "too early to be seen");
        m_bListed = CCoreApp::m_ProcessManager.pGetProcess(-1) == &m_Process;
    }
    ~CStaticUser()
    {
        if (s_bTell) {
            QUORCORE_LOG(LOG_ERR, "static object goes");
            const bool bListed =
                m_bListed && CCoreApp::m_ProcessManager.pGetProcess(-1) == &m_Process;
            const bool bRun = CProcess::iCmdSystem("exit 3", 0, true) == 3;
            s_bTell = write(STDOUT_FILENO, bListed && bRun ? "right" : "wrong", 5) == 5;
        }
    }
    static bool s_bTell;

private:
    CProcess m_Process{nullptr, "static"};
    bool m_bListed = false;
};
bool CStaticUser::s_bTell = false;
CStaticUser g_staticUser;

TEST_F(ACoreApp, ServesStaticObjectsFromTheFirstLineToTheLast)
{
    const ChildResult result = RunInChild([]() -> int {
        CStaticUser::s_bTell = true;
        std::exit(42);
    });
    EXPECT_EQ(42, result.iExitCode);
    EXPECT_EQ("right", result.szOutput);
    EXPECT_EQ(1U, m_Receiver.Count("static object goes"));
}

TEST_F(ACoreApp, MayBeLeftByExitWhileChildrenEnd)
{
    for (int i = 0; i < 20; ++i) {
        const ChildResult result = RunInChild([]() -> int {
            auto* const pApp = new CTestApp; // never destroyed
            pApp->iInitInstance();
            static CWatchedProcess s_process;
            CCoreApp::m_ProcessManager.AddNewProcess(&s_process);
            s_process.Start("exit 0");
            for (int n = 0; n < 5; ++n) {
                CProcess::iCmdSystem("true", 0, false);
            }
            std::exit(42);
        });
        EXPECT_FALSE(result.bTimedOut);
        EXPECT_EQ(42, result.iExitCode) << result.szErrors;
    }
}
} // namespace
