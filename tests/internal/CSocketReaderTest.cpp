// A connection that is read ahead.
#include "internal/CSocketReader.h"

#include "internal/CUniqueFd.h"

#include "support/CDeadline.h"
#include "support/CTcpPeer.h"
#include "support/Frames.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr size_t kMoreThanAhead = 10000;

class ASocketReader : public ::testing::Test
{
protected:
    void SetUp() override { Connect(); }

    void TearDown() override
    {
        m_pReader->Leave();
        m_Gate.Retire(m_Slot);
        close(m_iPeer);
    }

    /// Puts a new connection into the slot.
    void Connect()
    {
        int aPair[2] = {-1, -1};
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair));
        m_Slot = aPair[0];
        m_iPeer = aPair[1];
    }

    void Send(const std::string& szBytes)
    {
        ASSERT_EQ(static_cast<ssize_t>(szBytes.size()),
                  write(m_iPeer, szBytes.data(), szBytes.size()));
    }

    /// One call. @return What it gave.
    std::string szReceive(size_t nWanted)
    {
        std::string szBytes(nWanted, '?');
        const ssize_t lGiven =
            m_pReader->lReceive(reinterpret_cast<uint8_t*>(szBytes.data()), nWanted);
        szBytes.resize(lGiven > 0 ? static_cast<size_t>(lGiven) : 0);
        return szBytes;
    }

    int iUnreadInTheKernel() const
    {
        int iBytes = -1;
        ioctl(m_Slot, FIONREAD, &iBytes);
        return iBytes;
    }

    CFdGate m_Gate;
    std::atomic<int> m_Slot{-1};
    int m_iPeer = -1;
    const std::unique_ptr<CSocketReader> m_pReader = std::make_unique<CSocketReader>(m_Gate);
};
} // namespace

TEST_F(ASocketReader, GivesBytesInTheirOrderHoweverTheyAreAskedFor)
{
    ASSERT_EQ(m_Slot, m_pReader->iEnter(m_Slot));
    Send("abcdefgh");
    EXPECT_EQ("abc", szReceive(3));
    EXPECT_EQ(0, iUnreadInTheKernel()) << "a header and its data are to cost one call";
    EXPECT_EQ("d", szReceive(1));
    EXPECT_EQ("efgh", szReceive(100)) << "what is there, without a wait for more";
}

TEST_F(ASocketReader, ReadsMuchDataStraightToItsPlace)
{
    ASSERT_EQ(m_Slot, m_pReader->iEnter(m_Slot));
    std::string szSent;
    for (size_t i = 0; i < kMoreThanAhead; ++i) {
        szSent += static_cast<char>('a' + i % 26);
    }
    Send("header" + szSent);
    EXPECT_EQ("header", szReceive(6));
    std::string szReceived = szReceive(kMoreThanAhead);
    EXPECT_LT(szReceived.size(), kMoreThanAhead) << "first what was read ahead";
    szReceived += szReceive(kMoreThanAhead - szReceived.size());
    EXPECT_EQ(szSent, szReceived);
}

TEST_F(ASocketReader, TellsOfTheEndAfterTheLastByte)
{
    ASSERT_EQ(m_Slot, m_pReader->iEnter(m_Slot));
    Send("last");
    ASSERT_EQ(0, shutdown(m_iPeer, SHUT_WR));
    EXPECT_EQ("la", szReceive(2));
    EXPECT_EQ("st", szReceive(2));
    uint8_t cByte = 0;
    EXPECT_EQ(0, m_pReader->lReceive(&cByte, 1));
}

TEST_F(ASocketReader, TellsOfAnError)
{
    ASSERT_EQ(m_Slot, m_pReader->iEnter(m_Slot));
    ASSERT_EQ(0, fcntl(m_Slot, F_SETFL, O_NONBLOCK));
    uint8_t cByte = 0;
    EXPECT_EQ(-1, m_pReader->lReceive(&cByte, 1));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(ASocketReader, GivesTheNextConnectionNothingOfTheFormer)
{
    m_pReader->iEnter(m_Slot);
    Send("old and unread");
    EXPECT_EQ("old", szReceive(3));
    m_Gate.Retire(m_Slot);
    close(m_iPeer);
    Connect();
    ASSERT_EQ(m_Slot, m_pReader->iEnter(m_Slot));
    Send("new");
    EXPECT_EQ("new", szReceive(10));
}

TEST_F(ASocketReader, GivesNothingOfAConnectionThatItHasLeftThoughTheNumberIsTheSame)
{
    const int iFirst = m_pReader->iEnter(m_Slot);
    Send("old and unread");
    EXPECT_EQ("old", szReceive(3));
    m_pReader->Leave();
    m_Gate.Retire(m_Slot);
    close(m_iPeer);
    Connect();
    ASSERT_EQ(iFirst, m_pReader->iEnter(m_Slot)) << "the kernel gives the lowest free number";
    Send("new");
    EXPECT_EQ("new", szReceive(10));
}

TEST_F(ASocketReader, GivesNothingOfAConnectionWhoseNumberIsTakenWhileItIsBeingClosed)
{
    CTcpPeer peer;
    const CUniqueFd firstPeer(m_iPeer); // these stay open, so that all lower numbers stay taken
    const CUniqueFd first(m_Slot.exchange(iConnectTo(peer)));
    const CUniqueFd formerListener(dup(m_iPeer));
    const linger lingering = {1, kAwaitLimitMs / 1000}; // on, seconds: until the peer's reset
    ASSERT_EQ(0, setsockopt(m_Slot, SOL_SOCKET, SO_LINGER, &lingering, sizeof(lingering)));
    const std::string szFlood(1024 * 1024, 'x');
    while (send(m_Slot, szFlood.data(), szFlood.size(), MSG_DONTWAIT) > 0) { // nobody reads it
    }
    const int iFirst = m_pReader->iEnter(m_Slot);
    ASSERT_TRUE(peer.bSend("old and unread"));
    EXPECT_EQ("old", szReceive(3));
    m_Gate.Retire(m_Slot);
    auto entering = std::async(std::launch::async, [&] { return m_pReader->iEnter(m_Slot); });
    ASSERT_TRUE(bAwait([&] { return fcntl(iFirst, F_GETFD) == -1; })); // its close() lingers
    Connect();
    ASSERT_EQ(iFirst, m_Slot) << "the kernel gives the lowest free number";
    peer.Reset();
    ASSERT_EQ(iFirst, entering.get());
    Send("new");
    EXPECT_EQ("new", szReceive(10));
}

TEST_F(ASocketReader, StaysOnlyAsLongAsItsConnectionIsTheOneInUse)
{
    EXPECT_EQ(-1, m_pReader->iStay(m_Slot)) << "nothing is pinned yet";
    const int iFirst = m_pReader->iEnter(m_Slot);
    EXPECT_EQ(iFirst, m_pReader->iStay(m_Slot));
    m_Gate.Retire(m_Slot);
    EXPECT_EQ(-1, m_pReader->iStay(m_Slot));
    close(m_iPeer);
    Connect();
    EXPECT_EQ(-1, m_pReader->iStay(m_Slot));
}

TEST_F(ASocketReader, HasNothingToReadFromWithoutAConnection)
{
    m_Gate.Retire(m_Slot);
    EXPECT_EQ(-1, m_pReader->iEnter(m_Slot));
}
