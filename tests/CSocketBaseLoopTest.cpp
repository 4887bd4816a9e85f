// The thread of an endpoint: what it answers, what it survives, when it connects.
#include "libQuorCore/CSocketBase.h"

#include "libQuorCore/CSocketClient.h"

#include "internal/CUniqueFd.h"

#include "support/CForced.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTestEndpoint.h"
#include "support/Frames.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using Clock = std::chrono::steady_clock;

/// Connects to a peer of the test's, and keeps the times at which it tried.
class CDialler : public COpenEndpoint<CSocketBase>
{
public:
    ~CDialler() override { iStop(true, false); }

    long iConnect() override
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_attempts.push_back(Clock::now());
        if (m_bSucceed) {
            Adopt(iConnectTo(m_Peer));
        }
        return m_bSucceed ? 0 : -1;
    }

    long lSetOption() override
    {
        ++m_iOptionCalls;
        return CSocketBase::lSetOption();
    }

    bool bAwaitAttempts(size_t count, int iLimitMs = kAwaitLimitMs)
    {
        return bAwait([this, count] { return Attempts().size() >= count; }, iLimitMs);
    }

    std::vector<Clock::time_point> Attempts()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        return m_attempts;
    }

    CTcpPeer m_Peer;
    std::atomic<bool> m_bSucceed{false};
    std::atomic<int> m_iOptionCalls{0};

private:
    std::mutex m_lock;
    std::vector<Clock::time_point> m_attempts;
};

/// A client as it is, except that the test gives it a socket.
class CAdoptingClient : public CSocketClient
{
public:
    explicit CAdoptingClient(int iFd) : CSocketClient(nullptr, "client")
    {
        m_iSocket = iFd;
        m_bConnected = true;
    }
    ~CAdoptingClient() override { EndThread(); }
};

/// Handles a frame by writing, after a while.
class CSlowWriter : public CInvokeCallback
{
public:
    CSlowWriter(CSocketBase& endpoint, std::promise<void>& entered)
        : m_endpoint(endpoint), m_entered(entered)
    {
    }

    void invoke(void*) const override
    {
        m_entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the destructor has begun
        uint8_t cByte = 0;
        m_endpoint.iWrite(&cByte, 1);
    }

private:
    CSocketBase& m_endpoint;
    std::promise<void>& m_entered;
};

/// Consumes as much of each frame as the test says.
class CPartialConsumer : public COpenEndpoint<CSocketBase>
{
public:
    using COpenEndpoint::COpenEndpoint;
    ~CPartialConsumer() override { iStop(true, false); }

    long lDispatchTrame(uint8_t*, long lSizeTotal, long* plUsed) override
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_lengths.push_back(lSizeTotal);
        *plUsed = m_lUsed;
        return 1;
    }

    bool bAwaitLengths(const std::vector<long>& expected)
    {
        return bAwait([&] {
            const std::lock_guard<std::mutex> held(m_lock);
            return m_lengths == expected;
        });
    }

    std::atomic<long> m_lUsed{0};

private:
    std::mutex m_lock;
    std::vector<long> m_lengths;
};

/// Goes on with the connection that it has, instead of making another.
class CResumer : public COpenEndpoint<CSocketBase>
{
public:
    using COpenEndpoint::COpenEndpoint;
    ~CResumer() override { iStop(true, false); }

    long iConnect() override
    {
        SetConnected(true);
        return 0;
    }
};

/// A running endpoint that is connected to m_Peer.
class ARunningSocketBase : public ::testing::Test
{
protected:
    void SetUp() override { Start(1000); }

    void TearDown() override { m_Endpoint.iStop(true, false); }

    void Start(long lSizeDataMax)
    {
        m_Endpoint.Configure(0, lSizeDataMax, "peer");
        ASSERT_EQ(0, m_Endpoint.iCreateThread(true, kStartLimitMs));
    }

    /// Starts it anew on a new connection.
    void Restart(long lSizeDataMax)
    {
        m_Endpoint.iStop(true, false);
        m_Endpoint.Adopt(iConnectTo(m_Peer));
        Start(lSizeDataMax);
    }

    Frame Ask(const std::string& szRequest)
    {
        EXPECT_TRUE(m_Peer.bSend(szRequest));
        return ReceiveFrame(m_Peer);
    }

    /// The endpoint has handled all that was sent before, and is still connected.
    bool bAnswersAPing()
    {
        return Ask(FrameBytes(CMD_COMMUN_PING, "are you there?")).iCommand == CMD_COMMUN_PONG;
    }

    /// The endpoint answered nothing to what was sent before.
    bool bWasSilent(const std::string& szRequest)
    {
        m_Peer.bSend(szRequest);
        return bAnswersAPing();
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    CTcpPeer m_Peer;
    COpenEndpoint<CSocketBase> m_Endpoint{iConnectTo(m_Peer)};
};
} // namespace

