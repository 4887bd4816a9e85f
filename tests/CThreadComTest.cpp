// The base of communication threads: buffer, events, and the exchange of texts.
#include "libQuorCore/CThreadCom.h"

#include "internal/CUniqueFd.h"

#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CUntakeableLock.h"
#include "support/Frames.h"
#include "support/Sanitized.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <malloc.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr long kForEver = -1;
constexpr long kAmpleMs = 20000; // for an answer that comes

/// A CThreadCom with its protected part open.
class COpenCom : public CThreadCom
{
public:
    using CThreadCom::AbortExchange;
    using CThreadCom::CThreadCom;
    using CThreadCom::m_bConnected;
    using CThreadCom::m_bRestartBuffer;
    using CThreadCom::m_bRun;
    using CThreadCom::m_EventRead;
    using CThreadCom::m_ExchangeResult;
    using CThreadCom::m_iNumPort;
    using CThreadCom::m_iSizeMaxRead;
    using CThreadCom::m_LockDataExchange;
    using CThreadCom::m_LockExchange;
    using CThreadCom::m_lSizeDataMax;
    using CThreadCom::m_piSizeLastRead;
    using CThreadCom::m_pLastRead;
    using CThreadCom::m_pRxBuffer;
    using CThreadCom::m_pTagToWait;
    using CThreadCom::m_RecursiveLock;
    using CThreadCom::m_szConnexionName;

    bool bIsIdle()
    {
        m_LockDataExchange.iLock();
        const bool bIdle = m_ExchangeResult == 0 && m_pTagToWait == nullptr &&
                           m_pLastRead == nullptr && m_piSizeLastRead == nullptr &&
                           m_iSizeMaxRead == 0;
        m_LockDataExchange.UnLock();
        return bIdle;
    }

    bool bAwaitPending()
    {
        return bAwait([this] { return m_ExchangeResult == -6; });
    }

    long lDispatch(const std::string& szText, long* plUsed)
    {
        std::string szCopy = szText;
        return lDispatchTrame(reinterpret_cast<uint8_t*>(szCopy.data()),
                              static_cast<long>(szText.size()), plUsed);
    }
};

/// A text link over a socket, as a modem's: it accumulates what no exchange has taken.
class CTextLink : public COpenCom
{
public:
    explicit CTextLink(int iFd) : COpenCom(nullptr, "text"), m_Socket(iFd) { m_bConnected = true; }
    ~CTextLink() override
    {
        shutdown(m_Socket.iGet(), SHUT_RDWR);
        iStop(true, false);
    }

    long iWrite(uint8_t* pFrame, long lSizeTotal) override
    {
        const ssize_t lSent =
            send(m_Socket.iGet(), pFrame, static_cast<size_t>(lSizeTotal), MSG_NOSIGNAL);
        return lSent == lSizeTotal ? 0 : -3;
    }

    long iRunThread() override
    {
        const CReading reading(*this);
        m_bRun = true;
        if (m_OnThread) {
            m_OnThread();
        }
        std::array<char, 1024> chunk;
        ssize_t lChunk = 0;
        while (m_bRun && (lChunk = recv(m_Socket.iGet(), chunk.data(), chunk.size(), 0)) > 0) {
            m_szKept.append(chunk.data(), static_cast<size_t>(lChunk));
            long lUsed = 0;
            lDispatch(m_szKept, &lUsed);
            m_szKept.erase(0, static_cast<size_t>(lUsed));
            m_iKept = m_szKept.size();
        }
        return 0;
    }

    std::function<void()> m_OnThread; ///< Run on the thread before it reads.
    std::atomic<size_t> m_iKept{0};   ///< Bytes that nobody has taken.

private:
    CUniqueFd m_Socket;
    std::string m_szKept;
};

/// Hands over an answer and then waits to be cancelled; without objects that this would destroy.
class CCancelledReader : public COpenCom
{
public:
    using COpenCom::COpenCom;
    ~CCancelledReader() override { iStop(true, false); }

    long iRunThread() override
    {
        static uint8_t aAnswer[] = "OK";
        m_bRun = true;
        m_thread = pthread_self();
        m_iKernelId = gettid();
        lDispatchTrame(aAnswer, 2, nullptr); // sleeps for its lock, and for nothing else
        for (;;) {
            pause();
        }
    }

