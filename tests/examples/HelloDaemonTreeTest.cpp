// What hello_daemon does with its data tree, from one run to the next.
#include "examples/ExampleProgram.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestEndpoint.h"
#include "support/Files.h"
#include "support/Frames.h"
#include "support/Sanitized.h"

#include <libQuorCore/CDMStatCellServing.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kSet = 14;
constexpr uint16_t kGet = 15;
constexpr uint16_t kGreet = 1000;
constexpr uint16_t kCell = 1002;

class AHelloDaemonsTree : public ::testing::Test
{
protected:
    // Returns when a peer and a tool can connect.
    void Start(const std::string& szMore = "")
    {
        CSyslogReceiver::Get().Clear();
        WriteFile(m_szConfig, "port=0\ntools_port=0\ntree_directory=" + m_szTree + '\n' + szMore);
        m_pDaemon = std::make_unique<CChild>(Program({HELLO_DAEMON, "--config", m_szConfig}));
        const std::vector<std::string> peers = AwaitLog("ready, pid [0-9]+, port ([0-9]+)");
        const std::vector<std::string> tools = AwaitLog("ready for tools, port ([0-9]+)");
        ASSERT_FALSE(peers.empty());
        ASSERT_FALSE(tools.empty());
        m_iPort = std::stoi(peers[1]);
        ASSERT_TRUE(m_Tool.bConnect(std::stoi(tools[1])));
    }

    int iEnd()
    {
        m_pDaemon->Signal(SIGTERM);
        return m_pDaemon->Await().iExitCode;
    }

    Frame Ask(uint16_t iCommand, const std::string& szData)
    {
        EXPECT_TRUE(m_Tool.bSend(FrameBytes(iCommand, szData)));
        for (;;) { // the tools are also told that the peer has come
            Frame answer = ReceiveFrame(m_Tool);
            if (!answer.bComplete || answer.iCommand == iCommand) {
                return answer;
            }
        }
    }

    std::string szGot(const std::string& szName) { return Ask(kGet, szName).szData; }

    // Gives two records the same number.
    void SetBoth(const std::string& szNumber)
    {
        ASSERT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"" + szNumber +
                                   "\"},\"callback\":{\"smsCallback\":" + szNumber + "}}")
                         .iError);
    }

    // Reports a cell as the daemon's peer. The error word of the answer.
    int iReport(const std::string& szRecord)
    {
        EXPECT_TRUE(m_Peer.bSend(FrameBytes(kCell, szRecord)));
        Frame answer = ReceiveFrame(m_Peer);
        while (answer.iCommand == kPing) { // the daemon sends them of its own accord
            answer = ReceiveFrame(m_Peer);
        }
        EXPECT_TRUE(answer.bComplete);
        EXPECT_EQ(kCell, answer.iCommand);
        EXPECT_EQ("", answer.szData);
        return answer.iError;
    }

    static std::string Bytes(CDMStatCellServing& cell)
    {
        ustring bytes;
        CSerialize stream(&bytes, true, false, true);
        EXPECT_EQ(0, cell.iSerialize(stream));
        return std::string(bytes.begin(), bytes.end());
    }

    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("daemon.conf");
    std::string m_szTree = m_Directory.szPath("tree");
    std::unique_ptr<CChild> m_pDaemon;
    CTcpPeer m_Tool;
    CTcpPeer m_Peer;
    int m_iPort = -1;
};

TEST_F(AHelloDaemonsTree, ChangesHowPeersAreGreeted)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("hello, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"salut\",\"nameBytesMax\":3}}").iError);
    EXPECT_EQ("salut, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ(1, Ask(kGreet, "Adam").iError);
    EXPECT_EQ("{\"answered\":2}\n", szGot("/db/greeting/answered"));
}

