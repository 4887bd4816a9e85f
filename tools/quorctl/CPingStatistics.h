/// @file
/// @brief How many pings were answered, and how fast.
#pragma once

#include <json/value.h>
#include <string>

namespace QuorCtl
{
/// @brief Counts pings and sums their round trips up, in constant memory.
class CPingStatistics
{
public:
    void AddSent() { ++m_iSent; }

    /// @param dMs  Round-trip time in ms.
    void AddAnswer(double dMs);

    unsigned long iSent() const { return m_iSent; }
    unsigned long iReceived() const { return m_iReceived; }

    double dLossPercent() const; ///< 0 to 100; 0 before the first ping.
    double dAverageMs() const;   ///< 0 without an answer, as the next one.
    double dDeviationMs() const; ///< Standard deviation of the round trips, called mdev by ping(8).

    /// @return As ping(8): sent, received and loss, and with an answer a line of times.
    std::string szSummary() const;
    Json::Value JsonSummary() const;

private:
    unsigned long m_iSent = 0;
    unsigned long m_iReceived = 0;
    double m_dMinMs = 0;
    double m_dMaxMs = 0;
    double m_dMean = 0;
    double m_dSquares = 0; ///< Sum of squared distances from the mean, after Welford.
};
} // namespace QuorCtl
