// CGpio with the lines of a real chip; tests/device/README.md.
#include "libQuorCore/CGpio.h"

#include "support/CBoard.h"
#include "support/CDeadline.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CWorker.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/ProcessFacts.h"

#include "internal/CUniqueFd.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kInput = 1;
constexpr int kOutput = 2;
constexpr int kEither = 4; // an input that becomes an output
constexpr int kOwned = 6;  // the line of a LED, its driver's
constexpr int kNoEventMs = 200;

std::string szDirectory(int iNumber)
{
    return "/sys/class/gpio/" + num2name(iNumber) + '/';
}

/// Lines that are not exported at the beginning, and given back at the end.
class AGpioOnTheBoard : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QUORCORE_NEEDS_A_BOARD();
        GiveBack();
        m_Board.SetInput(kInput, false);
        m_Board.SetInput(kEither, false);
        CSyslogReceiver::Get().Clear();
    }
    void TearDown() override
    {
        if (CBoard::szWhyNot().empty()) {
            GiveBack();
        }
    }

    void GiveBack()
    {
        for (const int iLine : {kInput, kOutput, kEither}) {
            const int iNumber = m_Board.iGpio(iLine);
            if (std::filesystem::exists(szDirectory(iNumber))) {
                WriteFile(szDirectory(iNumber) + "active_low", "0");
                WriteFile(szDirectory(iNumber) + "edge", "none");
                WriteFile(szDirectory(iNumber) + "direction", "in");
                WriteFile("/sys/class/gpio/unexport", std::to_string(iNumber));
            }
        }
    }
    std::string szFile(int iLine, const char* szName)
    {
        return szReadFile(szDirectory(m_Board.iGpio(iLine)) + szName);
    }
    /// The kernel is told of a level a moment after it was set.
    bool bAwaitLevel(const CGpio& gpio, int iLevel)
    {
        return bAwait([&] { return gpio.getValue() == iLevel; });
    }

    CBoard m_Board;
    CLogLevel m_LogLevel;
};

TEST_F(AGpioOnTheBoard, ExportsALineAndGivesItBack)
{
    const int iNumber = m_Board.iGpio(kInput);
    CGpio gpio(iNumber);
    EXPECT_TRUE(gpio.bExport());
    EXPECT_TRUE(std::filesystem::exists(szDirectory(iNumber) + "value"));
    gpio.UnExport();
    EXPECT_FALSE(std::filesystem::exists(szDirectory(iNumber)));
}

