// A second daemon, which talks to hello_daemon as its client and prints one line for each answer.
#include "CHelloClient.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{
constexpr int kUsageError = 2;

constexpr const char* kUsage =
    "usage: hello_client [--config FILE] COMMAND ...\n"
    "commands: ping, version, pid, name, 'greet NAME', 'echo BYTES', page,\n"
    "          'cell TECHNO LEVEL', 'level LABEL LEVEL', and - to read commands from the\n"
    "          standard input\n";

/// @return The arguments that are no options.
std::vector<std::string> Commands(int argc, char** argv)
{
    std::vector<std::string> commands;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--config") == 0) {
            ++i; // its file
        } else if (std::strncmp(argv[i], "--", 2) != 0) {
            commands.emplace_back(argv[i]);
        }
    }
    return commands;
}
} // namespace

int main(int argc, char** argv)
{
    return iRunMain("hello_client", [argc, argv] {
        const std::vector<std::string> commands = Commands(argc, argv);
        CHelloClient client(argc, argv, commands);
        if (bPrintVersion(client, argc, argv)) {
            return EXIT_SUCCESS;
        }
        if (commands.empty()) {
            std::fputs(kUsage, stderr);
            return kUsageError;
        }
        return client.iRun(); // what failed, it has printed
    });
}
