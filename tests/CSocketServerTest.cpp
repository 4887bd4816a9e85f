// The endpoint that listens.
#include "libQuorCore/CSocketServer.h"

#include "internal/CUniqueFd.h"

#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTestEndpoint.h"
#include "support/Frames.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <thread>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// A server whose listening socket is open to the test.
class COpenServer : public COpenEndpoint<CSocketServer>
{
public:
    ~COpenServer() override { iStop(true, false); }

    using CSocketServer::m_iListenSocket;

    /// Waits until it listens. @return The port.
    int iAwaitPort()
    {
        int iPort = 0;
        EXPECT_TRUE(bAwait([&] {
            sockaddr_in address = {};
            socklen_t length = sizeof(address);
            int iListening = 0;
            socklen_t listeningLength = sizeof(iListening);
            if (getsockopt(m_iListenSocket, SOL_SOCKET, SO_ACCEPTCONN, &iListening,
                           &listeningLength) == 0 &&
                iListening == 1 &&
                getsockname(m_iListenSocket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
                iPort = ntohs(address.sin_port);
            }
            return iPort != 0;
        }));
        return iPort;
    }
};

bool bLogged(int iLevel, const std::string& szText)
{
    return CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
        return record.iLevel == iLevel && record.szText.find(szText) != std::string::npos;
    });
}

/// Starts a server, on a port of the kernel's choice unless told another. @return The port.
int iStart(COpenServer& server, int iPort = 0)
{
    server.Configure(iPort, 1000, "server");
    server.SetFirstConnectDelay(0);
    EXPECT_EQ(0, server.iCreateThread(true, kStartLimitMs));
    return server.iAwaitPort();
}

/// @return Whether a connection of that port of this machine is in TIME_WAIT; proc(5).
bool bInTimeWait(int iPort)
{
    constexpr int kTimeWait = 6; // TCP_TIME_WAIT of the kernel
    std::ifstream table("/proc/net/tcp");
    std::string szLine;
    std::getline(table, szLine); // the headings
    bool bFound = false;
    while (!bFound && std::getline(table, szLine)) {
        std::istringstream columns(szLine);
        std::string szSlot;
        std::string szLocal;
        std::string szRemote;
        int iState = 0;
        columns >> szSlot >> szLocal >> szRemote >> std::hex >> iState;
        bFound = iState == kTimeWait &&
                 std::stoi(szLocal.substr(szLocal.find(':') + 1), nullptr, 16) == iPort;
    }
    return bFound;
}

bool bServes(CTcpPeer& peer)
{
    return peer.bSend(FrameBytes(CMD_COMMUN_PING, "hello")) && ReceiveFrame(peer).szData == "hello";
}

bool bHasIpv6Loopback()
{
    const CUniqueFd fd(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return fd && bind(fd.iGet(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

/// A server that runs and listens on a port of the kernel's choice.
class ASocketServer : public ::testing::Test
{
protected:
    void SetUp() override { m_iPort = iStart(m_Server); }

    void TearDown() override { m_Server.iStop(true, false); }

    /// Ends a connection from this end, so that TIME_WAIT is on the server's port, which it is to
    /// bind again.
    void CloseFirst()
    {
        m_Server.Configure(m_iPort, 1000, "server"); // counts when it binds the next time
        CTcpPeer peer;
        ASSERT_TRUE(peer.bConnect(m_iPort));
        ASSERT_TRUE(bServes(peer));
        m_Server.Close();
        ASSERT_TRUE(peer.bReceiveEof());
        peer.Close();
        ASSERT_TRUE(bAwait([this] { return bInTimeWait(m_iPort); }));
    }

    /// Hurries the waits until the server listens again on its first port.
    bool bListensAgain()
    {
        return bAwait([this] {
            m_Server.StopDynWait();
            return m_Server.m_iListenSocket != -1;
        });
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    int m_iPort = 0;
    COpenServer m_Server;
};
} // namespace

TEST_F(ASocketServer, ListensOnAPortOfTheKernelsChoice)
{
    EXPECT_LT(0, m_iPort);
    EXPECT_EQ(0, m_Server.m_iNumPort);
}

TEST_F(ASocketServer, ServesAPeer)
{
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort));
    EXPECT_TRUE(bServes(peer));
    EXPECT_EQ(1u, m_Store.Count(&m_Server, EVT_COM_CONNECTED));
    const auto& address = reinterpret_cast<const sockaddr_in&>(m_Server.m_ClientAddress);
    EXPECT_EQ(AF_INET, address.sin_family);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
    EXPECT_EQ(peer.iPort(), ntohs(address.sin_port));
}

TEST_F(ASocketServer, LogsItsPeer)
{
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort));
    EXPECT_TRUE(bLogged(LOG_INFO, ">> connect\xC3\xA9 \xC3\xA0 [127.0.0.1]:"));
    EXPECT_TRUE(bLogged(LOG_INFO, " " + std::to_string(peer.iPort()) + "\n"));
}

