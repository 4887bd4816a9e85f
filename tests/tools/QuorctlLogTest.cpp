// quorctl log against a peer that the test plays.
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>

using namespace TestSupport;

namespace
{
constexpr uint16_t kSetLog = 16;
constexpr uint16_t kGetLog = 17;

using Threads = std::vector<std::pair<std::string, int>>; ///< Labels and levels.

/// @return The row of a thread.
std::string szRow(const std::string& szIndex, const std::string& szLabel, int iLevel)
{
    const char* const kNames[] = {"emergency", "alert",  "critical", "error",
                                  "warning",   "notice", "info",     "debug"};
    std::string szText =
        "<tr><td>" + szIndex + "</td><td>" + szLabel + "</td><td><select name=min_" + szIndex + '>';
    for (int i = 0; i < 8; ++i) {
        szText += "<option value=\"" + std::to_string(i) + (i == iLevel ? "\" selected>" : "\">") +
                  std::to_string(i) + '-' + kNames[i] + "</option>";
    }
    return szText + "</select></td>\t\n";
}

/// @return A log page with these threads. @param nSources  Those that it counts.
std::string szPage(const Threads& threads, size_t nSources)
{
    std::string szText =
        "<!DOCTYPE html><html><head><title>Log ctrl</title></head><body>\n"
        "<h2>Log control : peer</h2>\nNumber of sources: " +
        std::to_string(nSources) +
        "<br>\n<form name=\"logform\" method=\"get\" action=\"\">\n<table border=\"1\">\n"
        "<tr><th>Id</th><th>Name</th><th>Min Level</th></tr>\n";
    for (size_t index = 0; index < threads.size(); ++index) {
        szText += szRow(std::to_string(index), threads[index].first, threads[index].second);
    }
    return szText + "</table>\n<input type=\"submit\" value=\"Apply\">\n</body></html>\n" + '\0';
}

/// @return A log page with one thread.
std::string szPage(const std::string& szLabel, int iLevel, size_t nSources = 1)
{
    return szPage(Threads{{szLabel, iLevel}}, nSources);
}

TEST_F(AQuorctl, RefusesALogPageThatIsCut)
{
    const std::string szCut = szPage("dispatcher", 5).substr(0, 400);
    ExpectFailure(Answered({"log"}, FrameBytes(kGetLog, szCut)), 1, "the daemon's log page is cut");
}

TEST_F(AQuorctl, RefusesAPageThatIsNone)
{
    ExpectFailure(Answered({"log", "list"}, FrameBytes(kGetLog, "<html></html>")), 1,
                  "the daemon's log page is none that this program knows");
}

TEST_F(AQuorctl, ShowsALevelThatIsNone)
{
    const std::string szBytes = FrameBytes(kGetLog, szPage("odd \x1b[0m", 9));
    EXPECT_EQ("Index  Thread       Level\n"
              "    0  odd \\x1b[0m  ? unknown\n",
              Answered({"log"}, szBytes).szOutput);
    const std::vector<Json::Value> objects =
        JsonLines(Answered({"log", "--json"}, szBytes).szOutput);
    ASSERT_EQ(1U, objects.size());
    EXPECT_TRUE(objects[0]["threads"][0]["level"].isNull());
    EXPECT_EQ("odd \x1b[0m", objects[0]["threads"][0]["thread"].asString());
}

TEST_F(AQuorctl, SetsALevelAndLooksAgain)
{
    EXPECT_EQ(kGetLog, Requested({"log", "set", "dispatcher=debug"}).iCommand);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 5))));
    const Frame pairs = ReceiveFrame(m_Peer);
    EXPECT_EQ(kSetLog, pairs.iCommand);
    EXPECT_EQ(std::string("\0\7", 2), pairs.szData);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kSetLog)));
    EXPECT_EQ(kGetLog, ReceiveFrame(m_Peer).iCommand);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 7))));
    EXPECT_EQ("dispatcher: 5 notice -> 7 debug\n", End().szOutput);
}

TEST_F(AQuorctl, TellsThatALevelWasNotSet)
{
    ASSERT_TRUE(Requested({"log", "set", "dispatcher=debug"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 5)) + FrameBytes(kSetLog) +
                             FrameBytes(kGetLog, szPage("dispatcher", 5))));
    const ChildResult result = End();
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_EQ("quorctl: the daemon left dispatcher at 5 notice\n", result.szErrors);
}

TEST_F(AQuorctl, TellsThatTheThreadsHaveChangedMeanwhile)
{
    ASSERT_TRUE(Requested({"log", "set", "dispatcher=debug"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 5)) + FrameBytes(kSetLog) +
                             FrameBytes(kGetLog, szPage("modem", 5))));
    ExpectFailure(End(), 1, "the daemon's threads have changed meanwhile: look with 'log list'");
}

// The first of three has ended: the second moved up, and has the level that was meant for the
// first.
TEST_F(AQuorctl, TellsThatAThreadAmongOthersOfItsLabelHasGone)
{
    const Threads before = {{"worker", 5}, {"worker", 5}, {"worker", 5}};
    const Threads after = {{"worker", 7}, {"worker", 5}};
    ASSERT_TRUE(Requested({"log", "set", "0=debug"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage(before, 3)) + FrameBytes(kSetLog) +
                             FrameBytes(kGetLog, szPage(after, 2))));
    ExpectFailure(End(), 1, "the daemon's threads have changed meanwhile: look with 'log list'");
}

// A thread came before both, and went again before the second look.
TEST_F(AQuorctl, TellsThatAThreadWasHitByMistake)
{
    const Threads before = {{"modem", 5}, {"serial", 5}};
    const Threads after = {{"modem", 7}, {"serial", 5}};
    ASSERT_TRUE(Requested({"log", "set", "serial=debug"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage(before, 2)) + FrameBytes(kSetLog) +
                             FrameBytes(kGetLog, szPage(after, 2))));
    const ChildResult result = End();
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_EQ("serial: 5 notice (unchanged)\n", result.szOutput);
    EXPECT_EQ("quorctl: the level of modem has changed, too: look with 'log list'\n",
              result.szErrors);
}

TEST_F(AQuorctl, SendsNothingForAnUnknownThread)
{
    ASSERT_TRUE(Requested({"log", "set", "dispatcher=7", "nobody=7"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 5))));
    EXPECT_TRUE(m_Peer.bReceiveEof());
    ExpectFailure(End(), 2, "log set: the daemon has no thread 'nobody'");
}

TEST_F(AQuorctl, SendsNothingForAnIndexThatIsNotCertain)
{
    ASSERT_TRUE(Requested({"log", "set", "dispatcher=7"}).bComplete);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(kGetLog, szPage("dispatcher", 5, 2))));
    EXPECT_TRUE(m_Peer.bReceiveEof());
    ExpectFailure(End(), 1,
                  "nothing was set: the daemon has threads without a level, so the indices of its "
                  "page are not certain");
}
} // namespace