TEST_F(AHelloDaemonsTree, IsKeptFromOneRunToTheNext)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"salut\"},"
                           "\"callback\":{\"whiteList\":[\"+33123\"],\"authSms\":false}}")
                     .iError);
    EXPECT_FALSE(AwaitLog("tree: saved as state-1").empty()); // at once, not at the end
    EXPECT_EQ("salut, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ(0, iEnd());
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("salut, Eve", Ask(kGreet, "Eve").szData);
    EXPECT_EQ("{\"whiteList\":[\"+33123\"]}\n", szGot("/db/callback/whiteList"));
    EXPECT_EQ("{\"authSms\":false}\n", szGot("/db/callback/authSms"));
    EXPECT_EQ("{\"answered\":2}\n", szGot("/db/greeting/answered")); // saved at the end
}

TEST_F(AHelloDaemonsTree, LivesAsLongAsTheDaemonWithoutADirectory)
{
    m_szTree.clear();
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"salut\"}}").iError);
    EXPECT_EQ("salut, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ(0, iEnd());
    for (const fs::directory_entry& entry : fs::directory_iterator(m_Directory.szPath())) {
        EXPECT_EQ(m_szConfig, entry.path());
    }
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("hello, Ada", Ask(kGreet, "Ada").szData);
}

TEST_F(AHelloDaemonsTree, IsServedAllTheSameWhereItCannotBeKept)
{
    m_szTree = m_Directory.szPath("missing/tree");
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_FALSE(AwaitLog("missing/tree: it cannot be made: ").empty());
    EXPECT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"salut\"}}").iError);
    EXPECT_EQ("salut, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_FALSE(AwaitLog("missing/tree: not saved").empty());
    EXPECT_EQ(0, iEnd());
}

TEST_F(AHelloDaemonsTree, IsServedWhereAnUnprivilegedDaemonMayNotWrite)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "becoming another user takes root";
    }
    ASSERT_EQ(0, chmod(m_Directory.szPath().c_str(), 0755));
    ASSERT_EQ(0, mkdir(m_szTree.c_str(), 0755));
    ASSERT_NO_FATAL_FAILURE(Start("user=nobody\ngroup=nogroup\n"));
    EXPECT_FALSE(AwaitLog("tree: it cannot be written: Permission denied").empty());
    EXPECT_EQ(0, Ask(kSet, "{\"greeting\":{\"word\":\"salut\"}}").iError);
    EXPECT_FALSE(AwaitLog("tree/state-1: not saved, cannot be made: Permission denied").empty());
    EXPECT_EQ("salut, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ(0, iEnd());
}

TEST_F(AHelloDaemonsTree, StartsWithARecordThatIsDamaged)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(
        0,
        Ask(kSet, "{\"greeting\":{\"word\":\"salut\"},\"callback\":{\"smsCallback\":7}}").iError);
    EXPECT_EQ(0, iEnd());
    WriteFile(m_szTree + "/current/greeting", "{\"word\": \"sa");
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_FALSE(AwaitLog("/db/greeting: not read, it stays as it was built: " + m_szTree).empty());
    EXPECT_EQ("hello, Ada", Ask(kGreet, "Ada").szData);
    EXPECT_EQ("{\"smsCallback\":7}\n", szGot("/db/callback/smsCallback"));
}

TEST_F(AHelloDaemonsTree, ShowsTheCellThatItsPeerReports)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    CDMStatCellServing cell(nullptr, "");
    cell.m_Techno = "LTE";
    cell.m_RxLevel = -95;
    cell.m_Ci = 4711;
    cell.m_DateMes.SetVal(1700000000);
    EXPECT_EQ(0, iReport(Bytes(cell)));
    const std::string szShown = szGot("/db/cell");
    for (const char* pszMember : {"\"techno\":\"LTE\"", "\"rxLevel\":-95", "\"ci\":4711",
                                  "\"dateMes\":\"2023-11-14T22:13:20Z\"", "\"modified\":\"20"}) {
        EXPECT_THAT(szShown, HasSubstr(pszMember));
    }
    EXPECT_EQ("null\n", szGot("/db/cell/rssi"));               // null, as in the record that came
    EXPECT_EQ(403, Ask(kSet, "{\"cell\":{\"ci\":1}}").iError); // whatever bits the peer has sent
    EXPECT_EQ(0, iEnd());
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(szShown, szGot("/db/cell"));
}