    /// @return Whether the thread is asleep in lDispatchTrame() or later; proc(5).
    bool bSleeps() const
    {
        std::ifstream stat("/proc/self/task/" + std::to_string(m_iKernelId) + "/stat");
        std::string szLine;
        std::getline(stat, szLine);
        const size_t nEndOfName = szLine.rfind(") ");
        return m_iKernelId != 0 && nEndOfName != std::string::npos &&
               szLine.compare(nEndOfName, 3, ") S") == 0;
    }

    std::atomic<pthread_t> m_thread{0};
    std::atomic<pid_t> m_iKernelId{0};
};

class AThreadCom : public ::testing::Test
{
protected:
    CMessageStore m_Store;
    COpenCom m_Com{nullptr, "com"};
};

/// An exchange of a text link with its peer, the modem.
class AnExchangeOfTexts : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(0, m_Link.iCreateThread(true, kStartLimitMs)); }

    /// Exchanges on another thread, so that the test can play the modem.
    std::future<long> Exchange(const char* pszRequest, const char* pszTag, long lTimeOut = kAmpleMs)
    {
        return std::async(std::launch::async, [this, pszRequest, pszTag, lTimeOut] {
            const CLogLevel level;
            return m_Link.iExchangeAT(pszRequest, pszTag, m_aAnswer.data(), m_lRoom, &m_lSize,
                                      lTimeOut);
        });
    }

    std::string szAnswer() const
    {
        return std::string(m_aAnswer.data(), static_cast<size_t>(std::min(m_lSize, m_lRoom)));
    }

    CTcpPeer m_Modem;
    CTextLink m_Link{iConnectTo(m_Modem)};
    std::array<char, 256> m_aAnswer{};
    long m_lRoom = 256;
    long m_lSize = 77;
};
} // namespace

TEST_F(AThreadCom, BeginsUnconnectedAndWithoutABuffer)
{
    EXPECT_FALSE(m_Com.bGetConnected());
    EXPECT_FALSE(m_Com.m_bRestartBuffer);
    EXPECT_EQ(0, m_Com.m_lSizeDataMax);
    EXPECT_EQ(nullptr, m_Com.m_pRxBuffer);
    EXPECT_EQ(0, m_Com.m_iNumPort);
    EXPECT_STREQ("", m_Com.pszGetConnexionName());
    EXPECT_TRUE(m_Com.bIsIdle());
}

TEST_F(AThreadCom, IsConfiguredWithoutLosingAnEarlierPort)
{
    m_Com.Configure(4711, 10, "first");
    m_Com.Configure(0, 1024, "/dev/ttyUSB2");
    EXPECT_EQ(4711, m_Com.m_iNumPort);
    EXPECT_EQ(1024, m_Com.m_lSizeDataMax);
    EXPECT_STREQ("/dev/ttyUSB2", m_Com.pszGetConnexionName());
    ASSERT_NE(nullptr, m_Com.m_pRxBuffer);
    EXPECT_LE(1040u, malloc_usable_size(m_Com.m_pRxBuffer));
    EXPECT_EQ(0, m_Com.m_pRxBuffer[0]);
}

TEST_F(AThreadCom, IgnoresANegativePort)
{
    m_Com.Configure(4711, 10, "");
    m_Com.Configure(-1, 10, "");
    EXPECT_EQ(4711, m_Com.m_iNumPort);
}

TEST_F(AThreadCom, KeepsTheBytesOfABufferThatGrows)
{
    m_Com.Configure(0, 300, "");
    std::memcpy(m_Com.m_pRxBuffer, "abc", 3);
    m_Com.Configure(0, 40000, "");
    EXPECT_EQ(40000, m_Com.m_lSizeDataMax);
    EXPECT_LE(40016u, malloc_usable_size(m_Com.m_pRxBuffer));
    EXPECT_EQ(0, m_Com.m_pRxBuffer[0]);
    EXPECT_EQ(0, std::memcmp(m_Com.m_pRxBuffer + 1, "bc", 2));
}

TEST_F(AThreadCom, KeepsItsBufferWhenConfiguredForNoData)
{
    m_Com.Configure(0, 5000, "");
    const uint8_t* const pBuffer = m_Com.m_pRxBuffer;
    m_Com.Configure(0, 0, "");
    EXPECT_EQ(0, m_Com.m_lSizeDataMax);
    EXPECT_EQ(pBuffer, m_Com.m_pRxBuffer);
    EXPECT_LE(5016u, malloc_usable_size(m_Com.m_pRxBuffer));
}

