#include "internal/CDispatcherGate.h"

#include <sched.h>

namespace QuorCore
{
std::atomic<int> CDispatcherGate::s_iInside{0};
__thread int CDispatcherGate::t_iScopes __attribute__((tls_model("initial-exec"))) = 0;

void CDispatcherGate::Close(std::atomic<CSlotCallbackManager*>& pointer,
                            CSlotCallbackManager* pDispatcher)
{
    if (pointer.compare_exchange_strong(pDispatcher, nullptr)) {
        while (s_iInside != 0) {
            sched_yield();
        }
    }
}
} // namespace QuorCore
