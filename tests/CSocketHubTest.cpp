// The endpoint with many peers.
#include "libQuorCore/CSocketHub.h"

#include "support/CTcpPeer.h"
#include "support/CTestEndpoint.h"
#include "support/Frames.h"

#include <gtest/gtest.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr long kDataMax = 1000;

class ASocketHub : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Hub.Configure(0, kDataMax, "tools");
        ASSERT_EQ(0, m_Hub.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(bAwait([this] { return m_Hub.bGetConnected(); }));
    }

    CSocketHub m_Hub{nullptr, "hub"};
};
} // namespace

TEST_F(ASocketHub, AnswersSeveralPeers)
{
    CTcpPeer first;
    CTcpPeer second;
    ASSERT_TRUE(first.bConnect(m_Hub.iListeningPort()));
    ASSERT_TRUE(second.bConnect(m_Hub.iListeningPort()));
    ASSERT_TRUE(first.bSend(FrameBytes(CMD_COMMUN_PING, "one")));
    ASSERT_TRUE(second.bSend(FrameBytes(CMD_COMMUN_PING, "two")));
    EXPECT_EQ("two", ReceiveFrame(second).szData);
    EXPECT_EQ("one", ReceiveFrame(first).szData);
}
