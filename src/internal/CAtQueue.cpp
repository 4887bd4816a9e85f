#include "internal/CAtQueue.h"

#include <algorithm>
#include <iterator>

namespace QuorCore
{
void CAtCall::SetState(eAtCall eState)
{
    m_eState = eState;
    m_Changed.iSetEvent();
}

void CAtCall::End(long lResult)
{
    if (m_eState != eAtCall::ENDED) {
        m_result.lResult = lResult;
        SetState(eAtCall::ENDED);
    }
}

void CAtQueue::Enter(CAtCall& call)
{
    auto place = m_calls.end();
    if (call.m_command.bUrgent) {
        const auto first = std::next(m_calls.begin(), m_bTaken ? 1 : 0);
        place = std::find_if(first, m_calls.end(),
                             [](const CAtCall* pCall) { return !pCall->m_command.bUrgent; });
    }
    m_calls.insert(place, &call);
    GiveTurn();
}

void CAtQueue::Leave(CAtCall& call)
{
    if (m_bTaken && m_calls.front() == &call) {
        m_bTaken = false;
    }
    m_calls.remove(&call);
    GiveTurn();
}

void CAtQueue::GiveTurn()
{
    if (m_bTaken || m_calls.empty()) {
        return;
    }
    m_bTaken = true;
    CAtCall& next = *m_calls.front();
    if (next.m_eState == eAtCall::WAITING) { // one that has ended meanwhile leaves by itself
        next.SetState(eAtCall::ITS_TURN);
    }
}
} // namespace QuorCore
