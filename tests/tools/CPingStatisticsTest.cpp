// Sums and percentiles of round trips.
#include "CPingStatistics.h"

#include "CLatencyHistogram.h"

#include <gtest/gtest.h>

using namespace QuorCtl;

namespace
{
TEST(PingStatistics, AreSummedUpAsPeopleKnowThem)
{
    CPingStatistics statistics;
    for (const double dMs : {2.0, 4.0, 4.0, 4.0, 5.0, 5.0, 7.0, 9.0}) {
        statistics.AddSent();
        statistics.AddAnswer(dMs);
    }
    statistics.AddSent();
    statistics.AddSent();
    EXPECT_EQ("10 sent, 8 received, 20% loss\n"
              "rtt min/avg/max/mdev = 2.000/5.000/9.000/2.000 ms\n",
              statistics.szSummary());
    EXPECT_DOUBLE_EQ(2.0, statistics.JsonSummary()["mdev_ms"].asDouble());
}

TEST(PingStatistics, TellNoTimesWithoutAnAnswer)
{
    CPingStatistics statistics;
    EXPECT_EQ("0 sent, 0 received, 0% loss\n", statistics.szSummary());
    statistics.AddSent();
    EXPECT_EQ("1 sent, 0 received, 100% loss\n", statistics.szSummary());
    EXPECT_FALSE(statistics.JsonSummary().isMember("min_ms"));
}

TEST(ALatencyHistogram, GivesPercentilesToASixtyFourth)
{
    CLatencyHistogram histogram;
    for (uint64_t i = 1; i <= 100000; ++i) {
        histogram.Add(i * 1000);
    }
    EXPECT_EQ(100000U, histogram.iCount());
    EXPECT_EQ(100000000U, histogram.iMaxNs());
    EXPECT_EQ(100000000U, histogram.iPercentileNs(100));
    EXPECT_NEAR(50000000.0, static_cast<double>(histogram.iPercentileNs(50)), 50000000.0 / 64);
    EXPECT_NEAR(99000000.0, static_cast<double>(histogram.iPercentileNs(99)), 99000000.0 / 64);
}

TEST(ALatencyHistogram, HasRoomForEveryNumber)
{
    CLatencyHistogram histogram;
    EXPECT_EQ(0U, histogram.iPercentileNs(50));
    for (int iShift = 0; iShift < 64; ++iShift) {
        CLatencyHistogram one;
        one.Add(uint64_t{1} << iShift);
        EXPECT_EQ(uint64_t{1} << iShift, one.iPercentileNs(50));
        histogram.Add(uint64_t{1} << iShift);
    }
    histogram.Add(UINT64_MAX);
    EXPECT_EQ(UINT64_MAX, histogram.iPercentileNs(100));
    histogram.Add(0);
    EXPECT_EQ(0U, histogram.iPercentileNs(0));
}
} // namespace