TEST_F(ARunningSocketBase, AnswersAPingWithTheSameData)
{
    Frame ping;
    ping.iCommand = CMD_COMMUN_PING;
    ping.iTypeItf = 5;
    ping.iError = 9;
    ping.iProtocol = 6;
    ping.iCounter = 77;
    ping.iUser1 = -3;
    ping.iUser2 = 4;
    ping.szData = "twelve bytes";
    m_Endpoint.m_iMsgCounter = 30;
    m_Endpoint.m_iNextPing = 1;
    Frame pong = Ask(FrameBytes(ping));
    ping.iCommand = CMD_COMMUN_PONG;
    ping.iError = 0;
    ping.iCounter = 30;
    EXPECT_EQ(FrameBytes(ping), FrameBytes(pong));
    EXPECT_LT(time(nullptr), m_Endpoint.m_iNextPing);
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Endpoint, EVT_COM_PING) == 1; }));
}

// Written out, as docs/frame-format.md shows them.
TEST_F(ARunningSocketBase, AnswersThePingOfTheFormatPage)
{
    const std::string szPing("\xAA\xAA\x03\0\0\0\x05\0\x0A\0\0\0\0\0\x02\x01\xFD\xFF\0\0abc", 23);
    const std::string szPong("\xAA\xAA\x03\0\0\0\x05\0\x12\0\0\0\0\0\0\0\xFD\xFF\0\0abc", 23);
    m_Peer.bSend(szPing);
    EXPECT_EQ(szPong, m_Peer.szReceive(23));
}

TEST_F(ARunningSocketBase, AnswersAPingWithoutDataBy20Bytes)
{
    m_Peer.bSend(FrameBytes(CMD_COMMUN_PING));
    EXPECT_EQ(FrameBytes(CMD_COMMUN_PONG), m_Peer.szReceive(20));
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ARunningSocketBase, TakesAPongWithoutAnAnswer)
{
    m_Endpoint.m_iNextPing = 1;
    m_Peer.bSend(FrameBytes(CMD_COMMUN_PONG, "data"));
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Endpoint, EVT_COM_PONG) == 1; }));
    EXPECT_LT(time(nullptr), m_Endpoint.m_iNextPing);
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ARunningSocketBase, TellsItsVersion)
{
    g_versionFW = {};
    g_versionFW.version = 0x0203;
    std::strcpy(g_versionFW.szAppName, "modemd");
    const Frame answer = Ask(FrameBytes(CMD_COMMUN_VERSION));
    EXPECT_EQ(CMD_COMMUN_VERSION, answer.iCommand);
    std::string szExpected = "\x03\x02modemd";
    szExpected.resize(130);
    EXPECT_EQ(szExpected, answer.szData);
}

TEST_F(ARunningSocketBase, ShowsNothingBehindItsName)
{
    g_versionFW = {};
    std::strcpy(g_versionFW.szAppName, "secret-app");
    std::strcpy(g_versionFW.szAppName, "app");
    const Frame answer = Ask(FrameBytes(CMD_COMMUN_VERSION));
    std::string szExpected = std::string(2, '\0') + "app";
    szExpected.resize(130);
    EXPECT_EQ(szExpected, answer.szData);
}

TEST_F(ARunningSocketBase, TellsItsProcessIdInFourBytes)
{
    const Frame answer = Ask(FrameBytes(CMD_COMMUN_PID));
    EXPECT_EQ(CMD_COMMUN_PID, answer.iCommand);
    const auto iPid = static_cast<uint32_t>(getpid());
    std::string szExpected;
    for (int i = 0; i < 4; ++i) {
        szExpected += static_cast<char>(iPid >> (8 * i) & 0xFF);
    }
    EXPECT_EQ(szExpected, answer.szData);
}

TEST_F(ARunningSocketBase, TellsItsNameWithAZeroBehindIt)
{
    g_versionFW = {};
    std::strcpy(g_versionFW.szAppName, "modemd");
    EXPECT_EQ(std::string("modemd\0", 7), Ask(FrameBytes(CMD_COMMUN_NAME)).szData);
    std::memset(g_versionFW.szAppName, 'n', sizeof(g_versionFW.szAppName)); // no 0 of its own
    EXPECT_EQ(std::string(128, 'n') + '\0', Ask(FrameBytes(CMD_COMMUN_NAME)).szData);
    EXPECT_EQ(130u, Ask(FrameBytes(CMD_COMMUN_VERSION)).iSize);
}

