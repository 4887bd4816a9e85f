// The endpoint with many peers: what it does for each. Its starts and ends: CSocketHubLifeTest.cpp.
#include "libQuorCore/CSocketHub.h"

#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/COpenHub.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestEndpoint.h"
#include "support/CTestThread.h"
#include "support/Frames.h"
#include "support/LogLines.h"
#include "support/Sanitized.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using eGone = CSocketHub::eGone;
using peer_t = CSocketHub::peer_t;
using peerId_t = CSocketHub::peerId_t;

constexpr long kDataMax = 1000;
constexpr uint16_t kUnknown = 999;   // a command that nobody handles
constexpr size_t kFarTooMuch = 8192; // pushes of kDataMax bytes that no connection takes unread

/// Silence after which a peer is dropped, where the test itself must not be silent for so long.
constexpr int kSilenceMs = kSanitized || kSlowness > 1 ? 4000 : 2000;

class ASocketHub : public ::testing::Test
{
protected:
    void TearDown() override { m_Hub.iStop(true, false); }

    void Start(long lDataMax = kDataMax)
    {
        m_Hub.Configure(0, lDataMax, "tools");
        ASSERT_EQ(0, m_Hub.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(bAwait([this] { return m_Hub.bGetConnected(); }));
    }

    /// Connects and waits until the hub knows. @return The number that it gave.
    peerId_t Connect(CTcpPeer& peer)
    {
        const size_t nBefore = m_Hub.nPeers();
        EXPECT_TRUE(peer.bConnect(m_Hub.iListeningPort()));
        EXPECT_TRUE(bAwait([&] { return m_Hub.nPeers() > nBefore; }));
        const std::vector<peer_t> peers = m_Hub.Peers();
        return peers.empty() ? 0 : peers.back().id;
    }

    /// Asks, and takes what comes up to the answer, such as a ping of the hub.
    static bool bAnswersAPing(CTcpPeer& peer)
    {
        Frame frame;
        const bool bGood = peer.bSend(FrameBytes(CMD_COMMUN_PING, "are you there?"));
        do {
            frame = ReceiveFrame(peer);
        } while (bGood && frame.bComplete && frame.iCommand != CMD_COMMUN_PONG);
        return bGood && frame.szData == "are you there?";
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    COpenHub m_Hub;
    CTcpPeer m_Peer;
};

/// Two peers send the same: what the hub answers, and what the endpoint of one peer does.
struct answers_t {
    std::string szOfHub;
    std::string szOfOnePeerEndpoint;
};

answers_t Compare(CSocketHub& hub, const std::vector<std::string>& requests)
{
    CTcpPeer peerOfOne;
    COpenEndpoint<CSocketBase> one(iConnectTo(peerOfOne));
    one.Configure(0, kDataMax, "peer");
    EXPECT_EQ(0, one.iCreateThread(true, kStartLimitMs));
    CTcpPeer peer;
    EXPECT_TRUE(peer.bConnect(hub.iListeningPort()));
    answers_t answers;
    for (CTcpPeer* const pPeer : {&peer, &peerOfOne}) {
        std::string& szAnswers = pPeer == &peer ? answers.szOfHub : answers.szOfOnePeerEndpoint;
        for (const std::string& szRequest : requests) {
            EXPECT_TRUE(pPeer->bSend(szRequest));
            EXPECT_TRUE(pPeer->bSend(FrameBytes(CMD_COMMUN_PING, "mark"))); // ends what is answered
            Frame frame;
            do {
                frame = ReceiveFrame(*pPeer);
                szAnswers += HeaderBytes(frame) + frame.szData;
            } while (frame.bComplete && frame.szData != "mark");
        }
    }
    one.iStop(true, false);
    return answers;
}

std::string RequestBytes(uint16_t iCommand, const std::string& szData)
{
    Frame frame;
    frame.iCommand = iCommand;
    frame.szData = szData;
    frame.iTypeItf = 0x1234;
    frame.iError = 77; // an answer has none
    frame.iProtocol = 0x5678;
    frame.iCounter = 0x9ABC;
    frame.iUser1 = -2;
    frame.iUser2 = 32767;
    return FrameBytes(frame);
}
} // namespace

TEST_F(ASocketHub, AnswersSeveralPeers)
{
    Start();
    CTcpPeer first;
    CTcpPeer second;
    Connect(first);
    Connect(second);
    ASSERT_TRUE(first.bSend(FrameBytes(CMD_COMMUN_PING, "one")));
    ASSERT_TRUE(second.bSend(FrameBytes(CMD_COMMUN_PING, "two")));
    EXPECT_EQ("two", ReceiveFrame(second).szData);
    EXPECT_EQ("one", ReceiveFrame(first).szData);
}

TEST_F(ASocketHub, AnswersWithTheBytesOfTheEndpointOfOnePeer)
{
    Start();
    std::vector<std::string> requests;
    for (uint16_t iCommand = CMD_COMMUN_PING; iCommand <= CMD_COMMUN_PONG; ++iCommand) {
        requests.push_back(FrameBytes(iCommand));
        requests.push_back(RequestBytes(iCommand, ""));
        requests.push_back(RequestBytes(iCommand, "d"));
        requests.push_back(RequestBytes(iCommand, std::string(kDataMax, 'x')));
    }
    requests.push_back(RequestBytes(CMD_COMMUN_SET_LOG_CONFIG, std::string("\x7f\x03", 2)));
    requests.push_back(FrameBytes(kUnknown, "nobody's"));
    const answers_t answers = Compare(m_Hub, requests);
    EXPECT_EQ(answers.szOfOnePeerEndpoint, answers.szOfHub);
    EXPECT_GT(answers.szOfHub.size(), requests.size() * (kHeaderBytes + 4));
}

TEST_F(ASocketHub, PushesWithTheBytesOfTheEndpointOfOnePeer)
{
    Start();
    const peerId_t id = Connect(m_Peer);
    CTcpPeer peerOfOne;
    COpenEndpoint<CSocketBase> one(iConnectTo(peerOfOne));
    std::string szData = "some data";
    EXPECT_EQ(29, m_Hub.iPush(id, kUnknown, pBytes(szData), lSize(szData), 1, 2, 3, 4));
    EXPECT_EQ(20, m_Hub.iPush(id, kUnknown, nullptr, 0));
    EXPECT_EQ(20, m_Hub.iPush(id, kUnknown, pBytes(szData), 0));
    EXPECT_EQ(29, m_Hub.iPush(id, kUnknown, pBytes(szData), lSize(szData)));
    one.iWrite(kUnknown, pBytes(szData), lSize(szData), 1, 2, 3, 4);
    one.iWrite(kUnknown, nullptr, 0, 0, 0, 0, 0);
    one.iWrite(kUnknown, pBytes(szData), 0, 0, 0, 0, 0);
    one.iWrite(kUnknown, pBytes(szData), lSize(szData), 0, 0, 0, 0);
    EXPECT_EQ(peerOfOne.szReceive(98), m_Peer.szReceive(98));
}

TEST_F(ASocketHub, TellsAHandlerWhoAsks)
{
    peer_t asking;
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        ASSERT_NE(nullptr, m_Hub.pAskingPeer());
        asking = *m_Hub.pAskingPeer();
        EXPECT_EQ(20 + 4, m_Hub.iAnswer(asking.id, pFrame));
    };
    Start();
    const peerId_t id = Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled, "mine")));
    EXPECT_EQ("mine", ReceiveFrame(m_Peer).szData);
    EXPECT_EQ(id, asking.id);
    EXPECT_FALSE(asking.bLocal);
    EXPECT_EQ("127.0.0.1", asking.szAddress);
    EXPECT_EQ(m_Peer.iPort(), asking.iPort);
    EXPECT_EQ(0, asking.pid);
    EXPECT_EQ(nullptr, m_Hub.pAskingPeer()) << "on another thread than the hub's";
}

