// The endpoint that connects.
#include "libQuorCore/CSocketClient.h"

#include "libQuorCore/CSocketServer.h"

#include "internal/CUniqueFd.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestEndpoint.h"
#include "support/CUntakeableLock.h"
#include "support/Frames.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// Counts the options that it sets.
class COpenClient : public COpenEndpoint<CSocketClient>
{
public:
    ~COpenClient() override { iStop(true, false); }

    long lSetOption() override
    {
        ++m_iOptionCalls;
        return CSocketClient::lSetOption();
    }

    std::atomic<int> m_iOptionCalls{0};
};

/// A server that tells its port.
class CPortServer : public COpenEndpoint<CSocketServer>
{
public:
    ~CPortServer() override { iStop(true, false); }

    int iAwaitPort()
    {
        sockaddr_in address = {};
        EXPECT_TRUE(bAwait([&] {
            socklen_t length = sizeof(address);
            return getsockname(m_iListenSocket, reinterpret_cast<sockaddr*>(&address), &length) ==
                       0 &&
                   address.sin_port != 0;
        }));
        return ntohs(address.sin_port);
    }
};

bool bLogged(int iLevel, const std::string& szText)
{
    return CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
        return record.iLevel == iLevel && record.szText.find(szText) != std::string::npos;
    });
}

/// A client that was told of m_Peer's port and does not run yet.
class ASocketClient : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Peer.Listen(iFreePort()); // which stays free when it is left for a while
        m_Client.Configure(m_Peer.iPort(), 1000, "127.0.0.1");
        m_Client.SetFirstConnectDelay(0);
    }

    void TearDown() override { m_Client.iStop(true, false); }

    void StartConnected()
    {
        ASSERT_EQ(0, m_Client.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(m_Peer.bAccept());
        ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Client, EVT_COM_CONNECTED) > 0; }));
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    CTcpPeer m_Peer;
    COpenClient m_Client;
};
} // namespace

TEST_F(ASocketClient, ConnectsToANumericAddress)
{
    EXPECT_EQ(0, m_Client.iConnect());
    EXPECT_TRUE(m_Client.bGetConnected());
    ASSERT_TRUE(m_Peer.bAccept());
    EXPECT_EQ(1, m_Client.m_iOptionCalls);
    EXPECT_EQ(AF_INET, m_Client.m_AddrInfo.ai_family);
    EXPECT_EQ(nullptr, m_Client.m_AddrInfo.ai_addr);
    EXPECT_EQ(nullptr, m_Client.m_AddrInfo.ai_next);
    EXPECT_EQ(0u, m_Store.Count(&m_Client, EVT_COM_CONNECTED)); // the loop tells
}

TEST_F(ASocketClient, ConnectsToAName)
{
    m_Client.Configure(0, 1000, "localhost");
    EXPECT_EQ(0, m_Client.iConnect());
    EXPECT_TRUE(m_Peer.bAccept());
}

TEST_F(ASocketClient, LeavesItsSocketBlockingAndClosedInChildren)
{
    ASSERT_EQ(0, m_Client.iConnect());
    EXPECT_EQ(0, fcntl(m_Client.m_iSocket, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_Client.m_iSocket, F_GETFD));
}

TEST_F(ASocketClient, DoesNothingWhenItHasASocket)
{
    CTcpPeer other;
    m_Client.Adopt(iConnectTo(other));
    const int iFd = m_Client.m_iSocket;
    EXPECT_EQ(0, m_Client.iConnect());
    EXPECT_EQ(iFd, m_Client.m_iSocket);
    EXPECT_FALSE(m_Peer.bAccept(50));
}

TEST_F(ASocketClient, DoesNothingWithoutItsLock)
{
    const CUntakeableLock refused(m_Client.m_RecursiveLock);
    EXPECT_EQ(0, m_Client.iConnect());
    EXPECT_EQ(-1, m_Client.m_iSocket);
}

TEST_F(ASocketClient, LogsThatItWasRefused)
{
    m_Peer.StopListening();
    m_Client.Configure(iFreePort(), 1000, "127.0.0.1");
    const size_t before = nOpenDescriptors();
    EXPECT_EQ(-1, m_Client.iConnect());
    EXPECT_TRUE(
        bLogged(LOG_WARNING, " : The server has actively refused to establish the connection. "));
    EXPECT_EQ(-1, m_Client.m_iSocket);
    EXPECT_FALSE(m_Client.bGetConnected());
    EXPECT_EQ(before, nOpenDescriptors());
    EXPECT_EQ(0u, m_Store.Count(&m_Client, EVT_COM_DISCONNECTED)); // there was no connection
}