TEST_F(ARunningSocketBase, ClearsTheErrorOfWhatItAnswers)
{
    for (const uint16_t iCommand :
         {CMD_COMMUN_VERSION, CMD_COMMUN_PID, CMD_COMMUN_NAME, CMD_COMMUN_GET_LOG_CONFIG}) {
        Frame request;
        request.iCommand = iCommand;
        request.iError = 5;
        request.iTypeItf = 6;
        request.iUser2 = -7;
        const Frame answer = Ask(FrameBytes(request));
        EXPECT_EQ(0, answer.iError);
        EXPECT_EQ(6, answer.iTypeItf);
        EXPECT_EQ(-7, answer.iUser2);
        EXPECT_EQ(iCommand, answer.iCommand);
    }
}

TEST_F(ARunningSocketBase, AnswersThoughItIsConfiguredForFourBytes)
{
    for (const long lMax : {4, 0}) {
        Restart(lMax);
        EXPECT_EQ(130u, Ask(FrameBytes(CMD_COMMUN_VERSION)).szData.size());
        EXPECT_EQ(4u, Ask(FrameBytes(CMD_COMMUN_PID)).szData.size());
        EXPECT_LT(500u, Ask(FrameBytes(CMD_COMMUN_GET_LOG_CONFIG)).szData.size());
    }
}

// Such a frame is the answer to an exchange that has given up: two endpoints would send it to and
// fro for ever.
TEST_F(ARunningSocketBase, DoesNotAnswerAnAnswer)
{
    EXPECT_TRUE(bWasSilent(FrameBytes(CMD_COMMUN_VERSION, std::string(130, 'v'))));
    EXPECT_TRUE(bWasSilent(FrameBytes(CMD_COMMUN_PID, "1234")));
    EXPECT_TRUE(bWasSilent(FrameBytes(CMD_COMMUN_NAME, std::string("name\0", 5))));
    EXPECT_TRUE(bWasSilent(FrameBytes(CMD_COMMUN_SET_LOG_CONFIG)));
    EXPECT_TRUE(bWasSilent(FrameBytes(CMD_COMMUN_SET_LOG_CONFIG, "1"))); // not a pair either
    Restart(60000);
    const Frame page = Ask(FrameBytes(CMD_COMMUN_GET_LOG_CONFIG, "/log"));
    ASSERT_LT(500u, page.szData.size());
    EXPECT_TRUE(bWasSilent(FrameBytes(page)));
    EXPECT_EQ(0u, m_Store.Count(&m_Endpoint, EVT_CONFIG_SAVE));
}

TEST_F(ARunningSocketBase, SetsLogLevelsAndHasThemSaved)
{
    std::string szPairs; // this test's thread and the endpoint's are registered
    for (const char cIndex : {'\0', '\1'}) {
        szPairs += cIndex;
        szPairs += '\6';
    }
    Frame request;
    request.iCommand = CMD_COMMUN_SET_LOG_CONFIG;
    request.iError = 3;
    request.szData = szPairs + "z"; // half a pair, which is ignored
    const Frame answer = Ask(FrameBytes(request));
    EXPECT_EQ(CMD_COMMUN_SET_LOG_CONFIG, answer.iCommand);
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ("", answer.szData);
    EXPECT_EQ(LOG_INFO, __atomic_load_n(m_Endpoint.piGetLogLevel(), __ATOMIC_RELAXED));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_CONFIG_SAVE));
}

TEST_F(ARunningSocketBase, AnswersWithThePageOfLogLevels)
{
    g_versionFW = {};
    std::strcpy(g_versionFW.szAppName, "modemd");
    m_Peer.bSend(FrameBytes(3000, std::string(100, '#'))); // what the buffer held before
    const Frame answer = Ask(FrameBytes(CMD_COMMUN_GET_LOG_CONFIG, "/log.cgi"));
    EXPECT_EQ(CMD_COMMUN_GET_LOG_CONFIG, answer.iCommand);
    EXPECT_EQ(0u, answer.szData.find("<!DOCTYPE html>"));
    EXPECT_NE(std::string::npos, answer.szData.find("modemd"));
    EXPECT_NE(std::string::npos, answer.szData.find("action=\"/log.cgi\">"));
    EXPECT_NE(std::string::npos, answer.szData.find("endpoint"));
    EXPECT_EQ(answer.szData.size() - 1, answer.szData.find('\0')); // at its very end
}

TEST_F(ARunningSocketBase, CutsAPageThatNoFrameCanHold)
{
    Restart(65535);
    const Frame answer =
        Ask(FrameBytes(CMD_COMMUN_GET_LOG_CONFIG, std::string(65400, 'a'))); // in the page's form
    EXPECT_EQ(65515u, answer.szData.size());
    EXPECT_EQ(65514u, answer.szData.find('\0'));
    EXPECT_TRUE(bAnswersAPing());
}

TEST_F(ARunningSocketBase, SendsBackALargePingWhole)
{
    Restart(65535);
    const Frame answer = Ask(FrameBytes(CMD_COMMUN_PING, std::string(65535, 'p')));
    EXPECT_EQ(CMD_COMMUN_PONG, answer.iCommand);
    EXPECT_EQ(std::string(65535, 'p'), answer.szData);
    EXPECT_TRUE(bAnswersAPing());
}

