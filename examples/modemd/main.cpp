// A modem daemon: keeps a modem at work, and answers other daemons and people who ask about it.
#include "CModemDaemon.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

using namespace QuorCore;

namespace
{
constexpr uint16_t kVersion = 100; // read as 1.00

int iFail(const char* szWhat)
{
    QUORCORE_LOG(LOG_ERR, "not started: %s", szWhat);
    std::fprintf(stderr, "modemd: not started: %s\n", szWhat);
    return EXIT_FAILURE;
}
} // namespace

int main(int argc, char** argv)
{
    g_versionFW = {kVersion, "modemd"};
    CThread::m_Logger.Init(g_versionFW.szAppName);
    try {
        CModemDaemon daemon(argc, argv);
        if (daemon.bIsParamArguments(argc, argv, "--version")) {
            std::printf("%s %d.%02d\n", g_versionFW.szAppName, kVersion / 100, kVersion % 100);
            return EXIT_SUCCESS;
        }
        const int iStatus = daemon.iRun();
        if (iStatus != EXIT_SUCCESS) {
            std::fputs("modemd: not started, the system log says why\n", stderr);
        }
        return iStatus;
    } catch (const char* szWhat) { // it could not become a daemon
        return iFail(szWhat);
    } catch (const std::exception& error) {
        return iFail(error.what());
    }
}