TEST_F(AThreadCom, HasABufferAlsoForNoData)
{
    m_Com.Configure(0, 0, "");
    ASSERT_NE(nullptr, m_Com.m_pRxBuffer);
    EXPECT_LE(256u, malloc_usable_size(m_Com.m_pRxBuffer)); // any fixed answer of an endpoint
    EXPECT_EQ(0, m_Com.m_lSizeDataMax);
}

TEST_F(AThreadCom, TakesANegativeSizeForNone)
{
    m_Com.Configure(0, LONG_MIN, "");
    EXPECT_EQ(0, m_Com.m_lSizeDataMax);
    ASSERT_NE(nullptr, m_Com.m_pRxBuffer);
}

TEST_F(AThreadCom, TakesNoNameForAnEmptyOne)
{
    m_Com.Configure(0, 10, "name");
    m_Com.Configure(0, 10, nullptr);
    EXPECT_STREQ("", m_Com.pszGetConnexionName());
}

TEST_F(AThreadCom, KeepsItsBufferWhileItsThreadRuns)
{
    CTcpPeer peer;
    CTextLink link(iConnectTo(peer));
    link.Configure(1, 1000, "before");
    ASSERT_EQ(0, link.iCreateThread(true, kStartLimitMs));
    const uint8_t* const pBuffer = link.m_pRxBuffer;
    link.Configure(2, 100000, "during");
    EXPECT_EQ(pBuffer, link.m_pRxBuffer);
    EXPECT_EQ(1000, link.m_lSizeDataMax);
    EXPECT_EQ(2, link.m_iNumPort);
    EXPECT_STREQ("during", link.pszGetConnexionName());
    link.Configure(2, 500, "during"); // fits into what is there
    EXPECT_EQ(pBuffer, link.m_pRxBuffer);
    EXPECT_EQ(500, link.m_lSizeDataMax);
}

TEST_F(AThreadCom, AnnouncesConnectionAndDisconnection)
{
    m_Com.OnConnect();
    EXPECT_EQ(1u, m_Store.Count(&m_Com, EVT_COM_CONNECTED));
    EXPECT_EQ(0u, m_Store.Count(&m_Com, EVT_COM_DISCONNECTED));
    m_Com.OnDeconnect();
    EXPECT_EQ(1u, m_Store.Count(&m_Com, EVT_COM_DISCONNECTED));
}

TEST_F(AThreadCom, TransportsNothingByItself)
{
    uint8_t aBytes[4] = {};
    long lRead = 9;
    EXPECT_EQ(0, m_Com.iConnect());
    EXPECT_EQ(0, m_Com.iWrite(aBytes, 4));
    EXPECT_EQ(0, m_Com.iRead(aBytes, 4, &lRead));
    EXPECT_EQ(9, lRead);
}

TEST_F(AThreadCom, IsHealthyWhileItRunsAndIsConnected)
{
    EXPECT_EQ(-1, m_Com.iMonitoring());
    m_Com.m_bRun = true;
    EXPECT_EQ(-1, m_Com.iMonitoring());
    m_Com.SetConnected(true);
    EXPECT_EQ(0, m_Com.iMonitoring());
    m_Com.m_bRun = false;
    EXPECT_EQ(-1, m_Com.iMonitoring());
}

TEST_F(AThreadCom, ChangesItsStateUnderItsLock)
{
    m_Com.iLock();
    auto setting = std::async(std::launch::async, [this] { m_Com.SetConnected(true); });
    EXPECT_EQ(std::future_status::timeout, setting.wait_for(std::chrono::milliseconds(50)));
    EXPECT_FALSE(m_Com.bGetConnected());
    m_Com.UnLock();
    setting.get();
    EXPECT_TRUE(m_Com.bGetConnected());
}

TEST_F(AThreadCom, RemembersThatItsBufferIsToBeRestarted)
{
    m_Com.RestartBuffer();
    EXPECT_TRUE(m_Com.m_bRestartBuffer);
}

TEST_F(AThreadCom, DoesNotExchangeWithoutAConnection)
{
    long lSize = 5;
    EXPECT_EQ(-1, m_Com.iExchangeAT("AT\r", "OK", nullptr, 0, &lSize, kForEver));
    EXPECT_EQ(5, lSize);
}

