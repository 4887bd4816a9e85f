// The command line of quorctl.
#include "tools/QuorctlProgram.h"

#include <gmock/gmock.h>

using namespace TestSupport;
using ::testing::HasSubstr;

namespace
{
/// A command line that cannot be, and the one line that says so.
struct BadUsage {
    const char* pszWhat;
    std::vector<std::string> args;
    const char* pszComplaint;
};

class ABadCommandLine : public ::testing::TestWithParam<BadUsage>
{
};

TEST_P(ABadCommandLine, IsRefusedWithOneClearLine)
{
    ExpectFailure(RunQuorctl(GetParam().args), 2, GetParam().pszComplaint);
}

INSTANTIATE_TEST_SUITE_P(
    With, ABadCommandLine,
    ::testing::Values(
        BadUsage{"NoCommand", {}, "no command (see quorctl --help)"},
        BadUsage{"AnUnknownCommand", {"dance"}, "unknown command 'dance' (see quorctl --help)"},
        BadUsage{"AnUnknownOption",
                 {"ping", "--fast"},
                 "The following argument was not expected: --fast (see quorctl --help)"},
        BadUsage{"AnUnknownOptionAndNoCommand",
                 {"--fast"},
                 "unknown option '--fast' (see quorctl --help)"},
        BadUsage{"APortOfLetters",
                 {"--port", "http", "ping"},
                 "--port: 'http' is not a number from 1 to 65535"},
        BadUsage{"ATimeOutOfNothing",
                 {"--timeout", "0", "ping"},
                 "--timeout: '0' is not a number from 1 to 86400000"},
        BadUsage{"HostAndUnix",
                 {"--host", "a", "--unix", "b", "ping"},
                 "--host excludes --unix (see quorctl --help)"},
        BadUsage{"AnEmptyPath",
                 {"--unix", "", "ping"},
                 "--unix: the path of a socket has 1 to 107 bytes"},
        BadUsage{"AnIntervalThatIsTooShort",
                 {"ping", "-i", "0"},
                 "--interval: '0' is not a number from 0.01 to 3600"},
        BadUsage{"AnIntervalThatIsNone",
                 {"ping", "-i", "nan"},
                 "--interval: 'nan' is not a number from 0.01 to 3600"},
        BadUsage{"ACommandThatIsTooLarge",
                 {"send", "65536"},
                 "command: '65536' is not a number from 0 to 65535"},
        BadUsage{"NoCommandToSend", {"send"}, "command is required (see quorctl --help)"},
        BadUsage{"TwoKindsOfData",
                 {"send", "1", "--data", "a", "--hex", "41"},
                 "--data excludes --hex (see quorctl --help)"},
        BadUsage{"HexDigitsThatAreNone",
                 {"send", "1", "--hex", "4x"},
                 "--hex: '4x' are no pairs of hex digits"},
        BadUsage{"AFileThatIsNotThere",
                 {"send", "1", "--file", "/nowhere"},
                 "--file /nowhere: No such file or directory"},
        BadUsage{
            "AFileWithoutAName", {"send", "1", "--file", ""}, "--file : No such file or directory"},
        BadUsage{"AFileThatIsTooLarge",
                 {"send", "1", "--file", "/dev/zero"},
                 "send: a frame has 65535 bytes of data at most"},
        BadUsage{"APingToExpect",
                 {"send", "1", "--expect", "10"},
                 "--expect: the daemon's pings are answered and are no answers; see monitor "
                 "--pings"},
        BadUsage{"NothingToSet", {"log", "set"}, "assignments is required (see quorctl --help)"},
        BadUsage{"ALevelThatIsNone",
                 {"log", "set", "a=loud"},
                 "log set: 'loud' is no level: 0 to 7 or emerg alert crit err warning notice info "
                 "debug"},
        BadUsage{"NeitherGetNorSet", {"config"}, "A subcommand is required (see quorctl --help)"},
        BadUsage{"AValueThatIsNoJson",
                 {"config", "set", "/db/greeting/word", "salut"},
                 "config set: 'salut' is no JSON (a text has quotes: '\"...\"')"},
        BadUsage{"AValueWithMoreBehindIt",
                 {"config", "set", "1 2"},
                 "config set: '1 2' is no JSON (a text has quotes: '\"...\"')"},
        BadUsage{"AFullNameThatIsNone",
                 {"config", "set", "db/greeting", "1"},
                 "config set: 'db/greeting' is no full name, as /db/callback is"},
        BadUsage{"AFullNameWithAGap",
                 {"config", "set", "/db//word", "1"},
                 "config set: '/db//word' is no full name, as /db/callback is"},
        BadUsage{"AValueInAFileThatIsNotThere",
                 {"config", "set", "/db", "@/nowhere"},
                 "config set @/nowhere: No such file or directory"},
        BadUsage{"AValueThatIsTooLarge",
                 {"config", "set", "@/dev/zero"},
                 "config set: a frame has 65535 bytes of data at most"},
        BadUsage{"TooManyArguments",
                 {"config", "set", "/db", "1", "2"},
                 "arguments: At Most 2 required but received 3 (see quorctl --help)"},
        BadUsage{"RequestsAndSeconds",
                 {"bench", "--requests", "1", "--seconds", "1"},
                 "--requests excludes --seconds (see quorctl --help)"}),
    [](const auto& usage) { return usage.param.pszWhat; });

TEST(TheHelpOfQuorctl, NamesEveryCommand)
{
    const ChildResult result = RunQuorctl({"--help"});
    EXPECT_EQ(0, result.iExitCode);
    for (const char* pszCommand :
         {"ping", "version", "pid", "name", "log", "config", "send", "wait", "monitor", "bench"}) {
        EXPECT_THAT(result.szOutput, HasSubstr(std::string("\n  ") + pszCommand + ' '));
    }
}

TEST(TheVersionOfQuorctl, IsThatOfTheLibrary)
{
    EXPECT_EQ("quorctl 2.3\n", RunQuorctl({"--version"}).szOutput);
}
} // namespace
