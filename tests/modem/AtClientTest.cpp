// The simulated modem, as programs see it that others wrote to work with real ones.
#include "ForeignProgram.h"

#include "support/CChild.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>
#include <vector>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
namespace fs = std::filesystem;

constexpr int kProgramLimitMs = 60000; // they take their time: a second for each few commands

// The same message, "Hello" for +33123456789, as the programs make a PDU of it: 3GPP TS 23.040.
constexpr char kHelloPdu[] = "^ 07913321436587F911000B913321436587F90000FF05C8329BFD06\n";

class AnAtClient : public ::testing::Test
{
protected:
    void SetUp() override
    {
        UseForeignLibraries();
        m_pModem = std::make_unique<CChild>([this] {
            execl(MODEM_SIMULATOR, MODEM_SIMULATOR, "--echo", "--trace", "--link",
                  m_szDevice.c_str(), static_cast<char*>(nullptr));
            return EXIT_FAILURE;
        });
        ASSERT_TRUE(m_pModem->bAwaitOutput("/dev/pts/"));
    }

    /// @param args  The program's name, then its arguments.
    ChildResult Run(std::vector<std::string> args)
    {
        args[0] = szForeignProgram(args[0]);
        return RunProgram(args, kProgramLimitMs);
    }

    /// @param szMore  Shell text with the device as standard input and output of a program.
    ChildResult RunOnDevice(const std::string& szCommand)
    {
        return RunProgram({"sh", "-c", szCommand + " <" + m_szDevice + " >" + m_szDevice},
                          kProgramLimitMs);
    }

    ChildResult RunGammu(std::vector<std::string> args)
    {
        const std::string szConfig = m_Directory.szPath("gammurc");
        WriteFile(szConfig, "[gammu]\ndevice = " + m_szDevice + "\nconnection = at115200\n");
        args.insert(args.begin(), {"gammu", "--config", szConfig});
        return Run(args);
    }

    /// @return What the modem was sent, all that its clients wrote before they ended.
    std::string szSent()
    {
        m_pModem->Signal(SIGTERM);
        return m_pModem->Await().szOutput;
    }

    void TearDown() override
    {
        if (m_pGroup != nullptr) {
            kill(-m_pGroup->iPid(), SIGKILL); // nothing is there to be killed when all went well
        }
    }

    /// Starts a program that starts others.
    void StartGroup(const std::vector<std::string>& args)
    {
        m_pGroup = std::make_unique<CChild>([&args] {
            setpgid(0, 0);
            std::vector<char*> argv;
            for (const std::string& szArg : args) {
                argv.push_back(const_cast<char*>(szArg.c_str())); // execv(3) changes nothing
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            return EXIT_FAILURE;
        });
    }

    std::string szSmsdConfig() const
    {
        std::string szText = "devices = GSM1\nuser = root\ngroup = root\nloglevel = 7\n"
                             "delaytime = 1\nlogfile = " +
                             m_Directory.szPath("log\n");
        for (const char* const pszPath :
             {"infofile", "pidfile", "outgoing", "checked", "incoming", "failed", "sent"}) {
            szText += std::string(pszPath) + " = " + m_Directory.szPath(pszPath) + '\n';
        }
        return szText + "[GSM1]\nincoming = yes\ndevice = " + m_szDevice + '\n';
    }

    const CTempDirectory m_Directory;
    const std::string m_szDevice = m_Directory.szPath("ttyModem");
    std::unique_ptr<CChild> m_pModem;
    std::unique_ptr<CChild> m_pGroup; ///< The leader of a process group.
};
} // namespace

#define NEEDS(program)                                                                             \
    if (szForeignProgram(program).empty()) {                                                       \
        GTEST_SKIP() << szMissing(program);                                                        \
    }

TEST_F(AnAtClient, LearnsWhoTheModemIs)
{
    NEEDS("gammu");
    const ChildResult result = RunGammu({"identify"});
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(result.szOutput, HasSubstr(": Simulated\n"));
    EXPECT_THAT(result.szOutput, HasSubstr(": 356938035643809\n"));
    EXPECT_THAT(result.szOutput, HasSubstr(": 208011234567890\n"));
}

TEST_F(AnAtClient, LearnsWhereTheModemIs)
{
    NEEDS("gammu");
    const ChildResult result = RunGammu({"networkinfo"});
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(result.szOutput, HasSubstr(": home network\n"));
    EXPECT_THAT(result.szOutput, HasSubstr(": 208 01 "));
    EXPECT_THAT(result.szOutput, HasSubstr("LAC 00C3, CID 0000ABCD\n"));
    EXPECT_THAT(result.szOutput, HasSubstr(": \"Simulated Network\"\n")); // by name as well
}