TEST_F(ASocketHub, ForgetsWhoAskedWhenTheHandlerHasReturned)
{
    std::atomic<bool> bForgotten{false};
    m_Hub.m_OnFrame = [](socketFrame_t*) { throw std::runtime_error("handler"); };
    m_Hub.m_OnWent = [&](const peer_t&) { bForgotten = m_Hub.pAskingPeer() == nullptr; };
    Start();
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled)));
    ASSERT_TRUE(bAnswersAPing(m_Peer));
    m_Peer.Close();
    ASSERT_TRUE(m_Hub.bAwaitGone(eGone::CLOSED));
    EXPECT_TRUE(bAwait([&]() -> bool { return bForgotten; }));
}

TEST_F(ASocketHub, KnowsTheProcessAndTheUserOfALocalPeer)
{
    const CTempDirectory directory;
    peer_t asking;
    m_Hub.SetUnixPath(directory.szPath("hub").c_str());
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        asking = *m_Hub.pAskingPeer();
        m_Hub.iAnswer(asking.id, pFrame);
    };
    Start();
    ASSERT_TRUE(m_Peer.bConnectUnix(directory.szPath("hub")));
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled, "local")));
    EXPECT_EQ("local", ReceiveFrame(m_Peer).szData);
    EXPECT_TRUE(asking.bLocal);
    EXPECT_EQ(getpid(), asking.pid);
    EXPECT_EQ(getuid(), asking.uid);
    EXPECT_EQ(getgid(), asking.gid);
    EXPECT_EQ("", asking.szAddress);
    EXPECT_EQ(0, asking.iPort);
    CTcpPeer remote;
    Connect(remote);
    EXPECT_TRUE(bAnswersAPing(remote)) << "TCP is served beside it";
}