TEST_F(ARunningSocketBase, DropsACommandThatNobodyHandles)
{
    m_Endpoint.m_iNextPing = 1;
    for (const uint16_t iCommand : std::initializer_list<uint16_t>{0, 14, 15, 3000, 65535}) {
        EXPECT_TRUE(bWasSilent(FrameBytes(iCommand, "data")));
    }
    EXPECT_LT(time(nullptr), m_Endpoint.m_iNextPing);
}

TEST_F(ARunningSocketBase, CountsAsAliveWhateverItsPeerSends)
{
    m_Endpoint.m_iNextPing = 1;
    m_Peer.bSend(FrameBytes(3999)); // no handler
    EXPECT_TRUE(bAwait([this] { return m_Endpoint.m_iNextPing > time(nullptr); }));
}

TEST_F(ARunningSocketBase, ReadsAFrameThatComesByteByByte)
{
    for (const char cByte : FrameBytes(CMD_COMMUN_PING, "slow")) {
        ASSERT_TRUE(m_Peer.bSend(std::string(1, cByte)));
    }
    EXPECT_EQ("slow", ReceiveFrame(m_Peer).szData);
}

TEST_F(ARunningSocketBase, ReadsFramesThatComeTogether)
{
    std::string szMany;
    for (int i = 0; i < 50; ++i) {
        szMany += FrameBytes(CMD_COMMUN_PING, std::string(static_cast<size_t>(i), 'm'));
    }
    ASSERT_TRUE(m_Peer.bSend(szMany));
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(static_cast<uint32_t>(i), ReceiveFrame(m_Peer).iSize);
    }
}

TEST_F(ARunningSocketBase, LetsAHandlerReadTheDataThatWasTooLong)
{
    std::string szRest(1500, '?');
    std::promise<long> read;
    m_Endpoint.iStop(true, false);
    m_Endpoint.m_OnFrame = [&](socketFrame_t*) {
        read.set_value(m_Endpoint.iRead(pBytes(szRest), lSize(szRest), nullptr));
    };
    Restart(1000);
    const std::string szData(1500, 'd');
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(m_Endpoint.m_iHandled, szData) +
                             FrameBytes(CMD_COMMUN_PING, "next")));
    EXPECT_EQ("next", ReceiveFrame(m_Peer).szData);
    EXPECT_EQ(1500, read.get_future().get());
    EXPECT_EQ(szData, szRest);
}

TEST_F(ARunningSocketBase, CompletesNoFrameWithBytesOfTheNextConnection)
{
    std::atomic<int> iHandled{0};
    m_Endpoint.iStop(true, false);
    m_Endpoint.m_OnFrame = [&](socketFrame_t*) { ++iHandled; };
    for (const size_t nCut : {10u, 50u}) { // within the header, within the data
        Restart(1000);
        const std::string szFrame = FrameBytes(m_Endpoint.m_iHandled, std::string(100, 'd'));
        ASSERT_TRUE(m_Peer.bSend(szFrame.substr(0, nCut)));
        ASSERT_TRUE(bAwait([this] {
            int iUnread = -1;
            return ioctl(m_Endpoint.m_iSocket, FIONREAD, &iUnread) == 0 && iUnread == 0;
        }));
        CTcpPeer next;
        const CUniqueFd former(m_Endpoint.m_iSocket.exchange(iConnectTo(next)));
        ASSERT_EQ(0, shutdown(former.iGet(), SHUT_RDWR)); // wakes the reader
        ASSERT_TRUE(next.bSend(FrameBytes(CMD_COMMUN_PING, std::string(200, 'n'))));
        EXPECT_EQ(std::string(200, 'n'), ReceiveFrame(next).szData);
        m_Endpoint.iStop(true, false);
    }
    EXPECT_EQ(0, iHandled);
}

TEST(AResumedSocketBase, HasLostNothingOfItsConnection)
{
    CTcpPeer peer;
    CResumer endpoint(iConnectTo(peer));
    endpoint.m_OnFrame = [&](socketFrame_t*) { endpoint.SetConnected(false); };
    endpoint.Configure(0, 1000, "peer");
    ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(peer.bSend(FrameBytes(endpoint.m_iHandled) + FrameBytes(CMD_COMMUN_PING, "next")));
    ASSERT_TRUE(bAwait([&] {
        endpoint.StopDynWait();
        pollfd entry = {peer.iSocket(), POLLIN, 0};
        return poll(&entry, 1, 0) == 1;
    }));
    EXPECT_EQ("next", ReceiveFrame(peer).szData);
}

