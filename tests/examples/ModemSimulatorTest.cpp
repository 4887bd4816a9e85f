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

TEST_F(AModemSimulator, GoesAwayAndComesBack)
{
    StartScript("signal USR1\n"
                "    @hangup 1500\n"
                "every 50\n"
                "    +CREG: 1\n");
    m_pSimulator->Signal(SIGUSR1);
    ASSERT_TRUE(bAwait([this] { return m_Modem.m_hTTY == -1; }));
    EXPECT_EQ(-1, Ask("AT").lResult);
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
    EXPECT_EQ(2, RunProgram({MODEM_SIMULATOR, "--nonsense"}).iExitCode);
    EXPECT_EQ(1, RunProgram({MODEM_SIMULATOR, "--replay", szFile}).iExitCode);
}
