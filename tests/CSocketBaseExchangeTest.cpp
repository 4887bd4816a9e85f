// Requests that wait for their answers.
#include "libQuorCore/CSocketBase.h"

#include "libQuorCore/CSerialize.h"

#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CTcpPeer.h"
#include "support/CTestEndpoint.h"
#include "support/CUntakeableLock.h"
#include "support/Frames.h"
#include "support/Sanitized.h"

#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uint16_t kRequest = 3001;
constexpr uint16_t kAnswer = 3002;

/// Serialises to four bytes.
class CNumberObject : public CObject
{
public:
    explicit CNumberObject(uint32_t iNumber) : CObject(nullptr, "number"), m_iNumber(iNumber) {}
    long iSerialize(CSerialize& stream) override
    {
        return stream.m_bSave ? stream.iPushU32(m_iNumber, "") : stream.iPopU32(m_iNumber, "");
    }
    uint32_t m_iNumber;
};

class ASocketExchange : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_aAnswer.fill('#');
        m_Endpoint.Configure(0, 60000, "peer");
        m_Endpoint.m_OnFrame = [this](socketFrame_t*) { ++m_iHandled; };
        const int iOn = 1; // as the loop sets it where it connects by itself
        setsockopt(m_Endpoint.m_iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
        ASSERT_EQ(0, m_Endpoint.iCreateThread(true, kStartLimitMs));
    }

    void TearDown() override { m_Endpoint.iStop(true, false); }

    /// Exchanges on another thread, so that the test can play the peer.
    std::future<long> Exchange(long lTimeOut = kAmpleMs, bool bClose = false,
                               uint16_t iAwaited = kAnswer)
    {
        return std::async(std::launch::async, [=] {
            std::string szData = "request";
            return m_Endpoint.iExchangeCmd(kRequest, pBytes(szData), lSize(szData), iAwaited,
                                           m_aAnswer.data(), m_lRoom, &m_lUsed, lTimeOut, bClose);
        });
    }

    std::string szAnswer(size_t size = 0) const
    {
        const auto* const pszAnswer = reinterpret_cast<const char*>(m_aAnswer.data());
        return std::string(pszAnswer, size != 0 ? size : static_cast<size_t>(m_lUsed));
    }

    bool bIsIdle()
    {
        m_Endpoint.m_LockDataExchange.iLock();
        const bool bIdle = m_Endpoint.m_ExchangeResult == 0 && m_Endpoint.m_pTagToWait == nullptr;
        m_Endpoint.m_LockDataExchange.UnLock();
        return bIdle;
    }

    CMessageStore m_Store;
    CTcpPeer m_Peer;
    std::atomic<int> m_iHandled{0}; ///< Frames of command 3000 that went to their handler.
    std::array<uint8_t, 64> m_aAnswer{};
    long m_lRoom = 64;
    long m_lUsed = 77;
    COpenEndpoint<CSocketBase> m_Endpoint{iConnectTo(m_Peer)};
};
} // namespace

