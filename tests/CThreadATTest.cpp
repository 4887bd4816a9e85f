// The conversation with a modem, on pseudo-terminals; the test plays the modem.
#include "libQuorCore/CThreadAT.h"
#include "libQuorCore/atErrors.h"

#include "internal/CLineFramer.h"

#include "support/CFakeModem.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CPty.h"
#include "support/CSyslogReceiver.h"
#include "support/CTestSerial.h"
#include "support/LogLines.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <ostream>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr long kAmpleMs = 20000; // for an answer that comes
constexpr uint32_t kEventSms = 5001;
using lines_t = std::vector<std::string>;

/// Keeps lines that come from the serial thread.
class CKeptLines
{
public:
    void Add(const std::string& szLine)
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_lines.push_back(szLine);
    }
    lines_t Get()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        return m_lines;
    }
    bool bAwait(size_t nLines)
    {
        return TestSupport::bAwait([=] { return Get().size() >= nLines; });
    }

private:
    std::mutex m_lock;
    lines_t m_lines; ///< Guarded by m_lock.
};

/// Keeps the lines that nobody has asked for.
class COpenModem : public COpenPort<CThreadAT>
{
public:
    ~COpenModem() override { EndThread(); }

    void OnUnsolicited(const std::string& szLine) override
    {
        CThreadAT::OnUnsolicited(szLine);
        m_Unclaimed.Add(szLine);
    }

    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override
    {
        if (m_bLoseLink.exchange(false)) {
            std::thread([this] { Close(); }).join();
        }
        return CThreadAT::lDispatchTrame(pFrame, lSizeTotal, plUsed);
    }

    CKeptLines m_Unclaimed;
    std::atomic<bool> m_bLoseLink{false}; ///< Before the next chunk is looked at.
};

/// A dispatcher that shows the payloads of its messages.
class CPayloadStore : public CMessageStore
{
public:
    lines_t Payloads(uint32_t iEventId)
    {
        lines_t payloads;
        m_RecursiveLock.iLock();
        for (const CMsg* const pMsg : m_listMsg) {
            if (pMsg->m_iEventId == iEventId) {
                payloads.emplace_back(static_cast<const char*>(pMsg->m_pData), pMsg->m_iDataSize);
            }
        }
        m_RecursiveLock.UnLock();
        return payloads;
    }
};

atCommand_t Command(const std::string& szText, const std::string& szPrefix = "")
{
    atCommand_t command;
    command.szText = szText;
    command.szPrefix = szPrefix;
    command.iTimeOut = kAmpleMs;
    return command;
}

/// A command in a thread that is cancelled in the middle of it.
class CCancelledCaller
{
public:
    CCancelledCaller(CThreadAT& modem, atCommand_t command)
        : m_modem(modem), m_command(std::move(command)),
          m_bRuns(pthread_create(&m_thread, nullptr, Run, this) == 0)
    {
        EXPECT_TRUE(m_bRuns);
    }
    CCancelledCaller(const CCancelledCaller&) = delete;
    CCancelledCaller& operator=(const CCancelledCaller&) = delete;
    ~CCancelledCaller() { Cancel(); }

    void Cancel()
    {
        if (std::exchange(m_bRuns, false)) {
            pthread_cancel(m_thread);
            pthread_join(m_thread, nullptr);
        }
    }

private:
    static void* Run(void* pCaller)
    {
        auto* const pThis = static_cast<CCancelledCaller*>(pCaller);
        const CLogLevel level;
        atResult_t result;
        pThis->m_modem.lCommand(pThis->m_command, result);
        return nullptr;
    }

    CThreadAT& m_modem;
    const atCommand_t m_command;
    pthread_t m_thread{};
    bool m_bRuns;
};

class AThreadAT : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // No answer is to end by silence: it would take half a minute.
        m_Modem.iSetInterCharTimeout(25500);
        m_Modem.Configure(0, 200, m_Pty.szPath().c_str());
        ASSERT_EQ(0, m_Modem.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(m_Modem.bAwaitOpen());
        ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Modem, EVT_COM_CONNECTED) == 1; }));
    }

    /// Commands on another thread, so that the test can play the modem.
    std::future<atResult_t> Ask(const atCommand_t& command)
    {
        return std::async(std::launch::async, [this, command] {
            const CLogLevel level;
            atResult_t result;
            EXPECT_EQ(m_Modem.lCommand(command, result), result.lResult);
            return result;
        });
    }

    /// The same, returns when the modem has the command.
    std::future<atResult_t> AskAndReceive(const atCommand_t& command)
    {
        auto asking = Ask(command);
        EXPECT_EQ(command.szText + "\r", m_Pty.szReceiveUntil("\r"));
        return asking;
    }

    /// The whole exchange.
    atResult_t Exchange(const atCommand_t& command, const std::string& szAnswer)
    {
        auto asking = AskAndReceive(command);
        EXPECT_TRUE(m_Pty.bSend(szAnswer));
        return asking.get();
    }

    void KeepReports(const std::string& szPrefix, int iFollowing = 0)
    {
        m_Modem.SetUnsolicited(szPrefix, iFollowing, [this](const lines_t& lines) {
            for (const std::string& szLine : lines) {
                m_Reports.Add(szLine);
            }
        });
    }

    atCommand_t GivenUp(const std::string& szText, const std::string& szPrefix = "")
    {
        atCommand_t command = Command(szText, szPrefix);
        command.iTimeOut = 50;
        return command;
    }

    const CLogLevel m_Level;
    CPayloadStore m_Store;
    CPty m_Pty;
    CKeptLines m_Reports;
    COpenModem m_Modem;
};

struct finalLine_t {
    std::string szLine;
    long lResult;
    int iError;
    std::string szError;
};

/// For the names of the cases, which would else show the bytes of the record.
void PrintTo(const finalLine_t& line, std::ostream* pStream)
{
    *pStream << line.szLine;
}

class AFinalLine : public AThreadAT, public ::testing::WithParamInterface<finalLine_t>
{
};

