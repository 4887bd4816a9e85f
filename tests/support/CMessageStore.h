/// @file
/// @brief The dispatcher of a test: keeps the messages of the process instead of handing them on.
#pragma once

#include "libQuorCore/CSlotCallbackManager.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace TestSupport
{
/**
 * @brief Collects every message posted while it lives; its thread does not run.
 *
 * Threads: any.
 */
class CMessageStore : public QuorCore::CSlotCallbackManager
{
public:
    CMessageStore() : CSlotCallbackManager(nullptr, "store") { SetEventManager(this, nullptr); }

    /// @return Messages of @p pOrigin for @p iEventId that are queued.
    size_t Count(const QuorCore::CObject* pOrigin, uint32_t iEventId)
    {
        m_RecursiveLock.iLock();
        const auto isIt = [=](const QuorCore::CMsg* pMsg) {
            return pMsg->m_pOrigin == pOrigin && pMsg->m_iEventId == iEventId &&
                   pMsg->m_iParam1 == 0 && pMsg->m_iParam2 == 0 && pMsg->m_iDataSize == 0;
        };
        const auto lCount = std::count_if(m_listMsg.begin(), m_listMsg.end(), isIt);
        m_RecursiveLock.UnLock();
        return static_cast<size_t>(lCount);
    }
};
} // namespace TestSupport
