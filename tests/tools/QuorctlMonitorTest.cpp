// quorctl monitor, and the output of quorctl in general.
#include "tools/QuorctlProgram.h"

#include <csignal>
#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::EndsWith;
using ::testing::MatchesRegex;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kName = 13;
constexpr uint16_t kPong = 18;

TEST_F(AQuorctl, PrintsALineForEachFrameOfTheDaemon)
{
    StartConnected({"monitor", "--count", "3"});
    Frame event;
    event.iCommand = 3000;
    event.iUser1 = 1;
    event.iUser2 = -2;
    event.szData = "hello\n";
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPing, "alive?") + FrameBytes(event) +
                             FrameBytes(3001, "\xFF\x01") + FrameBytes(3002)));
    EXPECT_EQ("alive?", ReceiveFrame(m_Peer).szData);
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    const std::string szTime = "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9][0-9][0-9] ";
    EXPECT_THAT(result.szOutput,
                MatchesRegex(szTime + "command=3000 size=6 user1=1 user2=-2 \"hello\\\\x0a\"\n" +
                             szTime + "command=3001 size=2 user1=0 user2=0 ff01\n" + szTime +
                             "command=3002 size=0 user1=0 user2=0 \"\"\n"));
}

TEST_F(AQuorctl, MonitorsInJsonWithThePingsIfAsked)
{
    StartConnected({"--json", "monitor", "--pings", "-c", "2"});
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPing) + FrameBytes(3000, "\xFF")));
    EXPECT_EQ(kPong, ReceiveFrame(m_Peer).iCommand);
    const std::vector<Json::Value> objects = JsonLines(End().szOutput);
    ASSERT_EQ(2U, objects.size());
    EXPECT_EQ(kPing, objects[0]["command"].asInt());
    EXPECT_EQ("ff", objects[1]["data_hex"].asString());
    EXPECT_EQ(12U, objects[1]["time"].asString().size());
}

TEST_F(AQuorctl, CutsALongPreviewBetweenCharacters)
{
    StartConnected({"monitor", "-c", "1"});
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(1, std::string(39, 'x') + "\xC3\xA9" + "tail")));
    EXPECT_THAT(End().szOutput, EndsWith('"' + std::string(39, 'x') + "\"...\n"));
}

TEST_F(AQuorctl, EndsMonitoringWhenTheDaemonCloses)
{
    StartConnected({"monitor"});
    m_Peer.Close();
    ExpectFailure(End(), 3, szName() + " closed the connection");
}

TEST_F(AQuorctl, EndsQuietlyWhenNobodyReadsItsOutput)
{
    m_pChild = std::make_unique<CChild>([this] {
        signal(SIGPIPE, SIG_IGN); // as many a parent leaves it
        execlp("sh", "sh", "-c", "{ \"$0\" --port \"$1\" monitor; echo $? >&2; } | head -n 1",
               QUORCTL, std::to_string(m_Peer.iPort()).c_str(), nullptr);
        return 127;
    });
    ASSERT_TRUE(m_Peer.bAccept());
    const CDeadline deadline(kAwaitLimitMs);
    while (m_Peer.bSend(FrameBytes(3000, "event")) && !m_Peer.bReceiveEof(1) &&
           !deadline.bPassed()) {
    }
    const ChildResult result = End();
    EXPECT_THAT(result.szOutput, MatchesRegex("[^\n]* command=3000 [^\n]*\n"));
    EXPECT_EQ("141\n", result.szErrors); // 128 + 13, and not a word of its own
}

TEST_F(AQuorctl, TellsThatItsOutputCannotBeWritten)
{
    m_pChild = std::make_unique<CChild>([this] {
        execlp("sh", "sh", "-c", "exec \"$0\" --port \"$1\" name > /dev/full", QUORCTL,
               std::to_string(m_Peer.iPort()).c_str(), nullptr);
        return 127;
    });
    ASSERT_TRUE(m_Peer.bAccept());
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kName, "x")));
    ExpectFailure(End(), 3, "standard output: No space left on device");
}

// A socket would get the free number 1, and the daemon what people are to read.
TEST_F(AQuorctl, TellsTheDaemonNothingWhenItsOutputIsClosed)
{
    m_pChild = std::make_unique<CChild>([this] {
        execlp("sh", "sh", "-c", "exec \"$0\" --port \"$1\" name >&-", QUORCTL,
               std::to_string(m_Peer.iPort()).c_str(), nullptr);
        return 127;
    });
    ASSERT_TRUE(m_Peer.bAccept());
    EXPECT_TRUE(ReceiveFrame(m_Peer).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kName, "x")));
    EXPECT_TRUE(m_Peer.bReceiveEof()); // and not one byte before it
    ExpectFailure(End(), 3, "standard output: Bad file descriptor");
}
} // namespace
