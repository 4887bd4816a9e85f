// quorctl send and what it prints.
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace TestSupport;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kPong = 18;

TEST_F(AQuorctl, SendsWhatItIsTold)
{
    const Frame request = Requested({"send", "0xBB8", "--type", "5", "--user1", "-3", "--user2",
                                     "32767", "--hex", "00:ff 41", "--no-answer"});
    EXPECT_EQ(3000, request.iCommand);
    EXPECT_EQ(5, request.iTypeItf);
    EXPECT_EQ(0, request.iError);
    EXPECT_EQ(-3, request.iUser1);
    EXPECT_EQ(32767, request.iUser2);
    EXPECT_EQ(std::string("\0\xFF"
                          "A",
                          3),
              request.szData);
    EXPECT_TRUE(m_Peer.bReceiveEof());
    m_Peer.Close();
    const ChildResult result = End();
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("", result.szOutput);
}

TEST_F(AQuorctl, SendsAFile)
{
    const CTempDirectory directory;
    const std::string szContent = std::string(65534, 'f') + '\0';
    WriteFile(directory.szPath("data"), szContent);
    const Frame request =
        Requested({"send", "3000", "--file", directory.szPath("data"), "--no-answer"});
    EXPECT_EQ(szContent, request.szData);
    m_Peer.Close();
    EXPECT_EQ(0, End().iExitCode);
}

TEST_F(AQuorctl, IsOverInTimeWhileItsFileHasNoEnd)
{
    const CTempDirectory directory;
    const std::string szPath = directory.szPath("fifo");
    ASSERT_EQ(0, mkfifo(szPath.c_str(), 0600));
    const std::vector<std::string> args = {"--timeout", "300", "send", "1", "--file", szPath};
    ExpectFailure(RunQuorctl(args), 3, "--file " + szPath + ": no end in 300 ms"); // no writer
    const QuorCore::CUniqueFd writer(open(szPath.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(4, write(writer.iGet(), "half", 4));
    ExpectFailure(RunQuorctl(args), 3, "--file " + szPath + ": no end in 300 ms");
}

TEST_F(AQuorctl, SendsStandardInput)
{
    m_pChild = std::make_unique<CChild>([this] {
        execlp("sh", "sh", "-c", "printf 'from a pipe' | exec \"$0\" --port \"$1\" send 1 --file -",
               QUORCTL, std::to_string(m_Peer.iPort()).c_str(), nullptr);
        return 127;
    });
    ASSERT_TRUE(m_Peer.bAccept());
    EXPECT_EQ("from a pipe", ReceiveFrame(m_Peer).szData);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(1)));
    EXPECT_EQ(0, End().iExitCode);
}

TEST_F(AQuorctl, PrintsAnAnswerThatIsNoTextAsHexDump)
{
    Frame answer;
    answer.iCommand = 4000;
    answer.iTypeItf = 1;
    answer.iProtocol = 2;
    answer.iCounter = 3;
    answer.iUser1 = -4;
    answer.iUser2 = 5;
    answer.szData = std::string("\x01\0A", 3);
    EXPECT_EQ("command 4000, error 0, type 1, protocol 2, counter 3, user1 -4, user2 5, 3 bytes\n"
              "0000  01 00 41                                         ..A\n",
              Answered({"send", "3000"}, FrameBytes(kPing) + FrameBytes(answer)).szOutput);
    const std::vector<Json::Value> objects = JsonLines(
        Answered({"send", "3000", "--json"}, FrameBytes(kPing) + FrameBytes(answer)).szOutput);
    ASSERT_EQ(1U, objects.size());
    for (const auto& [pszKey, iValue] : std::vector<std::pair<const char*, int>>{{"command", 4000},
                                                                                 {"error", 0},
                                                                                 {"type", 1},
                                                                                 {"protocol", 2},
                                                                                 {"counter", 3},
                                                                                 {"user1", -4},
                                                                                 {"user2", 5},
                                                                                 {"size", 3}}) {
        EXPECT_EQ(iValue, objects[0][pszKey].asInt()) << pszKey;
    }
    EXPECT_EQ(std::string("\x01\0A", 3), objects[0]["data"].asString());
}

TEST_F(AQuorctl, PrintsTextWithoutItsFinalZero)
{
    EXPECT_THAT(
        Answered({"send", "3000"}, FrameBytes(3000, std::string("caf\xC3\xA9\0", 6))).szOutput,
        EndsWith(", 6 bytes\ncaf\xC3\xA9\n"));
}

TEST_F(AQuorctl, WaitsForTheCommandThatIsExpected)
{
    EXPECT_THAT(Answered({"send", "3000", "--expect", "3001"},
                         FrameBytes(3000, "early") + FrameBytes(3001, "right"))
                    .szOutput,
                EndsWith("right\n"));
}

TEST_F(AQuorctl, TakesAPongForTheAnswerToAPing)
{
    EXPECT_THAT(Answered({"send", "10"}, FrameBytes(kPong)).szOutput, HasSubstr("command 18, "));
}

TEST_F(AQuorctl, IsOverInTimeWhenTheDaemonReadsNothing)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("data"), std::string(65535, 'f'));
    StartConnected({"--timeout", "300", "send", "1", "--file", directory.szPath("data")});
    EXPECT_EQ(3, End().iExitCode);
}
} // namespace
