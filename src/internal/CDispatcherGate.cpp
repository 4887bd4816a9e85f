#include "internal/CDispatcherGate.h"

#include <sched.h>

namespace QuorCore
{
namespace
{
std::atomic<int> g_iInside{0}; // threads within a scope
__thread int t_iScopes = 0;    // scopes of the calling thread, one within another
} // namespace

CDispatcherGate::CDispatcherGate(const std::atomic<CSlotCallbackManager*>& pDispatcher)
{
    if (t_iScopes++ == 0) {
        ++g_iInside;
    }
    m_pDispatcher = pDispatcher; // after the count: whoever closes either sees it or was seen
}

CDispatcherGate::~CDispatcherGate() noexcept(false)
{
    if (--t_iScopes == 0) {
        --g_iInside;
    }
}

void CDispatcherGate::Close(std::atomic<CSlotCallbackManager*>& pointer,
                            CSlotCallbackManager* pDispatcher)
{
    if (pointer.compare_exchange_strong(pDispatcher, nullptr)) {
        while (g_iInside != 0) {
            sched_yield();
        }
    }
}
} // namespace QuorCore