TEST_F(AGpioOnTheBoard, IsSetUpWithoutAComplaint)
{
    const size_t nBefore = nOpenDescriptors();
    {
        CGpio gpio(m_Board.iGpio(kInput));
        gpio.init(CGpio::IN, false, CGpio::RISING);
        for (const auto& record : CSyslogReceiver::Get().Records()) {
            EXPECT_LT(LOG_ERR, record.iLevel) << record.szText;
        }
        EXPECT_TRUE(bAwaitLogged(LOG_NOTICE, "initialized"));
        EXPECT_EQ(nBefore + 4, nOpenDescriptors());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_TRUE(std::filesystem::exists(szDirectory(m_Board.iGpio(kInput)))); // stays exported
}

TEST_F(AGpioOnTheBoard, IsNotALineOutOfRange)
{
    CGpio gpio(2147483647);
    gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ(4U, CSyslogReceiver::Get().Count("could not open GPIO file"));
    EXPECT_EQ(CGpio::IN, gpio.getDirection());
    EXPECT_EQ(0, gpio.getValue());
}

TEST_F(AGpioOnTheBoard, IsNotALineThatSomethingElseOwns)
{
    const bool bHigh = m_Board.bOutput(kOwned);
    CGpio gpio(m_Board.iGpio(kOwned));
    EXPECT_TRUE(gpio.bExport()); // the kernel could be asked, and refused
    EXPECT_FALSE(std::filesystem::exists(szDirectory(m_Board.iGpio(kOwned))));
    gpio.init(CGpio::OUT, false, CGpio::NONE);
    EXPECT_EQ(4U, CSyslogReceiver::Get().Count("could not open GPIO file"));
    gpio.setValue(bHigh ? 0 : 1);
    EXPECT_EQ(bHigh, m_Board.bOutput(kOwned)); // still the owner's
}

TEST_F(AGpioOnTheBoard, ReadsTheLevelOfAnInput)
{
    CGpio gpio(m_Board.iGpio(kInput));
    gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ(CGpio::IN, gpio.getDirection());
    EXPECT_TRUE(bAwaitLevel(gpio, 0));
    m_Board.SetInput(kInput, true);
    EXPECT_TRUE(bAwaitLevel(gpio, 1));
    m_Board.SetInput(kInput, false);
    EXPECT_TRUE(bAwaitLevel(gpio, 0));
}

TEST_F(AGpioOnTheBoard, ReadsALevelInverted)
{
    CGpio gpio(m_Board.iGpio(kInput));
    gpio.init(CGpio::IN, true, CGpio::NONE);
    EXPECT_TRUE(gpio.getActiveLow());
    EXPECT_TRUE(bAwaitLevel(gpio, 1));
    m_Board.SetInput(kInput, true);
    EXPECT_TRUE(bAwaitLevel(gpio, 0));
    gpio.setActiveLow(false);
    EXPECT_FALSE(gpio.getActiveLow());
    EXPECT_EQ(1, gpio.getValue());
}

TEST_F(AGpioOnTheBoard, DrivesAnOutput)
{
    CGpio gpio(m_Board.iGpio(kOutput));
    gpio.init(CGpio::OUT, false, CGpio::NONE);
    EXPECT_EQ("out\n", szFile(kOutput, "direction"));
    EXPECT_FALSE(m_Board.bOutput(kOutput));
    gpio.setValue(1);
    EXPECT_TRUE(m_Board.bOutput(kOutput));
    gpio = false;
    EXPECT_FALSE(m_Board.bOutput(kOutput));
    gpio.toggleValue();
    EXPECT_TRUE(m_Board.bOutput(kOutput));
    gpio.toggleValue();
    EXPECT_FALSE(m_Board.bOutput(kOutput));
    gpio = 1;
    EXPECT_TRUE(m_Board.bOutput(kOutput));
    EXPECT_EQ(1, gpio.getValue());
}

TEST_F(AGpioOnTheBoard, DrivesAnOutputInverted)
{
    CGpio gpio(m_Board.iGpio(kOutput));
    gpio.init(CGpio::OUT, true, CGpio::NONE);
    gpio.setValue(1);
    EXPECT_FALSE(m_Board.bOutput(kOutput));
    gpio.setValue(0);
    EXPECT_TRUE(m_Board.bOutput(kOutput));
}

TEST_F(AGpioOnTheBoard, BeginsAsAnOutputWithItsLevel)
{
    CGpio gpio(m_Board.iGpio(kOutput));
    gpio.init(CGpio::HIGH, false, CGpio::NONE);
    EXPECT_TRUE(m_Board.bOutput(kOutput));
    EXPECT_EQ(CGpio::OUT, gpio.getDirection()); // what the kernel calls it
    gpio.init(CGpio::LOW, false, CGpio::NONE);
    EXPECT_FALSE(m_Board.bOutput(kOutput));
    EXPECT_EQ(CGpio::OUT, gpio.getDirection());
}

TEST_F(AGpioOnTheBoard, TurnsAnInputIntoAnOutput)
{
    CGpio gpio(m_Board.iGpio(kEither));
    gpio.init(CGpio::IN, false, CGpio::NONE);
    gpio.setValue(1);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("is open for reading only"));
    gpio.setDirection(CGpio::OUT, 1);
    EXPECT_EQ(CGpio::OUT, gpio.getDirection());
    EXPECT_TRUE(m_Board.bOutput(kEither));
}

TEST_F(AGpioOnTheBoard, StaysAnOutputWhenItIsSetUpAsAnInput)
{
    CGpio gpio(m_Board.iGpio(kOutput));
    gpio.init(CGpio::OUT, false, CGpio::NONE);
    gpio.init(CGpio::IN, false, CGpio::NONE);
    EXPECT_EQ("out\n", szFile(kOutput, "direction"));
}

TEST_F(AGpioOnTheBoard, TakesAnEdgeAsAnInputOnly)
{
    CGpio input(m_Board.iGpio(kInput));
    input.init(CGpio::IN, false, CGpio::NONE);
    for (const CGpio::EEdge edge : {CGpio::RISING, CGpio::FALLING, CGpio::BOTH, CGpio::NONE}) {
        input.setEdge(edge);
        EXPECT_EQ(edge, input.getEdge());
    }
    CGpio output(m_Board.iGpio(kOutput));
    output.init(CGpio::OUT, false, CGpio::NONE);
    output.setEdge(CGpio::RISING);
    EXPECT_EQ(CGpio::NONE, output.getEdge());
    EXPECT_EQ(0U, CSyslogReceiver::Get().Count("could not write"));
}

TEST_F(AGpioOnTheBoard, SaysThatTheKernelRefusesAnEdgeOfAnOutput)
{
    CGpio gpio(m_Board.iGpio(kOutput));
    gpio.init(CGpio::OUT, false, CGpio::NONE);
    gpio.writeGpioFile<CGpio::EEdge>(CGpio::EDGE, CGpio::RISING);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("could not write GPIO"));
    EXPECT_EQ(CGpio::NONE, gpio.getEdge());
}

