#include "examples/ExampleProgram.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using namespace TestSupport;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace
{
class AnAtRaw : public ::testing::Test
{
protected:
    void StartModem(const std::string& szScript)
    {
        WriteFile(m_Directory.szPath("script"), szScript);
        m_pModem = std::make_unique<CChild>(Program(
            {MODEM_SIMULATOR, "--link", m_szDevice, "--script", m_Directory.szPath("script")}));
        ASSERT_TRUE(m_pModem->bAwaitOutput("/dev/pts/"));
    }

    ChildResult Run(const std::string& szTimeOutMs, const std::vector<std::string>& commands)
    {
        std::vector<std::string> args = {AT_RAW, m_szDevice, szTimeOutMs};
        args.insert(args.end(), commands.begin(), commands.end());
        return RunProgram(args);
    }

    const CTempDirectory m_Directory;
    const std::string m_szDevice = m_Directory.szPath("ttyModem");
    std::unique_ptr<CChild> m_pModem;
};

TEST_F(AnAtRaw, PrintsWhatTheModemAnswers)
{
    ASSERT_NO_FATAL_FAILURE(StartModem(""));
    const ChildResult result = Run("20000", {"AT+CGSN", "AT+CSQ"});
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("AT+CGSN: 356938035643809\n\nOK\nAT+CSQ: +CSQ: 17,99\n\nOK\n", result.szOutput);
}

TEST_F(AnAtRaw, PutsAnAnswerTogetherThatComesInPieces)
{
    ASSERT_NO_FATAL_FAILURE(StartModem("on AT+CSQ\n    +CSQ: 3,\n    @delay 400\n    99\n"
                                       "    @delay 400\n    OK\n"));
    EXPECT_EQ("AT+CSQ: +CSQ: 3,\n\n99\n\nOK\n", Run("20000", {"AT+CSQ"}).szOutput);
}

TEST_F(AnAtRaw, TakesAnotherAnswerForNone)
{
    ASSERT_NO_FATAL_FAILURE(StartModem(""));
    const ChildResult result = Run("1000", {"AT+NONSENSE", "AT+CSQ"});
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_EQ("AT+NONSENSE: FAILED\nAT+CSQ: +CSQ: 17,99\n\nOK\n", result.szOutput);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("request:AT+NONSENSE"));
}

TEST_F(AnAtRaw, TellsThatThereIsNoModem)
{
    const ChildResult usage = RunProgram({AT_RAW});
    EXPECT_EQ(2, usage.iExitCode);
    EXPECT_THAT(usage.szErrors, StartsWith("usage: at_raw"));
    EXPECT_EQ(EXIT_FAILURE, Run("1000", {"AT"}).iExitCode);
}
} // namespace