TEST_F(ASocketClient, ReturnsTheResultOfALookUpThatFailed)
{
    CSyslogReceiver::Get().Clear();
    m_Client.Configure(0, 1000, "no such host"); // a blank: never asked of any network
    const long lResult = m_Client.iConnect();
    EXPECT_NE(0, lResult);
    EXPECT_NE(-1, lResult);
    EXPECT_EQ(-1, m_Client.m_iSocket);
    EXPECT_EQ(0u, CSyslogReceiver::Get().Records().size()); // silently
}

TEST_F(ASocketClient, AnnouncesItsConnection)
{
    StartConnected();
    EXPECT_EQ(2, m_Client.m_iOptionCalls); // once by iConnect(), once by the loop
    m_Peer.bSend(FrameBytes(CMD_COMMUN_PING, "twelve bytes"));
    EXPECT_EQ("twelve bytes", ReceiveFrame(m_Peer).szData);
    int iNoDelay = 0;
    socklen_t length = sizeof(iNoDelay);
    getsockopt(m_Client.m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iNoDelay, &length);
    EXPECT_NE(0, iNoDelay);
}

TEST_F(ASocketClient, ConnectsAgainAfterItWasClosed)
{
    StartConnected();
    m_Client.Close();
    EXPECT_TRUE(m_Peer.bReceiveEof());
    ASSERT_TRUE(bAwait([this] {
        m_Client.StopDynWait();
        return m_Store.Count(&m_Client, EVT_COM_CONNECTED) == 2;
    }));
    ASSERT_TRUE(m_Peer.bAccept());
    m_Peer.bSend(FrameBytes(CMD_COMMUN_PING));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(m_Peer).iCommand);
}

TEST_F(ASocketClient, ConnectsAgainAfterItsPeerWasLost)
{
    StartConnected();
    m_Peer.Reset();
    ASSERT_TRUE(bAwait([this] {
        m_Client.StopDynWait();
        return m_Store.Count(&m_Client, EVT_COM_CONNECTED) == 2;
    }));
    EXPECT_TRUE(m_Peer.bAccept());
}

TEST_F(ASocketClient, KeepsTryingUntilSomebodyListens)
{
    const int iPort = m_Peer.iPort();
    m_Peer.StopListening();
    ASSERT_EQ(0, m_Client.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([this] { return m_Client.m_iOptionCalls > 0; }));
    m_Peer.Listen(iPort);
    ASSERT_TRUE(bAwait([this] {
        m_Client.StopDynWait();
        return m_Client.bGetConnected();
    }));
}

TEST_F(ASocketClient, ReachesAServer)
{
    CPortServer server;
    server.Configure(0, 1000, "server");
    server.SetFirstConnectDelay(0);
    ASSERT_EQ(0, server.iCreateThread(true, kStartLimitMs));
    m_Client.Configure(server.iAwaitPort(), 1000, "127.0.0.1");
    ASSERT_EQ(0, m_Client.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Client, EVT_COM_CONNECTED) == 1; }));
    uint8_t aAnswer[130] = {};
    long lUsed = 0;
    EXPECT_EQ(0, m_Client.iExchangeCmd(CMD_COMMUN_PID, nullptr, 0, CMD_COMMUN_PID, aAnswer, 130,
                                       &lUsed, kAmpleMs, false));
    EXPECT_EQ(4, lUsed);
    EXPECT_EQ(0, m_Client.iExchangeCmd(CMD_COMMUN_VERSION, nullptr, 0, CMD_COMMUN_VERSION, aAnswer,
                                       130, &lUsed, kAmpleMs, false));
    EXPECT_EQ(130, lUsed);
    EXPECT_EQ(0, server.iExchangeCmd(CMD_COMMUN_PING, nullptr, 0, CMD_COMMUN_PONG, aAnswer, 130,
                                     &lUsed, kAmpleMs, false)); // the other way as well
    EXPECT_EQ(0, m_Client.iMonitoring());
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Client, EVT_COM_PONG) == 1; }));
}