TEST_F(ASocketExchange, BringsTheAnswer)
{
    auto exchange = Exchange();
    const Frame request = ReceiveFrame(m_Peer);
    EXPECT_EQ(kRequest, request.iCommand);
    EXPECT_EQ("request", request.szData);
    EXPECT_EQ(0, request.iTypeItf);
    EXPECT_EQ(0, request.iProtocol);
    EXPECT_EQ(0, request.iUser1);
    EXPECT_EQ(0, request.iUser2);
    m_Peer.bSend(FrameBytes(kAnswer, "the answer"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ(10, m_lUsed);
    EXPECT_EQ("the answer#", szAnswer(11));
    EXPECT_TRUE(bIsIdle());
}

TEST_F(ASocketExchange, ReadsAnEmptyAnswerAsAnEmptyText)
{
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ(0, m_lUsed);
    EXPECT_EQ(std::string("\0#", 2), szAnswer(2));
}

TEST_F(ASocketExchange, WritesNothingOfAnEmptyAnswerWhereThereIsNoRoom)
{
    m_lRoom = 0;
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("#", szAnswer(1));
}

TEST_F(ASocketExchange, NeedsNoBufferForAnEmptyAnswer)
{
    for (const long lRoom : {0L, 64L}) {
        auto exchange = std::async(std::launch::async, [this, lRoom] {
            return m_Endpoint.iExchangeCmd(kRequest, nullptr, 0, kAnswer, nullptr, lRoom, nullptr,
                                           kAmpleMs, false);
        });
        ReceiveFrame(m_Peer);
        m_Peer.bSend(FrameBytes(kAnswer));
        EXPECT_EQ(0, exchange.get());
    }
}

TEST_F(ASocketExchange, TakesAnAnswerOfExactlyTheRoomThereIs)
{
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer, std::string(64, 'x')));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ(std::string(64, 'x'), szAnswer());
}

TEST_F(ASocketExchange, RefusesAnAnswerThatIsTooLarge)
{
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer, std::string(65, 'x')));
    EXPECT_EQ(-1, exchange.get());
    EXPECT_EQ(0, m_lUsed);
    EXPECT_EQ("#", szAnswer(1)); // nothing of it was copied
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    EXPECT_TRUE(bIsIdle());
}

TEST_F(ASocketExchange, DoesNotTakeAnOversizeAnswerForAnEmptyOne)
{
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(HeaderBytes(kAnswer, 60001)); // the endpoint is configured for 60000
    EXPECT_EQ(-1, exchange.get());
    EXPECT_EQ(0, m_lUsed);
    EXPECT_EQ("#", szAnswer(1));
}

TEST_F(ASocketExchange, RefusesDataThatItHasNoBufferFor)
{
    auto exchange = std::async(std::launch::async, [this] {
        return m_Endpoint.iExchangeCmd(kRequest, nullptr, 0, kAnswer, nullptr, 64, nullptr,
                                       kAmpleMs, false);
    });
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer, "data"));
    EXPECT_EQ(-1, exchange.get());
}

TEST_F(ASocketExchange, MayAwaitAnyCommand)
{
    for (const uint16_t iAwaited : std::initializer_list<uint16_t>{0, 10, 18, 65535}) {
        auto exchange = Exchange(kAmpleMs, false, iAwaited);
        ReceiveFrame(m_Peer);
        m_Peer.bSend(FrameBytes(iAwaited, "x"));
        EXPECT_EQ(0, exchange.get()) << iAwaited;
        EXPECT_EQ("x", szAnswer());
    }
    EXPECT_EQ(0u, m_Store.Count(&m_Endpoint, EVT_COM_PING)); // they were answers, not requests
}