/// Feeds a framer, in pieces of a size, and writes its lines down.
lines_t Framed(CLineFramer& framer, const std::string& szBytes, size_t nPiece)
{
    lines_t lines;
    for (size_t i = 0; i < szBytes.size(); i += nPiece) {
        const size_t n = std::min(nPiece, szBytes.size() - i);
        framer.Feed(reinterpret_cast<const uint8_t*>(szBytes.data()) + i, n,
                    [&lines](const CLineFramer::line_t& line) {
                        lines.push_back(std::string(line.bPrompt ? "?" : "") +
                                        (line.bAfterPrompt ? "^" : "") + (line.bCut ? "+" : "") +
                                        line.szText);
                    });
    }
    return lines;
}
} // namespace

TEST(ALineFramer, GivesTheSameLinesHoweverTheyAreTorn)
{
    for (size_t nPiece = 1; nPiece < 30; ++nPiece) {
        CLineFramer framer;
        framer.SetLimit(10);
        EXPECT_THAT(Framed(framer, std::string("AT\r\r\nO\0K\r\n\rA\nB", 15), nPiece),
                    ElementsAre("AT", "", "OK", "", "A"));
    }
}

TEST(ALineFramer, KeepsTheBeginningOfALineThatIsTooLong)
{
    CLineFramer framer;
    framer.SetLimit(4);
    EXPECT_THAT(Framed(framer, "0123456789\r\n0123\r\n", 3), ElementsAre("+0123", "0123"));
}

TEST(ALineFramer, GivesThePromptOnlyToWhomItIsAwaitedBy)
{
    CLineFramer framer;
    framer.SetLimit(10);
    EXPECT_THAT(Framed(framer, "\r\n> x\r\n", 100), ElementsAre("", "> x"));
    framer.AwaitPrompt(true);
    EXPECT_THAT(Framed(framer, "\r\n> text\r\n> \r\na> \r\n", 1),
                ElementsAre("", "?> ", "^text", "?> ", "^", "a> "));
}

TEST(AnErrorOfAModem, HasATextAndANumber)
{
    EXPECT_STREQ("SIM PIN required", pszCmeError(11));
    EXPECT_STREQ("phone failure", pszCmeError(0));
    EXPECT_STREQ("invalid mobile class", pszCmeError(150));
    EXPECT_EQ(nullptr, pszCmeError(8));
    EXPECT_EQ(nullptr, pszCmeError(-1));
    EXPECT_EQ(nullptr, pszCmeError(9999));
    EXPECT_STREQ("memory full", pszCmsError(322));
    EXPECT_STREQ("unknown error", pszCmsError(500));
    EXPECT_EQ(nullptr, pszCmsError(0));
    EXPECT_EQ(10, iCmeError("sim NOT inserted"));
    EXPECT_EQ(-1, iCmeError("the modem is tired"));
    EXPECT_EQ(-1, iCmeError(nullptr));
    EXPECT_EQ(42, iCmsError("congestion"));
}

TEST_P(AFinalLine, EndsACommandAtOnce)
{
    const atResult_t result = Exchange(Command("ATD123;"), "\r\n" + GetParam().szLine + "\r\n");
    EXPECT_EQ(GetParam().lResult, result.lResult);
    EXPECT_EQ(GetParam().szLine, result.szFinal);
    EXPECT_EQ(GetParam().iError, result.iError);
    EXPECT_EQ(GetParam().szError, result.szError);
    EXPECT_THAT(result.lines, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    OfAllKinds, AFinalLine,
    ::testing::Values(finalLine_t{"OK", 0, -1, ""}, finalLine_t{"CONNECT", 0, -1, ""},
                      finalLine_t{"CONNECT 9600", 0, -1, ""}, finalLine_t{"ERROR", -8, -1, ""},
                      finalLine_t{"NO CARRIER", -8, -1, ""}, finalLine_t{"BUSY", -8, -1, ""},
                      finalLine_t{"NO ANSWER", -8, -1, ""}, finalLine_t{"NO DIALTONE", -8, -1, ""},
                      finalLine_t{"ABORTED", -8, -1, ""},
                      finalLine_t{"COMMAND NOT SUPPORT", -8, -1, ""},
                      finalLine_t{"+CME ERROR: 11", -8, 11, "SIM PIN required"},
                      finalLine_t{"+CME ERROR:16", -8, 16, "incorrect password"},
                      finalLine_t{"+CME ERROR: SIM busy", -8, 14, "SIM busy"},
                      finalLine_t{"+CME ERROR: 987", -8, 987, "987"},
                      finalLine_t{"+CME ERROR: 99999999999999999999", -8, -1,
                                  "99999999999999999999"},
                      finalLine_t{"+CME ERROR: -1", -8, -1, "-1"},
                      finalLine_t{"+CME ERROR: some trouble", -8, -1, "some trouble"},
                      finalLine_t{"+CME ERROR:", -8, -1, ""},
                      finalLine_t{"+CMS ERROR: 304", -8, 304, "invalid PDU mode parameter"},
                      finalLine_t{"+CMS ERROR: network timeout", -8, 332, "network timeout"}));

TEST_F(AThreadAT, TakesLinesThatOnlyLookLikeFinalOnesForAnswers)
{
    const atResult_t result =
        Exchange(Command("AT+X"), "\r\nOKAY\r\nERRORS: 0\r\nBUSY 1\r\nCONNECTED\r\nok\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("OKAY", "ERRORS: 0", "BUSY 1", "CONNECTED", "ok"));
}

TEST_F(AThreadAT, DropsTheEcho)
{
    const atResult_t result =
        Exchange(Command("AT+CSQ", "+CSQ:"), "AT+CSQ\r\r\n+CSQ: 17,99\r\n\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CSQ: 17,99"));
    EXPECT_EQ("OK", result.szFinal);
    const atResult_t bare = Exchange(Command("AT+CGSN"), "AT+CGSN\r\r\n35780\r\n\r\nOK\r\n");
    EXPECT_THAT(bare.lines, ElementsAre("35780"));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), IsEmpty());
}

