#include "examples/ExampleProgram.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CTempDirectory.h"
#include "support/CTestSerial.h"
#include "support/Files.h"

#include "libQuorCore/CThreadAT.h"

#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using namespace QuorCore;
using namespace TestSupport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr long kAmpleMs = 20000;

class AModemSimulator : public ::testing::Test
{
protected:
    void Start(std::vector<std::string> options)
    {
        options.insert(options.begin(), {MODEM_SIMULATOR, "--link", m_szLink});
        m_pSimulator = std::make_unique<CChild>(Program(options));
        ASSERT_TRUE(m_pSimulator->bAwaitOutput("/dev/pts/"));
    }

    void StartScript(const std::string& szScript)
    {
        const std::string szFile = m_Directory.szPath("script");
        WriteFile(szFile, szScript);
        Start({"--script", szFile});
        Connect();
    }

    /// The daemon's side.
    void Connect()
    {
        m_Modem.SetUnsolicited("RING", 0, [this](const auto&) { ++m_nRings; });
        m_Modem.Configure(0, 1000, m_szLink.c_str());
        ASSERT_EQ(0, m_Modem.iCreateThread(true, kStartLimitMs));
        AwaitConnections(1);
    }

    void AwaitConnections(size_t nTimes)
    {
        ASSERT_TRUE(bAwait([=] { return m_Store.Count(&m_Modem, EVT_COM_CONNECTED) == nTimes; }));
    }

    atResult_t Ask(const std::string& szText, const std::string& szPrefix = "",
                   long lTimeOut = kAmpleMs)
    {
        atResult_t result;
        m_Modem.lCommand(szText, szPrefix, result, lTimeOut);
        return result;
    }

    const CTempDirectory m_Directory;
    const std::string m_szLink = m_Directory.szPath("ttyModem");
    std::unique_ptr<CChild> m_pSimulator; // forked before there is a thread
    CMessageStore m_Store;
    std::atomic<int> m_nRings{0};
    COpenPort<CThreadAT> m_Modem;
};
} // namespace

TEST_F(AModemSimulator, AnswersTheUsualCommands)
{
    Start({"--echo"});
    Connect();
    EXPECT_EQ(0, Ask("ATE0").lResult);
    EXPECT_THAT(Ask("AT+CGSN").lines, ElementsAre("356938035643809"));
    EXPECT_THAT(Ask("AT+CSQ", "+CSQ:").lines, ElementsAre("+CSQ: 17,99"));
    EXPECT_EQ(AT_MODEM_ERROR, Ask("AT+NONSENSE").lResult);
    EXPECT_EQ("NO CARRIER", Ask("ATD123;").szFinal);
    atCommand_t sms;
    sms.szText = "AT+CMGS=\"+331\"";
    sms.bPrompt = true;
    sms.szPayload = "Hello\rOK";
    atResult_t result;
    EXPECT_EQ(0, m_Modem.lCommand(sms, result));
    EXPECT_THAT(result.lines, ElementsAre("+CMGS: 1"));
    m_pSimulator->Signal(SIGTERM);
    EXPECT_EQ(0, m_pSimulator->Await().iExitCode);
}

TEST_F(AModemSimulator, MisbehavesAsItsScriptSays)
{
    StartScript("on AT+CSQ\n"
                "    @torn 3\n"
                "    +CSQ: 3,99\n"
                "    RING\n"
                "    OK\n"
                "once AT+MUTE\n"
                "on AT+MUTE\n"
                "    @raw \\x00\\x00\\x0D\\x0A+CME ERROR: 11\\x0D\\x0A\n");
    EXPECT_THAT(Ask("AT+CSQ", "+CSQ:").lines, ElementsAre("+CSQ: 3,99"));
    EXPECT_EQ(1, m_nRings);
    EXPECT_EQ(-7, Ask("AT+MUTE", "", 100).lResult);
    EXPECT_EQ(11, Ask("AT+MUTE").iError);
}

TEST_F(AModemSimulator, AnswersTheCommandsOfALineOneAfterTheOther)
{
    StartScript("on AT+TWO;+TWO\n"
                "    both\n"
                "    OK\n"
                "on AT+TWO\n"
                "    one\n"
                "    OK\n");
    EXPECT_THAT(Ask("ate0 v1+csq;+CGSN").lines, ElementsAre("+CSQ: 17,99", "356938035643809"));
    EXPECT_THAT(Ask("ATE0S3?+TWO").lines, ElementsAre("013", "one"));
    EXPECT_THAT(Ask("AT+TWO;+TWO").lines, ElementsAre("both")); // as its script has it
    EXPECT_THAT(Ask("AT+CSCS=\"a;B\";+cscs?").lines, ElementsAre("+CSCS: \"a;B\""));
    const atResult_t failed = Ask("AT+CSQ;+NONSENSE;+CGSN");
    EXPECT_EQ(AT_MODEM_ERROR, failed.lResult);
    EXPECT_THAT(failed.lines, ElementsAre("+CSQ: 17,99")); // nothing of what came behind
    EXPECT_EQ("NO CARRIER", Ask("ATE0DT123;").szFinal);    // that ";" is the call's own
}