TEST_F(ASocketHub, ServesAPathAlone)
{
    const CTempDirectory directory;
    m_Hub.SetUnixPath(directory.szPath("hub").c_str());
    m_Hub.SetBindAddress(nullptr);
    Start();
    EXPECT_EQ(-1, m_Hub.iListeningPort());
    ASSERT_TRUE(m_Peer.bConnectUnix(directory.szPath("hub")));
    EXPECT_TRUE(bAnswersAPing(m_Peer));
    m_Peer.Close();
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::CLOSED));
}

TEST_F(ASocketHub, ServesBothFamiliesAtTheAddressOfAll)
{
    m_Hub.SetBindAddress("::");
    Start();
    Connect(m_Peer);
    EXPECT_TRUE(bAnswersAPing(m_Peer));
    EXPECT_EQ("::ffff:127.0.0.1", m_Hub.Peers().at(0).szAddress);
}

TEST_F(ASocketHub, LogsAnAddressThatIsNone)
{
    m_Hub.SetBindAddress("localhost");
    m_Hub.Configure(0, kDataMax, "tools");
    m_Hub.SetLogLevel(LOG_DEBUG);
    ASSERT_EQ(0, m_Hub.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "can't listen at localhost, port 0: Invalid argument"));
    EXPECT_FALSE(m_Hub.bGetConnected());
    EXPECT_EQ(-1, m_Hub.iListeningPort());
    EXPECT_EQ(-1, m_Hub.iMonitoring());
}

TEST_F(ASocketHub, AnswersLaterFromAnotherThread)
{
    std::atomic<peerId_t> asking{0};
    m_Hub.m_OnFrame = [&](socketFrame_t*) { asking = m_Hub.pAskingPeer()->id; };
    Start();
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled)));
    ASSERT_TRUE(bAwait([&] { return asking != 0; }));
    std::string szFrame = FrameBytes(COpenHub::kHandled, "later");
    EXPECT_EQ(25, m_Hub.iAnswer(asking, reinterpret_cast<socketFrame_t*>(pBytes(szFrame))));
    EXPECT_EQ("later", ReceiveFrame(m_Peer).szData);
}

TEST_F(ASocketHub, DoesNotAnswerAPeerThatIsGone)
{
    Start();
    const peerId_t id = Connect(m_Peer);
    m_Peer.Close();
    ASSERT_TRUE(m_Hub.bAwaitGone(eGone::CLOSED));
    std::string szFrame = FrameBytes(COpenHub::kHandled, "later");
    EXPECT_EQ(-1, m_Hub.iAnswer(id, reinterpret_cast<socketFrame_t*>(pBytes(szFrame))));
    EXPECT_EQ(-1, m_Hub.iPush(id, kUnknown, nullptr, 0));
    EXPECT_FALSE(m_Hub.bDropPeer(id));
    peer_t peer;
    EXPECT_FALSE(m_Hub.bGetPeer(id, peer));
    CTcpPeer next;
    EXPECT_NE(id, Connect(next)) << "a number is given once";
}

