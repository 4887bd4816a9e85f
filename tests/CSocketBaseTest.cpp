// One end of a connection without its thread: writers, readers, options, supervision.
#include "libQuorCore/CSocketBase.h"

#include "libQuorCore/CSerialize.h"

#include "internal/CUniqueFd.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTestEndpoint.h"
#include "support/CUntakeableLock.h"
#include "support/Frames.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kPort = 4242; // only named in log lines

/// Replaces the raw writer by one with a result of the test's choice.
class CUnwritable : public COpenEndpoint<CSocketBase>
{
public:
    using CSocketBase::iWrite;
    long iWrite(uint8_t*, long lSizeTotal) override
    {
        m_Written.push_back(lSizeTotal);
        return -1;
    }

    std::vector<long> m_Written;
};

/// Serialises to two bytes.
class CSmallObject : public CObject
{
public:
    CSmallObject() : CObject(nullptr, "small") {}
    long iSerialize(CSerialize& stream) override
    {
        return stream.m_bSave ? stream.iPushU16(m_iNumber, "") : stream.iPopU16(m_iNumber, "");
    }
    uint16_t m_iNumber = 0x4241;
};

class ASocketBase : public ::testing::Test
{
protected:
    void SetUp() override { m_Endpoint.Configure(kPort, 1000, "peer name"); }

    bool bLogged(int iLevel, const std::string& szText)
    {
        return CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
            return record.iLevel == iLevel && record.szText.find(szText) != std::string::npos;
        });
    }

    long lWriteFrame(const std::string& szBytes)
    {
        std::string szCopy = szBytes;
        return m_Endpoint.iWrite(reinterpret_cast<socketFrame_t*>(szCopy.data()));
    }

    int iOption(int iLevel, int iName)
    {
        int iValue = -1;
        socklen_t length = sizeof(iValue);
        EXPECT_EQ(0, getsockopt(m_Endpoint.m_iSocket, iLevel, iName, &iValue, &length));
        return iValue;
    }

    /// Makes the next send of the endpoint fail.
    void LosePeer()
    {
        m_Peer.Reset();
        pollfd entry = {m_Endpoint.m_iSocket, 0, 0}; // errors are always told
        ASSERT_EQ(1, poll(&entry, 1, kAwaitLimitMs));
    }

    /// Reads one frame with a maximum of 1000 bytes of data.
    long lReadFrame(long lMax = 1000)
    {
        return m_Endpoint.lRead(reinterpret_cast<socketFrame_t*>(m_Endpoint.m_pRxBuffer), lMax,
                                &m_lData);
    }

    Frame Received()
    {
        const auto* const pFrame = reinterpret_cast<const char*>(m_Endpoint.m_pRxBuffer);
        return ParseFrame(std::string(pFrame, kHeaderBytes + static_cast<size_t>(m_lData)));
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    CTcpPeer m_Peer;
    COpenEndpoint<CSocketBase> m_Endpoint{iConnectTo(m_Peer)};
    long m_lData = -9;
};

/// The same without a connection.
class AnUnconnectedSocketBase : public ASocketBase
{
protected:
    void SetUp() override
    {
        ASocketBase::SetUp();
        m_Endpoint.Close();
    }
};
} // namespace

TEST(ANewSocketBase, HasNoConnection)
{
    const time_t before = time(nullptr);
    COpenEndpoint<CSocketBase> endpoint;
    EXPECT_EQ(-1, endpoint.m_iSocket);
    EXPECT_FALSE(endpoint.bGetConnected());
    EXPECT_EQ(0, endpoint.m_iMsgCounter);
    EXPECT_EQ(AF_UNSPEC, endpoint.m_ClientAddress.ss_family);
    EXPECT_EQ(nullptr, endpoint.m_AddrInfo.ai_addr);
    EXPECT_LE(before, endpoint.m_iNextPing);
    EXPECT_GE(time(nullptr), endpoint.m_iNextPing);
}

TEST(ANewSocketBase, DisconnectsWhenItIsDestroyed)
{
    CMessageStore store;
    CTcpPeer peer;
    {
        COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
    }
    EXPECT_TRUE(peer.bReceiveEof());
    EXPECT_EQ(1u, store.Count(nullptr, EVT_COM_DISCONNECTED)); // its origin is withdrawn
}

TEST_F(ASocketBase, IsConnectedWithASocketAndTheFlag)
{
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    m_Endpoint.SetConnected(false);
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    m_Endpoint.SetConnected(true);
    const int iFd = m_Endpoint.m_iSocket.exchange(-1);
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    m_Endpoint.m_iSocket = iFd;
}

TEST_F(ASocketBase, SendsAWholeFrame)
{
    Frame frame;
    frame.iMagic = 0x1234; // the writer sets it
    frame.iTypeItf = 1;
    frame.iCommand = 2;
    frame.iError = 3;
    frame.iProtocol = 4;
    frame.iCounter = 99; // and this
    frame.iUser1 = -5;
    frame.iUser2 = 6;
    frame.szData = "data";
    m_Endpoint.m_iMsgCounter = 7;
    EXPECT_EQ(24, lWriteFrame(FrameBytes(frame)));
    frame.iMagic = 0xAAAA;
    frame.iCounter = 7;
    EXPECT_EQ(FrameBytes(frame), m_Peer.szReceive(24));
}

