// quorctl against peers that are slow, wrong or hostile: an answer or one clear line, in time.
#include "support/CTestThread.h"
#include "support/Sanitized.h"
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <sys/socket.h>

using namespace TestSupport;
using ::testing::EndsWith;
using ::testing::MatchesRegex;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kVersion = 11;
constexpr uint16_t kPid = 12;
constexpr uint16_t kName = 13;
constexpr uint16_t kGetLog = 17;
constexpr uint16_t kPong = 18;

TEST_F(AQuorctl, AsksWithoutDataAndTellsTheAnswer)
{
    const Frame request = Requested({"pid"});
    EXPECT_EQ(kPid, request.iCommand);
    EXPECT_EQ("", request.szData);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPid, std::string("\x39\x30\0\0", 4))));
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("12345\n", result.szOutput);
}

TEST_F(AQuorctl, AnswersPingsAndPassesOverOtherFramesWhileItWaits)
{
    ASSERT_TRUE(Requested({"name"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPing, "are you there") + FrameBytes(3000, "no") +
                             FrameBytes(kName, std::string("right\0", 6))));
    const Frame pong = ReceiveFrame(m_Peer);
    EXPECT_EQ(kPong, pong.iCommand);
    EXPECT_EQ("are you there", pong.szData);
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("right\n", result.szOutput);
}

TEST_F(AQuorctl, TakesAnAnswerThatComesByteByByte)
{
    ASSERT_TRUE(Requested({"name"}).bComplete);
    const int iOn = 1;
    setsockopt(m_Peer.iSocket(), IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    for (const char c : FrameBytes(kName, std::string("slow\0", 5))) {
        ASSERT_TRUE(m_Peer.bSend(std::string(1, c)));
    }
    EXPECT_EQ("slow\n", End().szOutput);
}

TEST_F(AQuorctl, ShowsNoControlCharactersOfTheDaemon)
{
    EXPECT_EQ("\\x1b[2Jx\\x0a\n", Answered({"name"}, FrameBytes(kName, "\x1b[2Jx\n")).szOutput);
}

TEST_F(AQuorctl, ShowsNoControlCharactersOfTheDaemonInJson)
{
    EXPECT_EQ("{\"name\":\"a\\u001b\\u007f\\u009b\"}\n",
              Answered({"name", "--json"}, FrameBytes(kName, "a\x1b\x7f\xC2\x9B")).szOutput);
}

TEST_F(AQuorctl, GivesANameThatIsNoUtf8InHex)
{
    const std::vector<Json::Value> objects =
        JsonLines(Answered({"name", "--json"}, FrameBytes(kName, "\xFF\xFE")).szOutput);
    ASSERT_EQ(1U, objects.size());
    EXPECT_EQ("fffe", objects[0]["name_hex"].asString());
    EXPECT_FALSE(objects[0].isMember("name"));
}

TEST_F(AQuorctl, RefusesAVersionRecordOfAnotherSize)
{
    ExpectFailure(Answered({"version"}, FrameBytes(kVersion, "short")), 1,
                  "the daemon's version record has 5 bytes instead of 130");
}

TEST_F(AQuorctl, RefusesAProcessIdOfAnotherSize)
{
    ExpectFailure(Answered({"pid"}, FrameBytes(kPid, "12345678")), 1,
                  "the daemon's process id has 8 bytes instead of 4");
}

TEST_F(AQuorctl, TellsTheErrorOfAnAnswer)
{
    Frame answer;
    answer.iCommand = kName;
    answer.iError = 7;
    ExpectFailure(Answered({"name"}, FrameBytes(answer)), 1,
                  szName() + " answered command 13 with error 7");
}

TEST_F(AQuorctl, TellsThatTheDaemonCloses)
{
    ASSERT_TRUE(Requested({"name"}).bComplete);
    m_Peer.Close();
    ExpectFailure(End(), 3, szName() + " closed the connection");
}

TEST_F(AQuorctl, TellsThatTheDaemonResets)
{
    ASSERT_TRUE(Requested({"name"}).bComplete);
    m_Peer.Reset();
    ExpectFailure(End(), 3, szName() + " closed the connection");
}

TEST_F(AQuorctl, TellsThatTheDaemonClosesWithinAFrame)
{
    ASSERT_TRUE(Requested({"name"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(HeaderBytes(kName, 100) + "half"));
    m_Peer.Close();
    ExpectFailure(End(), 3, szName() + " closed the connection in the middle of a frame");
}

TEST_F(AQuorctl, TellsThatOnlyAPartOfAFrameCame)
{
    ExpectTimeOut({"name"}, HeaderBytes(kName, 100) + "half", "only a part of a frame", "");
}

TEST_F(AQuorctl, TellsThatNobodyAnswers)
{
    ExpectTimeOut({"name"}, "", "no answer", " (is another peer connected?)");
}

TEST_F(AQuorctl, SuspectsNoOtherPeerOfADaemonThatSendsSomething)
{
    ExpectTimeOut({"name"}, FrameBytes(3000), "no answer", "");
}

TEST_F(AQuorctl, RefusesAWrongMagicNumber)
{
    ExpectFailure(Answered({"name"}, "HTTP/1.0 400 Bad Request\r\n"), 3,
                  szName() + " sent something that is no frame (wrong magic number)");
}

TEST_F(AQuorctl, RefusesASizeOfFourGigabytes)
{
    ExpectFailure(Answered({"name"}, HeaderBytes(kName, 0xFFFFFFFF)), 3,
                  szName() + " announced 4294967295 bytes of data; a frame has 65535 at most");
}

TEST_F(AQuorctl, EndsInTimeWhileTheDaemonSendsWithoutEnd)
{
    const CStopwatch watch;
    ASSERT_TRUE(Requested({"--timeout", "500", "name"}).bComplete);
    const std::string szFlood = FrameBytes(3000, std::string(60000, 'x'));
    while (m_Peer.bSend(szFlood)) {
    }
    const ChildResult result = End(); // the time is over between two frames, or within one
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szErrors, EndsWith(" in 500 ms from " + szName() + '\n'));
    EXPECT_GT(kAwaitLimitMs, watch.iElapsedMs());
}

TEST_F(AQuorctl, EndsInTimeWhileTheDaemonPingsWithoutEndAndReadsNothing)
{
    ASSERT_TRUE(Requested({"--timeout", "500", "name"}).bComplete);
    const std::string szFlood = FrameBytes(kPing, std::string(60000, 'x'));
    const CDeadline deadline(kAwaitLimitMs);
    while (m_Peer.bSend(szFlood, 100) && !deadline.bPassed()) {
    }
    const ChildResult result = End();
    EXPECT_EQ(3, result.iExitCode);
    EXPECT_THAT(result.szErrors, MatchesRegex("quorctl: .*500 ms.*\n"));
}

TEST_F(AQuorctl, SurvivesRandomAnswers)
{
    std::mt19937 random(11);
    for (int i = 0; i < 20 / kSlowness; ++i) {
        std::string szBytes(1 + random() % 5000, '\0');
        for (char& c : szBytes) {
            c = static_cast<char>(random());
        }
        if (i % 2 == 0) { // behind a good header
            szBytes = FrameBytes(kGetLog, szBytes);
        }
        ASSERT_TRUE(Requested({"--timeout", "5000", "log"}).bComplete);
        ASSERT_TRUE(m_Peer.bSend(szBytes));
        const ChildResult result = End();
        EXPECT_EQ(i % 2 == 0 ? 1 : 3, result.iExitCode) << result.szErrors;
        EXPECT_THAT(result.szErrors, MatchesRegex("quorctl: [^\n]*\n"));
    }
}
} // namespace