TEST_F(ASocketExchange, LeavesOtherFramesToTheirHandlers)
{
    auto exchange = Exchange();
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(3000) + FrameBytes(CMD_COMMUN_PING, "p"));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(m_Peer).iCommand);
    EXPECT_EQ(1, m_iHandled);
    m_Peer.bSend(FrameBytes(kAnswer, "now"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("now", szAnswer());
}

TEST_F(ASocketExchange, TimesOut)
{
    EXPECT_EQ(-7, Exchange(50).get());
    EXPECT_EQ(0, m_lUsed);
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    EXPECT_TRUE(bIsIdle());
    EXPECT_EQ(-7, Exchange(0).get());
}

TEST_F(ASocketExchange, LeavesALateAnswerToItsHandler)
{
    EXPECT_EQ(-7, Exchange(0, false, 3000).get());
    m_Peer.bSend(FrameBytes(3000, "late"));
    EXPECT_TRUE(bAwait([this] { return m_iHandled == 1; }));
    EXPECT_EQ("#", szAnswer(1));
}

TEST_F(ASocketExchange, ClosesOnATimeOutWhenItIsToldTo)
{
    EXPECT_EQ(-7, Exchange(50, true).get());
    EXPECT_FALSE(m_Endpoint.bGetConnected());
    ReceiveFrame(m_Peer);
    EXPECT_TRUE(m_Peer.bReceiveEof());
}

TEST_F(ASocketExchange, ClosesOnAnyFailureWhenItIsToldTo)
{
    auto exchange = Exchange(kAmpleMs, true);
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer, std::string(65, 'x')));
    EXPECT_EQ(-1, exchange.get());
    EXPECT_FALSE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketExchange, StaysConnectedWhenItSucceeds)
{
    auto exchange = Exchange(kAmpleMs, true);
    ReceiveFrame(m_Peer);
    m_Peer.bSend(FrameBytes(kAnswer));
    EXPECT_EQ(0, exchange.get());
    EXPECT_TRUE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketExchange, FailsAtOnceWithoutAConnection)
{
    m_Endpoint.Close();
    CNumberObject object(1);
    EXPECT_EQ(-1, Exchange(kForEver, true).get());
    EXPECT_EQ(-1, m_Endpoint.iExchangeCmd(kRequest, &object, kAnswer, &object, &m_lUsed, kForEver,
                                          false));
    EXPECT_EQ(77, m_lUsed);
    EXPECT_TRUE(m_Peer.bReceiveEof()); // and sends nothing
    EXPECT_EQ(1u, m_Store.Count(&m_Endpoint, EVT_COM_DISCONNECTED));
}

TEST_F(ASocketExchange, FailsWithoutItsLocks)
{
    uint8_t cByte = 0;
    const auto lExchange = [&] {
        return m_Endpoint.iExchangeCmd(kRequest, &cByte, 1, kAnswer, &cByte, 1, nullptr, 0, false);
    };
    {
        const CUntakeableLock refused(m_Endpoint.m_LockExchange);
        EXPECT_EQ(-1, lExchange());
    }
    const CUntakeableLock refused(m_Endpoint.m_LockDataExchange);
    EXPECT_EQ(-1, lExchange());
    EXPECT_EQ("", m_Peer.szReceive(1, 50));
}

TEST_F(ASocketExchange, EndsWhenTheConnectionIsClosed)
{
    auto exchange = Exchange(kForEver);
    ReceiveFrame(m_Peer);
    m_Endpoint.Close();
    EXPECT_EQ(-1, exchange.get());
    EXPECT_TRUE(bIsIdle());
}

TEST_F(ASocketExchange, EndsWhenThePeerIsLost)
{
    auto exchange = Exchange(kForEver);
    ReceiveFrame(m_Peer);
    m_Peer.Reset();
    EXPECT_EQ(-1, exchange.get());
}

TEST_F(ASocketExchange, EndsWhenTheEndpointIsStopped)
{
    auto exchange = Exchange(kForEver);
    ReceiveFrame(m_Peer);
    m_Endpoint.iStop(true, false);
    EXPECT_EQ(-1, exchange.get());
}

TEST_F(ASocketExchange, EndsWhenItsDataCannotBeSent)
{
    timeval timeout = {};
    timeout.tv_usec = 100000;
    ASSERT_EQ(0,
              setsockopt(m_Endpoint.m_iSocket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)));
    std::string szData(60000, 'x');
    long lResult = 0;
    int iExchanges = 0; // until both sides' buffers are full of what the peer does not read
    while (m_Endpoint.bGetConnected() && ++iExchanges < 10000) {
        lResult = m_Endpoint.iExchangeCmd(kRequest, pBytes(szData), lSize(szData), kAnswer,
                                          m_aAnswer.data(), m_lRoom, &m_lUsed, 0, false);
    }
    EXPECT_EQ(-1, lResult);
}

