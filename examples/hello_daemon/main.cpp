// The smallest complete daemon: configuration, log, dispatcher, one endpoint with a command of its
// own and its supervision, a data tree that it keeps, a child process, signals, and an orderly end.
#include "CHelloDaemon.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <malloc.h>

using namespace QuorCore;

namespace
{
constexpr uint16_t kVersion = 100; // read as 1.00

int iFail(const char* szWhat)
{
    QUORCORE_LOG(LOG_ERR, "not started: %s", szWhat);
    std::fprintf(stderr, "hello_daemon: not started: %s\n", szWhat);
    return EXIT_FAILURE;
}
} // namespace

int main(int argc, char** argv)
{
    mallopt(M_ARENA_MAX, 1); // a heap for each thread is more than so few allocations are worth
    g_versionFW = {kVersion, "hello_daemon"};
    CThread::m_Logger.Init(g_versionFW.szAppName);
    try {
        CHelloDaemon daemon(argc, argv);
        if (daemon.bIsParamArguments(argc, argv, "--version")) {
            std::printf("%s %d.%02d\n", g_versionFW.szAppName, kVersion / 100, kVersion % 100);
            return EXIT_SUCCESS;
        }
        const int iStatus = daemon.iRun();
        if (iStatus != EXIT_SUCCESS) {
            std::fputs("hello_daemon: not started, the system log says why\n", stderr);
        }
        return iStatus;
    } catch (const char* szWhat) { // it could not become a daemon
        return iFail(szWhat);
    } catch (const std::exception& error) {
        return iFail(error.what());
    }
}
