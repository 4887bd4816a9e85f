// The daemon of a device's front: a reset button on a GPIO line, a LED that shows it, and the
// network interface, set up by the configuration; its state is served to any number of peers.
#include "CNetd.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

using namespace QuorCore;

namespace
{
int iFail(const char* szWhat)
{
    QUORCORE_LOG(LOG_ERR, "not started: %s", szWhat);
    std::fprintf(stderr, "netd: not started: %s\n", szWhat);
    return EXIT_FAILURE;
}
} // namespace

int main(int argc, char** argv)
{
    g_versionFW = {100, "netd"};
    CThread::m_Logger.Init(g_versionFW.szAppName);
    try {
        const int iStatus = CNetd(argc, argv).iRun();
        if (iStatus != EXIT_SUCCESS) {
            std::fputs("netd: not started, the system log says why\n", stderr);
        }
        return iStatus;
    } catch (const char* szWhat) { // it could not become a daemon
        return iFail(szWhat);
    } catch (const std::exception& error) {
        return iFail(error.what());
    }
}