TEST_F(AThreadAT, PutsAnAnswerTogetherThatComesByteByByte)
{
    auto asking = AskAndReceive(Command("AT+CSQ", "+CSQ:"));
    for (const char c : std::string("\r\n+CSQ: 17,99\r\n\r\nOK\r\n")) {
        ASSERT_TRUE(m_Pty.bSend(std::string(1, c)));
    }
    const atResult_t result = asking.get();
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CSQ: 17,99"));
}

TEST_F(AThreadAT, GivesAReportInTheMiddleOfAnAnswerToItsHandler)
{
    KeepReports("+CREG:");
    const atResult_t result = Exchange(Command("AT+CSQ", "+CSQ:"),
                                       "\r\n+CREG: 1\r\n\r\n+CSQ: 3,99\r\n\r\nRING\r\n\r\nOK\r\n");
    EXPECT_THAT(result.lines, ElementsAre("+CSQ: 3,99"));
    EXPECT_THAT(m_Reports.Get(), ElementsAre("+CREG: 1"));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("RING")); // nobody has asked for it
}

TEST_F(AThreadAT, GivesReportsToTheirHandlersAlsoDuringAnAnswerOfAnyForm)
{
    KeepReports("RING");
    const atResult_t result = Exchange(Command("ATI"), "\r\nMaker\r\nRING\r\nModel\r\nOK\r\n");
    EXPECT_THAT(result.lines, ElementsAre("Maker", "Model"));
    EXPECT_THAT(m_Reports.Get(), ElementsAre("RING"));
}

TEST_F(AThreadAT, PrefersTheAnswerThatIsAwaitedToAHandler)
{
    KeepReports("+CREG:");
    const atResult_t result =
        Exchange(Command("AT+CREG?", "+CREG:"), "\r\n+CREG: 2,1\r\n\r\nOK\r\n");
    EXPECT_THAT(result.lines, ElementsAre("+CREG: 2,1"));
    EXPECT_THAT(m_Reports.Get(), IsEmpty());
    ASSERT_TRUE(m_Pty.bSend("\r\n+CREG: 5\r\n"));
    EXPECT_TRUE(m_Reports.bAwait(1));
}

TEST_F(AThreadAT, TakesLinesThatFollowForWhatTheyAre)
{
    atCommand_t command = Command("AT+CMGR=1", "+CMGR:");
    command.iFollowing = 1;
    KeepReports("RING");
    const atResult_t result =
        Exchange(command, "\r\n+CMGR: \"REC READ\"\r\nOK\r\n\r\nRING\r\n\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CMGR: \"REC READ\"", "OK")); // a message: "OK"
    EXPECT_THAT(m_Reports.Get(), ElementsAre("RING"));
}

TEST_F(AThreadAT, TakesAllLinesUpToTheFinalOneWhenToldSo)
{
    atCommand_t command = Command("AT+CMGL=4", "+CMGL:");
    command.iFollowing = -1;
    const atResult_t result = Exchange(
        command, "\r\n^BOOT\r\n+CMGL: 1\r\nHello\r\nworld\r\n+CMGL: 2\r\nBye\r\n\r\nOK\r\n");
    EXPECT_THAT(result.lines, ElementsAre("+CMGL: 1", "Hello", "world", "+CMGL: 2", "Bye"));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("^BOOT"));
}

TEST_F(AThreadAT, GivesAReportOfSeveralLinesAsOne)
{
    KeepReports("+CMT:", 1);
    ASSERT_TRUE(
        m_Pty.bSend("\r\n+CMT: \"+331\",,\"26/11/21\"\r\nOK\r\n\r\n+CMT: 2\r\n\r\nRING\r\n"));
    EXPECT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_THAT(m_Reports.Get(),
                ElementsAre("+CMT: \"+331\",,\"26/11/21\"", "OK", "+CMT: 2", "")); // empty text
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("RING"));
}

TEST_F(AThreadAT, PostsReportsToTheDispatcher)
{
    m_Modem.SetUnsolicited("+CMT:", 1, kEventSms);
    m_Modem.SetUnsolicited("RING", 0, kEventSms);
    ASSERT_TRUE(m_Pty.bSend("\r\n+CMT: 1\r\nHello\r\nRING\r\n"));
    ASSERT_TRUE(bAwait([this] { return m_Store.Payloads(kEventSms).size() == 2; }));
    EXPECT_THAT(m_Store.Payloads(kEventSms),
                ElementsAre(std::string("+CMT: 1\nHello\0", 14), std::string("RING\0", 5)));
}

TEST_F(AThreadAT, PostsNoMoreReportsThanTheDispatcherCanTake)
{
    m_Modem.SetUnsolicited("+CREG:", 0, kEventSms);
    std::string szFlood;
    for (int i = 0; i < 1000; ++i) {
        szFlood += "+CREG: " + std::to_string(i) + "\r\n";
    }
    ASSERT_TRUE(m_Pty.bSend(szFlood + "END\r\n"));
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    const lines_t payloads = m_Store.Payloads(kEventSms);
    ASSERT_EQ(256u, payloads.size());
    EXPECT_EQ(std::string("+CREG: 255\0", 11), payloads.back());
    EXPECT_TRUE(bAwaitLogged(LOG_WARNING, " : too many reports wait, dropping more"));
    m_Store.RemoveAllMsg();
    ASSERT_TRUE(m_Pty.bSend("+CREG: 1000\r\n"));
    ASSERT_TRUE(bAwait([this] { return m_Store.Payloads(kEventSms).size() == 1; }));
    EXPECT_TRUE(bAwaitLogged(LOG_WARNING, " : 744 reports were dropped"));
    EXPECT_EQ(1u, CSyslogReceiver::Get().Count("too many reports wait"));
}

