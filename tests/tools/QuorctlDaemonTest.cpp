// quorctl against a daemon of the library: what each command prints, and with which exit status.
#include "examples/ExampleProgram.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <csignal>
#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace
{
/// @brief A hello_daemon; it serves one command, after which it does not listen for 5 s.
class QuorctlWithADaemon : public ::testing::Test
{
protected:
    void SetUp() override
    {
        WriteFile(m_szConfig, "port=0\n");
        m_pDaemon = std::make_unique<CChild>(Program({HELLO_DAEMON, "--config", m_szConfig}));
        const std::vector<std::string> ready = AwaitLog("ready, pid ([0-9]+), port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        m_szPort = ready[2];
    }

    ChildResult Run(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"--port", m_szPort, "--timeout", "20000"});
        return RunQuorctl(args);
    }

    std::string szOutputOf(const std::vector<std::string>& args) const
    {
        return szGoodOutput(Run(args));
    }

    Json::Value JsonOf(std::vector<std::string> args) const
    {
        args.emplace_back("--json");
        return OnlyObject(szOutputOf(args));
    }

    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("daemon.conf");
    std::unique_ptr<CChild> m_pDaemon;
    std::string m_szPort;
};

TEST_F(QuorctlWithADaemon, PingsItAndSumsTheRoundTripsUp)
{
    const std::string szTime = "[0-9]+\\.[0-9][0-9][0-9]";
    const std::string szAnswer = "answer from 127\\.0\\.0\\.1:" + m_szPort + ": seq=";
    EXPECT_THAT(szOutputOf({"ping", "-c", "2", "-i", "0.05"}),
                MatchesRegex(szAnswer + "1 time=" + szTime + " ms\n" + szAnswer +
                             "2 time=" + szTime + " ms\n--- 127\\.0\\.0\\.1:" + m_szPort +
                             " ping statistics ---\n2 sent, 2 received, 0% loss\n"
                             "rtt min/avg/max/mdev = " +
                             szTime + '/' + szTime + '/' + szTime + '/' + szTime + " ms\n"));
}

TEST_F(QuorctlWithADaemon, PingsItInJson)
{
    const std::vector<Json::Value> objects =
        JsonLines(szOutputOf({"ping", "--count=2", "--interval=0.01", "--json"}));
    ASSERT_EQ(3U, objects.size());
    EXPECT_EQ(1, objects[0]["seq"].asInt());
    EXPECT_EQ(2, objects[1]["seq"].asInt());
    EXPECT_LT(0, objects[1]["time_ms"].asDouble());
    EXPECT_EQ(2, objects[2]["sent"].asInt());
    EXPECT_EQ(2, objects[2]["received"].asInt());
    EXPECT_EQ(0, objects[2]["loss_percent"].asDouble());
    EXPECT_LE(objects[2]["min_ms"].asDouble(), objects[2]["max_ms"].asDouble());
    EXPECT_TRUE(objects[2].isMember("avg_ms"));
    EXPECT_TRUE(objects[2].isMember("mdev_ms"));
}

TEST_F(QuorctlWithADaemon, TellsItsVersion)
{
    EXPECT_EQ("hello_daemon 1.00\n", szOutputOf({"version"}));
}

TEST_F(QuorctlWithADaemon, TellsItsVersionInJson)
{
    const Json::Value json = JsonOf({"version"});
    EXPECT_EQ("1.00", json["version"].asString());
    EXPECT_EQ(100, json["number"].asInt());
    EXPECT_EQ("hello_daemon", json["name"].asString());
}

TEST_F(QuorctlWithADaemon, TellsItsName)
{
    EXPECT_EQ("hello_daemon\n", szOutputOf({"name"}));
}

TEST_F(QuorctlWithADaemon, TellsItsNameInJson)
{
    EXPECT_EQ("hello_daemon", JsonOf({"name"})["name"].asString());
}