TEST_F(AGpioOnTheBoard, IsToldInOneLine)
{
    const std::string szNumber = std::to_string(m_Board.iGpio(kInput));
    CGpio gpio(m_Board.iGpio(kInput));
    gpio.init(CGpio::IN, true, CGpio::FALLING);
    EXPECT_EQ("CGpio " + szNumber + "(/sys/class/gpio/gpio" + szNumber +
                  "/) < in, 1, falling, a_lenabled >",
              gpio.toString());
}

/// An input whose rising edges are events.
class AnEdgeOnTheBoard : public AGpioOnTheBoard
{
protected:
    void SetUp() override
    {
        AGpioOnTheBoard::SetUp();
        if (CBoard::szWhyNot().empty()) {
            m_pGpio = std::make_unique<CGpio>(m_Board.iGpio(kInput));
            m_pGpio->init(CGpio::IN, false, CGpio::RISING);
            ASSERT_TRUE(bAwaitLevel(*m_pGpio, 0));
        }
    }
    /// Waits in another thread while this one sets the level.
    void WaitWhile(const std::function<void()>& step, int iLimitMs)
    {
        CWorker waiting;
        waiting.Start([&] {
            const CLogLevel logLevel;
            m_bResult = m_pGpio->bWait4Edge(iLimitMs, &m_iValue);
        });
        step();
        waiting.Finish();
    }

    std::unique_ptr<CGpio> m_pGpio;
    bool m_bResult = false;
    int m_iValue = 7;
};

TEST_F(AnEdgeOnTheBoard, IsWaitedFor)
{
    WaitWhile([&] { m_Board.SetInput(kInput, true); }, kAwaitLimitMs);
    EXPECT_TRUE(m_bResult);
    if (m_iValue != 7) { // else the level was there before the wait
        EXPECT_EQ(1, m_iValue);
        EXPECT_TRUE(
            bAwaitLogged(LOG_INFO, "POLLPRI | POLLIN interruption / the current value is 1"));
    }
}

TEST_F(AnEdgeOnTheBoard, IsNotThereWithoutAnEvent)
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_pGpio->bWait4Edge(kNoEventMs, &m_iValue));
    EXPECT_LE(std::chrono::milliseconds(kNoEventMs), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(7, m_iValue);
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "timeout happened"));
}

TEST_F(AnEdgeOnTheBoard, IsNotWaitedForWhenTheLineIsHigh)
{
    m_Board.SetInput(kInput, true);
    ASSERT_TRUE(bAwaitLevel(*m_pGpio, 1));
    EXPECT_TRUE(m_pGpio->bWait4Edge(-1, &m_iValue));
    EXPECT_EQ(7, m_iValue);
}

TEST_F(AnEdgeOnTheBoard, IsWaitedForInverted)
{
    m_pGpio->setActiveLow(true); // a line that goes down reads as one that goes up
    m_pGpio->setEdge(CGpio::BOTH);
    m_Board.SetInput(kInput, true);
    ASSERT_TRUE(bAwaitLevel(*m_pGpio, 0));
    WaitWhile([&] { m_Board.SetInput(kInput, false); }, kAwaitLimitMs);
    EXPECT_TRUE(m_bResult);
}

TEST_F(AnEdgeOnTheBoard, OfALineThatIsLowAgainGivesZero)
{
    m_pGpio->setEdge(CGpio::FALLING);
    const auto pulse = [&] {
        m_Board.SetInput(kInput, true);
        m_Board.SetInput(kInput, false);
    };
    const CDeadline deadline(kAwaitLimitMs);
    do { // a pulse that comes before the wait is not seen by it, or ends it high
        WaitWhile(pulse, kNoEventMs);
    } while (m_iValue != 0 && !deadline.bPassed());
    EXPECT_EQ(0, m_iValue);
    EXPECT_FALSE(m_bResult);
}

TEST_F(AnEdgeOnTheBoard, IsSeenByALentDescriptor)
{
    const CUniqueFd value(m_pGpio->getFd(CGpio::VALUE));
    char aText[8] = "";
    ASSERT_LT(0, pread(value.iGet(), aText, sizeof(aText), 0)); // what was before is no news
    m_Board.SetInput(kInput, true);
    pollfd edge{value.iGet(), POLLPRI, 0};
    EXPECT_EQ(1, poll(&edge, 1, kAwaitLimitMs));
    EXPECT_NE(0, edge.revents & POLLPRI);
}
} // namespace
