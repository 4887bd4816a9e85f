#include "examples/ExampleProgram.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/Frames.h"

#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kLogPage = 17;
constexpr uint16_t kGreet = 1000;
constexpr uint16_t kNews = 1001;
constexpr pid_t kNobody = 65534;

class AHelloDaemon : public ::testing::Test
{
protected:
    ~AHelloDaemon() override
    {
        if (m_backgroundPid > 0) {
            kill(m_backgroundPid, SIGKILL);
            waitpid(m_backgroundPid, nullptr, 0);
        }
    }

    void Configure(const std::string& szText) const { WriteFile(m_szConfig, szText); }

    std::vector<std::string> CommandLine(const std::vector<std::string>& options = {}) const
    {
        std::vector<std::string> args = {HELLO_DAEMON, "--config", m_szConfig};
        args.insert(args.end(), options.begin(), options.end());
        return args;
    }

    // Returns when the daemon says that it is ready.
    void Start(const std::string& szConfiguration)
    {
        Configure(szConfiguration);
        m_pDaemon = std::make_unique<CChild>(Program(CommandLine()));
        AwaitReady();
        ASSERT_EQ(m_pDaemon->iPid(), m_pid);
    }

    // Returns when all of its threads have a place on the log page: they start side by side, and
    // their places change until the last is there.
    void StartWithAllThreads(const std::string& szMore = "")
    {
        ASSERT_NO_FATAL_FAILURE(Start("port=0\ntools_port=0\n" + szMore));
        const std::vector<std::string> ready = AwaitLog("ready for tools, port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        CTcpPeer tool;
        ASSERT_TRUE(tool.bConnect(std::stoi(ready[1])));
        for (const char* pszLabel :
             {"CCoreApp", "CCallbackManager", "hello_server", "hello_tools", "hello_supervisor"}) {
            ASSERT_TRUE(bAwait([&] {
                tool.bSend(FrameBytes(kLogPage));
                return ReceiveFrame(tool).szData.find(pszLabel) != std::string::npos;
            })) << pszLabel;
        }
    }

    // Runs it with --daemon; who forks it adopts it, so that its end can be awaited.
    void StartInBackground(const std::vector<std::string>& options)
    {
        ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
        const ChildResult result = RunProgram(CommandLine(options));
        ASSERT_EQ(0, result.iExitCode) << result.szErrors;
        AwaitReady();
        m_backgroundPid = m_pid;
    }

    void AwaitReady()
    {
        const std::vector<std::string> ready = AwaitLog("ready, pid ([0-9]+), port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        m_pid = std::stoi(ready[1]);
        m_iPort = std::stoi(ready[2]);
    }

    int iEnd()
    {
        m_pDaemon->Signal(SIGTERM);
        return m_pDaemon->Await().iExitCode;
    }

    // Passes over the pings that the daemon sends of its own accord.
    static Frame ReceiveAnswer(CTcpPeer& peer)
    {
        Frame frame = ReceiveFrame(peer);
        while (frame.bComplete && frame.iCommand == kPing) {
            frame = ReceiveFrame(peer);
        }
        return frame;
    }

    // The exit status; -1 if there is no daemon or it does not end.
    int iEndInBackground()
    {
        int iStatus = -1;
        if (m_backgroundPid <= 0 || kill(m_backgroundPid, SIGTERM) != 0) { // never kill(-1)
            return iStatus;
        }
        const bool bEnded =
            bAwait([&] { return waitpid(m_backgroundPid, &iStatus, WNOHANG) == m_backgroundPid; });
        if (bEnded) {
            m_backgroundPid = -1;
        }
        return iStatus;
    }

    ChildResult AskWithClient(const std::vector<std::string>& commands) const
    {
        const std::string szConfig = m_Directory.szPath("client.conf");
        WriteFile(szConfig, "port=" + std::to_string(m_iPort) + "\n");
        std::vector<std::string> args = {HELLO_CLIENT, "--config", szConfig};
        args.insert(args.end(), commands.begin(), commands.end());
        return RunProgram(args);
    }

    std::string szSaved() const { return szReadFile(m_szConfig); }

    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("daemon.conf");
    std::unique_ptr<CChild> m_pDaemon;
    CTcpPeer m_Peer;
    pid_t m_backgroundPid = -1;
    pid_t m_pid = -1;
    int m_iPort = -1;
};

TEST_F(AHelloDaemon, GreetsItsPeerByName)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGreet, "Ada")));
    const Frame answer = ReceiveAnswer(m_Peer);
    EXPECT_EQ(kGreet, answer.iCommand);
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ("hello, Ada", answer.szData);
}

