#include "libQuorCore/libQuorCore.h"

namespace QuorCore
{
// Built in this order before any other static object of the process, and destroyed after all of
// them: the others log and start children from their first line to their last.
__attribute__((init_priority(101))) CLogger CThread::m_Logger;
// The dispatcher's label too: log filters of the field know both by this one name. Meant.
__attribute__((init_priority(102)))
CProcessManager CCoreApp::m_ProcessManager(nullptr, "CCallbackManager");

versionFW_t g_versionFW;
} // namespace QuorCore
