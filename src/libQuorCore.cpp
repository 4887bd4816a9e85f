#include "libQuorCore/libQuorCore.h"

namespace QuorCore
{
// Built before any other static object of the process and destroyed after all of them: the others
// log from their first line to their last.
__attribute__((init_priority(101))) CLogger CThread::m_Logger;

versionFW_t g_versionFW;
} // namespace QuorCore