TEST_F(AThreadAT, LeavesItsReportsToTheDispatcherWhenItGoes)
{
    {
        CPty pty;
        COpenModem modem;
        modem.SetUnsolicited("RING", 0, kEventSms);
        modem.Configure(0, 200, pty.szPath().c_str());
        ASSERT_EQ(0, modem.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(bAwait([&] { return m_Store.Count(&modem, EVT_COM_CONNECTED) == 1; }));
        ASSERT_TRUE(pty.bSend("RING\r\n"));
        ASSERT_TRUE(bAwait([this] { return m_Store.Payloads(kEventSms).size() == 1; }));
    }
    EXPECT_THAT(m_Store.Payloads(kEventSms), ElementsAre(std::string("RING\0", 5)));
    m_Store.RemoveAllMsg();
}

TEST_F(AThreadAT, GoesOnWhenAHandlerThrows)
{
    m_Modem.SetUnsolicited("RING", 0, [](const lines_t&) { throw std::runtime_error("no bell"); });
    const atResult_t result = Exchange(Command("AT+CSQ", "+CSQ:"), "RING\r\n+CSQ: 1\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CSQ: 1"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : no bell;"));
}

TEST_F(AThreadAT, DropsTheLinesOfAnEmptyHandler)
{
    m_Modem.SetUnsolicited("RING", 0, CThreadAT::handler_t());
    ASSERT_TRUE(m_Pty.bSend("RING\r\nEND\r\n"));
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("END"));
}

TEST_F(AThreadAT, LetsWhatAHandlerHoldsCallBackWhenItGoes)
{
    std::shared_ptr<CThreadAT> pHeld(&m_Modem, [](CThreadAT* pModem) {
        EXPECT_EQ(0u, pModem->nQueued()); // which takes the lock
    });
    m_Modem.SetUnsolicited("RING", 0, [pHeld](const lines_t&) {});
    m_Modem.SetUnsolicited("+CREG:", 0, [pHeld](const lines_t&) {});
    pHeld.reset();
    KeepReports("RING"); // the former goes
    m_Modem.RemoveUnsolicited("+CREG:");
    ASSERT_TRUE(m_Pty.bSend("RING\r\n"));
    EXPECT_TRUE(m_Reports.bAwait(1));
}

TEST_F(AThreadAT, PrefersTheHandlerThatFitsBest)
{
    KeepReports("+C");
    m_Modem.SetUnsolicited("+CREG:", 0, [](const lines_t&) {});
    ASSERT_TRUE(m_Pty.bSend("\r\n+CREG: 1\r\n\r\n+CRING\r\n"));
    EXPECT_TRUE(m_Reports.bAwait(1));
    EXPECT_THAT(m_Reports.Get(), ElementsAre("+CRING"));
    m_Modem.RemoveUnsolicited("+CREG:");
    m_Modem.RemoveUnsolicited("+nonsense");
    ASSERT_TRUE(m_Pty.bSend("\r\n+CREG: 2\r\n"));
    EXPECT_TRUE(m_Reports.bAwait(2));
}

TEST_F(AThreadAT, LetsAHandlerRemoveItself)
{
    m_Modem.SetUnsolicited("RING", 0, [this](const lines_t& lines) {
        m_Modem.RemoveUnsolicited("RING");
        m_Reports.Add(lines.front());
    });
    ASSERT_TRUE(m_Pty.bSend("\r\nRING\r\nRING\r\n"));
    EXPECT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_EQ(1u, m_Reports.Get().size());
}

TEST_F(AThreadAT, RefusesACommandOfItsOwnThread)
{
    m_Modem.SetUnsolicited("RING", 0, [this](const lines_t&) {
        atResult_t result;
        m_Reports.Add(std::to_string(m_Modem.lCommand(Command("AT"), result)));
    });
    ASSERT_TRUE(m_Pty.bSend("\r\nRING\r\n"));
    ASSERT_TRUE(m_Reports.bAwait(1));
    EXPECT_THAT(m_Reports.Get(), ElementsAre("-1"));
}

TEST_F(AThreadAT, RefusesWhatIsNotOneCommand)
{
    atResult_t result;
    EXPECT_EQ(-1, m_Modem.lCommand(Command(""), result));
    EXPECT_EQ(-1, m_Modem.lCommand(Command("AT\rATD123"), result));
    EXPECT_EQ(-1, m_Modem.lCommand(Command(std::string("AT\0", 3)), result));
    atCommand_t command = Command("AT+CMGS=1");
    command.bPrompt = true;
    command.szPayload = "text\x1a";
    EXPECT_EQ(-1, m_Modem.lCommand(command, result));
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
}

TEST_F(AThreadAT, TakesNoCarrierForAReportWhenSomebodyWantsIt)
{
    const atResult_t unwanted = Exchange(Command("AT+CSQ", "+CSQ:"), "\r\nNO CARRIER\r\n");
    EXPECT_EQ(AT_MODEM_ERROR, unwanted.lResult);
    KeepReports("NO CARRIER");
    const atResult_t result =
        Exchange(Command("AT+CSQ", "+CSQ:"), "\r\nNO CARRIER\r\n+CSQ: 1\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(m_Reports.Get(), ElementsAre("NO CARRIER"));
    const atResult_t dialled = Exchange(Command("atd123;"), "\r\nNO CARRIER\r\n");
    EXPECT_EQ(AT_MODEM_ERROR, dialled.lResult);
}

TEST_F(AThreadAT, SendsATextWhenItIsAskedForIt)
{
    atCommand_t command = Command("AT+CMGS=\"+331\"", "+CMGS:");
    command.bPrompt = true;
    command.szPayload = "Hello\rOK";
    auto asking = AskAndReceive(command);
    EXPECT_EQ("", m_Pty.szReceive(1, 50)); // not before it is asked
    ASSERT_TRUE(m_Pty.bSend("\r\n> "));
    ASSERT_EQ("Hello\rOK\x1a", m_Pty.szReceiveUntil("\x1a"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CMGS: 12\r\n\r\nOK\r\n"));
    const atResult_t result = asking.get();
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CMGS: 12"));
}

TEST_F(AThreadAT, TakesTheEchoOfATextForNothingElse)
{
    atCommand_t command = Command("AT+CMGS=\"+331\"");
    command.bPrompt = true;
    command.szPayload = "OK\rERROR";
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("AT+CMGS=\"+331\"\r\r\n> "));
    ASSERT_EQ("OK\rERROR\x1a", m_Pty.szReceiveUntil("\x1a"));
    ASSERT_TRUE(m_Pty.bSend("OK\r\n> ERROR\r\n\r\n+CMGS: 12\r\n\r\nOK\r\n"));
    const atResult_t result = asking.get();
    EXPECT_EQ(0, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("+CMGS: 12"));
}

TEST_F(AThreadAT, SendsNoTextToAModemThatRefusesIt)
{
    atCommand_t command = Command("AT+CMGS=\"+331\"");
    command.bPrompt = true;
    command.szPayload = "Hello";
    const atResult_t result = Exchange(command, "\r\n+CMS ERROR: 310\r\n");
    EXPECT_EQ(AT_MODEM_ERROR, result.lResult);
    EXPECT_EQ("(U)SIM not inserted", result.szError);
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
}

TEST_F(AThreadAT, LeavesThePromptOfATextThatWasGivenUp)
{
    atCommand_t command = GivenUp("AT+CMGS=\"+331\"");
    command.bPrompt = true;
    EXPECT_EQ(-7, AskAndReceive(command).get().lResult); // the modem asks when it is too late
    ASSERT_TRUE(m_Pty.bSend("\r\n> "));
    auto next = Ask(Command("AT+CSQ", "+CSQ:"));
    ASSERT_EQ("\x1b"
              "ATV1S3?\r",
              m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_EQ(0, next.get().lResult);
}

TEST_F(AThreadAT, TellsThatTheModemIsSilent)
{
    const atResult_t result = AskAndReceive(GivenUp("AT+CPIN=1234")).get();
    EXPECT_EQ(-7, result.lResult);
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : no answer to AT+CPIN=****"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Z > AT+CPIN=****")); // the flight record
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "Z = -7"));
}