TEST_F(ASocketExchange, HoldsNoLockWhenItTellsOfALostConnection)
{
    std::atomic<int> iResult{-1};
    m_Endpoint.m_OnDeconnect = [&] {
        iResult = std::async(std::launch::async, [this] {
                      const int iLock = m_Endpoint.m_LockExchange.iTryLock(0);
                      if (iLock == 0) {
                          m_Endpoint.m_LockExchange.UnLock();
                      }
                      return iLock;
                  }).get();
    };
    shutdown(m_Endpoint.m_iSocket, SHUT_WR); // the next send fails, and only that
    EXPECT_EQ(-1, Exchange(kForEver).get());
    EXPECT_EQ(0, iResult);
    m_Endpoint.iStop(true, false);
    m_Endpoint.m_OnDeconnect = nullptr;
}

TEST_F(ASocketExchange, WaitsForTheOneBeforeIt)
{
    auto first = Exchange();
    ASSERT_EQ(kRequest, ReceiveFrame(m_Peer).iCommand);
    std::array<uint8_t, 8> aAnswer{};
    long lUsed = 0;
    auto second = std::async(std::launch::async, [&] {
        return m_Endpoint.iExchangeCmd(3005, nullptr, 0, kAnswer, aAnswer.data(), 8, &lUsed,
                                       kAmpleMs, false);
    });
    EXPECT_EQ("", m_Peer.szReceive(1, 100)); // the second has not written
    m_Peer.bSend(FrameBytes(kAnswer, "1"));
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(3005, ReceiveFrame(m_Peer).iCommand);
    m_Peer.bSend(FrameBytes(kAnswer, "2"));
    EXPECT_EQ(0, second.get());
    EXPECT_EQ("1", szAnswer());
    EXPECT_EQ('2', aAnswer[0]);
}