TEST_F(QuorctlWithADaemon, TellsItsProcessId)
{
    EXPECT_EQ(std::to_string(m_pDaemon->iPid()) + '\n', szOutputOf({"pid"}));
}

TEST_F(QuorctlWithADaemon, TellsItsProcessIdInJson)
{
    EXPECT_EQ(m_pDaemon->iPid(), JsonOf({"pid"})["pid"].asInt());
}

TEST_F(QuorctlWithADaemon, SendsItACommand)
{
    EXPECT_THAT(szOutputOf({"send", "1000", "--data", "Ada"}),
                MatchesRegex("command 1000, error 0, type 0, protocol 0, counter [0-9]+, user1 0, "
                             "user2 0, 10 bytes\nhello, Ada\n"));
}

TEST_F(QuorctlWithADaemon, PrintsAnAnswerWithAnErrorAndFails)
{
    const ChildResult result = Run({"send", "1000"});
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_THAT(result.szOutput, HasSubstr("command 1000, error 1, "));
    EXPECT_EQ("quorctl: 127.0.0.1:" + m_szPort + " answered with error 1\n", result.szErrors);
}

TEST_F(QuorctlWithADaemon, WaitsForIt)
{
    EXPECT_THAT(szOutputOf({"wait"}),
                MatchesRegex("127\\.0\\.0\\.1:" + m_szPort + " answers, after [0-9]+ ms\n"));
}

TEST_F(QuorctlWithADaemon, MeasuresIt)
{
    const std::string szNumber = "[0-9]+\\.[0-9][0-9][0-9]";
    EXPECT_THAT(
        szOutputOf({"bench", "--requests", "200", "--size", "100", "--pipeline", "3"}),
        MatchesRegex("200 pings of 100 bytes in " + szNumber + " s, connections: 1, pipeline: 3\n" +
                     "round trip p50/p99/max = " + szNumber + '/' + szNumber + '/' + szNumber +
                     " ms\nthroughput = [0-9]+ frames/s, " + szNumber + " MB/s each way\n"));
}

TEST_F(QuorctlWithADaemon, MonitorsItUntilCtrlC)
{
    CChild monitor(Quorctl({"--port", m_szPort, "monitor"}));
    ASSERT_FALSE(AwaitLog("the peer has connected").empty());
    monitor.Signal(SIGINT);
    const ChildResult result = monitor.Await();
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("", result.szOutput);
    EXPECT_EQ("", result.szErrors);
}

TEST_F(QuorctlWithADaemon, TellsThatAnotherPeerIsConnected)
{
    CTcpPeer other;
    ASSERT_TRUE(other.bConnect(std::stoi(m_szPort)));
    ASSERT_FALSE(AwaitLog("the peer has connected").empty());
    const ChildResult result = RunQuorctl({"--port", m_szPort, "--timeout", "300", "name"});
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_EQ("quorctl: no answer in 300 ms from 127.0.0.1:" + m_szPort +
                  " (is another peer connected?)\n",
              result.szErrors);
}

/// @brief A hello_daemon with its endpoint for tools, which serves many peers, over and over.
class QuorctlWithToolsEndpoint : public ::testing::Test
{
protected:
    static constexpr unsigned kThreads = 5;