TEST_F(AThreadAT, KeepsWhatHadComeOfAnAnswerThatDoesNotEnd)
{
    atCommand_t command = Command("ATI");
    command.iTimeOut = 2000;
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("\r\nMaker\r\nMod"));
    const atResult_t result = asking.get();
    EXPECT_EQ(-7, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("Maker"));
    EXPECT_EQ("", result.szFinal);
}

TEST_F(AThreadAT, IsDoneWithAnAnswerThatComesTooLate)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
    ASSERT_TRUE(m_Pty.bSend("\r\n+CPIN: READY\r\n\r\nOK\r\n"));
    ASSERT_TRUE(
        bAwait([this] { return m_Modem.szFlightRecord().find("- OK") != std::string::npos; }));
    const atResult_t result = Exchange(Command("AT+CSQ"), "\r\n+CSQ: 1\r\nOK\r\n"); // at once
    EXPECT_THAT(result.lines, ElementsAre("+CSQ: 1"));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), IsEmpty());
}

// At once, and not a moment after the modem has told that it owes nothing: the answer to the
// question what it owes is like no other.
TEST_F(AThreadAT, AsksWhetherALateAnswerComesBeforeTheNextCommand)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CPIN: READY\r\n\r\nOK\r\n"
                            "ATV1S3?\r\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), IsEmpty());
}

// What a command costs that follows one whose answer was lost: two answers instead of one.
TEST_F(AThreadAT, NeedsNoPauseAfterAnAnswerThatWasLost)
{
    auto shortest = milliseconds::max(); // the machine may be busy, not five times
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
        const auto start = steady_clock::now();
        auto next = Ask(Command("AT+CSQ"));
        ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
        ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
        ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
        shortest = std::min(shortest,
                            std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
        ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
        EXPECT_EQ(0, next.get().lResult);
    }
    EXPECT_GT(milliseconds(150), shortest);
}

TEST_F(AThreadAT, AsksAgainAModemThatMayNotHaveHeard)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r")); // it has just started, say
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    EXPECT_EQ("", m_Pty.szReceive(1, 50)); // the other one may be answered yet
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

// The late answer may itself hold "013", or anything: then only silence tells.
TEST_F(AThreadAT, WaitsForSilenceAfterACommandWhoseAnswerMayHoldAnything)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("ATS3?")).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, WaitsForSilenceAfterAModemThatDoesNotKnowItsQuestion)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CPIN: READY\r\n\r\nOK\r\n"));
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
    ASSERT_TRUE(m_Pty.bSend("\r\nERROR\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, TakesTheTextOfALateAnswerForNoFinalLine)
{
    atCommand_t command = GivenUp("AT+CMGR=1", "+CMGR:");
    command.iFollowing = 1;
    EXPECT_EQ(-7, AskAndReceive(command).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CMGR: \"REC READ\"\r\nOK\r\n")); // a message: "OK"
    EXPECT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    EXPECT_EQ("", m_Pty.szReceive(1, 300)); // it is not done yet
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, TakesTheRestOfATextThatWasGivenUpForNoFinalLine)
{
    atCommand_t command = Command("AT+CMGR=1", "+CMGR:");
    command.iFollowing = 2;
    command.iTag = 7;
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("\r\n+CMGR: 1\r\nOne\r\n"));
    ASSERT_TRUE(
        bAwait([this] { return m_Modem.szFlightRecord().find("< One") != std::string::npos; }));
    EXPECT_EQ(1u, m_Modem.Cancel(7));
    EXPECT_THAT(asking.get().lines, ElementsAre("+CMGR: 1", "One"));
    ASSERT_TRUE(m_Pty.bSend("ERROR\r\n\r\nOK\r\n"));
    ASSERT_TRUE(
        bAwait([this] { return m_Modem.szFlightRecord().find("- OK") != std::string::npos; }));
    EXPECT_EQ(0, Exchange(Command("AT+CSQ"), "\r\nOK\r\n").lResult);
}