TEST_F(ARunningSocketBase, AcceptsDataUpToItsMaximum)
{
    EXPECT_EQ(1000u, Ask(FrameBytes(CMD_COMMUN_PING, std::string(1000, 'x'))).szData.size());
}

TEST_F(ARunningSocketBase, AnswersAnOversizePingWithoutDataAndCloses)
{
    const std::string szFrame = FrameBytes(CMD_COMMUN_PING, std::string(1001, 'x'));
    const Frame answer = Ask(szFrame);
    EXPECT_EQ(CMD_COMMUN_PONG, answer.iCommand);
    EXPECT_EQ(0u, answer.iSize); // nothing of what is in memory there
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED) == 1; }));
}

TEST_F(ARunningSocketBase, SurvivesAnnouncementsOfAnySize)
{
    using Commands = std::initializer_list<uint16_t>;
    for (const uint32_t iSize : {1001u, 65536u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        for (const uint16_t iCommand : Commands{10, 11, 12, 13, 16, 17, 18}) {
            Restart(1000);
            m_Peer.bSend(HeaderBytes(iCommand, iSize) + FrameBytes(CMD_COMMUN_PING, "last"));
            Frame answer = ReceiveFrame(m_Peer); // of the header, where an empty frame has one
            if (answer.szData != "last") {
                answer = ReceiveFrame(m_Peer);
            }
            EXPECT_EQ("last", answer.szData) << iCommand << " with " << iSize;
        }
    }
}

TEST_F(ARunningSocketBase, GivesBackTheDescriptorOfALostConnection)
{
    ASSERT_TRUE(bAnswersAPing());
    const int iFd = m_Endpoint.m_iSocket;
    m_Endpoint.Close();
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_TRUE(bAwait([iFd] { return fcntl(iFd, F_GETFD) == -1; }));
    Restart(1000);
    const int iNextFd = m_Endpoint.m_iSocket;
    ASSERT_TRUE(m_Peer.bSend(std::string(20, '#')));
    EXPECT_TRUE(bAwait([iNextFd] { return fcntl(iNextFd, F_GETFD) == -1; }));
}

TEST_F(ARunningSocketBase, ClosesOnAFrameWithoutTheMagic)
{
    m_Peer.bSend("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(bAwait([this] { return m_Endpoint.m_iSocket == -1; })); // the last that it does
    EXPECT_FALSE(m_Endpoint.bGetConnected());
}

TEST_F(ARunningSocketBase, ClosesWhenAFrameIsCutOff)
{
    const std::string szFrame = FrameBytes(CMD_COMMUN_PING, std::string(900, 'x'));
    for (const size_t size : {size_t{1}, size_t{19}, size_t{21}, szFrame.size() - 1}) {
        Restart(1000);
        m_Peer.bSend(szFrame.substr(0, size));
        m_Peer.EndSending();
        EXPECT_TRUE(m_Peer.bReceiveEof()) << size; // and not a single byte came back
        Restart(1000);
        m_Peer.bSend(szFrame.substr(0, size));
        m_Peer.Reset();
        EXPECT_TRUE(bAwait([this] { return !m_Endpoint.bGetConnected(); })) << size;
    }
}

TEST_F(ARunningSocketBase, StaysConnectedToAPeerThatHasEndedItsSide)
{
    m_Peer.EndSending();
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // ten empty reads take 90 ms
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    std::string szData = "still there";
    EXPECT_LT(0, m_Endpoint.iWrite(3000, pBytes(szData), lSize(szData), 0, 0, 0, 0));
    EXPECT_EQ("still there", ReceiveFrame(m_Peer).szData);
    m_Endpoint.m_iNextPing = time(nullptr) - 1;
    EXPECT_EQ(0, m_Endpoint.iMonitoring()); // which notices the silence
    EXPECT_FALSE(m_Endpoint.bGetConnected());
}

TEST_F(ARunningSocketBase, QueuesOneEventForAFloodOfFrames)
{
    const int kFrames = nRounds(4000);
    const std::string szBurst = FrameBytes(CMD_COMMUN_PING) + FrameBytes(CMD_COMMUN_PONG) +
                                FrameBytes(CMD_COMMUN_SET_LOG_CONFIG, "\x7F\x07");
    auto flooding = std::async(std::launch::async, [&] {
        for (int i = 0; i < kFrames; ++i) {
            m_Peer.bSend(szBurst);
        }
    });
    EXPECT_EQ(static_cast<size_t>(kFrames) * 40,
              m_Peer.szReceive(static_cast<size_t>(kFrames) * 40).size());
    flooding.get();
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_PING));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_PONG));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_CONFIG_SAVE));
}