TEST_F(AHelloDaemon, RefusesANameThatIsTooLong)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    for (const size_t nameBytes : {0, 65}) {
        ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGreet, std::string(nameBytes, 'x'))));
        const Frame answer = ReceiveAnswer(m_Peer);
        EXPECT_EQ(kGreet, answer.iCommand);
        EXPECT_EQ(1, answer.iError);
        EXPECT_EQ("", answer.szData);
    }
}

TEST_F(AHelloDaemon, PingsItsPeerInEveryPeriod)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\nmonitoring_period_s=1\n"));
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    EXPECT_EQ(kPing, ReceiveFrame(m_Peer).iCommand);
    EXPECT_EQ(kPing, ReceiveFrame(m_Peer).iCommand);
}

TEST_F(AHelloDaemon, EndsInOrderOnSigtermWithItsConfigurationSaved)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    EXPECT_EQ(0, iEnd());
    EXPECT_EQ("child=\n"
              "group=\n"
              "log_level_CCallbackManager=5\n"
              "log_level_CCoreApp=5\n"
              "log_level_hello_server=5\n"
              "log_level_hello_supervisor=3\n"
              "log_level_hello_tools=5\n"
              "monitoring_period_s=10\n"
              "port=0\n"
              "tools_path=\n"
              "tools_port=-1\n"
              "tree_directory=\n"
              "user=\n",
              szSaved());
}

TEST_F(AHelloDaemon, EndsInOrderWhileAPeerIsConnected)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    ASSERT_FALSE(AwaitLog("the peer has connected").empty());
    EXPECT_EQ(0, iEnd());
    EXPECT_FALSE(ReceiveAnswer(m_Peer).bComplete); // though there may be pings
    EXPECT_TRUE(m_Peer.bReceiveEof());
}

TEST_F(AHelloDaemon, AnswersEveryCommandOfItsClient)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    const ChildResult client =
        AskWithClient({"version", "pid", "name", "greet Ada", "echo 4096", "ping"});
    EXPECT_EQ(0, client.iExitCode);
    EXPECT_THAT(client.szOutput, StartsWith("connect: 127.0.0.1 port " + std::to_string(m_iPort) +
                                            "\nversion: 100 of hello_daemon"
                                            "\npid: " +
                                            std::to_string(m_pid) +
                                            "\nname: hello_daemon"
                                            "\ngreet: hello, Ada"
                                            "\necho: 4096 bytes came back unchanged"
                                            "\nping: answered within "));
}

TEST_F(AHelloDaemon, ShowsItsThreadsOnTheLogPage)
{
    ASSERT_NO_FATAL_FAILURE(StartWithAllThreads("log_level_hello_supervisor=4\n"));
    const ChildResult client = AskWithClient({"page"});
    EXPECT_EQ(0, client.iExitCode);
    for (const char* pszRow : {"; CCoreApp 5-notice", "; CCallbackManager 5-notice",
                               "; hello_server 5-notice", "; hello_supervisor 4-warning"}) {
        EXPECT_THAT(client.szOutput, HasSubstr(pszRow));
    }
}

TEST_F(AHelloDaemon, ChangesAThreadsLogLevelAtRunTimeAndSavesIt)
{
    ASSERT_NO_FATAL_FAILURE(StartWithAllThreads());
    const ChildResult client = AskWithClient({"greet Bob", "level hello_server 7", "greet Eve"});
    EXPECT_EQ(0, client.iExitCode) << client.szOutput;
    EXPECT_FALSE(AwaitLog("answered \"hello, Eve\"").empty());
    EXPECT_EQ(0U, CSyslogReceiver::Get().Count("hello, Bob"));
    EXPECT_FALSE(AwaitLog("configuration saved").empty());
    EXPECT_THAT(szSaved(), HasSubstr("log_level_hello_server=7\n"));
    EXPECT_EQ(0, iEnd());
    EXPECT_THAT(szSaved(), HasSubstr("log_level_hello_server=7\n"));
}