TEST_F(AThreadAT, CancelsACommandThatWaitsForALateAnswer)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+ONE", "+ONE:")).get().lResult);
    atCommand_t command = Command("AT+TWO");
    command.iTag = 7;
    auto waiting = Ask(command);
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    EXPECT_EQ(1u, m_Modem.Cancel(7));
    EXPECT_EQ(AT_CANCELLED, waiting.get().lResult);
    auto next = Ask(Command("AT+THREE"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    EXPECT_EQ("", m_Pty.szReceive(1, 50)); // that to the first question: another one comes
    ASSERT_TRUE(m_Pty.bSend("\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+THREE\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    EXPECT_EQ(0, next.get().lResult);
}

TEST_F(AThreadAT, WaitsForTheAnswerToACommandWhoseThreadWasCancelled)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    CCancelledCaller caller(m_Modem, Command("AT+CPIN?", "+CPIN:"));
    ASSERT_EQ("AT+CPIN?\r", m_Pty.szReceiveUntil("\r"));
    caller.Cancel();
    EXPECT_EQ(0u, m_Modem.nQueued());
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CPIN: READY\r\n\r\nOK\r\n" // not the next one's
                            "\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, WakesNoThreadThatWasCancelledWhileItWaitedForALateAnswer)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+ONE")).get().lResult);
    CCancelledCaller caller(m_Modem, Command("AT+TWO"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    caller.Cancel();
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n\r\nOK\r\nEND\r\n"));
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_EQ(0, Exchange(Command("AT+THREE"), "\r\nOK\r\n").lResult);
}

TEST_F(AThreadAT, GivesUpACommandThatTheLineDoesNotTake)
{
    atCommand_t command = Command("AT+CMGS=1");
    command.bPrompt = true;
    command.szPayload = std::string(100000, 'x');
    command.iTimeOut = 1000;
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("\r\n> "));
    EXPECT_EQ(-7, asking.get().lResult);
    EXPECT_TRUE(m_Modem.bGetConnected());
}

TEST_F(AThreadAT, SendsACommandThatHasNoTime)
{
    atCommand_t command = Command("AT+CFUN=1,1");
    command.iTimeOut = 0;
    EXPECT_EQ(-7, AskAndReceive(command).get().lResult);
}

TEST_F(AThreadAT, CancelsACommandThatTheLineDoesNotTake)
{
    atCommand_t command = Command("AT+CMGS=1");
    command.bPrompt = true;
    command.szPayload = std::string(100000, 'x');
    command.iTimeOut = -1;
    command.iTag = 7;
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("\r\n> "));
    ASSERT_EQ("x", m_Pty.szReceive(1));
    EXPECT_EQ(1u, m_Modem.Cancel(7));
    EXPECT_EQ(AT_CANCELLED, asking.get().lResult);
}

TEST_F(AThreadAT, LetsTheLineComeToRestBeforeTheNextCommand)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+CPIN?", "+CPIN:")).get().lResult);
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));      // whether it is there at all
    ASSERT_TRUE(m_Pty.bSend("\r\n+CPIN: READY\r\n\r\nOK\r\n" // to the first
                            "\r\nOK\r\n"));                  // and to the second
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, DoesNotSendACommandToAModemThatStaysMute)
{
    EXPECT_EQ(-7, AskAndReceive(GivenUp("AT+ONE")).get().lResult);
    atCommand_t command = Command("AT+TWO");
    command.iTimeOut = 1000;
    auto next = Ask(command);
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    EXPECT_EQ(-7, next.get().lResult);
    auto last = Ask(Command("AT+THREE"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\nOK\r\nOK\r\n")); // it wakes up and answers all three
    ASSERT_EQ("AT+THREE\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nERROR\r\n"));
    EXPECT_EQ(AT_MODEM_ERROR, last.get().lResult);
}

TEST_F(AThreadAT, CancelsACommandThatWasSent)
{
    atCommand_t command = Command("AT+COPS=?");
    command.iTag = 7;
    auto asking = AskAndReceive(command);
    EXPECT_EQ(0u, m_Modem.Cancel(8));
    EXPECT_EQ(1u, m_Modem.Cancel(7));
    EXPECT_EQ(AT_CANCELLED, asking.get().lResult);
    EXPECT_EQ(0u, m_Modem.Cancel(7));
    auto next = Ask(Command("AT+CSQ"));
    ASSERT_EQ("ATV1S3?\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+COPS: (2)\r\nOK\r\n" // which is not the next one's
                            "\r\n013\r\n\r\nOK\r\n"));
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CSQ: 1\r\nOK\r\n"));
    EXPECT_THAT(next.get().lines, ElementsAre("+CSQ: 1"));
}

TEST_F(AThreadAT, CancelsACommandThatWaits)
{
    auto first = AskAndReceive(Command("AT+ONE"));
    atCommand_t command = Command("AT+TWO");
    command.iTag = 7;
    auto second = Ask(command);
    EXPECT_TRUE(bAwait([this] { return m_Modem.Cancel(7) == 1; }));
    EXPECT_EQ(AT_CANCELLED, second.get().lResult);
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    EXPECT_EQ(0, first.get().lResult);
    EXPECT_EQ(0, Exchange(Command("AT+THREE"), "\r\nOK\r\n").lResult);
}