TEST_F(ASocketBase, SendsACommandWithItsData)
{
    std::string szData = "twelve bytes";
    EXPECT_EQ(20 + 12, m_Endpoint.iWrite(3000, pBytes(szData), 12, 1, 2, 0xFFFF, 4));
    Frame expected;
    expected.iCommand = 3000;
    expected.iTypeItf = 1;
    expected.iProtocol = 2;
    expected.iUser1 = -1;
    expected.iUser2 = 4;
    expected.szData = szData;
    EXPECT_EQ(FrameBytes(expected), m_Peer.szReceive(32));
}

TEST_F(ASocketBase, SendsACommandWithoutData)
{
    std::string szData = "unused";
    EXPECT_EQ(20, m_Endpoint.iWrite(3000, pBytes(szData), 0, 0, 0, 0, 0));
    EXPECT_EQ(20, m_Endpoint.iWrite(3001, pBytes(szData), -1, 0, 0, 0, 0));
    EXPECT_EQ(0u, ReceiveFrame(m_Peer).iSize);
    EXPECT_EQ(0u, ReceiveFrame(m_Peer).iSize);
}

TEST_F(ASocketBase, AnnouncesASizeWithoutDataToSend)
{
    EXPECT_EQ(20, m_Endpoint.iWrite(3000, nullptr, 5, 0, 0, 0, 0));
    EXPECT_EQ(5u, ParseFrame(m_Peer.szReceive(20)).iSize);
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ASocketBase, SendsNothingOfDataThatAHeaderCannotAnnounce)
{
    std::string szData(65536, 'x');
    EXPECT_EQ(-1, m_Endpoint.iWrite(3000, pBytes(szData), 65536, 0, 0, 0, 0));
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 65536; port = 4242"));
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
    EXPECT_TRUE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketBase, CountsWritesNotFrames)
{
    std::string szData = "x";
    lWriteFrame(FrameBytes(1, "abc"));
    EXPECT_EQ(0, ReceiveFrame(m_Peer).iCounter);
    m_Endpoint.iWrite(2, pBytes(szData), 1, 0, 0, 0, 0); // header and data: two writes
    EXPECT_EQ(1, ReceiveFrame(m_Peer).iCounter);
    m_Endpoint.iWrite(3, nullptr, 0, 0, 0, 0, 0);
    EXPECT_EQ(3, ReceiveFrame(m_Peer).iCounter);
    m_Endpoint.iWrite(pBytes(szData), 1); // a raw write counts as well
    EXPECT_EQ(5, m_Endpoint.m_iMsgCounter);
}

TEST_F(ASocketBase, SendsACommandsHeaderTogetherWithItsData)
{
    int aEnds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, aEnds)); // shows each send
    const QuorCore::CUniqueFd peer(aEnds[1]);
    QuorCore::CUniqueFd former(m_Endpoint.m_iSocket.exchange(aEnds[0]));
    std::string szData = "abc";
    char aPacket[64];

    EXPECT_EQ(20 + 3, m_Endpoint.iWrite(1, pBytes(szData), 3, 0, 0, 0, 0));
    ASSERT_EQ(20 + 3, recv(peer.iGet(), aPacket, sizeof(aPacket), MSG_DONTWAIT));
    EXPECT_EQ("abc", std::string(aPacket + 20, 3));
    EXPECT_EQ(2, m_Endpoint.m_iMsgCounter); // still two writes

    EXPECT_EQ(20, m_Endpoint.iWrite(1, nullptr, 0, 0, 0, 0, 0)); // nothing to wait for
    EXPECT_EQ(20, recv(peer.iGet(), aPacket, sizeof(aPacket), MSG_DONTWAIT));

    QuorCore::CUniqueFd packets(m_Endpoint.m_iSocket.exchange(former.iRelease()));
}

TEST_F(ASocketBase, WrapsItsCounterAt16Bits)
{
    m_Endpoint.m_iMsgCounter = 65535;
    lWriteFrame(FrameBytes(1));
    EXPECT_EQ(65535, ReceiveFrame(m_Peer).iCounter);
    EXPECT_EQ(0, m_Endpoint.m_iMsgCounter);
}

TEST_F(ASocketBase, SendsNoDataWithACallersHeader)
{
    Frame callers;
    callers.iCommand = 3001;
    callers.iTypeItf = 1;
    callers.iError = 2;
    callers.iProtocol = 3;
    std::string szHeader = HeaderBytes(callers);
    std::string szData = "never sent";
    auto* const pHeader = reinterpret_cast<socketFrameHdr_t*>(szHeader.data());
    EXPECT_EQ(20, m_Endpoint.iWrite(pHeader, pBytes(szData), 10, 0xFFFE, 5));
    callers.iSize = 10;
    callers.iUser1 = -2;
    callers.iUser2 = 5;
    EXPECT_EQ(HeaderBytes(callers), m_Peer.szReceive(20));
    EXPECT_EQ(HeaderBytes(callers), szHeader); // filled in where the caller sees it
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
    EXPECT_EQ(1, m_Endpoint.m_iMsgCounter);
}

