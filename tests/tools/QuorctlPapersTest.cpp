// What comes with quorctl: its man page and its completion.
#include "support/CChild.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>
#include <sstream>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
const std::string kManPage = std::string(TOOLS_DIR) + "/quorctl.1";
const std::string kCompletion = std::string(TOOLS_DIR) + "/completion.bash";

constexpr int kNotStarted = 127;

TEST(TheManPageOfQuorctl, IsFormattedWithoutAWarning)
{
    const ChildResult groff = RunProgram({"groff", "-mdoc", "-ww", "-Tutf8", kManPage});
    const ChildResult mandoc = RunProgram({"mandoc", "-T", "lint", "-W", "warning", kManPage});
    if (groff.iExitCode == kNotStarted && mandoc.iExitCode == kNotStarted) {
        GTEST_SKIP() << "neither groff nor mandoc";
    }
    if (groff.iExitCode != kNotStarted) {
        EXPECT_EQ(0, groff.iExitCode);
        EXPECT_EQ("", groff.szErrors);
        EXPECT_THAT(groff.szOutput, HasSubstr("quorctl"));
    }
    if (mandoc.iExitCode != kNotStarted) {
        EXPECT_EQ(0, mandoc.iExitCode) << mandoc.szOutput;
    }
}

// In the page "-" is ".Fl", and a second one belongs to the name.
TEST(TheManPageOfQuorctl, TellsOfEveryOptionInTheHelp)
{
    const std::string szPage = szReadFile(kManPage);
    for (const char* pszCommand : {"", "ping", "send", "log", "config", "monitor", "bench"}) {
        std::vector<std::string> args = {"--help"};
        if (*pszCommand != '\0') {
            args.insert(args.begin(), pszCommand);
        }
        std::istringstream words(RunQuorctl(args).szOutput);
        for (std::string szWord; words >> szWord;) {
            const size_t dashes = szWord.find("--");
            if (dashes != std::string::npos) {
                const std::string szName = szWord.substr(dashes + 1);
                EXPECT_TRUE(szPage.find("Fl " + szName) != std::string::npos ||
                            szPage.find(", " + szName) != std::string::npos)
                    << szWord;
            }
        }
    }
}

/// Needs bash, which a board may not have.
class TheCompletionOfQuorctl : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (RunProgram({"bash", "-c", ":"}).iExitCode == kNotStarted) {
            GTEST_SKIP() << "no bash";
        }
    }
};

/// @return What bash offers for the last of these words, one on a line.
std::string szOffered(const std::string& szWords)
{
    const std::string szScript = "source " + kCompletion + "\nCOMP_WORDS=(" + szWords +
                                 ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_quorctl\n"
                                 "((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\"; :";
    const ChildResult result = RunProgram({"bash", "--norc", "-c", szScript});
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("", result.szErrors);
    return result.szOutput;
}

TEST_F(TheCompletionOfQuorctl, IsRegistered)
{
    const ChildResult result =
        RunProgram({"bash", "--norc", "-c", "source " + kCompletion + " && complete -p quorctl"});
    EXPECT_EQ("complete -F _quorctl quorctl\n", result.szOutput);
}

TEST_F(TheCompletionOfQuorctl, OffersCommands)
{
    EXPECT_EQ("ping\nversion\npid\nname\nlog\nconfig\nsend\nwait\nmonitor\nbench\nmodem\n",
              szOffered("quorctl ''"));
    EXPECT_EQ("ping\npid\n", szOffered("quorctl p"));
    EXPECT_EQ("wait\n", szOffered("quorctl --host ping --port 5 --json w"));
    EXPECT_EQ("list\nset\n", szOffered("quorctl log ''"));
    EXPECT_EQ("get\nset\n", szOffered("quorctl config ''"));
    EXPECT_EQ("", szOffered("quorctl ping ''"));
    EXPECT_EQ("imei\nimsi\n", szOffered("quorctl modem im"));
    EXPECT_EQ("list\nadd\nremove\n", szOffered("quorctl modem whitelist ''"));
}

TEST_F(TheCompletionOfQuorctl, OffersTheOptionsOfTheCommand)
{
    EXPECT_EQ("--host\n--port\n--unix\n--timeout\n--json\n--help\n--count\n--interval\n",
              szOffered("quorctl ping --"));
    EXPECT_EQ("--no-answer\n", szOffered("quorctl send 1000 --n"));
    EXPECT_EQ("--pings\n", szOffered("quorctl monitor --pi"));
    EXPECT_EQ("--pipeline\n", szOffered("quorctl --unix x bench --pi"));
}

TEST_F(TheCompletionOfQuorctl, OffersLevelsBehindTheEqualsSign)
{
    EXPECT_EQ("emerg\nerr\n", szOffered("quorctl log set dispatcher = e"));
    EXPECT_THAT(szOffered("quorctl log set dispatcher ="), HasSubstr("debug\n"));
}

TEST_F(TheCompletionOfQuorctl, OffersFiles)
{
    EXPECT_EQ("/dev/null\n", szOffered("quorctl send 1 --file /dev/nul"));
    EXPECT_EQ("@/dev/null\n", szOffered("quorctl config set /db @/dev/nul"));
    EXPECT_EQ("", szOffered("quorctl --port ''"));
    const CTempDirectory directory;
    WriteFile(directory.szPath("two words"), "");
    EXPECT_EQ(directory.szPath("two words") + '\n',
              szOffered("quorctl send 1 --file " + directory.szPath("two")));
}

// What is completed is what there is.
TEST_F(TheCompletionOfQuorctl, OffersNothingThatTheHelpDoesNotName)
{
    for (const std::string szCommand : {"ping", "config", "send", "monitor", "bench"}) {
        const std::string szHelp =
            RunQuorctl({"--help"}).szOutput + RunQuorctl({szCommand, "--help"}).szOutput;
        std::istringstream options(szOffered("quorctl " + szCommand + " --"));
        for (std::string szOption; options >> szOption;) {
            EXPECT_THAT(szHelp, HasSubstr(szOption));
        }
    }
}
} // namespace