TEST_F(AModemSimulator, RemembersWhatItIsTold)
{
    StartScript("set CMEE 2\n"
                "set X a\n"
                "on AT+X\n"
                "    @if X=a @if CMEE=1 no\n"
                "    @if X=a @if CMEE=2 $X$ of $Y$\n"
                "    OK\n");
    EXPECT_THAT(Ask("AT+CMEE?").lines, ElementsAre("+CMEE: 2"));
    EXPECT_THAT(Ask("AT+X").lines, ElementsAre("a of $Y$"));
    EXPECT_THAT(Ask("AT+CMGF=1;+CMGF?").lines, ElementsAre("+CMGF: 1"));
    EXPECT_THAT(
        Ask("AT+CMGL=\"ALL\"").lines,
        ElementsAre("+CMGL: 1,\"REC UNREAD\",\"+33123456789\",,\"26/11/22,00:00:00+04\"", "Hello"));
    EXPECT_EQ(0, Ask("AT+CMGD=1").lResult);
    EXPECT_THAT(Ask("AT+CMGL=\"ALL\"").lines, ElementsAre());
    EXPECT_EQ(321, Ask("AT+CMGR=1").iError);
}

TEST_F(AModemSimulator, ShowsWhatItIsSent)
{
    Start({"--trace"});
    Connect();
    atCommand_t sms;
    sms.szText = "AT+CMGS=\"+331\"";
    sms.bPrompt = true;
    sms.szPayload = "Hello\rOK";
    atResult_t result;
    EXPECT_EQ(0, m_Modem.lCommand(sms, result));
    EXPECT_TRUE(m_pSimulator->bAwaitOutput("> AT+CMGS=\"+331\"\n^ Hello\\x0DOK\n"));
}

TEST_F(AModemSimulator, GoesAwayAndComesBack)
{
    StartScript("signal USR1\n"
                "    @hangup\n"
                "signal USR2\n"
                "    @hangup 300\n"
                "every 50\n"
                "    +CREG: 1\n");
    m_pSimulator->Signal(SIGUSR1);
    ASSERT_TRUE(bAwait([this] { return m_Modem.m_hTTY == -1; }));
    EXPECT_EQ(-1, Ask("AT").lResult); // for good, until it is told
    m_pSimulator->Signal(SIGUSR2);
    AwaitConnections(2);
    EXPECT_EQ(0, Ask("AT").lResult);
}

TEST_F(AModemSimulator, PlaysAFlightRecordAgain)
{
    const std::string szFile = m_Directory.szPath("record");
    WriteFile(szFile, "x1 app[7]: at(3) -- f / 1 : 2026-11-21T23:59:59.990Z > AT+CPIN=****\n"
                      "2026-11-21T23:59:59.995Z ~ AT+CPIN=****\n"
                      "2026-11-22T00:00:00.100Z < +CME ERROR: 16\n"
                      "2026-11-22T00:00:00.100Z = -8\n"
                      "2026-11-22T00:00:00.200Z > AT+CSQ\n"
                      "2026-11-22T00:00:00.210Z < +CSQ: 1,99\n"
                      "2026-11-22T00:00:00.220Z ! RING\n"
                      "2026-11-22T00:00:00.230Z < OK\n"
                      "2026-11-22T00:00:00.230Z = 0\n"
                      "2026-11-22T00:00:01.000Z > AT+CMGS=1\n"
                      "2026-11-22T00:00:01.010Z ?\n"
                      "2026-11-22T00:00:01.010Z ^ Hello\n"
                      "2026-11-22T00:00:01.020Z < OK\n"
                      "2026-11-22T00:00:01.020Z = 0\n"
                      "2026-11-22T00:00:02.000Z > AT+CSQ\n"
                      "2026-11-22T00:00:02.001Z * lost\n");
    Start({"--replay", szFile});
    Connect();
    EXPECT_EQ(16, Ask("AT+CPIN=1234").iError);
    EXPECT_THAT(Ask("AT+CSQ", "+CSQ:").lines, ElementsAre("+CSQ: 1,99"));
    atCommand_t sms;
    sms.szText = "AT+CMGS=1";
    sms.bPrompt = true;
    sms.szPayload = "Hello";
    atResult_t result;
    EXPECT_EQ(0, m_Modem.lCommand(sms, result));
    EXPECT_EQ(-1, Ask("AT+CSQ", "+CSQ:").lResult); // the second time
}

TEST_F(AModemSimulator, SaysWhichLineOfAScriptIsWrong)
{
    const std::string szFile = m_Directory.szPath("script");
    WriteFile(szFile, "on AT\n    @delay soon\n");
    const ChildResult result = RunProgram({MODEM_SIMULATOR, "--script", szFile});
    EXPECT_EQ(1, result.iExitCode);
    EXPECT_THAT(result.szErrors, HasSubstr("line 2: 'soon' is no number"));
    for (const char* const pszStep : {"@if X", "@if X=1", "@if X @delay 1"}) {
        WriteFile(szFile, std::string("on AT\n    ") + pszStep + '\n');
        EXPECT_THAT(RunProgram({MODEM_SIMULATOR, "--script", szFile}).szErrors,
                    HasSubstr("line 2: "))
            << pszStep;
    }
    EXPECT_EQ(2, RunProgram({MODEM_SIMULATOR, "--nonsense"}).iExitCode);
    EXPECT_EQ(1, RunProgram({MODEM_SIMULATOR, "--replay", szFile}).iExitCode);
}