TEST_F(AHelloDaemon, TellsThatItsChildWasKilledAndReapsIt)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\nchild=sleep 600\n"));
    const std::vector<std::string> started = AwaitLog("child ([0-9]+) started: sleep 600");
    ASSERT_FALSE(started.empty());
    const pid_t child = std::stoi(started[1]);
    ASSERT_GT(child, 0);
    ASSERT_EQ(0, kill(child, SIGKILL));
    EXPECT_FALSE(AwaitLog("child " + started[1] + " was ended by signal 9").empty());
    EXPECT_EQ(-1, kill(child, 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(AHelloDaemon, TellsThatItsChildCouldNotBeStarted)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\nchild=/nowhere/program\n"));
    EXPECT_FALSE(AwaitLog("child [0-9]+ has ended with status 127").empty());
}

TEST_F(AHelloDaemon, StopsItsChildAtTheEnd)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\nchild=sleep 600\n"));
    const std::vector<std::string> started = AwaitLog("child ([0-9]+) started");
    ASSERT_FALSE(started.empty());
    EXPECT_EQ(0, iEnd());
    EXPECT_EQ(-1, kill(std::stoi(started[1]), 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(AHelloDaemon, RunsInTheBackground)
{
    Configure("port=0\n");
    ASSERT_NO_FATAL_FAILURE(StartInBackground({"--daemon"}));
    EXPECT_EQ(m_pid, getsid(m_pid));
    EXPECT_NE(getsid(0), getsid(m_pid));
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    EXPECT_EQ(0, iEndInBackground());
    EXPECT_THAT(szSaved(), HasSubstr("log_level_hello_server=5\n"));
}

TEST_F(AHelloDaemon, FindsARelativeConfigurationFileAlsoAsADaemon)
{
    Configure("port=0\nlog_level_hello_server=6\n");
    const std::string szDirectory = m_Directory.szPath();
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    const ChildResult result = RunProgram(
        {"/bin/sh", "-c",
         "cd " + szDirectory + " && exec " + HELLO_DAEMON + " --config daemon.conf --daemon"});
    ASSERT_EQ(0, result.iExitCode);
    ASSERT_NO_FATAL_FAILURE(AwaitReady());
    m_backgroundPid = m_pid;
    EXPECT_EQ(0, iEndInBackground());
    EXPECT_THAT(szSaved(), HasSubstr("monitoring_period_s=10\n"));
}

TEST_F(AHelloDaemon, BecomesAnUnprivilegedUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    Configure("port=0\nuser=nobody\ngroup=nogroup\n");
    ASSERT_EQ(0, chmod(m_Directory.szPath().c_str(), 0711));
    ASSERT_EQ(0, chown(m_szConfig.c_str(), kNobody, kNobody));
    // The leak checker traces its process, which the kernel refuses after a change of the user.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    ASSERT_NO_FATAL_FAILURE(StartInBackground({"--daemon"}));
    const std::string szStatus = szReadFile("/proc/" + std::to_string(m_pid) + "/status");
    EXPECT_THAT(szStatus, HasSubstr("\nUid:\t65534\t65534\t65534\t65534\n"));
    EXPECT_THAT(szStatus, HasSubstr("\nGid:\t65534\t65534\t65534\t65534\n"));
    EXPECT_THAT(szStatus, HasSubstr("\nCapEff:\t0000000000001020\n")); // KILL and NET_ADMIN
    EXPECT_EQ(0, iEndInBackground());
    EXPECT_THAT(szSaved(), HasSubstr("log_level_hello_server=5\n"));
}

TEST_F(AHelloDaemon, StartsOnAFileThatIsMostlyGarbage)
{
    std::string szGarbage;
    for (int i = 0; i < 4096; ++i) {
        szGarbage.push_back(static_cast<char>(i * 7 % 251));
    }
    ASSERT_NO_FATAL_FAILURE(Start(szGarbage + "\nport=0\n"));
    EXPECT_EQ(0, iEnd());
}

TEST_F(AHelloDaemon, WaitsForAPortThatIsTaken)
{
    m_Peer.Listen(iFreePort()); // which nobody else takes before the daemon does
    const std::string szPort = std::to_string(m_Peer.iPort());
    Configure("port=" + szPort + "\n");
    m_pDaemon = std::make_unique<CChild>(Program(CommandLine()));
    EXPECT_FALSE(AwaitLog("not ready: port " + szPort + " cannot be had").empty());
    m_Peer.StopListening();
    ASSERT_NO_FATAL_FAILURE(AwaitReady());
    EXPECT_EQ(szPort, std::to_string(m_iPort));
    EXPECT_EQ(0, iEnd());
}

TEST_F(AHelloDaemon, EndsInOrderWhileItsPortIsTaken)
{
    m_Peer.Listen();
    Configure("port=" + std::to_string(m_Peer.iPort()) + "\n");
    m_pDaemon = std::make_unique<CChild>(Program(CommandLine()));
    ASSERT_FALSE(AwaitLog("not ready: port [0-9]+ cannot be had").empty());
    EXPECT_EQ(0, iEnd());
}

TEST_F(AHelloDaemon, AnswersForItsVersion)
{
    const ChildResult result = RunProgram({HELLO_DAEMON, "--version"});
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("hello_daemon 1.00\n", result.szOutput);
}

/// A line of the configuration that cannot be used, and what the log says about it.
TEST_F(AHelloDaemon, ServesToolsWhileItsPeerIsConnected)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\ntools_port=0\n"));
    const std::vector<std::string> ready = AwaitLog("ready for tools, port ([0-9]+)");
    ASSERT_FALSE(ready.empty());
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    CTcpPeer tools[3];
    for (CTcpPeer& tool : tools) {
        ASSERT_TRUE(tool.bConnect(std::stoi(ready[1])));
        ASSERT_TRUE(tool.bSend(FrameBytes(kGreet, "Ada")));
        Frame answer = ReceiveFrame(tool);
        if (answer.iCommand == kNews) { // of the peer that has just connected
            answer = ReceiveFrame(tool);
        }
        EXPECT_EQ("hello, Ada", answer.szData);
    }
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGreet, "Bob")));
    EXPECT_EQ("hello, Bob", ReceiveAnswer(m_Peer).szData);
    EXPECT_EQ(0, iEnd());
    for (CTcpPeer& tool : tools) {
        while (ReceiveFrame(tool).iCommand == kNews) {
        }
        EXPECT_TRUE(tool.bReceiveEof());
    }
}