TEST_F(AThreadAT, SendsUrgentCommandsFirst)
{
    auto first = AskAndReceive(Command("AT+FIRST"));
    auto usual = Ask(Command("AT+USUAL"));
    ASSERT_TRUE(bAwait([this] { return m_Modem.nQueued() == 2; }));
    atCommand_t command = Command("AT+URGENT");
    command.bUrgent = true;
    auto urgent = Ask(command);
    ASSERT_TRUE(bAwait([this] { return m_Modem.nQueued() == 3; }));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    ASSERT_EQ("AT+URGENT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    ASSERT_EQ("AT+USUAL\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    EXPECT_EQ(0, first.get().lResult + urgent.get().lResult + usual.get().lResult);
}

TEST_F(AThreadAT, EndsAllCommandsWhenTheModemIsUnplugged)
{
    auto first = AskAndReceive(Command("AT+ONE"));
    auto second = Ask(Command("AT+TWO"));
    ASSERT_TRUE(bAwait([this] { return m_Modem.nQueued() == 2; }));
    m_Pty.Unplug();
    EXPECT_EQ(-1, first.get().lResult);
    EXPECT_EQ(-1, second.get().lResult);
    EXPECT_TRUE(bAwaitLogged(LOG_WARNING, "Z > AT+ONE"));
    EXPECT_TRUE(bAwaitLogged(LOG_WARNING, "Z * lost"));
}

TEST_F(AThreadAT, EndsACommandWhenItIsStopped)
{
    atCommand_t command = Command("AT+ONE");
    command.iTimeOut = -1;
    auto asking = AskAndReceive(command);
    m_Modem.iStop(true, false);
    EXPECT_EQ(-1, asking.get().lResult);
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("Z > AT+ONE")); // nothing to look into
    atResult_t result;
    EXPECT_EQ(-1, m_Modem.lCommand("AT", "", result, 1000));
}

TEST_F(AThreadAT, ForgetsHalfALineWithItsLink)
{
    ASSERT_TRUE(m_Pty.bSend("half a li"));
    ASSERT_TRUE(bAwaitLogged(LOG_DEBUG, " 6C 69 "));
    m_Modem.Close();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Modem, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(m_Pty.bSend("RING\r\n"));
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("RING"));
}

TEST_F(AThreadAT, ForgetsHalfALineThatWasAtHandWhenTheLinkWasLost)
{
    m_Modem.m_bLoseLink = true;
    ASSERT_TRUE(m_Pty.bSend("half a li"));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Modem, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(m_Pty.bSend("RING\r\n"));
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(1));
    EXPECT_THAT(m_Modem.m_Unclaimed.Get(), ElementsAre("RING"));
}

TEST_F(AThreadAT, CutsALineThatIsTooLongAndTellsSo)
{
    const atResult_t result =
        Exchange(Command("ATI"), "\r\n" + std::string(5000, 'x') + "\r\nshort\r\nOK\r\n");
    EXPECT_EQ(0, result.lResult);
    EXPECT_TRUE(result.bCut);
    EXPECT_THAT(result.lines, ElementsAre(std::string(200, 'x'), "short"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : a line of more than 200 bytes was cut"));
}

TEST_F(AThreadAT, StandsAModemThatNeverStopsTalking)
{
    atCommand_t command = Command("ATI");
    command.iTimeOut = 500;
    auto asking = AskAndReceive(command);
    const std::string szNoise = std::string(40, 'x') + "\r\n";
    const CDeadline deadline(kAmpleMs);
    while (asking.wait_for(milliseconds(0)) != std::future_status::ready) {
        ASSERT_TRUE(m_Pty.bSend(szNoise));
        ASSERT_FALSE(deadline.bPassed());
    }
    EXPECT_EQ(-7, asking.get().lResult);
}

TEST_F(AThreadAT, PassesOverZeroBytes)
{
    const atResult_t result = Exchange(Command("AT"), std::string("\0\0\r\nO\0K\r\n", 10));
    EXPECT_EQ(0, result.lResult);
}

TEST_F(AThreadAT, ServesAnExchangeOfTexts)
{
    std::array<char, 100> aAnswer{};
    long lSize = 0;
    auto exchange = std::async(std::launch::async, [&] {
        return m_Modem.iExchangeAT("AT+CSQ\r", "OK", aAnswer.data(), 100, &lSize, kAmpleMs);
    });
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    for (const char* const pszPiece : {"+CS", "Q: 1\r\nO", "K"}) { // its tag is torn, too
        ASSERT_TRUE(m_Pty.bSend(pszPiece));
    }
    EXPECT_EQ(0, exchange.get());
    EXPECT_STREQ("+CSQ: 1\r\nOK", aAnswer.data());
}

TEST_F(AThreadAT, PassesOverZeroBytesAlsoInAnExchangeOfTexts)
{
    std::array<char, 100> aAnswer{};
    auto exchange = std::async(std::launch::async, [&] {
        return m_Modem.iExchangeAT("AT\r", "OK", aAnswer.data(), 100, nullptr, kAmpleMs);
    });
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend(std::string("\0\0O\0K", 5)));
    EXPECT_EQ(0, exchange.get());
    EXPECT_STREQ("OK", aAnswer.data());
}

TEST_F(AThreadAT, RecordsTheFlight)
{
    KeepReports("RING");
    Exchange(Command("AT+CPIN=\"1234\""), "AT+CPIN=\"1234\"\r\r\n+CME ERROR: 16\r\n");
    atCommand_t command = Command("AT+CMGS=1");
    command.bPrompt = true;
    command.szPayload = "a\\\xC3\xA9";
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("RING\r\n> "));
    ASSERT_NE("", m_Pty.szReceiveUntil("\x1a"));
    ASSERT_TRUE(m_Pty.bSend("\r\nOK\r\n"));
    ASSERT_EQ(0, asking.get().lResult);
    const std::string szTime = "dddd-dd-ddTdd:dd:dd.dddZ ";
    std::istringstream record(m_Modem.szFlightRecord());
    lines_t lines;
    for (std::string szLine; std::getline(record, szLine);) {
        std::string szForm = szLine.substr(0, szTime.size());
        std::replace_if(
            szForm.begin(), szForm.end(), [](char c) { return c >= '0' && c <= '9'; }, 'd');
        EXPECT_EQ(szTime, szForm);
        lines.push_back(szLine.substr(szForm.size()));
    }
    EXPECT_THAT(lines,
                ElementsAre("> AT+CPIN=****", "~ AT+CPIN=****", "< +CME ERROR: 16", "= -8",
                            "> AT+CMGS=1", "! RING", "?", "^ a\\x5C\\xC3\\xA9", "< OK", "= 0"));
}