TEST_F(ASocketBase, TriesTheDataOfACallersHeaderThatFailed)
{
    CUnwritable endpoint;
    endpoint.m_bConnected = true;
    socketFrameHdr_t header = {};
    std::string szData = "data";
    EXPECT_GT(0, endpoint.iWrite(&header, pBytes(szData), 4, 0, 0));
    EXPECT_EQ((std::vector<long>{20, 4}), endpoint.m_Written);
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 4; port = 0"));
    endpoint.m_Written.clear();
    EXPECT_EQ(-1, endpoint.iWrite(&header, nullptr, 4, 0, 0));
    EXPECT_EQ((std::vector<long>{20}), endpoint.m_Written);
}

TEST_F(ASocketBase, AddsUpTheResultsOfHeaderAndData)
{
    CUnwritable endpoint;
    endpoint.m_bConnected = true;
    std::string szData = "data";
    EXPECT_EQ(-2, endpoint.iWrite(3000, pBytes(szData), 4, 0, 0, 0, 0));
    EXPECT_EQ((std::vector<long>{20, 4}), endpoint.m_Written);
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 4; port = 0"));
}

TEST_F(ASocketBase, SendsAnObject)
{
    CSmallObject object;
    EXPECT_EQ(22, m_Endpoint.iWriteObject(3002, &object, 1, 2, 3, 4));
    const Frame frame = ReceiveFrame(m_Peer);
    EXPECT_EQ(3002, frame.iCommand);
    EXPECT_EQ(1, frame.iTypeItf);
    EXPECT_EQ(2, frame.iProtocol);
    EXPECT_EQ(3, frame.iUser1);
    EXPECT_EQ(4, frame.iUser2);
    EXPECT_EQ("AB", frame.szData);
    EXPECT_EQ(-1, m_Endpoint.iWriteObject(3002, nullptr, 0, 0, 0, 0));
}

TEST_F(ASocketBase, SendsTheLargestFrameWhole)
{
    const std::string szFrame = FrameBytes(3000, std::string(65535, 'z'));
    auto sending = std::async(std::launch::async, [&] { return lWriteFrame(szFrame); });
    EXPECT_EQ(szFrame, m_Peer.szReceive(szFrame.size()));
    EXPECT_LT(0, sending.get());
}

TEST_F(ASocketBase, SendsNothingOfANullFrame)
{
    EXPECT_EQ(-1, m_Endpoint.iWrite(static_cast<socketFrame_t*>(nullptr)));
    EXPECT_EQ(-1, m_Endpoint.iWrite(static_cast<socketFrameHdr_t*>(nullptr), nullptr, 0, 0, 0));
    EXPECT_EQ(-1, m_Endpoint.iWrite(static_cast<uint8_t*>(nullptr), 1));
    EXPECT_EQ(1, m_Endpoint.iWrite(static_cast<uint8_t*>(nullptr), 0));
    EXPECT_TRUE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketBase, ReturnsOneWhenItsLockCannotBeTaken)
{
    std::string szFrame = FrameBytes(1);
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(szFrame.data());
    const CUntakeableLock refused(m_Endpoint.m_RecursiveLock);
    EXPECT_EQ(1, m_Endpoint.iWrite(pBytes(szFrame), 20));
    EXPECT_EQ(1, m_Endpoint.iWrite(pFrame));
    EXPECT_EQ(1, m_Endpoint.iWrite(1, nullptr, 0, 0, 0, 0, 0));
    EXPECT_EQ(1, m_Endpoint.iWrite(static_cast<socketFrameHdr_t*>(pFrame), nullptr, 0, 0, 0));
    EXPECT_EQ(0, m_Endpoint.m_iMsgCounter);
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ASocketBase, WritesNothingWhileItsFlagIsDown)
{
    m_Endpoint.m_bConnected = false;
    std::string szByte = "x";
    EXPECT_EQ(1, m_Endpoint.iWrite(pBytes(szByte), 1)); // the socket is open: not a failure
    EXPECT_EQ(1, m_Endpoint.m_iMsgCounter);
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ASocketBase, ClosesWhenASendFails)
{
    LosePeer();
    std::string szByte = "x";
    EXPECT_EQ(-1, m_Endpoint.iWrite(pBytes(szByte), 1));
    EXPECT_EQ(-1, m_Endpoint.m_iSocket);
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    EXPECT_EQ(1, m_Endpoint.m_iMsgCounter);
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
    EXPECT_TRUE(bLogged(LOG_WARNING, " : unknown error = 104"));
}