// Answers whose exchange has given up must not be taken for requests by the other end.
TEST_F(ASocketClient, ComesToRestAfterAnswersThatNobodyAwaits)
{
    CPortServer server;
    server.Configure(0, 60000, "server");
    server.SetFirstConnectDelay(0);
    ASSERT_EQ(0, server.iCreateThread(true, kStartLimitMs));
    m_Client.Configure(server.iAwaitPort(), 60000, "127.0.0.1");
    ASSERT_EQ(0, m_Client.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Client, EVT_COM_CONNECTED) == 1; }));
    std::string szPair("\x7F\x07", 2);
    for (const uint16_t iCommand :
         {CMD_COMMUN_VERSION, CMD_COMMUN_PID, CMD_COMMUN_NAME, CMD_COMMUN_GET_LOG_CONFIG}) {
        m_Client.iWrite(iCommand, nullptr, 0, 0, 0, 0, 0);
    }
    m_Client.iWrite(CMD_COMMUN_SET_LOG_CONFIG, pBytes(szPair), 2, 0, 0, 0, 0);
    const auto Exchange = [this] { // what was sent before it has been answered by then
        return m_Client.iExchangeCmd(CMD_COMMUN_PING, nullptr, 0, CMD_COMMUN_PONG, nullptr, 0,
                                     nullptr, kAmpleMs, false);
    };
    const auto iServersCount = [&server] { // its handlers have finished when the lock is to be had
        server.iLock();
        const int iCount = server.m_iMsgCounter;
        server.UnLock();
        return iCount;
    };
    EXPECT_EQ(0, Exchange());
    EXPECT_EQ(0, Exchange());
    EXPECT_TRUE(bAwait([&] { return iServersCount() == 5 + 2; })); // its answers and two pongs
    EXPECT_EQ(0, Exchange());
    EXPECT_TRUE(bAwait([&] { return iServersCount() >= 5 + 3; }));
    EXPECT_EQ(5 + 3, iServersCount());
}

TEST_F(ASocketClient, DisconnectsOnceWhenItIsDestroyed)
{
    {
        CSocketClient client(nullptr, "client");
        client.Configure(m_Peer.iPort(), 100, "127.0.0.1");
        ASSERT_EQ(0, client.iConnect());
        ASSERT_TRUE(m_Peer.bAccept());
    }
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_EQ(1u, m_Store.Count(nullptr, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketClient, StartsAndEndsAtAnyMoment)
{
    const size_t before = nOpenDescriptors();
    for (int i = 0; i < nRounds(200); ++i) {
        COpenClient client;
        client.Configure(m_Peer.iPort(), 100, "127.0.0.1");
        client.SetFirstConnectDelay(0);
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(0, client.iCreateThread(false, 0));
        if (i % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 3));
        } else if (i % 5 == 0) {
            ASSERT_TRUE(m_Peer.bAccept());
        }
        client.iStop(true, false);
        ASSERT_GT(std::chrono::seconds(8), std::chrono::steady_clock::now() - begin);
        EXPECT_EQ(-1, client.m_iSocket);
        m_Peer.Close();
    }
    EXPECT_EQ(before, nOpenDescriptors());
}

// Every thread that an application may have, on a link that is lost and made anew all the time.
TEST_F(ASocketClient, ServesManyThreadsWhileItsLinkComesAndGoes)
{
    const size_t descriptors = nOpenDescriptors();
    for (int iRound = 0; iRound < 2; ++iRound) {
        COpenClient client;
        client.Configure(m_Peer.iPort(), 1000, "127.0.0.1");
        client.SetFirstConnectDelay(0);
        ASSERT_EQ(0, client.iCreateThread(true, kStartLimitMs));
        std::atomic<bool> bGo{true};
        std::atomic<int> iConnections{0};
        std::atomic<int> iAnswered{0}; // of the exchanges since the latest connection
        std::vector<std::thread> threads;
        threads.emplace_back([&] { // the peer sends back what it gets, then resets
            while (bGo) {
                if (m_Peer.bAccept(20)) {
                    iAnswered = 0;
                    while (bGo && iAnswered < 100 && !m_Peer.bReceiveEof(0) &&
                           m_Peer.bSend(m_Peer.szReceive(20, 100))) {
                    }
                    ++iConnections;
                    m_Peer.Reset();
                }
            }
        });
        for (uint16_t iCommand = 3001; iCommand < 3004; ++iCommand) {
            threads.emplace_back([&, iCommand] {
                uint8_t aAnswer[8];
                long lUsed = 0;
                while (bGo) {
                    const long lResult = client.iExchangeCmd(
                        iCommand, nullptr, 0, iCommand, aAnswer, 8, &lUsed, 1000, iCommand == 3003);
                    iAnswered += lResult == 0 ? 1 : 0;
                }
            });
        }
        threads.emplace_back([&] {
            while (bGo) {
                client.iMonitoring();
                client.StopDynWait(); // comes back after one second
                std::this_thread::yield();
            }
        });
        EXPECT_TRUE(bAwait([&] { return iConnections >= 3; }, 60000));
        auto stop = std::async(std::launch::async, [&] { client.iStop(true, false); });
        client.iStop(true, false);
        stop.get();
        bGo = false;
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(-1, client.m_iSocket);
    }
    m_Peer.Close();
    EXPECT_EQ(descriptors, nOpenDescriptors());
}

