// Which threads and levels the words of a command line mean.
#include "CLogAssignments.h"

#include "Failure.h"
#include "LogLevels.h"

#include <gtest/gtest.h>

using namespace QuorCtl;

namespace
{
using Levels = std::map<int, int>;

class LogAssignments : public ::testing::Test
{
protected:
    Levels Resolve(const std::vector<std::string>& texts) const
    {
        return CLogAssignments(texts).Resolve(m_threads);
    }

    std::string szComplaint(const std::vector<std::string>& texts) const
    {
        try {
            Resolve(texts);
        } catch (const CUsageError& error) {
            return error.what();
        }
        return "";
    }

    std::vector<LogThread> m_threads = {{0, "modem_rx", 3}, {1, "modem_tx", 3}, {2, "0", 3},
                                        {3, "a=b", 3},      {4, "twin", 3},     {5, "twin", 3},
                                        {6, "m*", 3}};
};

TEST_F(LogAssignments, MeanAThreadByItsLabel)
{
    EXPECT_EQ((Levels{{1, 7}}), Resolve({"modem_tx=7"}));
    EXPECT_EQ((Levels{{4, 0}, {5, 0}}), Resolve({"twin=emerg"}));
}

TEST_F(LogAssignments, MeanAThreadByItsIndexUnlessALabelReadsSo)
{
    EXPECT_EQ((Levels{{1, 5}}), Resolve({"1=notice"}));
    EXPECT_EQ((Levels{{2, 5}}), Resolve({"0=notice"}));
}

TEST_F(LogAssignments, MeanThreadsByAPatternUnlessALabelReadsSo)
{
    EXPECT_EQ((Levels{{0, 6}, {1, 6}}), Resolve({"modem_?x=info"}));
    EXPECT_EQ((Levels{{6, 6}}), Resolve({"m*=info"}));
    EXPECT_EQ(7U, Resolve({"*=info"}).size());
    EXPECT_EQ((Levels{{4, 1}, {5, 1}}), Resolve({"[t]win=alert"}));
}

TEST_F(LogAssignments, AreSplitAtTheLastEqualsSign)
{
    EXPECT_EQ((Levels{{3, 2}}), Resolve({"a=b=crit"}));
}

TEST_F(LogAssignments, OverrideOneAnotherInTheirOrder)
{
    const Levels levels = Resolve({"*=err", "twin=debug", "5=info"});
    EXPECT_EQ(3, levels.at(0));
    EXPECT_EQ(7, levels.at(4));
    EXPECT_EQ(6, levels.at(5));
}

TEST_F(LogAssignments, AreRefusedWithAThreadThatIsNotThere)
{
    EXPECT_EQ("log set: the daemon has no thread 'gpio'", szComplaint({"twin=3", "gpio=3"}));
    EXPECT_EQ("log set: the daemon has no thread '7'", szComplaint({"7=3"}));
    EXPECT_EQ("log set: the daemon has no thread '\\x1b[0m'", szComplaint({"\x1b[0m=3"}));
}

TEST_F(LogAssignments, AreRefusedWithALevelThatIsNone)
{
    for (const char* pszText : {"twin=8", "twin=-1", "twin=", "twin=DEBUG", "twin=3x"}) {
        EXPECT_NE(std::string::npos, szComplaint({pszText}).find("is no level: 0 to 7 or emerg"))
            << pszText;
    }
}

TEST_F(LogAssignments, AreRefusedWithoutAThreadOrAnEqualsSign)
{
    EXPECT_EQ("log set: 'twin' is not THREAD=LEVEL", szComplaint({"twin"}));
    EXPECT_EQ("log set: '=3' is not THREAD=LEVEL", szComplaint({"=3"}));
    EXPECT_EQ("log set: '' is not THREAD=LEVEL", szComplaint({""}));
}

TEST_F(LogAssignments, AreRefusedForAThreadThatAByteDoesNotReach)
{
    m_threads.assign(257, LogThread{0, "crowd", 3});
    for (size_t i = 0; i < m_threads.size(); ++i) {
        m_threads[i].iIndex = static_cast<int>(i);
    }
    EXPECT_EQ((Levels{{255, 1}}), Resolve({"255=1"}));
    EXPECT_EQ("log set: thread 256 is out of reach: the command has a byte for the index",
              szComplaint({"256=1"}));
}

TEST(ALogLevel, HasANumberAndAName)
{
    const char* const kNames[] = {"emerg",   "alert",  "crit", "err",
                                  "warning", "notice", "info", "debug"};
    for (int iLevel = 0; iLevel < 8; ++iLevel) {
        EXPECT_STREQ(kNames[iLevel], szLevelName(iLevel));
        EXPECT_EQ(iLevel, ParseLevel(kNames[iLevel]));
        EXPECT_EQ(iLevel, ParseLevel(std::to_string(iLevel)));
    }
    EXPECT_EQ("5 notice", szLevel(5));
    EXPECT_EQ("? unknown", szLevel(-1));
}
} // namespace
