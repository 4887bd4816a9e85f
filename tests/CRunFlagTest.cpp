#include "libQuorCore/CRunFlag.h"

#include "support/CTestThread.h"

#include <gtest/gtest.h>
#include <type_traits>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class ARunFlag : public ::testing::Test
{
protected:
    CTestThread m_Thread; // whose flag is looked at
};

TEST_F(ARunFlag, IsUsedLikeABool)
{
    CRunFlag flag;
    EXPECT_FALSE(flag);
    EXPECT_TRUE(flag = true);
    EXPECT_TRUE(flag);
    EXPECT_FALSE(flag = false);
    EXPECT_FALSE(flag);
    flag = true; // no stop was asked for: it may go up again
    EXPECT_TRUE(flag);
}

TEST_F(ARunFlag, IsNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<CRunFlag>);
    EXPECT_FALSE(std::is_copy_assignable_v<CRunFlag>);
}

TEST_F(ARunFlag, StaysDownWhenAStopCameBeforeTheLoop)
{
    CDoor inInit;
    CDoor mayGoOn;
    bool bRaised = true;
    m_Thread.m_init = [&](CTestThread&) {
        inInit.Open();
        return mayGoOn.bPass() ? 0 : -1;
    };
    m_Thread.m_body = [&](CTestThread& self) {
        self.m_bRun = true;
        bRaised = self.m_bRun;
        return 0;
    };
    ASSERT_EQ(0, m_Thread.iCreateThread(false, 0));
    ASSERT_TRUE(inInit.bPass());
    m_Thread.iStop(false, false);
    mayGoOn.Open();
    m_Thread.iStop(true, false); // also waits for a thread that an earlier stop gave up
    EXPECT_FALSE(bRaised);
    EXPECT_FALSE(m_Thread.m_bRun);
}

TEST_F(ARunFlag, MayBeRaisedAgainByTheNextThread)
{
    ASSERT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
    m_Thread.iStop(true, false);
    EXPECT_FALSE(m_Thread.m_bRun);
    ASSERT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
    EXPECT_TRUE(m_Thread.m_bRun);
}

TEST_F(ARunFlag, MayBeRaisedWithoutAThread)
{
    m_Thread.iStop(true, false);
    m_Thread.m_bRun = true;
    EXPECT_TRUE(m_Thread.m_bRun);
    EXPECT_EQ(-1, m_Thread.iJoin()); // clears it, there is nobody to wait for
    EXPECT_FALSE(m_Thread.m_bRun);
    m_Thread.m_bRun = true;
    EXPECT_TRUE(m_Thread.m_bRun);
}

TEST_F(ARunFlag, EndsTheWaitForTheStartAlsoWhenItWasRaisedBeforehand)
{
    CDoor mayEnd;
    m_Thread.m_body = [&](CTestThread&) { return mayEnd.bPass() ? 0 : -1; };
    m_Thread.m_bRun = true;
    EXPECT_EQ(0, m_Thread.iCreateThread(true, kAwaitLimitMs));
    mayEnd.Open();
    m_Thread.iStop(true, false);
}
} // namespace