TEST_F(AHelloDaemonsTree, RefusesACellThatIsNone)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(m_Peer.bConnect(m_iPort));
    const std::string szBefore = szGot("/db/cell");
    CDMStatCellServing cell(nullptr, "");
    const std::string szGood = Bytes(cell);
    EXPECT_EQ(2, iReport(""));
    EXPECT_EQ(2, iReport(szGood.substr(0, szGood.size() - 1)));
    EXPECT_EQ(2, iReport(szGood + 'x'));
    EXPECT_EQ(2, iReport(std::string(200, '\xff')));
    EXPECT_EQ(2, iReport('\x02' + szGood.substr(1))); // null
    cell.m_RxLevel = 5;
    EXPECT_EQ(2, iReport(Bytes(cell)));
    cell.m_RxLevel = -95;
    cell.m_Ci = 0x80000000;
    EXPECT_EQ(2, iReport(Bytes(cell)));
    cell.m_Ci = 1;
    cell.m_Techno = "smoke";
    EXPECT_EQ(2, iReport(Bytes(cell)));
    EXPECT_EQ(szBefore, szGot("/db/cell"));
    EXPECT_EQ(0, iReport(szGood));
}

TEST_F(AHelloDaemonsTree, TakesACellFromTheExampleClient)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string szConfig = m_Directory.szPath("client.conf");
    WriteFile(szConfig, "port=" + std::to_string(m_iPort) + "\n");
    const ChildResult client =
        RunProgram({HELLO_CLIENT, "--config", szConfig, "cell LTE -95", "cell LTE 5"});
    EXPECT_EQ(EXIT_FAILURE, client.iExitCode);
    EXPECT_THAT(client.szOutput, HasSubstr("\ncell: LTE, -95 dBm was taken"
                                           "\ncell: FAILED, LTE, 5 dBm was refused\n"));
    EXPECT_THAT(szGot("/db/cell"), HasSubstr("\"rxLevel\":-95"));
    EXPECT_FALSE(AwaitLog("the peer is served by a cell: LTE, -95 dBm").empty());
    EXPECT_FALSE(AwaitLog("a cell of the peer was refused: a value is out of its range").empty());
}

TEST_F(AHelloDaemonsTree, ComesUpWholeAfterAKillAtAnyMomentOfASave)
{
    std::minstd_rand random(20261122);
    int iSaved = 1; // what the record is built with
    for (int iRound = 0; iRound < nRounds(40); ++iRound) {
        ASSERT_NO_FATAL_FAILURE(Start());
        EXPECT_EQ(0U, CSyslogReceiver::Get().Count("not read"));
        // Two records carry the same number, since they are saved in one step.
        const std::string szRecord = szGot("/db/callback/smsCallback");
        const int iKept = std::stoi(szRecord.substr(szRecord.find(':') + 1));
        const std::string szWord = iKept == 1 ? "hello" : std::to_string(iKept);
        ASSERT_EQ("{\"word\":\"" + szWord + "\"}\n", szGot("/db/greeting/word"));
        ASSERT_GE(iKept, iSaved) << "what was told as saved is lost";
        for (int iNext = iKept + 1; iNext <= iKept + 3; ++iNext) {
            ASSERT_NO_FATAL_FAILURE(SetBoth(std::to_string(iNext)));
            if (iNext == iKept + 1) {
                ASSERT_FALSE(AwaitLog("saved as state-").empty());
                iSaved = iNext;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000)); // the moment
        m_pDaemon->Signal(SIGKILL);
        ASSERT_EQ(SIGKILL, m_pDaemon->Await().iSignal);
    }
}
} // namespace