TEST_F(ASocketServer, KeepsTheAddressItListensOnWithoutPointers)
{
    EXPECT_EQ(AF_INET, m_Server.m_AddrInfo.ai_family);
    EXPECT_EQ(SOCK_STREAM, m_Server.m_AddrInfo.ai_socktype);
    EXPECT_EQ(nullptr, m_Server.m_AddrInfo.ai_next);
    EXPECT_EQ(nullptr, m_Server.m_AddrInfo.ai_addr);
    EXPECT_EQ(nullptr, m_Server.m_AddrInfo.ai_canonname);
}

TEST_F(ASocketServer, SetsTheOptionsOfTheConnection)
{
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort));
    ASSERT_TRUE(bServes(peer));
    const auto iOption = [this](int iLevel, int iName) {
        int iValue = -1;
        socklen_t length = sizeof(iValue);
        getsockopt(m_Server.m_iSocket, iLevel, iName, &iValue, &length);
        return iValue;
    };
    EXPECT_EQ(1, iOption(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(16384, iOption(SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(20, iOption(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_NE(0, iOption(IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(10, iOption(SOL_SOCKET, SO_SNDTIMEO)); // the seconds, which come first
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_Server.m_iSocket, F_GETFD));
    EXPECT_EQ(0, fcntl(m_Server.m_iSocket, F_GETFL) & O_NONBLOCK);
}

TEST_F(ASocketServer, LeavesTheListeningSocketWithoutOptions)
{
    for (const int iName : {SO_REUSEADDR, SO_KEEPALIVE}) {
        int iValue = -1;
        socklen_t length = sizeof(iValue);
        EXPECT_EQ(0, getsockopt(m_Server.m_iListenSocket, SOL_SOCKET, iName, &iValue, &length));
        EXPECT_EQ(0, iValue);
    }
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_Server.m_iListenSocket, F_GETFD));
}

TEST_F(ASocketServer, ClosesItsListeningSocketWithTheConnection)
{
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort));
    ASSERT_TRUE(bServes(peer));
    m_Server.Close();
    EXPECT_EQ(-1, m_Server.m_iListenSocket);
    EXPECT_EQ(-1, m_Server.m_iSocket);
    EXPECT_TRUE(peer.bReceiveEof());
    CTcpPeer late;
    EXPECT_FALSE(late.bConnect(m_iPort));
    EXPECT_EQ(ECONNREFUSED, errno);
}

TEST_F(ASocketServer, LetsASecondPeerWaitAndThenResetsIt)
{
    CTcpPeer first;
    CTcpPeer second;
    ASSERT_TRUE(first.bConnect(m_iPort));
    ASSERT_TRUE(bServes(first));
    ASSERT_TRUE(second.bConnect(m_iPort)); // by the kernel, into the queue
    second.bSend(FrameBytes(CMD_COMMUN_PING));
    EXPECT_EQ("", second.szReceive(1, 100));
    EXPECT_TRUE(bServes(first));
    first.Reset();
    EXPECT_TRUE(second.bReceiveEof());
}

TEST_F(ASocketServer, AcceptsANewPeerOnTheSamePort)
{
    m_Server.iStop(true, false);
    m_iPort = iFreePort(); // the kernel gives it to nobody while the server pauses
    m_Server.Configure(m_iPort, 1000, "server");
    ASSERT_EQ(0, m_Server.iCreateThread(true, kStartLimitMs));
    ASSERT_EQ(m_iPort, m_Server.iAwaitPort());
    for (int i = 0; i < 2; ++i) {
        CTcpPeer peer;
        ASSERT_TRUE(peer.bConnect(m_iPort));
        EXPECT_TRUE(bServes(peer));
        peer.Reset(); // no end of it is left in TIME_WAIT
        ASSERT_TRUE(bAwait([this] { return !m_Server.bGetConnected(); }));
        ASSERT_TRUE(bListensAgain());
        ASSERT_EQ(m_iPort, m_Server.iAwaitPort());
    }
    EXPECT_LE(2u, m_Store.Count(&m_Server, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketServer, ChoosesAnotherPortEachTimeItMayChoose)
{
    m_Server.Close();
    ASSERT_TRUE(bListensAgain());
    CTcpPeer peer;
    EXPECT_TRUE(peer.bConnect(m_Server.iAwaitPort()));
}

TEST_F(ASocketServer, SurvivesPeersThatLeaveAtOnce)
{
    const auto nEnds = [this] { return m_Store.Count(&m_Server, EVT_COM_DISCONNECTED); };
    for (int i = 0; i < 3; ++i) {
        const size_t nBefore = nEnds(); // a connection may tell of its end twice
        CTcpPeer peer;
        ASSERT_TRUE(peer.bConnect(m_iPort));
        peer.Reset();
        ASSERT_TRUE(bAwait([&] { return nEnds() > nBefore; }));
        ASSERT_TRUE(bListensAgain());
        m_iPort = m_Server.iAwaitPort();
    }
}

TEST_F(ASocketServer, StopsWhileItWaitsForAPeer)
{
    CSyslogReceiver::Get().Clear();
    const auto begin = std::chrono::steady_clock::now();
    m_Server.iStop(true, false);
    EXPECT_GT(std::chrono::seconds(8), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(-1, m_Server.m_iListenSocket);
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("Connexion Failed")); // it was asked to
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("can't stop"));
}

TEST_F(ASocketServer, ListensAnewWhenItIsClosedWhileItWaits)
{
    m_Server.Close();
    EXPECT_TRUE(bLogged(LOG_WARNING, " : unknown error = 22")); // what accept() says to that
    EXPECT_TRUE(bLogged(LOG_ERR, "Connexion Failed (err = -1 ;errno = Invalid argument)"));
    EXPECT_TRUE(bListensAgain());
}

TEST_F(ASocketServer, FailsToTakeItsPortWhileAConnectionOfItsOwnFades)
{
    CSyslogReceiver::Get().Clear();
    CloseFirst();
    EXPECT_TRUE(bAwait([this] {
        m_Server.StopDynWait();
        return CSyslogReceiver::Get().Count(
                   "Connexion Failed (err = -1 ;errno = Address already in use)") > 0;
    }));
    EXPECT_EQ(-1, m_Server.m_iListenSocket);
}

TEST_F(ASocketServer, TakesItsPortWhileAConnectionOfItsOwnFadesIfItIsToReuseIt)
{
    CSyslogReceiver::Get().Clear();
    m_Server.SetReuseAddress(true);
    CloseFirst();
    ASSERT_TRUE(bListensAgain());
    EXPECT_EQ(m_iPort, m_Server.iAwaitPort());
    EXPECT_TRUE(bInTimeWait(m_iPort));
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("already in use"));
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort));
    EXPECT_TRUE(bServes(peer));
}