TEST_F(ARunningSocketBase, HandsFramesToTheHandlersOfASubclass)
{
    m_Endpoint.iStop(true, false);
    std::promise<std::pair<std::string, pthread_t>> handled;
    m_Endpoint.m_OnFrame = [&](socketFrame_t* pFrame) {
        const auto* const pszData = reinterpret_cast<const char*>(pFrame->pGetData());
        handled.set_value({std::string(pszData, pFrame->GetDataSize()), pthread_self()});
    };
    Restart(1000);
    const pthread_t thread = m_Endpoint.iGetThreadId();
    m_Peer.bSend(FrameBytes(3000, "for you"));
    auto future = handled.get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(std::chrono::milliseconds(kAwaitLimitMs)));
    const auto [szData, handler] = future.get();
    EXPECT_EQ("for you", szData);
    EXPECT_TRUE(pthread_equal(thread, handler));
}

TEST_F(ARunningSocketBase, TellsOfEachFrameOnlyWhatTheBufferHolds)
{
    CTcpPeer peer;
    CPartialConsumer consumer(iConnectTo(peer));
    consumer.Configure(0, 100, "");
    ASSERT_EQ(0, consumer.iCreateThread(true, kStartLimitMs));
    const std::string szFrame = FrameBytes(3000, "0123456789");
    std::vector<long> lengths;
    const auto send = [&](long lUsed, long lExpected) { // consumes lUsed of lExpected bytes
        consumer.m_lUsed = lUsed;
        lengths.push_back(lExpected);
        peer.bSend(szFrame);
        EXPECT_TRUE(consumer.bAwaitLengths(lengths)) << lengths.size();
    };
    send(4, 10);
    send(0, 10 + 6); // what was left of the one before counts in
    send(0, 10 + 16);
    send(0, 30); // but never more than the frame's own 30 bytes
    send(-7, 30);
    send(1000000, 30);
    send(10, 10);
    send(10, 10);
}

TEST(ASocketBaseLoop, WaitsFiveSecondsBeforeItConnects)
{
    CDialler dialler;
    const auto begin = Clock::now();
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(dialler.bAwaitAttempts(2));
    const auto attempts = dialler.Attempts();
    EXPECT_LE(std::chrono::seconds(5), attempts[0] - begin);
    EXPECT_LE(std::chrono::seconds(5), attempts[1] - attempts[0]);
}

TEST(ASocketBaseLoop, IsToldToWaitNoLonger)
{
    CDialler dialler;
    dialler.SetFirstConnectDelay(3600);
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(bAwait([&] { // again and again: told before it waits it would not know
        dialler.StopDynWait();
        return !dialler.Attempts().empty();
    }));
}

TEST(ASocketBaseLoop, ConnectsAtOnceWhenItIsConfiguredTo)
{
    CDialler dialler;
    dialler.SetFirstConnectDelay(0);
    const auto begin = Clock::now();
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(dialler.bAwaitAttempts(1));
    EXPECT_GT(std::chrono::seconds(5), Clock::now() - begin);
    ASSERT_TRUE(dialler.bAwaitAttempts(2));
    const auto attempts = dialler.Attempts();
    EXPECT_LE(std::chrono::seconds(5), attempts[1] - attempts[0]); // the first only
}

TEST(ASocketBaseLoop, PausesLongerAfterABadFrame)
{
    CDialler dialler;
    dialler.SetFirstConnectDelay(0);
    dialler.m_bSucceed = true;
    dialler.Configure(0, 100, "");
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return dialler.bGetConnected(); }));
    const auto begin = Clock::now();
    dialler.m_bSucceed = false;
    dialler.m_Peer.bSend(std::string(20, '#'));
    ASSERT_TRUE(dialler.bAwaitAttempts(2, 60000));
    EXPECT_LE(std::chrono::seconds(15 + 5), dialler.Attempts()[1] - begin);
}

TEST(ASocketBaseLoop, PreparesAndAnnouncesAConnection)
{
    CMessageStore store;
    CDialler dialler;
    dialler.SetFirstConnectDelay(0);
    dialler.m_bSucceed = true;
    dialler.Configure(0, 100, "");
    dialler.m_iNextPing = 1; // long over: a connection must not be measured by it
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return store.Count(&dialler, EVT_COM_CONNECTED) == 1; }));
    EXPECT_EQ(1, dialler.m_iOptionCalls);
    EXPECT_LT(time(nullptr), dialler.m_iNextPing);
    int iNoDelay = 0;
    timeval timeout = {};
    socklen_t length = sizeof(iNoDelay);
    getsockopt(dialler.m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iNoDelay, &length);
    EXPECT_NE(0, iNoDelay); // header and data are two writes: no 40 ms in between
    length = sizeof(timeout);
    getsockopt(dialler.m_iSocket, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length);
    EXPECT_EQ(10, timeout.tv_sec);
}

TEST(ASocketBaseLoop, AnnouncesNothingWhenItDidNotConnect)
{
    CMessageStore store;
    CDialler dialler;
    dialler.SetFirstConnectDelay(0);
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(dialler.bAwaitAttempts(1));
    dialler.iStop(true, false);
    EXPECT_EQ(0, dialler.m_iOptionCalls);
    EXPECT_EQ(0u, store.Count(&dialler, EVT_COM_CONNECTED));
}