TEST_F(ASocketExchange, ServesSeveralThreadsInTurn)
{
    constexpr int kThreads = 4;
    const int kExchanges = nRounds(100);
    std::atomic<int> iRight{0};
    std::vector<std::thread> callers;
    for (int iCaller = 0; iCaller < kThreads; ++iCaller) {
        callers.emplace_back([&, iCaller] {
            for (int i = 0; i < kExchanges; ++i) {
                std::string szData = std::to_string(iCaller * 1000 + i);
                std::string szBack(16, '\0');
                long lUsed = 0;
                const long lResult =
                    m_Endpoint.iExchangeCmd(kRequest, pBytes(szData), lSize(szData), kAnswer,
                                            pBytes(szBack), 16, &lUsed, kAmpleMs, false);
                szBack.resize(static_cast<size_t>(lUsed));
                iRight += lResult == 0 && szBack == szData ? 1 : 0;
            }
        });
    }
    for (int i = 0; i < kThreads * kExchanges; ++i) {
        m_Peer.bSend(FrameBytes(kAnswer, ReceiveFrame(m_Peer).szData));
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(kThreads * kExchanges, iRight);
}

TEST_F(ASocketExchange, IsNotDisturbedByChildrenThatEnd)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGCHLD, &action, nullptr)); // without SA_RESTART
    std::atomic<bool> bGo{true};
    auto storm = std::async(std::launch::async, [&] {
        while (bGo) {
            kill(getpid(), SIGCHLD); // whichever thread takes it
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    auto peer = std::async(std::launch::async, [&] {
        for (int i = 0; i < nRounds(400); ++i) {
            m_Peer.bSend(FrameBytes(kAnswer, ReceiveFrame(m_Peer).szData));
        }
    });
    int iRight = 0;
    for (int i = 0; i < nRounds(400); ++i) {
        iRight += Exchange().get() == 0 && szAnswer() == "request" ? 1 : 0;
    }
    EXPECT_EQ(nRounds(400), iRight);
    EXPECT_TRUE(m_Endpoint.bGetConnected());
    bGo = false;
}

TEST_F(ASocketExchange, ExchangesObjects)
{
    CNumberObject request(0x44434241);
    CNumberObject answer(0);
    auto exchange = std::async(std::launch::async, [&] {
        return m_Endpoint.iExchangeCmd(kRequest, &request, kAnswer, &answer, &m_lUsed, kAmpleMs,
                                       false);
    });
    EXPECT_EQ("ABCD", ReceiveFrame(m_Peer).szData);
    m_Peer.bSend(FrameBytes(kAnswer, "1234"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ(4, m_lUsed);
    EXPECT_EQ(0x34333231u, answer.m_iNumber);
}

TEST_F(ASocketExchange, NeedsNoObjects)
{
    auto exchange = std::async(std::launch::async, [&] {
        return m_Endpoint.iExchangeCmd(kRequest, nullptr, kAnswer, nullptr, &m_lUsed, kAmpleMs,
                                       false);
    });
    EXPECT_EQ(0u, ReceiveFrame(m_Peer).iSize);
    m_Peer.bSend(FrameBytes(kAnswer, "1234"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ(4, m_lUsed);
    EXPECT_EQ(
        -1, m_Endpoint.iExchangeCmd(kRequest, nullptr, kAnswer, nullptr, nullptr, kForEver, true));
    EXPECT_TRUE(m_Endpoint.bGetConnected());
}

TEST_F(ASocketExchange, ReadsObjectsOf2048Bytes)
{
    for (const size_t size : {size_t{2048}, size_t{2049}}) {
        CNumberObject answer(0);
        auto exchange = std::async(std::launch::async, [&] {
            return m_Endpoint.iExchangeCmd(kRequest, nullptr, kAnswer, &answer, &m_lUsed, kAmpleMs,
                                           false);
        });
        ReceiveFrame(m_Peer);
        m_Peer.bSend(FrameBytes(kAnswer, std::string(size, 'A')));
        EXPECT_EQ(size == 2048 ? 0 : -1, exchange.get());
        EXPECT_EQ(size == 2048 ? 0x41414141u : 0u, answer.m_iNumber);
    }
}

// A socket's iWrite() tells a count, which an exchange of texts takes for a failure.
TEST_F(ASocketExchange, IsNoneForTexts)
{
    EXPECT_EQ(3, m_Endpoint.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver));
    EXPECT_EQ("AT\r", m_Peer.szReceive(3));
}

TEST_F(ASocketExchange, DoesNotTakeATextForACommand)
{
    auto exchange = std::async(std::launch::async, [this] { // without a request it does wait
        return m_Endpoint.iExchangeAT(nullptr, "\x0A", nullptr, 0, nullptr, kForEver);
    });
    ASSERT_TRUE(m_Endpoint.bAwaitPending());
    m_Peer.bSend(FrameBytes(CMD_COMMUN_PING) + FrameBytes(3000));
    EXPECT_EQ(CMD_COMMUN_PONG, ReceiveFrame(m_Peer).iCommand);
    EXPECT_TRUE(bAwait([this] { return m_iHandled == 1; }));
    EXPECT_EQ(-6, m_Endpoint.m_ExchangeResult) << "it awaits a text still";
    m_Endpoint.Close();
    EXPECT_EQ(-1, exchange.get());
}

TEST(AnExchangeInAHandler, IsRefused)
{
    CTcpPeer peer;
    COpenEndpoint<CSocketBase> endpoint(iConnectTo(peer));
    endpoint.Configure(0, 100, "");
    std::promise<long> result;
    endpoint.m_OnFrame = [&](socketFrame_t*) {
        result.set_value(endpoint.iExchangeCmd(kRequest, nullptr, 0, kAnswer, nullptr, 0, nullptr,
                                               kForEver, false));
    };
    ASSERT_EQ(0, endpoint.iCreateThread(true, kStartLimitMs));
    peer.bSend(FrameBytes(3000));
    auto future = result.get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(std::chrono::milliseconds(kAwaitLimitMs)));
    EXPECT_EQ(-1, future.get());
    endpoint.iStop(true, false);
}