TEST_F(ASocketServer, TakesPeersOnAllIpv4AddressesOfTheMachine)
{
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnectTo("127.0.0.2", m_iPort));
    EXPECT_TRUE(bServes(peer));
}

TEST_F(ASocketServer, ListensOnAnotherAddressFromTheNextTimeOn)
{
    m_Server.SetBindAddress("127.0.0.2");
    m_Server.Configure(iFreePort(), 1000, "server"); // nobody has it at another address either
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(m_iPort)) << "it stays as it is while it listens";
    ASSERT_TRUE(bServes(peer));
    m_Server.Close();
    ASSERT_TRUE(bListensAgain());
    m_iPort = m_Server.iAwaitPort();
    EXPECT_FALSE(peer.bConnect(m_iPort));
    ASSERT_TRUE(peer.bConnectTo("127.0.0.2", m_iPort));
    EXPECT_TRUE(bServes(peer));
}

TEST(ASocketServerOnOneAddress, RefusesPeersThatComeToAnother)
{
    COpenServer server;
    server.SetBindAddress("127.0.0.1");
    const int iPort = iStart(server, iFreePort()); // nobody has it at another address
    CTcpPeer peer;
    EXPECT_FALSE(peer.bConnectTo("127.0.0.2", iPort));
    EXPECT_EQ(ECONNREFUSED, errno);
    ASSERT_TRUE(peer.bConnectTo("127.0.0.1", iPort));
    EXPECT_TRUE(bServes(peer));
    EXPECT_EQ(AF_INET, server.m_AddrInfo.ai_family);
}