TEST_F(AThreadCom, DoesNotExchangeWithoutItsLock)
{
    m_Com.m_bConnected = true;
    {
        const CUntakeableLock exchanging(m_Com.m_LockExchange);
        EXPECT_EQ(-1, m_Com.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, 0));
    }
    const CUntakeableLock registering(m_Com.m_LockDataExchange);
    EXPECT_EQ(-1, m_Com.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, 0));
}

TEST_F(AThreadCom, LeavesTextAloneWithoutAnExchange)
{
    long lUsed = 7;
    EXPECT_EQ(0, m_Com.lDispatch("OK\r\n", &lUsed));
    EXPECT_EQ(7, lUsed);
}

TEST_F(AThreadCom, LeavesTextAloneWithoutItsLock)
{
    m_Com.m_ExchangeResult = -6;
    const CUntakeableLock refused(m_Com.m_LockDataExchange);
    EXPECT_EQ(0, m_Com.lDispatch("OK\r\n", nullptr));
}

TEST_F(AThreadCom, SearchesNoFurtherThanTheTextReaches)
{
    m_Com.m_ExchangeResult = -6;
    char aTag[] = "OK";
    m_Com.m_pTagToWait = reinterpret_cast<uint8_t*>(aTag);
    char aText[] = {'x', 'O', 'K'}; // no 0 byte behind it, and only two bytes count
    EXPECT_EQ(0, m_Com.lDispatchTrame(reinterpret_cast<uint8_t*>(aText), 2, nullptr));
    EXPECT_EQ(1, m_Com.lDispatchTrame(reinterpret_cast<uint8_t*>(aText), 3, nullptr));
}

TEST_F(AThreadCom, SearchesNoFurtherThanAZeroByte)
{
    m_Com.m_ExchangeResult = -6;
    char aTag[] = "OK";
    m_Com.m_pTagToWait = reinterpret_cast<uint8_t*>(aTag);
    EXPECT_EQ(0, m_Com.lDispatch(std::string("x\0OK", 4), nullptr));
    m_Com.m_pTagToWait = nullptr;
    EXPECT_EQ(0, m_Com.lDispatch(std::string("\0OK", 3), nullptr)); // begins with one: no text
    EXPECT_EQ(0, m_Com.lDispatch("", nullptr));
    EXPECT_EQ(0, m_Com.lDispatchTrame(nullptr, 3, nullptr));
}

TEST_F(AThreadCom, CutsAnAnswerToTheBufferAndTellsItsWholeLength)
{
    std::array<char, 8> aAnswer;
    aAnswer.fill('#');
    long lSize = 0;
    m_Com.m_ExchangeResult = -6;
    m_Com.m_pLastRead = reinterpret_cast<uint8_t*>(aAnswer.data());
    m_Com.m_iSizeMaxRead = 4;
    m_Com.m_piSizeLastRead = &lSize;
    long lUsed = 0;
    EXPECT_EQ(1, m_Com.lDispatch("0123456789", &lUsed));
    EXPECT_EQ("0123####", std::string(aAnswer.data(), 8)); // and no 0 behind it
    EXPECT_EQ(10, lSize);
    EXPECT_EQ(10, lUsed);
    EXPECT_EQ(0, m_Com.m_ExchangeResult);
}

TEST_F(AThreadCom, CopiesNothingIntoABufferOfNegativeSize)
{
    char cAnswer = '#';
    m_Com.m_ExchangeResult = -6;
    m_Com.m_pLastRead = reinterpret_cast<uint8_t*>(&cAnswer);
    m_Com.m_iSizeMaxRead = -1;
    EXPECT_EQ(1, m_Com.lDispatch("0123", nullptr));
    EXPECT_EQ('#', cAnswer);
}

TEST_F(AThreadCom, TellsNoLengthWithoutABuffer)
{
    long lSize = 5;
    m_Com.m_ExchangeResult = -6;
    m_Com.m_piSizeLastRead = &lSize;
    EXPECT_EQ(1, m_Com.lDispatch("0123", nullptr));
    EXPECT_EQ(5, lSize);
}