TEST_F(ASocketBase, LogsAFrameThatWasNotSent)
{
    LosePeer();
    EXPECT_EQ(-1, lWriteFrame(FrameBytes(1, "abc")));
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 23; port = 4242"));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketBase, ClosesWhenTheDataOfACommandFails)
{
    LosePeer();
    std::string szData = "abc";
    EXPECT_EQ(-2, m_Endpoint.iWrite(1, pBytes(szData), 3, 0, 0, 0, 0));
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 3; port = 4242"));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketBase, HoldsNoLockWhenItTellsOfALostConnection)
{
    bool bFree = false;
    m_Endpoint.m_OnDeconnect = [&] {
        bFree = std::async(std::launch::async, [this] {
                    const bool bTaken = m_Endpoint.m_RecursiveLock.iTryLock(0) == 0;
                    if (bTaken) {
                        m_Endpoint.m_RecursiveLock.UnLock();
                    }
                    return bTaken;
                }).get();
    };
    LosePeer();
    std::string szData = "abc";
    m_Endpoint.iWrite(1, pBytes(szData), 3, 0, 0, 0, 0);
    EXPECT_TRUE(bFree);
    m_Endpoint.m_OnDeconnect = nullptr;
}

TEST_F(ASocketBase, GivesUpAPeerThatStopsReading)
{
    timeval timeout = {};
    timeout.tv_usec = 100000;
    ASSERT_EQ(0,
              setsockopt(m_Endpoint.m_iSocket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)));
    std::string szFlood(16 * 1024 * 1024, 'x'); // more than both buffers take
    EXPECT_EQ(-1, m_Endpoint.iWrite(pBytes(szFlood), lSize(szFlood)));
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    EXPECT_TRUE(bLogged(LOG_WARNING, " : unknown error = 11"));
}

TEST_F(ASocketBase, SendsOnAfterASignal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr)); // without SA_RESTART: send() is cut short
    std::string szFlood(8 * 1024 * 1024, 'x');
    std::promise<pthread_t> thread;
    auto sending = std::async(std::launch::async, [&] {
        thread.set_value(pthread_self());
        return m_Endpoint.iWrite(pBytes(szFlood), lSize(szFlood));
    });
    const pthread_t writer = thread.get_future().get();
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(0, pthread_kill(writer, SIGUSR1));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(szFlood.size(), m_Peer.szReceive(szFlood.size()).size());
    EXPECT_LT(0, sending.get());
    EXPECT_TRUE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketBase, SendsSmallCommandsWholeThroughSignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr)); // without SA_RESTART: send() is cut short
    const int iLeast = 1;
    ASSERT_EQ(0, setsockopt(m_Endpoint.m_iSocket, SOL_SOCKET, SO_SNDBUF, &iLeast, sizeof(iLeast)));
    const int kFrames = nRounds(2000);
    std::promise<pthread_t> thread;
    auto sending = std::async(std::launch::async, [&] {
        thread.set_value(pthread_self());
        for (int i = 0; i < kFrames; ++i) {
            std::string szData(static_cast<size_t>(400 + i % 90), static_cast<char>('a' + i % 26));
            m_Endpoint.iWrite(static_cast<uint16_t>(i), pBytes(szData), lSize(szData), 0, 0, 0, 0);
        }
    });
    const pthread_t writer = thread.get_future().get();
    int iWhole = 0;
    for (int i = 0; i < kFrames; ++i) {
        pthread_kill(writer, SIGUSR1); // harmless when it has ended: nobody has joined it yet
        const Frame frame = ReceiveFrame(m_Peer);
        iWhole +=
            frame.iCommand == i && frame.szData == std::string(static_cast<size_t>(400 + i % 90),
                                                               static_cast<char>('a' + i % 26))
                ? 1
                : 0;
    }
    EXPECT_EQ(kFrames, iWhole);
}

TEST_F(ASocketBase, SendsNothingOfASizeBelowZero)
{
    std::string szBytes = "bytes";
    EXPECT_EQ(1, m_Endpoint.iWrite(pBytes(szBytes), -1));
    EXPECT_EQ(5, m_Endpoint.iWrite(pBytes(szBytes), 5));
    EXPECT_EQ("bytes", m_Peer.szReceive(5));
    EXPECT_EQ(2, m_Endpoint.m_iMsgCounter);
}

TEST_F(ASocketBase, EndsAWriteThatAnotherThreadCloses)
{
    std::string szFlood(16 * 1024 * 1024, 'x');
    auto sending = std::async(std::launch::async,
                              [&] { return m_Endpoint.iWrite(pBytes(szFlood), lSize(szFlood)); });
    ASSERT_EQ("x", m_Peer.szReceive(1)); // it is under way, and nobody reads the rest
    m_Endpoint.Close();
    EXPECT_EQ(-1, sending.get());
}