TEST(ASocketServerOnOneAddress, ServesPeersThatComeOverIpv6)
{
    if (!bHasIpv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6 loopback";
    }
    const CLogLevel level;
    COpenServer server;
    server.SetBindAddress("::1");
    const int iPort = iStart(server, iFreePort()); // nobody has it at another address
    CTcpPeer peer;
    EXPECT_FALSE(peer.bConnectTo("127.0.0.1", iPort));
    ASSERT_TRUE(peer.bConnectTo("::1", iPort));
    EXPECT_TRUE(bServes(peer));
    EXPECT_EQ(AF_INET6, server.m_AddrInfo.ai_family);
    EXPECT_TRUE(bLogged(LOG_INFO, ">> connect\xC3\xA9 \xC3\xA0 [::1]:"));
    EXPECT_TRUE(bLogged(LOG_INFO, " " + std::to_string(peer.iPort()) + "\n"));
}

TEST(ASocketServerOnOneAddress, ListensOnAllAgainWhenItIsTakenBack)
{
    for (const char* const szNone : {static_cast<const char*>(nullptr), ""}) {
        COpenServer server;
        server.SetBindAddress("127.0.0.1");
        server.SetBindAddress(szNone);
        CTcpPeer peer;
        EXPECT_TRUE(peer.bConnectTo("127.0.0.2", iStart(server)));
    }
}

TEST(ASocketServerOnOneAddress, FailsWithoutALookUpWhenItIsNone)
{
    const CLogLevel level;
    CMessageStore store;
    COpenServer server;
    server.Configure(0, 100, "server");
    for (const std::string szAddress :
         {"localhost", "127.1", "1", "127.0.0.1 ", "127.0.0.256", "::1::", ":", "%s%n"}) {
        CSyslogReceiver::Get().Clear();
        server.SetBindAddress(szAddress.c_str());
        EXPECT_EQ(EAI_NONAME, server.iConnect()) << szAddress;
        EXPECT_TRUE(
            bLogged(LOG_ERR, "cannot listen on \"" + szAddress + "\": not a numeric address"));
        EXPECT_TRUE(bLogged(LOG_ERR, "Connexion Failed (err = -2 ;errno = Invalid argument)"));
        EXPECT_EQ(-1, server.m_iListenSocket);
    }
    EXPECT_EQ(0u, store.Count(&server, EVT_COM_DISCONNECTED));
}

TEST(ASocketServerOnOneAddress, FailsWhenTheMachineDoesNotHaveIt)
{
    const CLogLevel level;
    COpenServer server;
    server.Configure(0, 100, "server");
    server.SetBindAddress("192.0.2.1"); // kept for examples: RFC 5737
    EXPECT_EQ(-1, server.iConnect());
    EXPECT_TRUE(
        bLogged(LOG_ERR, "Connexion Failed (err = -1 ;errno = Cannot assign requested address)"));
    EXPECT_EQ(-1, server.m_iListenSocket);
}

TEST(ASocketServerOnAPort, ThatIsListenedOnIsRefusedThoughItIsToReuseIt)
{
    CTcpPeer owner;
    owner.Listen();
    COpenServer server;
    server.Configure(owner.iPort(), 100, "server");
    server.SetReuseAddress(true);
    EXPECT_EQ(-1, server.iConnect());
    EXPECT_EQ(-1, server.m_iListenSocket);
}