TEST_F(AThreadAT, KeepsSecretsOutOfTheRecord)
{
    for (const char* const pszText :
         {"AT+CPIN=12345", "at+clck=\"SC\",1,\"12345\"", "AT+CPWD=\"SC\",\"12345\",\"9\"",
          "ATE0;+CGAUTH=1,1,\"me\",\"12345\"", "AT+CPIN2=12345"}) {
        Exchange(Command(pszText), "\r\nOK\r\n");
    }
    atCommand_t command = Command("AT^KEY=12345");
    command.bSecret = true;
    command.bPrompt = true;
    command.szPayload = "12345";
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("> "));
    ASSERT_NE("", m_Pty.szReceiveUntil("\x1a"));
    ASSERT_TRUE(m_Pty.bSend("12345\x1a\r\n\r\nOK\r\n"));
    EXPECT_EQ(0, asking.get().lResult);
    EXPECT_THAT(m_Modem.szFlightRecord(), Not(HasSubstr("12345")));
    EXPECT_THAT(m_Modem.szFlightRecord(), HasSubstr("> AT^KEY=****\n"));
}

TEST_F(AThreadAT, KeepsSecretsOutOfTheRecordAlsoWhenTheirEchoIsLateOrCut)
{
    atCommand_t command = GivenUp("AT^KEY=12345");
    command.bSecret = true;
    EXPECT_EQ(-7, AskAndReceive(command).get().lResult);
    ASSERT_TRUE(m_Pty.bSend("AT^KEY=12345\r\r\nOK\r\n"));
    ASSERT_TRUE(
        bAwait([this] { return m_Modem.szFlightRecord().find("- OK") != std::string::npos; }));
    EXPECT_THAT(m_Modem.szFlightRecord(), HasSubstr("- AT^KEY=****\n"));

    command = Command("AT^KEY=12345" + std::string(300, '9')); // the port has 200 bytes
    command.bSecret = true;
    EXPECT_THAT(Exchange(command, command.szText + "\r\r\nOK\r\n").lines, IsEmpty());

    command = Command("AT^LOAD=1");
    command.bSecret = command.bPrompt = true;
    command.szPayload = "12345\r12345";
    command.iTag = 7;
    auto asking = AskAndReceive(command);
    ASSERT_TRUE(m_Pty.bSend("> "));
    ASSERT_NE("", m_Pty.szReceiveUntil("\x1a"));
    EXPECT_EQ(1u, m_Modem.Cancel(7));
    EXPECT_EQ(AT_CANCELLED, asking.get().lResult);
    ASSERT_TRUE(m_Pty.bSend("12345\r\n> 12345\x1a\r\n\r\nERROR\r\n"));
    ASSERT_TRUE(
        bAwait([this] { return m_Modem.szFlightRecord().find("- ERROR") != std::string::npos; }));
    EXPECT_THAT(m_Modem.szFlightRecord(), HasSubstr("- > ****\n"));
    EXPECT_THAT(m_Modem.szFlightRecord(), Not(HasSubstr("12345")));
}

TEST_F(AThreadAT, KeepsNoMoreThanTheLastOfTheFlight)
{
    const size_t nReports = 1000;
    for (size_t i = 0; i < nReports; ++i) {
        ASSERT_TRUE(m_Pty.bSend("+X: " + std::to_string(i) + "\r\n"));
    }
    ASSERT_TRUE(m_Modem.m_Unclaimed.bAwait(nReports));
    const std::string szRecord = m_Modem.szFlightRecord();
    EXPECT_EQ(400, std::count(szRecord.begin(), szRecord.end(), '\n'));
    EXPECT_THAT(szRecord, HasSubstr("! +X: 999\n"));
    EXPECT_THAT(szRecord, Not(HasSubstr("! +X: 599\n")));
}

TEST_F(AThreadAT, LogsOnlyWhatIsNewOfTheFlight)
{
    Exchange(Command("AT+ONE"), "\r\nOK\r\n");
    m_Modem.LogFlightRecord(LOG_INFO);
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "Z > AT+ONE"));
    CSyslogReceiver::Get().Clear();
    Exchange(Command("AT+TWO"), "\r\nOK\r\n");
    m_Modem.LogFlightRecord(LOG_INFO);
    EXPECT_TRUE(bAwaitLogged(LOG_INFO, "Z > AT+TWO"));
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("Z > AT+ONE"));
}

TEST(AThreadATWithManyCallers, GivesEachItsOwnAnswer)
{
    CFakeModem fake([](const std::string& szCommand) {
        return szCommand + "\r\r\n+REPORT\r\n\r\n+" + szCommand.substr(2) + ": 1\r\n\r\nOK\r\n";
    });
    CMessageStore store;
    COpenModem modem;
    modem.SetUnsolicited("+REPORT", 0, [](const lines_t&) {});
    modem.Configure(0, 1000, fake.szPath().c_str());
    ASSERT_EQ(0, modem.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(modem.bAwaitOpen());
    ASSERT_TRUE(bAwait([&] { return store.Count(&modem, EVT_COM_CONNECTED) == 1; }));
    std::vector<std::future<int>> callers;
    for (int iCaller = 0; iCaller < 4; ++iCaller) {
        callers.push_back(std::async(std::launch::async, [&modem, iCaller] {
            int iGood = 0;
            for (int i = 0; i < nRounds(200); ++i) {
                const std::string szName = "C" + std::to_string(iCaller * 1000 + i);
                atCommand_t command = Command("AT" + szName);
                command.bUrgent = i % 3 == 0;
                atResult_t result;
                iGood += modem.lCommand(command, result) == 0 && result.lines.size() == 1 &&
                         result.lines.front() == "+" + szName + ": 1";
            }
            return iGood;
        }));
    }
    for (auto& caller : callers) {
        EXPECT_EQ(nRounds(200), caller.get());
    }
}
