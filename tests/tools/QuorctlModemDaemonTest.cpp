// quorctl modem, with modemd and the simulated modem behind it.
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <csignal>
#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace
{
class AQuorctlModem : public ::testing::Test
{
protected:
    void Start(const std::string& szMore = "")
    {
        WriteFile(m_Directory.szPath("conf"), "device=" + m_Directory.szPath("tty") +
                                                  "\nport=-1\nsettle_s=0\npath=" + m_szSocket +
                                                  "\n" + szMore);
        m_pModem = std::make_unique<CChild>([this] {
            execl(MODEM_SIMULATOR, MODEM_SIMULATOR, "--link", m_Directory.szPath("tty").c_str(),
                  nullptr);
            return 127;
        });
        ASSERT_TRUE(m_pModem->bAwaitOutput("/dev/pts/"));
        m_pDaemon = std::make_unique<CChild>([this] {
            execl(MODEMD, MODEMD, "--config", m_Directory.szPath("conf").c_str(), nullptr);
            return 127;
        });
        ASSERT_TRUE(CSyslogReceiver::Get().bAwait("registration: home"));
        ASSERT_TRUE(CSyslogReceiver::Get().bAwait("ready, pid"));
    }

    ChildResult Ask(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--unix", m_szSocket, "--timeout", "20000", "modem"});
        return RunQuorctl(args);
    }

    const CTempDirectory m_Directory;
    const std::string m_szSocket = m_Directory.szPath("socket");
    std::unique_ptr<CChild> m_pModem;
    std::unique_ptr<CChild> m_pDaemon;
};

TEST_F(AQuorctlModem, PrintsWhatTheModemAnswers)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("356938035643809\n", Ask({"imei"}).szOutput);
    EXPECT_EQ("208011234567890\n", Ask({"imsi"}).szOutput);
    EXPECT_EQ("17,99\n", Ask({"csq"}).szOutput);
    EXPECT_EQ("1\n", Ask({"sms", "+33123456789", "Hello"}).szOutput);
    EXPECT_EQ("{\"imei\":\"356938035643809\"}\n", Ask({"--json", "imei"}).szOutput);
}

TEST_F(AQuorctlModem, FetchesMessagesAsPdus)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("", Ask({"inbox"}).szOutput); // nobody is on the white list
    EXPECT_EQ(0, Ask({"whitelist", "add", "+33123456789"}).iExitCode);
    EXPECT_EQ("1\n07913321436587F9040B913321436587F900006211220000004005C8329BFD06\n",
              Ask({"inbox"}).szOutput);
    EXPECT_EQ("", Ask({"inbox", "1"}).szOutput);
}

TEST_F(AQuorctlModem, PrintsTheNetworksThatAreThere)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("20801,in use,LTE,Simulated Network\n20810,available,UMTS,Second Network\n",
              Ask({"scan"}).szOutput);
}

TEST_F(AQuorctlModem, PrintsTheServingCell)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(bAwait(
        [this] { return Ask({"cell"}).szOutput.find("rxLevel   -79\n") != std::string::npos; }));
    const std::string szCell = Ask({"cell"}).szOutput;
    EXPECT_THAT(szCell, HasSubstr("\ntechno    LTE\narfcn     -\nrssi      17\nber       -\n"));
    EXPECT_THAT(szCell, HasSubstr("\nmcc       208\nmnc       1\n"));
    const std::vector<Json::Value> objects = JsonLines(Ask({"cell", "--json"}).szOutput);
    ASSERT_EQ(1U, objects.size());
    EXPECT_EQ(-79, objects[0]["rxLevel"].asInt());
    EXPECT_TRUE(objects[0]["ber"].isNull());
}

TEST_F(AQuorctlModem, ChangesTheWhiteList)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("", Ask({"whitelist", "list"}).szOutput);
    EXPECT_EQ("+331\n", Ask({"whitelist", "add", "+331"}).szOutput);
    EXPECT_EQ("+331\n112\n", Ask({"whitelist", "add", "112"}).szOutput);
    EXPECT_EQ("112\n", Ask({"whitelist", "remove", "+331"}).szOutput);
    ExpectFailure(Ask({"whitelist", "add", "Ada"}), 1,
                  "the white list cannot be changed like that (error 1)");
    const std::vector<Json::Value> objects =
        JsonLines(Ask({"whitelist", "list", "--json"}).szOutput);
    ASSERT_EQ(1U, objects.size());
    EXPECT_EQ("112", objects[0]["whiteList"][0].asString());
    EXPECT_TRUE(objects[0]["authSms"].asBool());
}

TEST_F(AQuorctlModem, SendsAnAtCommandWhenThatIsAllowed)
{
    ASSERT_NO_FATAL_FAILURE(Start("allow_at=1\n"));
    EXPECT_EQ("Simulated Modem\nRevision 1.0\n", Ask({"at", "ATI"}).szOutput);
    ExpectFailure(Ask({"at", "AT+NONSENSE"}), 1, "ERROR (error 4)");
    EXPECT_THAT(Ask({"record"}).szOutput, HasSubstr("Z > ATI\n"));
    EXPECT_THAT(Ask({"record"}).szOutput, HasSubstr("Z < Revision 1.0\n"));
}

TEST_F(AQuorctlModem, TellsThatAnAtCommandIsNotAllowed)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ExpectFailure(Ask({"at", "ATI"}), 1, "allow_at=1 in its configuration allows it (error 7)");
}

TEST_F(AQuorctl, RefusesAModemCommandThatIsNotWhole)
{
    for (const std::vector<std::string>& args : {std::vector<std::string>{"modem"},
                                                 {"modem", "sms"},
                                                 {"modem", "sms", "+331"},
                                                 {"modem", "whitelist"},
                                                 {"modem", "whitelist", "add"},
                                                 {"modem", "at"},
                                                 {"modem", "dance"}}) {
        EXPECT_EQ(2, RunQuorctl(args).iExitCode);
    }
}

TEST_F(AQuorctl, RefusesARecordOfAModemThatIsNone)
{
    ExpectFailure(Answered({"modem", "cell"}, FrameBytes(3034, "no record")), 1,
                  "the answer is no such record");
}
} // namespace
