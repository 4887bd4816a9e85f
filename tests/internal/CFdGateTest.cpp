// Descriptors that one thread gives up while others use them.
#include "internal/CFdGate.h"

#include "support/CDeadline.h"
#include "support/ProcessFacts.h"

#include <atomic>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
bool bIsOpen(int iFd)
{
    return fcntl(iFd, F_GETFD) != -1;
}

class AnFdGate : public ::testing::Test
{
protected:
    void SetUp() override
    {
        int aPair[2] = {-1, -1};
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair));
        m_iFd = aPair[0];
        m_iPeer = aPair[1];
        m_Slot = m_iFd;
    }

    void TearDown() override
    {
        m_Gate.Retire(m_Slot);
        close(m_iPeer);
    }

    CFdGate m_Gate;
    std::atomic<int> m_Slot{-1};
    int m_iFd = -1;
    int m_iPeer = -1;
};
} // namespace

TEST_F(AnFdGate, ClosesWhatNobodyUses)
{
    m_Gate.Retire(m_Slot);
    EXPECT_EQ(-1, m_Slot);
    EXPECT_FALSE(bIsOpen(m_iFd));
    m_Gate.Retire(m_Slot); // nothing left to do
}

TEST_F(AnFdGate, TellsThatThereIsNoDescriptor)
{
    std::atomic<int> empty{-1};
    const CFdPin pin(m_Gate, empty);
    EXPECT_EQ(-1, pin.iGet());
}

TEST_F(AnFdGate, KeepsADescriptorOpenForTheLastOfItsUsers)
{
    {
        const CFdPin outer(m_Gate, m_Slot);
        {
            const CFdPin inner(m_Gate, m_Slot);
            m_Gate.Retire(m_Slot);
            EXPECT_EQ(-1, m_Slot);
        }
        EXPECT_EQ(m_iFd, outer.iGet());
        EXPECT_TRUE(bIsOpen(m_iFd));
        const CFdPin late(m_Gate, m_Slot);
        EXPECT_EQ(-1, late.iGet());
    }
    EXPECT_FALSE(bIsOpen(m_iFd));
}

TEST_F(AnFdGate, LetsAPinMoveOnToTheNextDescriptor)
{
    int aPair[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair));
    CFdPin pin(m_Gate);
    EXPECT_EQ(-1, pin.iGet());
    EXPECT_EQ(m_iFd, pin.iEnter(m_Slot));
    EXPECT_EQ(m_iFd, pin.iEnter(m_Slot)); // counted once
    m_Gate.Retire(m_Slot);
    m_Slot = aPair[0];
    EXPECT_TRUE(bIsOpen(m_iFd));
    EXPECT_EQ(aPair[0], pin.iEnter(m_Slot));
    EXPECT_FALSE(bIsOpen(m_iFd));
    pin.Leave();
    m_Gate.Retire(m_Slot);
    EXPECT_FALSE(bIsOpen(aPair[0]));
    close(aPair[1]);
}

TEST_F(AnFdGate, EndsTheConnectionAtOnce)
{
    const CFdPin pin(m_Gate, m_Slot);
    m_Gate.Retire(m_Slot);
    char cByte = 0;
    EXPECT_EQ(0, recv(m_iPeer, &cByte, 1, MSG_DONTWAIT));
}

TEST_F(AnFdGate, WakesWhoIsReading)
{
    auto reading = std::async(std::launch::async, [this] {
        const CFdPin pin(m_Gate, m_Slot);
        char cByte = 0;
        return recv(pin.iGet(), &cByte, 1, 0);
    });
    m_Gate.Retire(m_Slot);
    EXPECT_GE(0, reading.get()); // -1 when it came too late to pin anything
}

TEST_F(AnFdGate, ClosesAnOldDescriptorThoughTheNewOneIsInUse)
{
    int aPair[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair));
    ASSERT_EQ(m_iFd, m_Gate.iEnter(m_Slot));
    m_Gate.Retire(m_Slot);
    m_Slot = aPair[0];
    const CFdPin current(m_Gate, m_Slot);
    EXPECT_TRUE(bIsOpen(m_iFd));
    m_Gate.Leave(m_iFd);
    EXPECT_FALSE(bIsOpen(m_iFd));
    EXPECT_TRUE(bIsOpen(aPair[0]));
    close(aPair[1]);
}

// Every thread that reads the wrong file finds another byte than its own socket's.
TEST_F(AnFdGate, NeverLetsAThreadMeetAnotherFile)
{
    const size_t before = nOpenDescriptors();
    std::atomic<bool> bGo{true};
    std::atomic<int> iStrangers{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            while (bGo) {
                const CFdPin pin(m_Gate, m_Slot);
                std::this_thread::yield(); // the moment to lose it; and a round waits for no turn
                char cByte = 's';
                if (pin.iGet() != -1 && recv(pin.iGet(), &cByte, 1, MSG_DONTWAIT) == 1) {
                    iStrangers += cByte != 's' ? 1 : 0;
                }
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        m_Gate.Retire(m_Slot);
        int aStranger[2] = {-1, -1}; // takes the number that has just become free
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aStranger));
        ASSERT_EQ(1, send(aStranger[1], "X", 1, 0));
        int aOwn[2] = {-1, -1};
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aOwn));
        ASSERT_EQ(1, send(aOwn[1], "s", 1, 0));
        m_Slot = aOwn[0];
        std::this_thread::yield();
        close(aStranger[0]);
        close(aStranger[1]);
        close(aOwn[1]);
    }
    bGo = false;
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(0, iStrangers);
    EXPECT_EQ(before, nOpenDescriptors());
}