    // Returns when all threads have a place on the log page: they start side by side, and their
    // indices change until the last is there.
    void SetUp() override
    {
        WriteFile(m_szConfig, "port=0\ntools_port=0\ntools_path=" + m_szPath +
                                  "\nlog_level_hello_supervisor=4\n");
        m_pDaemon = std::make_unique<CChild>(Program({HELLO_DAEMON, "--config", m_szConfig}));
        const std::vector<std::string> ready = AwaitLog("ready for tools, port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        m_szPort = ready[1];
        ASSERT_TRUE(bAwait([this] { return JsonOf({"log"})["threads"].size() == kThreads; }));
    }

    std::string szOutputOf(const std::vector<std::string>& args) const
    {
        return szOutputOf(args, {"--port", m_szPort});
    }

    static std::string szOutputOf(std::vector<std::string> args,
                                  const std::vector<std::string>& target)
    {
        args.insert(args.end(), target.begin(), target.end());
        args.insert(args.end(), {"--timeout", "20000"});
        return szGoodOutput(RunQuorctl(args));
    }

    Json::Value JsonOf(std::vector<std::string> args) const
    {
        args.emplace_back("--json");
        return OnlyObject(szOutputOf(args));
    }

    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("daemon.conf");
    const std::string m_szPath = m_Directory.szPath("tools");
    std::unique_ptr<CChild> m_pDaemon;
    std::string m_szPort;
};

TEST_F(QuorctlWithToolsEndpoint, ShowsItsLogLevels)
{
    const std::string szTable = szOutputOf({"log"});
    EXPECT_THAT(szTable, ::testing::StartsWith("Index  Thread            Level\n    0  "));
    EXPECT_THAT(szTable, HasSubstr("  hello_supervisor  4 warning\n"));
    EXPECT_THAT(szTable, HasSubstr("  CCoreApp          5 notice\n"));
    EXPECT_THAT(szTable, HasSubstr("  CCallbackManager  5 notice\n"));
    EXPECT_THAT(szTable, HasSubstr("  hello_server      5 notice\n"));
    EXPECT_THAT(szTable, HasSubstr("  hello_tools       5 notice\n"));
}

TEST_F(QuorctlWithToolsEndpoint, ShowsItsLogLevelsInJson)
{
    const Json::Value json = JsonOf({"log", "list"});
    EXPECT_EQ("hello_daemon", json["daemon"].asString());
    ASSERT_EQ(kThreads, json["threads"].size());
    for (unsigned i = 0; i < kThreads; ++i) {
        const Json::Value& thread = json["threads"][i];
        EXPECT_EQ(i, thread["index"].asUInt());
        const bool bSupervisor = thread["thread"].asString() == "hello_supervisor";
        EXPECT_EQ(bSupervisor ? 4 : 5, thread["level"].asInt());
        EXPECT_EQ(bSupervisor ? "warning" : "notice", thread["level_name"].asString());
    }
}

TEST_F(QuorctlWithToolsEndpoint, SetsALogLevelWhichTheDaemonKeeps)
{
    EXPECT_EQ("hello_server: 5 notice -> 7 debug\n",
              szOutputOf({"log", "set", "hello_server=debug"}));
    EXPECT_FALSE(AwaitLog("configuration saved").empty());
    EXPECT_THAT(szReadFile(m_szConfig), HasSubstr("log_level_hello_server=7\n"));
}

TEST_F(QuorctlWithToolsEndpoint, SetsLogLevelsByPatternAndLabel)
{
    const std::string szChanges = szOutputOf({"log", "set", "CC*=6", "hello_supervisor=warning"});
    EXPECT_THAT(szChanges, HasSubstr("CCoreApp: 5 notice -> 6 info\n"));
    EXPECT_THAT(szChanges, HasSubstr("CCallbackManager: 5 notice -> 6 info\n"));
    EXPECT_THAT(szChanges, HasSubstr("hello_supervisor: 4 warning (unchanged)\n"));
}

TEST_F(QuorctlWithToolsEndpoint, SetsALogLevelByIndexInJson)
{
    const Json::Value json = JsonOf({"log", "set", "2=emerg"});
    ASSERT_EQ(1U, json["changes"].size());
    EXPECT_EQ(2, json["changes"][0]["index"].asInt());
    EXPECT_EQ(0, json["changes"][0]["after"].asInt());
    EXPECT_EQ("emerg", json["changes"][0]["after_name"].asString());
    EXPECT_TRUE(json["changes"][0].isMember("before"));
}

TEST_F(QuorctlWithToolsEndpoint, LeavesWithoutAnAnswerAndLosesNoCommand)
{
    EXPECT_EQ("",
              szOutputOf({"send", "16", "--hex", "00 07 01 07 02 07 03 07 04 07", "--no-answer"}));
    EXPECT_FALSE(AwaitLog("configuration saved").empty());
    EXPECT_THAT(szReadFile(m_szConfig), HasSubstr("log_level_hello_server=7\n"));
}

TEST_F(QuorctlWithToolsEndpoint, RunsOneCommandAfterTheOtherOverTcpAndUnix)
{
    for (const std::vector<std::string>& target :
         {std::vector<std::string>{"--port", m_szPort}, {"--unix", m_szPath}}) {
        szOutputOf({"wait"}, target);
        EXPECT_EQ("hello_daemon\n", szOutputOf({"name"}, target));
        EXPECT_EQ(std::to_string(m_pDaemon->iPid()) + '\n', szOutputOf({"pid"}, target));
        EXPECT_THAT(szOutputOf({"log", "set", "hello_tools=debug"}, target),
                    HasSubstr("hello_tools: "));
        EXPECT_THAT(szOutputOf({"log"}, target), HasSubstr("  hello_tools       7 debug\n"));
    }
}

TEST_F(QuorctlWithToolsEndpoint, MeasuresItOverManyConnections)
{
    for (const std::vector<std::string>& target :
         {std::vector<std::string>{"--port", m_szPort}, {"--unix", m_szPath}}) {
        const std::vector<Json::Value> objects = JsonLines(szOutputOf(
            {"bench", "--connections", "8", "--pipeline", "4", "--requests", "500", "--json"},
            target));
        ASSERT_EQ(1U, objects.size());
        EXPECT_EQ(500, objects[0]["requests"].asInt());
    }
}
TEST_F(QuorctlWithToolsEndpoint, ShowsAndChangesItsTree)
{
    EXPECT_EQ("hello", JsonOf({"config", "get", "/db/greeting"})["word"].asString());
    EXPECT_EQ("salut",
              JsonOf({"config", "set", "/db/greeting/word", "\"salut\""})["word"].asString());
    EXPECT_EQ("salut, Ada", JsonOf({"send", "1000", "--data", "Ada"})["data"].asString());
    const Json::Value tree =
        JsonOf({"config", "set", "{\"callback\":{\"whiteList\":[\"+33123\"]}}"});
    EXPECT_EQ("+33123", tree["callback"]["whiteList"][0].asString());
    EXPECT_EQ("salut", tree["greeting"]["word"].asString());
    EXPECT_EQ("{\n    \"whiteList\" : \n    [\n        \"+33123\"\n    ]\n}\n",
              szOutputOf({"config", "get", "/db/callback/whiteList"}));
}

TEST_F(QuorctlWithToolsEndpoint, TellsWhyItsTreeStaysAsItIs)
{
    struct refusal_t {
        const char* pszPath;
        const char* pszValue;
        const char* pszCause;
    };
    for (const refusal_t& refusal :
         {refusal_t{"/db/greeting/answered", "7",
                    "/db/greeting/answered: answered : Valeur d\u2019attribut non pr\u00e9vue ou "
                    "incoh\u00e9rente (error 403)"},
          refusal_t{"/db/greeting/nameBytesMax", "65",
                    "/db/greeting/nameBytesMax: nameBytesMax : Valeur d\u2019attribut non "
                    "pr\u00e9vue ou incoh\u00e9rente (error 403)"},
          refusal_t{"/db/greeting", "{\"wort\":\"salut\"}",
                    "/db: there is no attribute /db/greeting/wort (error 403)"},
          refusal_t{"/db/none", "1", "/db/none: there is no such attribute (error 404)"}}) {
        ExpectFailure(
            RunQuorctl({"--port", m_szPort, "config", "set", refusal.pszPath, refusal.pszValue}), 1,
            refusal.pszCause);
    }
    EXPECT_EQ("{\n    \"nameBytesMax\" : 64\n}\n",
              szOutputOf({"config", "get", "/db/greeting/nameBytesMax"}));
}
} // namespace
