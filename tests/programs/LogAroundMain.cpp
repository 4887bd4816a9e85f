/// Logs in each part of a program's life, from before main to after it. A test reads the syslog.

#include "libQuorCore/CThread.h"

#include <cstdlib>

using namespace QuorCore;

namespace
{
struct CStaticObject {
    CStaticObject()
    {
        QUORCORE_LOG(LOG_ERR, "before Init");
        CThread::m_Logger.Init("around-main");
        QUORCORE_LOG(LOG_ERR, "in a static constructor");
        std::atexit([] { QUORCORE_LOG(LOG_ERR, "in an exit handler"); });
    }
    ~CStaticObject() { QUORCORE_LOG(LOG_ERR, "in a static destructor"); }
};

// As early as a program can have one.
__attribute__((init_priority(101))) CStaticObject g_object;

__attribute__((destructor)) void LogAfterTheStaticObjects()
{
    QUORCORE_LOG(LOG_ERR, "after the static objects of the program");
}
} // namespace

int main()
{
    static int iLevel = LOG_DEBUG;
    CThread::m_Logger.SetLogConfigForThread("main", &iLevel);
    QUORCORE_LOG(LOG_DEBUG, "in main");
    return EXIT_SUCCESS;
}