TEST_F(ASocketHub, PushesToAllPeers)
{
    Start();
    CTcpPeer other;
    const peerId_t id = Connect(m_Peer);
    Connect(other);
    std::string szData = "news";
    EXPECT_EQ(2, m_Hub.iPushAll(kUnknown, pBytes(szData), lSize(szData)));
    EXPECT_EQ("news", ReceiveFrame(m_Peer).szData);
    EXPECT_EQ("news", ReceiveFrame(other).szData);
    EXPECT_TRUE(m_Hub.bDropPeer(id));
    EXPECT_EQ(1, m_Hub.iPushAll(kUnknown, pBytes(szData), lSize(szData)));
    EXPECT_EQ("news", ReceiveFrame(other).szData);
    EXPECT_TRUE(m_Peer.bReceiveEof());
}

TEST_F(ASocketHub, RefusesWhatIsNoFrame)
{
    Start();
    const peerId_t id = Connect(m_Peer);
    std::string szData(65536, 'x');
    EXPECT_EQ(-1, m_Hub.iPush(id, kUnknown, pBytes(szData), lSize(szData)));
    EXPECT_EQ(-1, m_Hub.iPush(id, kUnknown, pBytes(szData), -1));
    EXPECT_EQ(-1, m_Hub.iPushAll(kUnknown, pBytes(szData), lSize(szData)));
    EXPECT_EQ(-1, m_Hub.iPushAll(kUnknown, pBytes(szData), -1));
    EXPECT_EQ(-1, m_Hub.iAnswer(id, nullptr));
    EXPECT_EQ(-1, m_Hub.iPush(0, kUnknown, nullptr, 0));
    EXPECT_EQ(65555, m_Hub.iPush(id, kUnknown, pBytes(szData), 65535));
    EXPECT_EQ(std::string(65535, 'x'), ReceiveFrame(m_Peer).szData);
}

TEST_F(ASocketHub, NamesItsPeers)
{
    Start();
    CTcpPeer other;
    const peerId_t first = Connect(m_Peer);
    const peerId_t second = Connect(other);
    const std::vector<peer_t> peers = m_Hub.Peers();
    ASSERT_EQ(2U, peers.size());
    EXPECT_EQ(first, peers[0].id);
    EXPECT_EQ(second, peers[1].id);
    peer_t peer;
    ASSERT_TRUE(m_Hub.bGetPeer(second, peer));
    EXPECT_EQ(other.iPort(), peer.iPort);
}

TEST_F(ASocketHub, PostsThatPeersComeAndGo)
{
    Start();
    CTcpPeer other;
    Connect(m_Peer);
    Connect(other);
    EXPECT_EQ(1U, m_Store.Count(&m_Hub, EVT_COM_CONNECTED)) << "one at most waits in the queue";
    m_Peer.Close();
    other.Reset();
    EXPECT_TRUE(bAwait([this] { return m_Hub.nPeers() == 0; }));
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Hub, EVT_COM_DISCONNECTED) == 1; }));
    EXPECT_EQ(0, m_Hub.iMonitoring()) << "listening is all that it is to do";
}

TEST_F(ASocketHub, NoticesAPeerThatResets)
{
    Start();
    Connect(m_Peer);
    m_Peer.Reset();
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::CLOSED));
}

TEST_F(ASocketHub, HasAWordForEachReason)
{
    EXPECT_STREQ("closed", CSocketHub::pszGone(eGone::CLOSED));
    EXPECT_STREQ("bad magic", CSocketHub::pszGone(eGone::BAD_MAGIC));
    EXPECT_STREQ("oversize", CSocketHub::pszGone(eGone::OVERSIZE));
    EXPECT_STREQ("idle", CSocketHub::pszGone(eGone::IDLE));
    EXPECT_STREQ("read error", CSocketHub::pszGone(eGone::READ_ERROR));
    EXPECT_STREQ("write error", CSocketHub::pszGone(eGone::WRITE_ERROR));
    EXPECT_STREQ("too slow", CSocketHub::pszGone(eGone::TOO_SLOW));
    EXPECT_STREQ("dropped", CSocketHub::pszGone(eGone::DROPPED));
    EXPECT_STREQ("stopped", CSocketHub::pszGone(eGone::STOPPED));
    EXPECT_STREQ("unknown", CSocketHub::pszGone(static_cast<eGone>(99)));
}

TEST_F(ASocketHub, DropsWhoSendsNoFrame)
{
    Start();
    CTcpPeer other;
    Connect(other);
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend("G")); // one byte tells
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::BAD_MAGIC));
    EXPECT_TRUE(bAnswersAPing(other));
}

