#include "examples/ExampleProgram.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/Frames.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
constexpr uint16_t kName = 13;

// Its configuration is looked for beside the program, so each test has a copy of that.
class ATinyDaemon : public ::testing::Test
{
protected:
    ATinyDaemon()
    {
        std::filesystem::create_directory(m_Directory.szPath("conf"));
        std::filesystem::copy_file(TINY_DAEMON, m_szProgram);
    }

    const CTempDirectory m_Directory;
    const std::string m_szProgram = m_Directory.szPath("tiny_daemon");
    const std::string m_szConfig = m_Directory.szPath("conf/tiny_daemon_config.conf");
};

TEST_F(ATinyDaemon, AnswersAndEndsInOrder)
{
    const int iPort = iFreePort();
    WriteFile(m_szConfig, "port=" + std::to_string(iPort) + "\n");
    CChild daemon(Program({m_szProgram}));
    CTcpPeer peer;
    ASSERT_TRUE(bAwait([&] { return peer.bConnect(iPort); }));
    ASSERT_TRUE(peer.bSend(FrameBytes(kName)));
    EXPECT_EQ(std::string("tiny_daemon") + '\0', ReceiveFrame(peer).szData);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(0, daemon.Await().iExitCode);
    EXPECT_THAT(szReadFile(m_szConfig), HasSubstr("log_level_tiny_server=3\n"));
}

TEST_F(ATinyDaemon, EndsWithAClearLineWhenItsPortIsNoNumber)
{
    WriteFile(m_szConfig, "port=abc\n");
    const ChildResult result = RunProgram({m_szProgram});
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("not started: "));
}

TEST(AReadme, ShowsTheDaemonThatIsCompiled)
{
    const std::string szReadme = szReadFile(PROJECT_DIR "/README.md");
    const std::string szSource = szReadFile(PROJECT_DIR "/examples/tiny_daemon.cpp");
    EXPECT_THAT(szReadme, HasSubstr("```cpp\n" + szSource + "```\n"));
}
} // namespace