TEST_F(ASocketBase, NeverMixesTheFramesOfSeveralThreads)
{
    constexpr int kWriters = 4;
    const int kFrames = nRounds(400);
    std::vector<std::thread> writers;
    for (int iWriter = 0; iWriter < kWriters; ++iWriter) {
        writers.emplace_back([this, iWriter, kFrames] {
            std::string szData(static_cast<size_t>(100 * (iWriter + 1)),
                               static_cast<char>('a' + iWriter));
            for (int i = 0; i < kFrames; ++i) {
                if (i % 2 == 0) {
                    m_Endpoint.iWrite(static_cast<uint16_t>(iWriter), pBytes(szData), lSize(szData),
                                      0, 0, 0, 0);
                } else {
                    lWriteFrame(FrameBytes(static_cast<uint16_t>(iWriter), szData));
                }
            }
        });
    }
    int iWhole = 0;
    for (int i = 0; i < kWriters * kFrames; ++i) {
        const Frame frame = ReceiveFrame(m_Peer);
        const std::string szExpected(static_cast<size_t>(100 * (frame.iCommand + 1)),
                                     static_cast<char>('a' + frame.iCommand));
        iWhole += frame.bComplete && frame.szData == szExpected ? 1 : 0;
    }
    EXPECT_EQ(kWriters * kFrames, iWhole);
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST_F(AnUnconnectedSocketBase, WritesNothing)
{
    std::string szFrame = FrameBytes(1);
    auto* const pHeader = reinterpret_cast<socketFrameHdr_t*>(szFrame.data());
    CSmallObject object;
    EXPECT_EQ(-1, m_Endpoint.iWrite(pBytes(szFrame), 20));
    EXPECT_EQ(1, m_Endpoint.m_iMsgCounter); // a write is counted, whatever becomes of it
    EXPECT_EQ(-1, m_Endpoint.iWrite(1, nullptr, 0, 0, 0, 0, 0));
    EXPECT_EQ(-1, m_Endpoint.iWrite(pHeader, nullptr, 0, 0, 0));
    EXPECT_EQ(-1, m_Endpoint.iWriteObject(1, &object, 0, 0, 0, 0));
    EXPECT_EQ(1, m_Endpoint.m_iMsgCounter); // those have not tried
    EXPECT_EQ(-1, lWriteFrame(szFrame));
    EXPECT_TRUE(bLogged(LOG_ERR, "size = 20; port = 4242"));
}

TEST_F(AnUnconnectedSocketBase, ReadsNothing)
{
    uint8_t aBytes[4] = {};
    long lRead = 9;
    EXPECT_EQ(0, m_Endpoint.iRead(aBytes, 4, &lRead));
    EXPECT_EQ(0, lRead);
    EXPECT_EQ(0, lReadFrame());
    EXPECT_EQ(0, m_lData);
}

TEST_F(AnUnconnectedSocketBase, TellsEveryTimeItIsClosed)
{
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED)); // of SetUp()
    m_Endpoint.Close();
    EXPECT_EQ(2u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(AnUnconnectedSocketBase, FailsToSetOptions)
{
    EXPECT_NE(0, m_Endpoint.lSetOption());
    CSyslogReceiver::Get().Clear();
    EXPECT_EQ(0, m_Endpoint.iLogOption());
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("SO_")); // what cannot be read is not logged
}

TEST_F(ASocketBase, ReadsExactlyWhatItIsAskedFor)
{
    m_Peer.bSend("0123456789");
    std::string szBytes(4, '#');
    long lRead = 0;
    EXPECT_EQ(4, m_Endpoint.iRead(pBytes(szBytes), 4, &lRead));
    EXPECT_EQ(4, lRead);
    EXPECT_EQ("0123", szBytes);
    EXPECT_EQ(0, m_Endpoint.iRead(pBytes(szBytes), 0, &lRead));
    EXPECT_EQ(4, m_Endpoint.iRead(pBytes(szBytes), 4, nullptr));
    EXPECT_EQ("4567", szBytes);
    EXPECT_EQ(-1, m_Endpoint.iRead(nullptr, 4, &lRead));
}

TEST_F(ASocketBase, WaitsForBytesThatComeOneByOne)
{
    auto reading = std::async(std::launch::async, [this] { return lReadFrame(); });
    for (const char cByte : FrameBytes(3000, "abc")) {
        m_Peer.bSend(std::string(1, cByte));
    }
    EXPECT_EQ(3, reading.get());
    EXPECT_EQ("abc", Received().szData);
}