TEST(ASocketServerOnAPort, ThatIsTakenLogsWhyAndGoesOn)
{
    const CLogLevel level;
    CMessageStore store;
    CTcpPeer owner;
    owner.Listen();
    COpenServer server;
    server.Configure(owner.iPort(), 100, "server");
    EXPECT_EQ(-1, server.iConnect());
    EXPECT_TRUE(
        bLogged(LOG_WARNING, " : The socket address of the given addr is already in use. "));
    EXPECT_TRUE(bLogged(LOG_ERR, " Address already in use"));
    EXPECT_TRUE(bLogged(LOG_ERR, "Connexion Failed (err = -1 ;errno = Address already in use)"));
    EXPECT_EQ(-1, server.m_iListenSocket);
    EXPECT_EQ(1u, store.Count(&server, EVT_COM_DISCONNECTED));
}

TEST(ASocketServerOnAPort, ThatBecomesFreeTakesItAtTheNextAttempt)
{
    CTcpPeer owner;
    owner.Listen(iFreePort());
    COpenServer server;
    const int iPort = owner.iPort();
    server.Configure(iPort, 100, "server");
    server.SetFirstConnectDelay(0);
    ASSERT_EQ(0, server.iCreateThread(true, kStartLimitMs));
    owner.StopListening();
    EXPECT_TRUE(bAwait([&] {
        server.StopDynWait();
        return server.m_iListenSocket != -1;
    }));
    EXPECT_EQ(iPort, server.iAwaitPort());
}

TEST(ASocketServerOnAPort, ThatDoesNotExistLogsTheResultOfTheLookUp)
{
    const CLogLevel level;
    COpenServer server;
    server.Configure(100000000, 100, "server");
    const long lResult = server.iConnect();
    EXPECT_NE(0, lResult);
    if (lResult != -1) { // refused as a service already, as some libraries do
        EXPECT_TRUE(
            bLogged(LOG_ERR, "Connexion Failed (err = " + std::to_string(lResult) + " ;errno = "));
    }
    EXPECT_EQ(-1, server.m_iListenSocket);
}

TEST(ASocketServerByItself, WaitsForAPeerInTheCallersThread)
{
    COpenServer server;
    server.Configure(0, 100, "server");
    auto connecting = std::async(std::launch::async, [&] { return server.iConnect(); });
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(server.iAwaitPort()));
    EXPECT_EQ(0, connecting.get());
    EXPECT_TRUE(server.bGetConnected());
    const int iListener = server.m_iListenSocket;
    connecting = std::async(std::launch::async, [&] { return server.iConnect(); });
    ASSERT_TRUE(peer.bConnect(server.iAwaitPort())); // the same listener, another peer
    EXPECT_EQ(0, connecting.get());
    EXPECT_EQ(iListener, server.m_iListenSocket);
}

TEST(ASocketServerByItself, IsWokenByClosing)
{
    COpenServer server;
    server.Configure(0, 100, "server");
    auto connecting = std::async(std::launch::async, [&] { return server.iConnect(); });
    server.iAwaitPort();
    server.Close();
    EXPECT_EQ(-1, connecting.get());
    EXPECT_FALSE(server.bGetConnected());
}

TEST(ASocketServerByItself, DisconnectsOnceWhenItIsDestroyed)
{
    CMessageStore store;
    const size_t before = nOpenDescriptors();
    {
        CSocketServer server(nullptr, "server");
    }
    EXPECT_EQ(1u, store.Count(nullptr, EVT_COM_DISCONNECTED));
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ASocketServerByItself, StartsAndEndsAtAnyMoment)
{
    const size_t before = nOpenDescriptors();
    for (int i = 0; i < nRounds(200); ++i) {
        COpenServer server;
        server.Configure(0, 100, "server");
        server.SetFirstConnectDelay(0);
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(0, server.iCreateThread(false, 0));
        CTcpPeer peer;
        if (i % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 3));
        } else if (i % 3 == 0) {
            peer.bConnect(server.iAwaitPort());
        }
        server.iStop(true, false);
        ASSERT_GT(std::chrono::seconds(8), std::chrono::steady_clock::now() - begin);
        EXPECT_EQ(-1, server.m_iListenSocket);
        EXPECT_EQ(-1, server.m_iSocket);
    }
    EXPECT_EQ(before, nOpenDescriptors());
}
