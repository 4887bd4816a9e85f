// quorctl ping and wait against a peer that the test plays.
#include "tools/QuorctlProgram.h"

#include <csignal>
#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kPong = 18;

TEST_F(AQuorctl, CountsPingsThatAreNotAnswered)
{
    ChildResult result;
    std::string szLost;
    for (const char* const pszMs : {"300", "3000", "10000"}) { // longer while it is busy here
        const Frame first = Requested({"ping", "-c", "2", "-i", "0.01", "--timeout", pszMs});
        EXPECT_EQ(kPing, first.iCommand);
        EXPECT_EQ("", first.szData);
        Frame late = first;
        late.iCommand = kPong;
        const Frame second = ReceiveFrame(m_Peer); // when the first has got no answer
        EXPECT_NE(first.iUser1, second.iUser1);
        Frame answer = second;
        answer.iCommand = kPong;
        m_Peer.bSend(FrameBytes(late) + FrameBytes(answer));
        result = End();
        szLost = std::string("seq=1 in ") + pszMs + " ms\n";
        if (result.iExitCode == 0) {
            break;
        }
    }
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_THAT(result.szOutput, HasSubstr("no answer from " + szName() + ": " + szLost));
    EXPECT_THAT(result.szOutput, HasSubstr("answer from " + szName() + ": seq=2 time="));
    EXPECT_THAT(result.szOutput, HasSubstr("2 sent, 1 received, 50% loss\n"));
}

TEST_F(AQuorctl, FailsWhenNoPingIsAnswered)
{
    ASSERT_TRUE(Requested({"ping", "-c", "1", "--timeout", "200", "--json"}).bComplete);
    const ChildResult result = End();
    EXPECT_EQ(3, result.iExitCode);
    const std::vector<Json::Value> objects = JsonLines(result.szOutput);
    ASSERT_EQ(2U, objects.size());
    EXPECT_TRUE(objects[0]["lost"].asBool());
    EXPECT_EQ(100, objects[1]["loss_percent"].asDouble());
    EXPECT_EQ("quorctl: no answer in 200 ms from " + szName() + " (is another peer connected?)\n",
              result.szErrors);
}

TEST_F(AQuorctl, SumsPingsUpAtCtrlC)
{
    Frame ping = Requested({"ping", "--interval", "3600"});
    ping.iCommand = kPong;
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(ping)));
    ASSERT_TRUE(m_pChild->bAwaitOutput("seq=1"));
    m_pChild->Signal(SIGINT);
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_THAT(result.szOutput, HasSubstr("1 sent, 1 received, 0% loss\n"));
}

TEST_F(AQuorctl, TellsOfNoTimeOutThatCtrlCCutShort)
{
    ASSERT_TRUE(Requested({"--timeout", "20000", "ping"}).bComplete);
    m_pChild->Signal(SIGINT);
    const ChildResult result = End();
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szOutput, HasSubstr("1 sent, 0 received, 100% loss\n"));
    EXPECT_EQ("quorctl: interrupted before an answer came from " + szName() + '\n',
              result.szErrors);
}

TEST_F(AQuorctl, SumsPingsUpWhenTheDaemonCloses)
{
    Frame ping = Requested({"ping", "--interval", "3600"});
    ping.iCommand = kPong;
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(ping)));
    ASSERT_TRUE(m_pChild->bAwaitOutput("seq=1"));
    m_Peer.Close();
    const ChildResult result = End();
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szOutput, HasSubstr("1 sent, 1 received, 0% loss\n"));
    EXPECT_EQ("quorctl: " + szName() + " closed the connection\n", result.szErrors);
}

TEST_F(AQuorctl, WaitsUntilSomebodyListensAndAnswers)
{
    const int iPort = iFreePort(); // which nobody else is given meanwhile
    m_pChild = std::make_unique<CChild>(
        Quorctl({"--port", std::to_string(iPort), "--timeout", "20000", "wait", "--json"}));
    EXPECT_FALSE(m_pChild->bAwaitOutput("waited", 200)); // it goes on trying
    m_Peer.Listen(iPort);
    ASSERT_TRUE(m_Peer.bAccept());
    m_Peer.Close(); // a daemon that comes up and fails at once
    ASSERT_TRUE(m_Peer.bAccept());
    EXPECT_EQ(kPing, ReceiveFrame(m_Peer).iCommand);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPong)));
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    const std::vector<Json::Value> objects = JsonLines(result.szOutput);
    ASSERT_EQ(1U, objects.size());
    EXPECT_LT(0, objects[0]["waited_ms"].asDouble());
}

// A machine that was switched off meanwhile resets the connection when it is up and pinged again.
TEST_F(AQuorctl, PingsAgainOverTheSameConnectionWhileItWaits)
{
    EXPECT_EQ(kPing, Requested({"--timeout", "20000", "wait"}).iCommand);
    EXPECT_EQ(kPing, ReceiveFrame(m_Peer).iCommand);
    m_Peer.Reset();
    ASSERT_TRUE(m_Peer.bAccept());
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPong)));
    EXPECT_EQ(0, End().iExitCode);
}

TEST_F(AQuorctl, GivesUpWaitingInTime)
{
    const std::string szPort = std::to_string(iFreePort());
    ExpectFailure(RunQuorctl({"--port", szPort, "--timeout", "200", "wait"}), 3,
                  "127.0.0.1:" + szPort + " was not ready in 200 ms: cannot connect to 127.0.0.1:" +
                      szPort + ": Connection refused");
}
} // namespace