TEST_F(AHelloDaemon, TellsItsToolsThatItsPeerHasCome)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\ntools_port=0\n"));
    const std::vector<std::string> ready = AwaitLog("ready for tools, port ([0-9]+)");
    ASSERT_FALSE(ready.empty());
    CTcpPeer tool;
    ASSERT_TRUE(tool.bConnect(std::stoi(ready[1])));
    ASSERT_TRUE(tool.bSend(FrameBytes(kPing)));
    ReceiveFrame(tool); // it is a peer of the daemon by now
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    const Frame news = ReceiveFrame(tool);
    EXPECT_EQ(kNews, news.iCommand);
    EXPECT_EQ("the peer has connected", news.szData);
}

struct BadLine {
    const char* pszWhat;
    const char* pszLine;
    const char* pszComplaint;
};

class ABadConfiguration : public AHelloDaemon, public ::testing::WithParamInterface<BadLine>
{
};

TEST_P(ABadConfiguration, EndsTheDaemonWithAClearLine)
{
    Configure(std::string("port=0\n") + GetParam().pszLine + "\n");
    const ChildResult result = RunProgram(CommandLine());
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_EQ("hello_daemon: not started, the system log says why\n", result.szErrors);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count(GetParam().pszComplaint));
    EXPECT_THAT(szSaved(), HasSubstr(GetParam().pszLine));
}

INSTANTIATE_TEST_SUITE_P(
    With, ABadConfiguration,
    ::testing::Values(
        BadLine{"APortOfLetters", "port=abc", ": port=abc is not a number from 0 to 65535"},
        BadLine{"APortThatIsTooHigh", "port=70000", ": port=70000 is not a number from 0 to 65535"},
        BadLine{"APortBeyondAnyNumber", "port=99999999999",
                ": port=99999999999 is not a number from 0 to 65535"},
        BadLine{"AToolsPortThatIsTooHigh", "tools_port=70000",
                ": tools_port=70000 is not a number from -1 to 65535"},
        BadLine{"ARelativeTreeDirectory", "tree_directory=tree",
                ": tree_directory=tree is not an absolute path"},
        BadLine{"NoPeriodAtAll", "monitoring_period_s=0",
                ": monitoring_period_s=0 is not a number from 1 to 30"},
        BadLine{"ALevelOfLetters", "log_level_hello_server=chatty",
                ": log_level_hello_server=chatty is not a number from 0 to 7"},
        BadLine{"AnUnknownUser", "user=nobody-of-that-name",
                "there is no user nobody-of-that-name"}),
    [](const auto& bad) { return bad.param.pszWhat; });

TEST(AHelloClient, TellsThatThereIsNoDaemon)
{
    const CTempDirectory directory;
    const std::string szConfig = directory.szPath("client.conf");
    WriteFile(szConfig, "port=" + std::to_string(iFreePort()) + "\ntimeout_ms=200\n");
    const ChildResult result = RunProgram({HELLO_CLIENT, "--config", szConfig, "ping"});
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_THAT(result.szOutput, StartsWith("connect: FAILED, no daemon at 127.0.0.1 port "));
}

TEST_F(AHelloDaemon, OutlivesCommandsThatItsClientCannotDo)
{
    ASSERT_NO_FATAL_FAILURE(Start("port=0\n"));
    const ChildResult client = AskWithClient({"dance", "level nobody 7", "level hello_server 8"});
    EXPECT_EQ(EXIT_FAILURE, client.iExitCode);
    EXPECT_THAT(client.szOutput, HasSubstr("\ndance: FAILED, there is no such command"
                                           "\nlevel: FAILED, there is no thread nobody"
                                           "\nlevel: FAILED, a level is a number from 0 to 7\n"));
}
} // namespace