TEST_F(ASocketHub, DropsWhoAnnouncesTooMuch)
{
    Start();
    for (const uint32_t iSize :
         {static_cast<uint32_t>(kDataMax) + 1, 0x10000U, 0x80000000U, 0xFFFFFFECU, 0xFFFFFFFFU}) {
        CTcpPeer peer;
        const peerId_t id = Connect(peer);
        ASSERT_TRUE(peer.bSend(HeaderBytes(CMD_COMMUN_PING, iSize)));
        EXPECT_TRUE(peer.bReceiveEof());
        ASSERT_TRUE(
            bAwait([&] { return !m_Hub.Gone().empty() && m_Hub.Gone().back().first == id; }));
        EXPECT_EQ(eGone::OVERSIZE, m_Hub.Gone().back().second);
    }
}

TEST_F(ASocketHub, TakesNoDataWhenItWasConfiguredForNone)
{
    Start(0);
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(CMD_COMMUN_PING)));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(m_Peer).iCommand);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(CMD_COMMUN_PING, "x")));
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::OVERSIZE));
}

TEST_F(ASocketHub, ServesOthersWhileAFrameIsIncomplete)
{
    Start();
    CTcpPeer other;
    Connect(other);
    Connect(m_Peer);
    const std::string szFrame = FrameBytes(CMD_COMMUN_PING, "twelve bytes");
    ASSERT_TRUE(m_Peer.bSend(szFrame.substr(0, 25)));
    EXPECT_TRUE(bAnswersAPing(other));
    ASSERT_TRUE(m_Peer.bSend(szFrame.substr(25)));
    EXPECT_EQ("twelve bytes", ReceiveFrame(m_Peer).szData);
}

TEST_F(ASocketHub, TakesFramesByteByByte)
{
    Start();
    Connect(m_Peer);
    for (const char cByte : FrameBytes(CMD_COMMUN_PING, "slowly") + FrameBytes(CMD_COMMUN_PING)) {
        ASSERT_TRUE(m_Peer.bSend(std::string(1, cByte)));
    }
    EXPECT_EQ("slowly", ReceiveFrame(m_Peer).szData);
    EXPECT_TRUE(ReceiveFrame(m_Peer).bComplete);
}

TEST_F(ASocketHub, AnswersManyFramesThatComeAtOnceInTheirOrder)
{
    Start();
    Connect(m_Peer);
    constexpr int kFrames = 5000;
    std::string szAll;
    for (int i = 0; i < kFrames; ++i) {
        szAll += FrameBytes(CMD_COMMUN_PING, std::to_string(i));
    }
    std::thread sender([&] { EXPECT_TRUE(m_Peer.bSend(szAll)); });
    for (int i = 0; i < kFrames; ++i) {
        const Frame answer = ReceiveFrame(m_Peer);
        ASSERT_EQ(std::to_string(i), answer.szData);
        ASSERT_EQ(i, answer.iCounter);
    }
    sender.join();
}

TEST_F(ASocketHub, CutsOffAPeerThatDoesNotRead)
{
    Start();
    CTcpPeer other;
    Connect(other);
    const peerId_t id = Connect(m_Peer);
    std::string szData(kDataMax, 'x');
    size_t nTaken = 0;
    while (nTaken < kFarTooMuch * 10 && m_Hub.iPush(id, kUnknown, pBytes(szData), kDataMax) > 0) {
        ++nTaken;
    }
    EXPECT_LT(nTaken, kFarTooMuch * 10);
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::TOO_SLOW));
    EXPECT_TRUE(bAnswersAPing(other));
}

TEST_F(ASocketHub, CutsOffAPeerThatAsksAndDoesNotRead)
{
    Start();
    CTcpPeer other;
    Connect(other);
    Connect(m_Peer);
    const std::string szPing = FrameBytes(CMD_COMMUN_PING, std::string(kDataMax, 'x'));
    std::thread asking([&] {
        while (m_Peer.bSend(szPing, kAwaitLimitMs)) {
        }
    });
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::TOO_SLOW));
    EXPECT_TRUE(bAnswersAPing(other));
    asking.join();
}

