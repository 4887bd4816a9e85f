#include "libQuorCore/libQuorCore.h"

#include "internal/CChildReaper.h"

namespace QuorCore
{
namespace
{
/// Ends the thread that reports to the process manager when exit(3) comes before ~CCoreApp.
struct CReaperEnd {
    ~CReaperEnd() { CChildReaper::Get().StopAtExit(); }
};
} // namespace

// Built in this order before any other static object of the process, and destroyed after all of
// them: the others log and start children from their first line to their last.
__attribute__((init_priority(101))) CLogger CThread::m_Logger;
// The dispatcher's label too: log filters of the field know both by this one name. Meant.
__attribute__((init_priority(102)))
CProcessManager CCoreApp::m_ProcessManager(nullptr, "CCallbackManager");
__attribute__((init_priority(103))) static CReaperEnd g_reaperEnd;

versionFW_t g_versionFW;
} // namespace QuorCore