TEST_F(ASocketBase, ReturnsWhatCameBeforeTheEndOfTheStream)
{
    m_Peer.bSend("01234");
    m_Peer.EndSending();
    std::string szBytes(10, '#');
    long lRead = 0;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(5, m_Endpoint.iRead(pBytes(szBytes), 10, &lRead));
    EXPECT_LE(std::chrono::milliseconds(90), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(5, lRead);
    EXPECT_EQ(0, m_Endpoint.iRead(pBytes(szBytes), 10, &lRead));
    EXPECT_EQ(0, lRead);
    EXPECT_TRUE(m_Endpoint.bGetConnected()); // it may still send
    EXPECT_EQ(0u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketBase, ClosesWhenAReadFails)
{
    m_Peer.Reset();
    std::string szBytes(10, '#');
    long lRead = 9;
    EXPECT_EQ(-1, m_Endpoint.iRead(pBytes(szBytes), 10, &lRead));
    EXPECT_EQ(0, lRead);
    EXPECT_EQ(-1, m_Endpoint.m_iSocket);
    EXPECT_TRUE(bLogged(LOG_WARNING, " : unknown error = 104"));
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketBase, EndsAReadThatAnotherThreadCloses)
{
    std::string szBytes(10, '#');
    auto reading = std::async(std::launch::async,
                              [&] { return m_Endpoint.iRead(pBytes(szBytes), 10, nullptr); });
    m_Endpoint.Close();
    EXPECT_EQ(0, reading.get());
}

TEST_F(ASocketBase, LeavesADescriptorOpenWhileItIsRead)
{
    const int iFd = m_Endpoint.m_iSocket;
    std::string szBytes(10, '#');
    auto reading = std::async(std::launch::async,
                              [&] { return m_Endpoint.iRead(pBytes(szBytes), 10, nullptr); });
    m_Endpoint.Close();
    EXPECT_EQ(0, reading.get());
    EXPECT_TRUE(bAwait([iFd] { return fcntl(iFd, F_GETFD) == -1; })); // by now it is closed
}

TEST_F(ASocketBase, ReadsAFrame)
{
    m_Peer.bSend(FrameBytes(3000, "0123456789"));
    EXPECT_EQ(10, lReadFrame());
    EXPECT_EQ(10, m_lData);
    EXPECT_EQ(3000, Received().iCommand);
    EXPECT_EQ("0123456789", Received().szData);
    m_Peer.bSend(FrameBytes(3001));
    EXPECT_EQ(20, lReadFrame());
    EXPECT_EQ(0, m_lData);
    EXPECT_EQ(3001, Received().iCommand);
}

TEST_F(ASocketBase, ReadsAFrameOfTheLargestDataAllowed)
{
    m_Peer.bSend(FrameBytes(3000, std::string(1000, 'x')));
    EXPECT_EQ(1000, lReadFrame());
    EXPECT_EQ(1000, m_lData);
}

TEST_F(ASocketBase, HandsOnTheHeaderOfAnOversizeFrameAsAnEmptyOne)
{
    m_Peer.bSend(FrameBytes(3000, std::string(1001, 'x')));
    EXPECT_EQ(20, lReadFrame());
    EXPECT_EQ(0, m_lData);
    EXPECT_EQ(0u, Received().iSize); // no handler takes what the buffer held before for its data
    EXPECT_EQ(-1, lReadFrame());     // the data is in the stream and is no header
}

TEST_F(ASocketBase, ComparesAll32BitsOfASize)
{
    for (const uint32_t iSize : {0x00010005u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        m_Peer.bSend(HeaderBytes(3000, iSize));
        EXPECT_EQ(20, lReadFrame()) << iSize;
        EXPECT_EQ(0u, Received().iSize) << iSize;
    }
    m_Peer.bSend(HeaderBytes(3000, 1));
    EXPECT_EQ(20, lReadFrame(-1)); // a negative maximum allows nothing
}

TEST_F(ASocketBase, RefusesAFrameWithoutTheMagic)
{
    Frame frame;
    frame.iMagic = 0xAAAB;
    m_Peer.bSend(FrameBytes(frame));
    EXPECT_EQ(-1, lReadFrame());
    EXPECT_EQ(0, m_lData);
    EXPECT_TRUE(m_Endpoint.bGetConnected()); // the loop closes
}

TEST_F(ASocketBase, RefusesACutHeader)
{
    m_Peer.bSend(FrameBytes(3000).substr(0, 19));
    m_Peer.EndSending();
    EXPECT_EQ(-1, lReadFrame());
}

TEST_F(ASocketBase, RefusesCutData)
{
    m_Peer.bSend(HeaderBytes(CMD_COMMUN_PING, 900) + "five!");
    m_Peer.EndSending();
    EXPECT_EQ(-1, lReadFrame());
    EXPECT_EQ(0, m_lData);
}

TEST_F(ASocketBase, RefusesToReadAFrameToNowhere)
{
    EXPECT_EQ(-1, m_Endpoint.lRead(nullptr, 10, nullptr));
}

TEST_F(ASocketBase, TakesOnlyFramesThatSomebodyWants)
{
    std::string szFrame = FrameBytes(3999, "abc");
    long lUsed = 9;
    EXPECT_EQ(0, m_Endpoint.lDispatchTrame(pBytes(szFrame), 3, &lUsed));
    EXPECT_EQ(0, lUsed);
    EXPECT_EQ(0, m_Endpoint.lDispatchTrame(nullptr, 3, &lUsed));
    EXPECT_EQ(0, m_Endpoint.lDispatchTrame(pBytes(szFrame), 3, nullptr));
}

TEST_F(ASocketBase, SetsTheOptionsOfTheConnection)
{
    EXPECT_EQ(0, m_Endpoint.lSetOption());
    linger lingering = {};
    socklen_t length = sizeof(lingering);
    EXPECT_EQ(0, getsockopt(m_Endpoint.m_iSocket, SOL_SOCKET, SO_LINGER, &lingering, &length));
    EXPECT_EQ(1, lingering.l_onoff);
    EXPECT_EQ(5, lingering.l_linger);
    EXPECT_EQ(1, iOption(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(2 * 8192, iOption(SOL_SOCKET, SO_RCVBUF)); // the kernel doubles it: socket(7)
    EXPECT_EQ(2 * 8192, iOption(SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(1, iOption(SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(20, iOption(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(10, iOption(IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(3, iOption(IPPROTO_TCP, TCP_KEEPCNT));
}

TEST_F(ASocketBase, TriesEveryOptionWhateverFails)
{
    int aPair[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair));
    COpenEndpoint<CSocketBase> endpoint(aPair[0]);
    EXPECT_EQ(-1, endpoint.lSetOption()); // knows nothing of TCP
    int iKeepAlive = 0;
    socklen_t length = sizeof(iKeepAlive);
    EXPECT_EQ(0, getsockopt(aPair[0], SOL_SOCKET, SO_KEEPALIVE, &iKeepAlive, &length));
    EXPECT_EQ(1, iKeepAlive);
    close(aPair[1]);
}

TEST_F(ASocketBase, LogsTheOptionsOfTheConnection)
{
    m_Endpoint.lSetOption();
    const int iSynCount = 4;
    ASSERT_EQ(0, setsockopt(m_Endpoint.m_iSocket, IPPROTO_TCP, 7, &iSynCount, sizeof(int)));
    EXPECT_EQ(0, m_Endpoint.iLogOption());
    EXPECT_TRUE(bLogged(LOG_INFO, "SOL_SOCKET,SO_KEEPALIVE = 1"));
    EXPECT_TRUE(bLogged(LOG_INFO, "SOL_SOCKET,SO_RCVBUF = 16384"));
    EXPECT_TRUE(bLogged(LOG_INFO, "SOL_SOCKET,SO_SNDBUF = 16384"));
    EXPECT_TRUE(bLogged(LOG_INFO, "SOL_SOCKET,SO_LINGER onoff = 1; linger = 5"));
    const std::string szDefer = std::to_string(iOption(IPPROTO_TCP, TCP_DEFER_ACCEPT));
    const std::string szLinger2 = std::to_string(iOption(IPPROTO_TCP, TCP_LINGER2));
    EXPECT_TRUE(bLogged(LOG_INFO, " PPROTO_TCP,SO_KEEPALIVE = " + szDefer)); // no letter before
    EXPECT_TRUE(bLogged(LOG_INFO, "IPPROTO_TCP,SO_RCVBUF = " + szLinger2));
    EXPECT_TRUE(bLogged(LOG_INFO, "IPPROTO_TCP,SO_SNDBUF = 4"));
}

TEST_F(ASocketBase, NamesASocketError)
{
    const std::string szTabs(11, '\t');
    const std::pair<long, std::string> texts[] = {
        {9, "The socket socket is not a valid file descriptor. "},
        {88, "File descriptor socket is not a socket. "},
        {99, "The specified address is not available on the remote machine. "},
        {97, "The namespace of the addr is not supported by this socket. "},
        {106, "The socket socket is already connected. "},
        {110, "The attempt to establish the connection timed out. "},
        {111, "The server has actively refused to establish the connection. "},
        {101, "The network of the given addr isn't reachable from this host. "},
        {98, "The socket address of the given addr is already in use. "},
        {115, "The socket socket is non-blocking and the connection could not be " + szTabs +
                  " established immediately. You can determine when the connection is completely " +
                  szTabs +
                  " established with select; . Another connect call on the same socket, before the "
                  "connection " +
                  szTabs + " is completely established, will fail with EALREADY. "},
        {114, "The socket socket is non-blocking and already has a pending connection in progress "
              "(see EINPROGRESS above). "},
        {104, "unknown error = 104"},
        {-5, "unknown error = -5"},
    };
    for (const auto& [lError, szText] : texts) {
        CSyslogReceiver::Get().Clear();
        EXPECT_EQ(lError, m_Endpoint.iLogError(lError));
        const std::string szEnd = " : " + szText;
        EXPECT_TRUE(CSyslogReceiver::Get().bAwait([&](const CSyslogReceiver::Record& record) {
            const std::string& szLine = record.szText;
            return record.iLevel == LOG_WARNING && szLine.size() > szEnd.size() &&
                   szLine.compare(szLine.size() - szEnd.size(), szEnd.size(), szEnd) == 0;
        })) << szText;
    }
}

TEST_F(ASocketBase, CountsAsAliveFor40Seconds)
{
    const time_t before = time(nullptr);
    m_Endpoint.ResetPing();
    EXPECT_LE(before + 40, m_Endpoint.m_iNextPing);
    EXPECT_GE(time(nullptr) + 40, m_Endpoint.m_iNextPing);
    EXPECT_TRUE(m_Endpoint.bCheckPing());
}

TEST_F(ASocketBase, ClosesAConnectionThatHasFallenSilent)
{
    m_Endpoint.m_iNextPing = time(nullptr) - 1;
    EXPECT_FALSE(m_Endpoint.bCheckPing());
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    EXPECT_TRUE(m_Peer.bReceiveEof());
    EXPECT_TRUE(bLogged(LOG_ERR, "PING not received close connection"));
    EXPECT_TRUE(m_Endpoint.bCheckPing()); // nothing left to check
}

TEST_F(ASocketBase, ChecksNothingWithADeadlineOfZeroOrLess)
{
    for (const time_t deadline : {time_t{0}, time_t{-1}}) {
        m_Endpoint.m_iNextPing = deadline;
        EXPECT_TRUE(m_Endpoint.bCheckPing());
        EXPECT_TRUE(m_Endpoint.bGetConnected());
    }
}

TEST_F(ASocketBase, PingsWhenItIsMonitored)
{
    m_Endpoint.m_bRun = true;
    m_Endpoint.ResetPing();
    EXPECT_EQ(0, m_Endpoint.iMonitoring());
    EXPECT_EQ(FrameBytes(CMD_COMMUN_PING), m_Peer.szReceive(20));
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    m_Endpoint.m_bRun = false;
}

TEST_F(ASocketBase, IsClosedByMonitoringThoughItsPingWasSent)
{
    m_Endpoint.m_bRun = true;
    m_Endpoint.m_iNextPing = time(nullptr) - 1;
    EXPECT_EQ(0, m_Endpoint.iMonitoring());
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    EXPECT_EQ(FrameBytes(CMD_COMMUN_PING), m_Peer.szReceive(20));
    EXPECT_TRUE(m_Peer.bReceiveEof());
    m_Endpoint.m_bRun = false;
}

// A peer that takes a few bytes now and then keeps a writer, and with it the lock, busy for ever.
TEST_F(ASocketBase, IsClosedByMonitoringThoughAWriteHoldsItsLock)
{
    m_Endpoint.m_bRun = true;
    m_Endpoint.m_iNextPing = time(nullptr) - 1;
    m_Endpoint.iLock();
    auto monitoring = std::async(std::launch::async, [this] { return m_Endpoint.iMonitoring(); });
    EXPECT_EQ(std::future_status::ready,
              monitoring.wait_for(std::chrono::milliseconds(kAwaitLimitMs)));
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    m_Endpoint.UnLock();
    EXPECT_EQ(0, monitoring.get()); // as a writer that finds no lock: not a failure
    EXPECT_TRUE(m_Peer.bReceiveEof());
    m_Endpoint.m_bRun = false;
}

TEST_F(ASocketBase, ReportsAPingThatCouldNotBeSent)
{
    m_Endpoint.m_bRun = true;
    m_Endpoint.ResetPing();
    LosePeer();
    EXPECT_EQ(-1, m_Endpoint.iMonitoring());
    EXPECT_TRUE(bLogged(LOG_WARNING, " peer name disconnected"));
    m_Endpoint.m_bRun = false;
}

TEST_F(ASocketBase, IsNotHealthyUnlessItRunsAndIsConnected)
{
    EXPECT_EQ(-1, m_Endpoint.iMonitoring()); // does not run
    EXPECT_TRUE(bLogged(LOG_WARNING, " peer name disconnected"));
    EXPECT_EQ("", m_Peer.szReceive(1, 50)); // and pings nobody
    m_Endpoint.m_bRun = true;
    m_Endpoint.Close();
    EXPECT_EQ(-1, m_Endpoint.iMonitoring());
    m_Endpoint.m_bRun = false;
}

TEST_F(ASocketBase, IgnoresANullFrame)
{
    m_Endpoint.OnCmdCommunPing(nullptr);
    m_Endpoint.OnCmdCommunPong(nullptr);
    m_Endpoint.OnCmdCommunVersion(nullptr);
    m_Endpoint.OnCmdCommunPID(nullptr);
    m_Endpoint.OnCmdCommunName(nullptr);
    m_Endpoint.OnCmdCommunGetLogConfig(nullptr);
    m_Endpoint.OnCmdCommunSetLogConfig(nullptr);
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
    EXPECT_EQ(0u, m_Store.Count(&m_Endpoint, EVT_COM_PING));
}

TEST_F(ASocketBase, LeavesNoDescriptorBehind)
{
    const size_t before = nOpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        CTcpPeer peer;
        COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
        if (i % 2 == 0) {
            endpoint.Close();
        }
    }
    EXPECT_EQ(before, nOpenDescriptors());
}

TEST(ABrokenPipe, DoesNotEndAProcessWithAnEndpoint)
{
    const ChildResult result = RunInChild([] {
        CTcpPeer peer;
        COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
        peer.Reset();
        std::string szByte = "x";
        while (endpoint.bGetConnected()) { // ECONNRESET at first, EPIPE from then on
            endpoint.iWrite(pBytes(szByte), 1);
        }
        endpoint.Adopt(iConnectTo(peer));
        shutdown(endpoint.m_iSocket, SHUT_WR);
        endpoint.iWrite(pBytes(szByte), 1);
        return endpoint.bGetConnected() ? 1 : 0;
    });
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(0, result.iExitCode);
}

TEST(ABrokenPipe, KeepsTheDispositionThatTheProgramHasChosen)
{
    const ChildResult result = RunInChild([] {
        std::signal(SIGPIPE, SIG_IGN);
        const COpenEndpoint<CSocketBase> endpoint;
        return std::signal(SIGPIPE, SIG_DFL) == SIG_IGN ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST(ABrokenPipe, StillEndsTheProgramsThatTheProcessExecutes)
{
    const ChildResult result = RunInChild([] {
        const COpenEndpoint<CSocketBase> endpoint;
        execl("/bin/sh", "sh", "-c", "kill -PIPE $$; exit 3", static_cast<char*>(nullptr));
        return 4;
    });
    EXPECT_EQ(SIGPIPE, result.iSignal);
}