TEST_F(ASocketHub, LetsOneFrameWaitWhateverTheLimit)
{
    const CTempDirectory directory;
    m_Hub.SetUnixPath(directory.szPath("hub").c_str());
    m_Hub.SetSendLimit(0);
    Start();
    ASSERT_TRUE(m_Peer.bConnectUnix(directory.szPath("hub")));
    ASSERT_TRUE(bAnswersAPing(m_Peer));
    const peerId_t id = m_Hub.Peers().at(0).id;
    std::string szData(65535, 'x');
    size_t nTaken = 0; // the last of them only in part by the kernel
    while (m_Hub.iPush(id, kUnknown, pBytes(szData), lSize(szData)) > 0) {
        ++nTaken;
        ASSERT_LT(nTaken, kFarTooMuch);
    }
    EXPECT_GT(nTaken, 1U);
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::TOO_SLOW));
}

TEST_F(ASocketHub, SendsWhatWaitedWhole)
{
    const CTempDirectory directory;
    m_Hub.SetUnixPath(directory.szPath("hub").c_str());
    m_Hub.SetSendLimit(8 << 20);
    Start();
    ASSERT_TRUE(m_Peer.bConnectUnix(directory.szPath("hub")));
    ASSERT_TRUE(bAnswersAPing(m_Peer));
    const peerId_t id = m_Hub.Peers().at(0).id;
    constexpr size_t kFrames = 2000; // several times what the kernel keeps
    for (size_t i = 0; i < kFrames; ++i) {
        std::string szData(i, static_cast<char>('a' + i % 26));
        ASSERT_GT(m_Hub.iPush(id, kUnknown, pBytes(szData), lSize(szData)), 0);
    }
    uint16_t iCounter = 1; // after that of the pong
    for (size_t i = 0; i < kFrames; ++i) {
        const Frame frame = ReceiveFrame(m_Peer);
        ASSERT_EQ(std::string(i, static_cast<char>('a' + i % 26)), frame.szData);
        ASSERT_EQ(iCounter, frame.iCounter);
        iCounter = static_cast<uint16_t>(iCounter + (i > 0 ? 2 : 1));
    }
    EXPECT_TRUE(bAnswersAPing(m_Peer));
}

TEST_F(ASocketHub, PingsASilentPeerAgainAndAgain)
{
    m_Hub.SetSilence(40, 0);
    Start();
    Connect(m_Peer);
    for (int i = 0; i < 3; ++i) {
        const Frame ping = ReceiveFrame(m_Peer);
        EXPECT_EQ(CMD_COMMUN_PING, ping.iCommand);
        EXPECT_EQ(0U, ping.iSize);
    }
    EXPECT_EQ(1U, m_Hub.nPeers()) << "it was not to be dropped";
}

TEST_F(ASocketHub, PingsAndThenDropsASilentPeer)
{
    m_Hub.SetSilence(40, 400);
    Start();
    ASSERT_TRUE(m_Peer.bConnect(m_Hub.iListeningPort()));
    EXPECT_EQ(CMD_COMMUN_PING, ReceiveFrame(m_Peer).iCommand);
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::IDLE));
}

TEST_F(ASocketHub, KeepsAPeerThatAnswersItsPings)
{
    m_Hub.SetSilence(20, 500);
    Start();
    bool bKept = false;
    for (int i = 0; i < 5 && !bKept; ++i) { // a busy machine may be silent itself, not five times
        ASSERT_TRUE(m_Peer.bConnect(m_Hub.iListeningPort()));
        const CDeadline pastTheLimit(1000);
        bKept = true;
        while (bKept && !pastTheLimit.bPassed()) {
            bKept = ReceiveFrame(m_Peer).iCommand == CMD_COMMUN_PING &&
                    m_Peer.bSend(FrameBytes(CMD_COMMUN_PONG));
        }
        bKept = bKept && m_Hub.nPeers() == 1;
    }
    EXPECT_TRUE(bKept);
}

TEST_F(ASocketHub, DropsAPeerWhoseFrameNeverBecomesWhole)
{
    m_Hub.SetSilence(0, 200);
    Start();
    ASSERT_TRUE(m_Peer.bConnect(m_Hub.iListeningPort()));
    const std::string szBytes = HeaderBytes(CMD_COMMUN_PING, kDataMax) + std::string(900, 'x');
    size_t nSent = 0;
    while (nSent < szBytes.size() && !m_Peer.bReceiveEof(10)) { // for nine seconds
        m_Peer.bSend(szBytes.substr(nSent++, 1));
    }
    EXPECT_LT(nSent, szBytes.size()) << "bytes are no frame";
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::IDLE));
    EXPECT_EQ("", m_Peer.szReceive(1)) << "it was not to be pinged";
}