TEST_F(AThreadCom, EndsAnExchangeWhoseLinkIsLost)
{
    m_Com.AbortExchange(); // without one nothing happens
    EXPECT_TRUE(m_Com.bIsIdle());
    m_Com.m_bConnected = true;
    auto exchange = std::async(std::launch::async, [this] {
        return m_Com.iExchange(nullptr, 0, nullptr, nullptr, 0, nullptr, kForEver);
    });
    ASSERT_TRUE(m_Com.bAwaitPending());
    m_Com.AbortExchange();
    EXPECT_EQ(-1, exchange.get());
    EXPECT_TRUE(m_Com.bIsIdle());
}

TEST_F(AThreadCom, IsNotEndedByTheEventOfAnEarlierAnswer)
{
    m_Com.m_bConnected = true;
    auto exchange = std::async(std::launch::async, [this] {
        return m_Com.iExchange(nullptr, 0, nullptr, nullptr, 0, nullptr, kForEver);
    });
    ASSERT_TRUE(m_Com.bAwaitPending());
    m_Com.m_EventRead.iSetEvent(); // its result went to an exchange that had given up
    m_Com.AbortExchange();
    EXPECT_EQ(-1, exchange.get());
    auto timed = std::async(std::launch::async, [this] {
        return m_Com.iExchange(nullptr, 0, nullptr, nullptr, 0, nullptr, 50);
    });
    while (timed.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
        m_Com.m_EventRead.iSetEvent();
    }
    EXPECT_EQ(-7, timed.get());
}

TEST_F(AThreadCom, WakesItsExchangeThoughTheReaderIsCancelledAtThatVeryMoment)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    CCancelledReader com(nullptr, "com");
    com.m_bConnected = true;
    auto exchange = std::async(std::launch::async, [&com] {
        return com.iExchange(nullptr, 0, nullptr, nullptr, 0, nullptr, kAmpleMs);
    });
    ASSERT_TRUE(com.bAwaitPending());
    ASSERT_EQ(0, com.m_LockDataExchange.iLock());
    EXPECT_EQ(0, com.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(bAwait([&com] { return com.bSleeps(); }));
    EXPECT_EQ(0, pthread_cancel(com.m_thread)); // waits until the lock is free again
    com.m_LockDataExchange.UnLock();
    EXPECT_EQ(0, exchange.get());
}

TEST_F(AnExchangeOfTexts, EndsWithTheTagAnywhereInTheAnswer)
{
    auto exchange = Exchange("AT+CSQ\r", "OK");
    EXPECT_EQ("AT+CSQ\r", m_Modem.szReceive(7));
    m_Modem.bSend("AT+CSQ\r\r\n+CSQ: 17,99\r\n\r\nOK\r\n");
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("AT+CSQ\r\r\n+CSQ: 17,99\r\n\r\nOK\r\n", szAnswer());
    EXPECT_TRUE(m_Link.bIsIdle());
    EXPECT_TRUE(bAwait([this] { return m_Link.m_iKept == 0; }));
}

TEST_F(AnExchangeOfTexts, EndsWhenTheLastPieceBringsTheTag)
{
    auto exchange = Exchange("AT\r", "OK");
    ASSERT_EQ("AT\r", m_Modem.szReceive(3));
    m_Modem.bSend("AT\r\r\nO");
    ASSERT_TRUE(bAwait([this] { return m_Link.m_iKept == 6; }));
    m_Modem.bSend("K\r\n");
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("AT\r\r\nOK\r\n", szAnswer());
}

TEST_F(AnExchangeOfTexts, NeitherEndsWithAnUnsolicitedReportNorTakesIt)
{
    auto exchange = Exchange("AT\r", "OK", 300);
    ASSERT_EQ("AT\r", m_Modem.szReceive(3));
    m_Modem.bSend("\r\nRING\r\n");
    EXPECT_EQ(-7, exchange.get());
    EXPECT_EQ(0, m_lSize);
    EXPECT_TRUE(bAwait([this] { return m_Link.m_iKept == 8; }));
    EXPECT_TRUE(m_Link.bIsIdle());
}

TEST_F(AnExchangeOfTexts, EndsWithAnythingWhenItHasNoTag)
{
    auto exchange = Exchange("ATI\r", nullptr);
    ASSERT_EQ("ATI\r", m_Modem.szReceive(4));
    m_Modem.bSend("x");
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("x", szAnswer());
}