TEST_F(AnAtClient, SendsAMessageAsPdu)
{
    NEEDS("gammu");
    const ChildResult result = RunGammu({"sendsms", "TEXT", "+33123456789", "-text", "Hello"});
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(result.szOutput, HasSubstr("message reference=1"));
    EXPECT_THAT(szSent(), HasSubstr(kHelloPdu));
}

TEST_F(AnAtClient, ReadsTheMessageThatWaits)
{
    NEEDS("gammu");
    const ChildResult result = RunGammu({"geteachsms"});
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(result.szOutput, HasSubstr(": \"+33123456789\"\n"));
    EXPECT_THAT(result.szOutput, HasSubstr("\nHello\n"));
}

TEST_F(AnAtClient, DialsThePacketService)
{
    NEEDS("chat");
    const ChildResult result =
        RunOnDevice(szForeignProgram("chat") +
                    " -t 10 ABORT ERROR '' ATZ OK AT+CSQ +CSQ: '' OK 'ATDT*99#' CONNECT");
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(szSent(), HasSubstr("> ATZ\n> AT+CSQ\n> ATDT*99#\n"));
}

TEST_F(AnAtClient, AbortsWhenTheModemRefuses)
{
    NEEDS("chat");
    const ChildResult result =
        RunOnDevice(szForeignProgram("chat") + " -t 10 ABORT ERROR '' AT+NONSENSE OK");
    EXPECT_EQ(4, result.iExitCode) << "the number of its first abort string";
}

TEST_F(AnAtClient, FollowsAScript)
{
    NEEDS("runscript");
    const std::string szScript = m_Directory.szPath("script");
    WriteFile(szScript, "timeout 20\n"
                        "send \"ATI\"\n"
                        "expect {\n"
                        "  \"Revision 1.0\" break\n"
                        "  timeout 10 exit 2\n"
                        "}\n"
                        "exit 0\n");
    const ChildResult result = RunOnDevice(szForeignProgram("runscript") + ' ' + szScript);
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

// Its first line is one of many commands: "AT S7=45 S0=0 L1 V1 X4 &c1 E1 Q0".
TEST_F(AnAtClient, SetsTheModemUpFromPerl)
{
    if (RunProgram({"perl", "-MDevice::Modem", "-e", "0"}).iExitCode != 0) {
        GTEST_SKIP() << szMissing("Device::Modem");
    }
    const ChildResult result =
        RunProgram({"perl", "-MDevice::Modem", "-e",
                    "my $m = Device::Modem->new(port => $ARGV[0], log => \"file,$ARGV[1]\");"
                    "$m->connect(baudrate => 115200) or die; $m->atsend(\"AT+CGSN\\r\");"
                    "print $m->answer(undef, 10000), '|', $m->S_register(3), '|';"
                    "$m->echo(0); $m->atsend(\"AT+CSQ\\r\"); print $m->answer(undef, 10000);",
                    m_szDevice, m_Directory.szPath("log")},
                   kProgramLimitMs);
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_THAT(result.szOutput, HasSubstr("356938035643809"));
    EXPECT_THAT(result.szOutput, HasSubstr("|013|+CSQ: 17,99"));
}

// A daemon, and a process of its own for each modem.
TEST_F(AnAtClient, SendsAndFetchesMessagesAllDay)
{
    NEEDS("smsd");
    if (geteuid() != 0) {
        GTEST_SKIP() << "smsd takes root, to leave it";
    }
    for (const char* const pszQueue : {"outgoing", "checked", "incoming", "failed", "sent"}) {
        fs::create_directory(m_Directory.szPath(pszQueue));
    }
    WriteFile(m_Directory.szPath("outgoing/letter"), "To: 33123456789\n\nHello");
    WriteFile(m_Directory.szPath("smsd.conf"), szSmsdConfig());
    StartGroup({szForeignProgram("smsd"), "-t", "-c", m_Directory.szPath("smsd.conf")});
    EXPECT_TRUE(
        bAwait([this] { return fs::exists(m_Directory.szPath("sent/letter")); }, kProgramLimitMs))
        << szReadFile(m_Directory.szPath("log"));
    EXPECT_TRUE(m_pModem->bAwaitOutput("> AT+CMGD=1\n", kProgramLimitMs)); // fetched, too
    m_pGroup->Signal(SIGTERM);
    EXPECT_EQ(0, m_pGroup->Await(kProgramLimitMs).iExitCode);

    EXPECT_FALSE(fs::is_empty(m_Directory.szPath("incoming")));
    for (const auto& entry : fs::directory_iterator(m_Directory.szPath("incoming"))) {
        EXPECT_THAT(szReadFile(entry.path()), HasSubstr("From: 33123456789\n"));
        EXPECT_THAT(szReadFile(entry.path()), HasSubstr("\n\nHello"));
    }
    const std::string szCommands = szSent();
    EXPECT_THAT(szCommands, HasSubstr("> AT+CMGD=1\n"));
    EXPECT_THAT(szCommands, HasSubstr("05C8329BFD06\n"));
}
