#include "CDaemon.h"

#include "Settings.h"

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
    std::fprintf(stderr, "%s: not started: %s\n", g_versionFW.szAppName, szWhat);
    return EXIT_FAILURE;
}
} // namespace

CDaemon::CDaemon(int argc, char** argv) : CCoreApp(nullptr, argc, argv)
{
    m_FileConfig.SetFilename(szConfigOption(*this, argc, argv).c_str());
}

int CDaemon::iRun()
{
    m_bRun = true; // before the signals are ours: from there on a SIGTERM lowers it, for good
    if (iInitInstance() != 0) {
        return EXIT_FAILURE;
    }
    iInitCallback();
    const bool bGood = bWork();
    QUORCORE_LOG(LOG_NOTICE, "stopping");
    m_Logger.iGetLogLevel(&m_FileConfig); // while the threads are there to be asked
    Stop();
    if (bGood) {
        Save();
    }
    iExitInstance(); // stops children, saves the configuration
    return bGood ? EXIT_SUCCESS : EXIT_FAILURE;
}

// The library loads the configuration itself, but drops the privileges in the same call: who to
// become has to be known before, and a bad file is best told to the caller's terminal.
long CDaemon::iInitInstance()
{
    m_FileConfig.iLoad();
    return bReadSettings() ? CCoreApp::iInitInstance() : kBadSettings;
}

long CDaemon::iInitCallback()
{
    m_callbackManager.pAddCallback(EVT_CONFIG_SAVE,
                                   new CSlotCallback<CDaemon>(this, &CDaemon::OnConfigSave));
    return CCoreApp::iInitCallback();
}

// Each level is saved as it is stored.
void CDaemon::OnConfigSave(CMsg*)
{
    m_Logger.iGetLogLevel(&m_FileConfig);
    QUORCORE_LOG(LOG_NOTICE, "configuration saved");
}

int iRunMain(const char* szName, const std::function<int()>& run)
{
    g_versionFW.version = kVersion;
    std::snprintf(g_versionFW.szAppName, sizeof(g_versionFW.szAppName), "%s", szName);
    CThread::m_Logger.Init(szName);
    try {
        return run();
    } catch (const char* szWhat) { // it could not become a daemon
        return iFail(szWhat);
    } catch (const std::exception& error) {
        return iFail(error.what());
    }
}

bool bPrintVersion(CDaemon& daemon, int argc, char** argv)
{
    const bool bAsked = daemon.bIsParamArguments(argc, argv, "--version");
    if (bAsked) {
        std::printf("%s %d.%02d\n", g_versionFW.szAppName, kVersion / 100, kVersion % 100);
    }
    return bAsked;
}

int iRunDaemon(CDaemon& daemon, int argc, char** argv)
{
    if (bPrintVersion(daemon, argc, argv)) {
        return EXIT_SUCCESS;
    }
    const int iStatus = daemon.iRun();
    if (iStatus != EXIT_SUCCESS) {
        std::fprintf(stderr, "%s: not started, the system log says why\n", g_versionFW.szAppName);
    }
    return iStatus;
}
