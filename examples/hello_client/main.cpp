// A second daemon, which talks to hello_daemon as its client and prints one line for each answer.
#include "CHelloClient.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr uint16_t kVersion = 100; // read as 1.00
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

int iFail(const char* szWhat)
{
    QUORCORE_LOG(LOG_ERR, "not started: %s", szWhat);
    std::fprintf(stderr, "hello_client: not started: %s\n", szWhat);
    return EXIT_FAILURE;
}
} // namespace

int main(int argc, char** argv)
{
    g_versionFW = {kVersion, "hello_client"};
    CThread::m_Logger.Init(g_versionFW.szAppName);
    try {
        const std::vector<std::string> commands = Commands(argc, argv);
        CHelloClient client(argc, argv, commands);
        if (client.bIsParamArguments(argc, argv, "--version")) {
            std::printf("%s %d.%02d\n", g_versionFW.szAppName, kVersion / 100, kVersion % 100);
            return EXIT_SUCCESS;
        }
        if (commands.empty()) {
            std::fputs(kUsage, stderr);
            return kUsageError;
        }
        return client.iRun();
    } catch (const char* szWhat) { // it could not become a daemon
        return iFail(szWhat);
    } catch (const std::exception& error) {
        return iFail(error.what());
    }
}
