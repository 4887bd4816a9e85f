/// @file
/// @brief Makes the calling thread's log lines visible to a test.
#pragma once

#include "libQuorCore/CThread.h"

namespace TestSupport
{
/// @brief Registers the calling thread with the process's logger, at level 7, for a scope. The
///        syslog is open from then on: a test may count descriptors.
class CLogLevel
{
public:
    CLogLevel()
    {
        QuorCore::CThread::m_Logger.Init("test");
        QuorCore::CThread::m_Logger.SetLogConfigForThread("test", &m_iLevel);
        QUORCORE_LOG(LOG_DEBUG, "a test begins");
    }
    CLogLevel(const CLogLevel&) = delete;
    CLogLevel& operator=(const CLogLevel&) = delete;
    ~CLogLevel() { QuorCore::CThread::m_Logger.CancelLogIdForThread(); }

private:
    int m_iLevel = LOG_DEBUG;
};
} // namespace TestSupport