TEST(ASocketBaseLoop, ReadsFromASocketThatIsOpenAlready)
{
    CTcpPeer peer;
    CDialler dialler;
    dialler.Adopt(iConnectTo(peer));
    dialler.Configure(0, 100, "");
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    peer.bSend(FrameBytes(CMD_COMMUN_PING));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(peer).iCommand);
    EXPECT_EQ(0u, dialler.Attempts().size());
}

TEST(ASocketBaseLoop, HasNoBufferToReadIntoUnlessItIsConfigured)
{
    CTcpPeer peer;
    COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
    ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(peer.bReceiveEof());
}

TEST(ASocketBaseLoop, EndsWhileItReads)
{
    const size_t before = nOpenDescriptors();
    for (int i = 0; i < nRounds(240); ++i) {
        CTcpPeer peer;
        COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
        endpoint.Configure(0, 100, "");
        ASSERT_EQ(0, endpoint.iCreateThread(i % 2 == 0, kStartLimitMs));
        if (i % 3 == 0) {
            peer.bSend(FrameBytes(CMD_COMMUN_PING));
        }
        if (i % 4 == 0) {
            endpoint.iStop(true, false);
            EXPECT_FALSE(endpoint.bGetConnected());
        }
    }
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ASocketBaseLoop, EndsByItselfWhenItIsForcedTo)
{
    const size_t before = nOpenDescriptors();
    const int nStops = nRounds(100);
    int nEnds = 0;
    for (int i = 0; i < nStops; ++i) {
        CTcpPeer peer;
        CForced<COpenEndpoint<CSocketBase>> endpoint(iConnectTo(peer));
        endpoint.Configure(0, 100, "");
        ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
        endpoint.iStop(true, true);
        ASSERT_FALSE(endpoint.bIsRunning());
        nEnds += endpoint.m_nEnds;
    }
    EXPECT_LE(nStops * 9 / 10, nEnds) << "the others were too slow, and cancelled";
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ASocketBaseLoop, EndsByItselfBetweenTwoAttemptsToConnect)
{
    int nEnds = 0;
    for (int i = 0; i < 5 && nEnds == 0; ++i) { // the machine may be busy, not five times
        CForced<COpenEndpoint<CSocketBase>> endpoint;
        endpoint.Configure(0, 100, "");
        ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
        endpoint.iStop(true, true); // in the first second of its first wait
        nEnds = endpoint.m_nEnds;
    }
    EXPECT_EQ(1, nEnds) << "it was cancelled";
}

TEST(ASocketBaseLoop, IsCancelledInAHandlerThatNeverReturns)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    const size_t before = nOpenDescriptors();
    {
        CTcpPeer peer;
        CForced<COpenEndpoint<CSocketBase>> endpoint(iConnectTo(peer));
        endpoint.m_bDwells = true;
        endpoint.Configure(0, 100, "");
        ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(peer.bSend(FrameBytes(CMD_COMMUN_PING)));
        ASSERT_TRUE(bAwait([&endpoint] { return endpoint.m_nHandled == 1; }));
        const auto begin = Clock::now();
        EXPECT_EQ(0, endpoint.iStop(true, true));
        EXPECT_GT(std::chrono::seconds(8), Clock::now() - begin);
        EXPECT_FALSE(endpoint.bIsRunning());
        EXPECT_EQ(0, endpoint.m_nEnds);
    }
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ASocketBaseLoop, EndsWhileItIsConnecting)
{
    const size_t before = nOpenDescriptors();
    for (int i = 0; i < nRounds(200); ++i) {
        CDialler dialler;
        dialler.SetFirstConnectDelay(0);
        dialler.m_bSucceed = true;
        dialler.Configure(0, 100, "");
        const auto begin = Clock::now();
        ASSERT_EQ(0, dialler.iCreateThread(false, 0));
        std::this_thread::sleep_for(std::chrono::microseconds(i * 3));
        dialler.iStop(true, false);
        ASSERT_GT(std::chrono::seconds(8), Clock::now() - begin); // it was not cancelled
        EXPECT_EQ(-1, dialler.m_iSocket);
    }
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ASocketBaseLoop, MayDeleteItsObject)
{
    std::thread([] {}).join(); // a sanitizer starts its own with the first
    const size_t descriptors = nOpenDescriptors();
    const size_t threads = nThreads();
    for (int i = 0; i < nRounds(200); ++i) {
        CTcpPeer peer;
        auto* const pEndpoint = new COpenEndpoint<CSocketBase>(iConnectTo(peer));
        pEndpoint->Configure(0, 100, "");
        pEndpoint->SetAutoDelete(true);
        ASSERT_EQ(0, pEndpoint->iCreateThread(true, kStartLimitMs));
        pEndpoint->iStop(true, false);
        EXPECT_TRUE(peer.bReceiveEof());
    }
    EXPECT_TRUE(bAwait([&] { return nThreads() == threads; }));
    EXPECT_EQ(descriptors, nOpenDescriptors());
    const CLogLevel level; // its lock orders the last step of those threads before our own end
}

