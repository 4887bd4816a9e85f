#include "CPingStatistics.h"

#include "CPrinter.h"
#include "DataText.h"

#include <algorithm>
#include <cmath>

namespace QuorCtl
{
void CPingStatistics::AddAnswer(double dMs)
{
    m_dMinMs = m_iReceived == 0 ? dMs : std::min(m_dMinMs, dMs);
    m_dMaxMs = std::max(m_dMaxMs, dMs);
    ++m_iReceived;
    const double dFromOldMean = dMs - m_dMean;
    m_dMean += dFromOldMean / static_cast<double>(m_iReceived);
    m_dSquares += dFromOldMean * (dMs - m_dMean);
}

double CPingStatistics::dLossPercent() const
{
    return m_iSent == 0
               ? 0
               : 100 * (1 - static_cast<double>(m_iReceived) / static_cast<double>(m_iSent));
}

double CPingStatistics::dAverageMs() const
{
    return m_dMean;
}

double CPingStatistics::dDeviationMs() const
{
    return m_iReceived == 0 ? 0 : std::sqrt(m_dSquares / static_cast<double>(m_iReceived));
}

std::string CPingStatistics::szSummary() const
{
    std::string szText =
        szFormat("%lu sent, %lu received, %.0f%% loss\n", m_iSent, m_iReceived, dLossPercent());
    if (m_iReceived != 0) {
        szText += szFormat("rtt min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", m_dMinMs,
                           dAverageMs(), m_dMaxMs, dDeviationMs());
    }
    return szText;
}

Json::Value CPingStatistics::JsonSummary() const
{
    Json::Value json;
    json["sent"] = Json::UInt64(m_iSent);
    json["received"] = Json::UInt64(m_iReceived);
    json["loss_percent"] = dLossPercent();
    if (m_iReceived != 0) {
        json["min_ms"] = m_dMinMs;
        json["avg_ms"] = dAverageMs();
        json["max_ms"] = m_dMaxMs;
        json["mdev_ms"] = dDeviationMs();
    }
    return json;
}
} // namespace QuorCtl