TEST_F(ASocketHub, DoesNotDropWhomItHadNoTimeToHear)
{
    CDoor inHandler;
    CDoor mayGoOn;
    m_Hub.SetSilence(0, kSilenceMs);
    m_Hub.m_OnFrame = [&](socketFrame_t*) {
        inHandler.Open();
        EXPECT_TRUE(mayGoOn.bPass());
    };
    Start();
    CTcpPeer other;
    Connect(m_Peer);
    Connect(other);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled)));
    ASSERT_TRUE(inHandler.bPass());
    ASSERT_TRUE(other.bSend(FrameBytes(CMD_COMMUN_PING, "waits to be read")));
    std::this_thread::sleep_for(
        std::chrono::milliseconds(kSilenceMs + 100)); // its silence, were it one
    mayGoOn.Open();
    EXPECT_EQ("waits to be read", ReceiveFrame(other).szData);
    EXPECT_TRUE(bAnswersAPing(m_Peer)) << "its frame has only just been handled";
}

TEST_F(ASocketHub, DoesNotDropWhomItHadNoTimeToAsk)
{
    CDoor inHandler;
    CDoor mayGoOn;
    m_Hub.SetSilence(kSilenceMs - 100, kSilenceMs); // a quarter of which is the time for an answer
    m_Hub.m_OnFrame = [&](socketFrame_t*) {
        inHandler.Open();
        EXPECT_TRUE(mayGoOn.bPass());
    };
    Start();
    CTcpPeer quiet;
    Connect(m_Peer);
    Connect(quiet);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled)));
    ASSERT_TRUE(inHandler.bPass());
    if (!quiet.szReceive(kHeaderBytes, 0).empty()) { // on a slow machine it was asked before
        ASSERT_TRUE(quiet.bSend(FrameBytes(CMD_COMMUN_PONG)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kSilenceMs + 100));
    mayGoOn.Open();
    EXPECT_EQ(CMD_COMMUN_PING, ReceiveFrame(quiet).iCommand);
    ASSERT_TRUE(quiet.bSend(FrameBytes(CMD_COMMUN_PONG)));
    EXPECT_TRUE(bAnswersAPing(m_Peer));
    EXPECT_EQ(2U, m_Hub.nPeers());
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::IDLE)) << "in the end";
}

TEST_F(ASocketHub, TakesNoMorePeersThanItIsTo)
{
    m_Hub.SetPeersMax(2);
    m_Hub.SetLogLevel(LOG_DEBUG);
    Start();
    CTcpPeer second;
    Connect(m_Peer);
    Connect(second);
    for (int i = 0; i < 200; ++i) {
        CTcpPeer tooMuch;
        ASSERT_TRUE(tooMuch.bConnect(m_Hub.iListeningPort()));
        ASSERT_TRUE(tooMuch.bReceiveEof());
    }
    EXPECT_EQ(2U, m_Hub.nPeers());
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("2 peers are there: no more are taken"));
    EXPECT_TRUE(bAnswersAPing(m_Peer));
    second.Close();
    ASSERT_TRUE(m_Hub.bAwaitGone(eGone::CLOSED));
    CTcpPeer next;
    Connect(next);
    EXPECT_TRUE(bAnswersAPing(next));
}

TEST_F(ASocketHub, ServesHundredsOfPeersAtOnce)
{
    constexpr size_t kPeers = kSanitized ? 200 : 400; // both ends are this process's descriptors
    Start();
    std::vector<std::unique_ptr<CTcpPeer>> peers;
    for (size_t i = 0; i < kPeers; ++i) {
        peers.push_back(std::make_unique<CTcpPeer>());
        ASSERT_TRUE(peers.back()->bConnect(m_Hub.iListeningPort()));
        ASSERT_TRUE(peers.back()->bSend(FrameBytes(CMD_COMMUN_PING, std::to_string(i))));
    }
    for (size_t i = 0; i < kPeers; ++i) {
        ASSERT_EQ(std::to_string(i), ReceiveFrame(*peers[i]).szData);
    }
    EXPECT_EQ(kPeers, m_Hub.nPeers());
    peers.clear();
    EXPECT_TRUE(bAwait([this] { return m_Hub.nPeers() == 0; }));
}