// Nobody knows the id of a thread that deletes its object; its buffer must stay all the same.
TEST(ASocketBaseLoop, KeepsItsBufferWhileItReadsIntoIt)
{
    std::thread([] {}).join(); // a sanitizer starts its own with the first
    const size_t threads = nThreads();
    CTcpPeer peer;
    auto* const pEndpoint = new COpenEndpoint<CSocketBase>(iConnectTo(peer));
    pEndpoint->Configure(0, 100, "");
    pEndpoint->SetAutoDelete(true);
    ASSERT_EQ(0, pEndpoint->iCreateThread(true, kStartLimitMs));
    const uint8_t* const pBuffer = pEndpoint->m_pRxBuffer;
    pEndpoint->Configure(0, 1000000, "");
    EXPECT_EQ(pBuffer, pEndpoint->m_pRxBuffer);
    EXPECT_EQ(100, pEndpoint->m_lSizeDataMax);
    peer.bSend(FrameBytes(CMD_COMMUN_PING));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(peer).iCommand);
    pEndpoint->iStop(true, false);
    EXPECT_TRUE(bAwait([&] { return nThreads() == threads; }));
    const CLogLevel level; // its lock orders the last step of that thread before our own end
}

TEST(ASocketBaseLoop, MayStillBeEndingWhenItsObjectIsDestroyed)
{
    std::thread([] {}).join(); // a sanitizer starts its own with the first
    const size_t descriptors = nOpenDescriptors();
    const size_t threads = nThreads();
    for (int i = 0; i < nRounds(200); ++i) {
        CTcpPeer peer;
        std::promise<void> entered;
        CAdoptingClient client(iConnectTo(peer));
        client.Configure(0, 100, "");
        client.pAddCallback(3000, new CSlowWriter(client, entered));
        ASSERT_EQ(0, client.iCreateThread(i % 2 == 0, kStartLimitMs));
        if (i % 10 == 0) {
            peer.bSend(FrameBytes(3000));
            entered.get_future().wait();
        }
        client.iStop(false, false);
    }
    EXPECT_TRUE(bAwait([&] { return nThreads() == threads; }));
    EXPECT_EQ(descriptors, nOpenDescriptors());
    const CLogLevel level; // its lock orders the last step of those threads before our own end
}

TEST(ASocketBaseLoop, DoesNotAnnounceAConnectionThatIsGone)
{
    CMessageStore store;
    CDialler dialler;
    dialler.m_bConnected = true; // as a Close() at the very moment of connecting leaves it
    dialler.SetFirstConnectDelay(0);
    ASSERT_EQ(0, dialler.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(dialler.bAwaitAttempts(1));
    dialler.iStop(true, false);
    EXPECT_EQ(0, dialler.m_iOptionCalls);
    EXPECT_EQ(0u, store.Count(&dialler, EVT_COM_CONNECTED));
}

TEST(ASocketBaseLoop, SurvivesEverythingAtOnce)
{
    const CLogLevel level;
    const size_t before = nOpenDescriptors();
    for (int iRound = 0; iRound < nRounds(12); ++iRound) {
        CMessageStore store;
        CTcpPeer peer;
        COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
        endpoint.Configure(0, 1000, "");
        ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
        std::atomic<bool> bGo{true};
        std::vector<std::thread> threads;
        threads.emplace_back([&] { // the peer sends back what it gets, and pings in between
            while (bGo) {
                peer.bSend(FrameBytes(CMD_COMMUN_PING, "ping"), 100);
                peer.bSend(peer.szReceive(1000, 5), 100);
            }
        });
        threads.emplace_back([&] {
            std::string szData(300, 'w');
            while (bGo) {
                endpoint.iWrite(3000, pBytes(szData), lSize(szData), 0, 0, 0, 0);
            }
        });
        threads.emplace_back([&] {
            uint8_t aAnswer[400];
            long lUsed = 0;
            while (bGo) {
                endpoint.iExchangeCmd(3001, nullptr, 0, 3001, aAnswer, sizeof(aAnswer), &lUsed, 20,
                                      iRound % 2 == 0);
            }
        });
        threads.emplace_back([&] {
            while (bGo) {
                endpoint.iMonitoring();
                endpoint.bCheckPing();
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (iRound % 3 != 0) {
            endpoint.Close();
        }
        endpoint.iStop(true, false);
        bGo = false;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(before, nOpenDescriptors());
}
