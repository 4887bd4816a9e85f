#include "internal/CReportPost.h"

#include <utility>

namespace QuorCore
{
namespace
{
constexpr size_t kWaitingMax = 256;
constexpr long kNoDispatcher = -5; // as CObject::iPostMessage() has it
} // namespace

/// A message that is counted as long as it exists.
class CReportPost::CReport : public CMsg
{
public:
    CReport(counter_t pWaiting, CObject& origin, uint32_t iEventId, std::string szText)
        : CMsg(&origin, true, iEventId, 0, 0, szText.data(),
               static_cast<uint32_t>(szText.size() + 1), 0),
          m_pWaiting(std::move(pWaiting))
    {
        ++*m_pWaiting;
    }
    ~CReport() override { --*m_pWaiting; }

private:
    const counter_t m_pWaiting;
};

bool CReportPost::bPost(CObject& origin, uint32_t iEventId, const std::string& szText)
{
    if (*m_pWaiting >= (m_nDropped == 0 ? kWaitingMax : kWaitingMax / 2)) {
        ++m_nDropped;
        return false;
    }
    m_nDropped = 0;
    auto pReport = std::make_unique<CReport>(m_pWaiting, origin, iEventId, szText);
    if (origin.iPostMessage(pReport.get()) != kNoDispatcher) {
        pReport.release(); // the dispatcher's
    }
    return true;
}
} // namespace QuorCore