// A listener whose queue is full leaves every further attempt without an answer.
TEST(ASocketClientThatNobodyAnswers, IsStoppedAllTheSame)
{
    CTcpPeer filler;
    CUniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, bind(listener.iGet(), reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, getsockname(listener.iGet(), reinterpret_cast<sockaddr*>(&address), &length));
    ASSERT_EQ(0, listen(listener.iGet(), 0)); // holds one all the same
    ASSERT_TRUE(filler.bConnect(ntohs(address.sin_port)));
    pollfd queued = {listener.iGet(), POLLIN, 0}; // only its last packet fills the queue
    ASSERT_EQ(1, poll(&queued, 1, kAwaitLimitMs));

    COpenClient client;
    client.Configure(ntohs(address.sin_port), 100, "127.0.0.1");
    client.SetFirstConnectDelay(0);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(0, client.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return client.m_iOptionCalls == 1; }));
    EXPECT_NE(0, client.m_RecursiveLock.iTryLock(20)); // no frame is written meanwhile
    EXPECT_FALSE(client.bGetConnected());
    client.iStop(true, false);
    EXPECT_GT(std::chrono::seconds(8), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(-1, client.m_iSocket);
}

// A network namespace of its own, in which every connection begins at the same port.
TEST(ASocketClientInItsOwnNetwork, IsNotConnectedToItself)
{
    const ChildResult result = RunInChild([] {
        if (unshare(CLONE_NEWNET) != 0) {
            return 2;
        }
        const bool bUp = RunProgram({"ip", "link", "set", "lo", "up"}).iExitCode == 0;
        std::ofstream range("/proc/sys/net/ipv4/ip_local_port_range");
        range << "40001 40001" << std::flush; // the only port that a connection can begin at
        if (!bUp || !range) {
            return 3;
        }
        COpenClient client;
        client.Configure(40001, 100, "127.0.0.1");
        return client.iConnect() == -1 && client.m_iSocket == -1 ? 0 : 5;
    });
    if (result.iExitCode == 2 || result.iExitCode == 3) {
        GTEST_SKIP() << "no network namespace to be had: " << result.szErrors;
    }
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

// A name server that hears every question and answers none: the look-up takes half a minute.
TEST(ASocketClientInItsOwnNetwork, IsStoppedWhileItsNameIsLookedUp)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    const CTempDirectory directory;
    const std::string szResolver = directory.szPath() + "/resolv.conf";
    std::ofstream(szResolver) << "nameserver 127.0.0.1\n";
    const auto stop = [&szResolver] {
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(szResolver.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0 ||
            RunProgram({"ip", "link", "set", "lo", "up"}).iExitCode != 0) {
            return 2;
        }
        const CUniqueFd server(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(53);
        if (bind(server.iGet(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            return 3;
        }
        { // the look-up is cancelled after ten seconds
            COpenClient client;
            client.Configure(4242, 100, "nobody.example");
            client.SetFirstConnectDelay(0);
            pollfd asked = {server.iGet(), POLLIN, 0};
            if (client.iCreateThread(true, kStartLimitMs) != 0 ||
                poll(&asked, 1, kAwaitLimitMs) != 1) {
                return 4;
            }
            client.iStop(true, false);
        }
        COpenClient next; // the look-up that was cancelled keeps nothing from working
        next.Configure(iFreePort(), 100, "127.0.0.1");
        return next.iConnect() == -1 ? 0 : 5;
    };
    const ChildResult result = RunInChild(stop, 60000);
    if (result.iExitCode == 2 || result.iExitCode == 3) {
        GTEST_SKIP() << "no network of its own to be had: " << result.szErrors;
    }
    EXPECT_FALSE(result.bTimedOut);
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}