TEST_F(ASocketHub, GoesOnAfterAHandlerThatThrows)
{
    m_Hub.SetLogLevel(LOG_DEBUG);
    m_Hub.m_OnFrame = [](socketFrame_t*) { throw std::runtime_error("no such modem"); };
    Start();
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled)));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "no such modem;"));
    EXPECT_TRUE(bAnswersAPing(m_Peer));
}

TEST_F(ASocketHub, GoesOnAfterAHookThatThrows)
{
    m_Hub.SetLogLevel(LOG_DEBUG);
    m_Hub.m_OnCame = [](const peer_t&) { throw std::runtime_error("came"); };
    m_Hub.m_OnWent = [](const peer_t&) { throw std::runtime_error("went"); };
    Start();
    CTcpPeer other;
    Connect(m_Peer);
    m_Peer.Close();
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "went;"));
    Connect(other);
    EXPECT_TRUE(bAnswersAPing(other));
    m_Hub.iStop(true, false);
    EXPECT_EQ(2U, m_Hub.Gone().size());
}

TEST_F(ASocketHub, HandlesNothingMoreOfAPeerThatAHandlerDrops)
{
    std::atomic<int> nHandled{0};
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        ++nHandled;
        const peerId_t id = m_Hub.pAskingPeer()->id;
        EXPECT_TRUE(m_Hub.bDropPeer(id));
        EXPECT_EQ(-1, m_Hub.iAnswer(id, pFrame));
    };
    Start();
    Connect(m_Peer);
    const std::string szFrame = FrameBytes(COpenHub::kHandled);
    ASSERT_TRUE(m_Peer.bSend(szFrame + szFrame + szFrame));
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::DROPPED));
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_EQ(1, nHandled);
}

TEST_F(ASocketHub, SendsWhatAHandlerAnswersBeforeItDropsThePeer)
{
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        const peerId_t id = m_Hub.pAskingPeer()->id;
        m_Hub.iAnswer(id, pFrame);
        m_Hub.bDropPeer(id);
    };
    Start();
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled, "farewell")));
    EXPECT_EQ("farewell", ReceiveFrame(m_Peer).szData);
    EXPECT_TRUE(m_Peer.bReceiveEof());
}

TEST_F(ASocketHub, HandlesNothingMoreOnceAHandlerHasStoppedIt)
{
    std::atomic<int> nHandled{0};
    m_Hub.m_OnFrame = [&](socketFrame_t*) {
        ++nHandled;
        m_Hub.iStop(false, false);
    };
    Start();
    Connect(m_Peer);
    const std::string szFrame = FrameBytes(COpenHub::kHandled);
    ASSERT_TRUE(m_Peer.bSend(szFrame + szFrame + szFrame));
    EXPECT_TRUE(m_Hub.bAwaitGone(eGone::STOPPED));
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_EQ(1, nHandled);
}

TEST_F(ASocketHub, PushesToOthersFromAHandler)
{
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        m_Hub.iPushAll(kUnknown, pFrame->pGetData(), pFrame->GetDataSize());
    };
    Start();
    CTcpPeer other;
    Connect(m_Peer);
    Connect(other);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled, "to all")));
    EXPECT_EQ("to all", ReceiveFrame(other).szData);
    EXPECT_EQ("to all", ReceiveFrame(m_Peer).szData);
}

TEST_F(ASocketHub, LetsAHandlerChangeTheHandlers)
{
    m_Hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        m_Hub.RemoveEvent(COpenHub::kHandled); // itself among them
        m_Hub.RemoveEvent(CMD_COMMUN_PID);
        m_Hub.iAnswer(m_Hub.pAskingPeer()->id, pFrame);
    };
    Start();
    Connect(m_Peer);
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(COpenHub::kHandled, "first")));
    EXPECT_EQ("first", ReceiveFrame(m_Peer).szData);
    ASSERT_TRUE(
        m_Peer.bSend(FrameBytes(COpenHub::kHandled, "second") + FrameBytes(CMD_COMMUN_PID)));
    EXPECT_TRUE(bAnswersAPing(m_Peer)) << "neither of them is answered any more";
}