TEST_F(AnExchangeOfTexts, OnlyWaitsWhenItHasNoRequest)
{
    auto exchange = Exchange(nullptr, "RING");
    ASSERT_TRUE(m_Link.bAwaitPending());
    m_Modem.bSend("\r\nRING\r\n");
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("\r\nRING\r\n", szAnswer());
    m_Link.iWrite(reinterpret_cast<uint8_t*>(const_cast<char*>("z")), 1);
    EXPECT_EQ("z", m_Modem.szReceive(1)); // the first byte that the modem saw
}

TEST_F(AnExchangeOfTexts, PollsWithATimeOutOfZero)
{
    EXPECT_EQ(-7, m_Link.iExchangeAT(nullptr, "OK", m_aAnswer.data(), m_lRoom, &m_lSize, 0));
    EXPECT_EQ(0, m_lSize);
}

TEST_F(AnExchangeOfTexts, WritesBinaryDataOfTheLengthGiven)
{
    uint8_t aRequest[] = {'a', 0, 'b'};
    auto exchange = std::async(std::launch::async, [&] {
        return m_Link.iExchange(aRequest, 3, nullptr, nullptr, 0, nullptr, kAmpleMs);
    });
    EXPECT_EQ(std::string("a\0b", 3), m_Modem.szReceive(3));
    m_Modem.bSend("1");
    EXPECT_EQ(0, exchange.get());
}

TEST_F(AnExchangeOfTexts, GivesUpWhenItsRequestCannotBeWritten)
{
    ASSERT_EQ(0, shutdown(m_Modem.iSocket(), SHUT_RDWR));
    m_Modem.Reset();
    ASSERT_TRUE(bAwait([this] { // until the reset has arrived
        return m_Link.iWrite(reinterpret_cast<uint8_t*>(const_cast<char*>("x")), 1) != 0;
    }));
    EXPECT_EQ(-3, m_Link.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver));
    EXPECT_TRUE(m_Link.bIsIdle());
}

TEST_F(AnExchangeOfTexts, LogsTheRequestThatFailed)
{
    auto exchange = Exchange("AT+CREG?\r", "OK", 0);
    EXPECT_EQ(-7, exchange.get());
    const auto isIt = [](const CSyslogReceiver::Record& record) {
        return record.iLevel == LOG_ERR &&
               record.szText.find("request:AT+CREG?") != std::string::npos;
    };
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait(isIt));
    CSyslogReceiver::Get().Clear();
    EXPECT_EQ(-7, Exchange(nullptr, "OK", 0).get());
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("request:"));
}

TEST_F(AnExchangeOfTexts, WaitsForTheOneBeforeIt)
{
    auto first = Exchange("ONE\r", "1");
    ASSERT_EQ("ONE\r", m_Modem.szReceive(4));
    long lSize = 0;
    char aAnswer[8] = {};
    auto second = std::async(std::launch::async, [&] {
        return m_Link.iExchangeAT("TWO\r", "2", aAnswer, sizeof(aAnswer), &lSize, kAmpleMs);
    });
    EXPECT_EQ("", m_Modem.szReceive(1, 100)); // the second has not written
    m_Modem.bSend("1");
    EXPECT_EQ(0, first.get());
    EXPECT_EQ("TWO\r", m_Modem.szReceive(4));
    m_Modem.bSend("2");
    EXPECT_EQ(0, second.get());
    EXPECT_STREQ("2", aAnswer);
}

TEST_F(AnExchangeOfTexts, IsNotCutShortByASignal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr)); // without SA_RESTART
    std::promise<pthread_t> thread;
    auto exchange = std::async(std::launch::async, [&] {
        thread.set_value(pthread_self());
        return m_Link.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver);
    });
    const pthread_t waiting = thread.get_future().get();
    ASSERT_EQ("AT\r", m_Modem.szReceive(3));
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(0, pthread_kill(waiting, SIGUSR1));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_Modem.bSend("OK");
    EXPECT_EQ(0, exchange.get());
}

TEST(AnExchangeOnTheReadingThread, IsRefused)
{
    CTcpPeer peer;
    CTextLink link(iConnectTo(peer));
    std::atomic<long> lResult{1};
    link.m_OnThread = [&] {
        lResult = link.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver);
    };
    ASSERT_EQ(0, link.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(bAwait([&] { return lResult == -1; }));
}
