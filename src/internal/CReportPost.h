/// @file
/// @brief Posts what a modem reports, but no more than the dispatcher can take.
#pragma once

#include "libQuorCore/CObject.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace QuorCore
{
/**
 * @brief Counts its messages that were not dispatched yet, and drops more when there are too many.
 *
 * The dispatcher's queue has no bound of its own, and a modem speaks whenever it wants. After a
 * drop the next is posted when half of them have gone, so that a flood comes in few gaps.
 *
 * Threads: bPost() and nDropped() one; the messages may go in any thread, also after this object.
 */
class CReportPost
{
public:
    /// @param szText  Payload, with its 0 byte. @return False: it was dropped.
    bool bPost(CObject& origin, uint32_t iEventId, const std::string& szText);

    /// @return Those dropped since one was posted.
    unsigned nDropped() const { return m_nDropped; }

private:
    using counter_t = std::shared_ptr<std::atomic<size_t>>;
    class CReport;

    const counter_t m_pWaiting = std::make_shared<std::atomic<size_t>>(0);
    unsigned m_nDropped = 0;
};
} // namespace QuorCore
