#include "internal/CDispatcherGate.h"

#include "internal/Clock.h"

namespace QuorCore
{
namespace
{
constexpr int64_t kLookAgainMs = 1; // whether everybody has left
} // namespace

std::atomic<int> CDispatcherGate::s_aInside[2]{};
std::atomic<unsigned> CDispatcherGate::s_iSide{0};
__thread int CDispatcherGate::t_iScopes __attribute__((tls_model("initial-exec"))) = 0;
__thread unsigned CDispatcherGate::t_iSide __attribute__((tls_model("initial-exec"))) = 0;

void CDispatcherGate::Close(std::atomic<CSlotCallbackManager*>& pointer,
                            CSlotCallbackManager* pDispatcher)
{
    if (pointer.compare_exchange_strong(pDispatcher, nullptr)) {
        AwaitLeaving();
    }
}

void CDispatcherGate::Replace(std::atomic<CSlotCallbackManager*>& pointer,
                              CSlotCallbackManager* pDispatcher)
{
    CSlotCallbackManager* const pFormer = pointer.exchange(pDispatcher);
    if (pFormer != nullptr && pFormer != pDispatcher) {
        AwaitLeaving();
    }
}

void CDispatcherGate::AwaitLeaving()
{
    for (int i = 0; i < 2; ++i) { // whoever came before is on one side or the other
        const unsigned iSide = s_iSide.fetch_xor(1);
        while (s_aInside[iSide] != 0) {
            SleepMs(kLookAgainMs); // a yield would starve threads of lower real-time priority
        }
    }
}
} // namespace QuorCore
