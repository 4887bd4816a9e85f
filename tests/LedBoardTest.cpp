// CLed with real LEDs; tests/device/README.md.
#include "libQuorCore/CLed.h"

#include "support/CBoard.h"
#include "support/CDeadline.h"
#include "support/Files.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using clock_type = std::chrono::steady_clock;

/// A LED that the tests leave dark.
class ALedOnTheBoard : public ::testing::Test
{
protected:
    void SetUp() override { QUORCORE_NEEDS_A_BOARD(); }
    void TearDown() override
    {
        if (CBoard::szWhyNot().empty()) {
            for (const std::string& szLed : {m_Board.szDirectLed(), m_Board.szGpioLed()}) {
                WriteFile(szLed + "trigger", "none");
                WriteFile(szLed + "brightness", "0");
            }
        }
    }

    /// @return The trigger of a LED: the kernel lists all and puts brackets around it.
    static std::string szTrigger(const std::string& szLed)
    {
        const std::string szAll = szReadFile(szLed + "trigger");
        const size_t begin = szAll.find('[') + 1;
        return szAll.substr(begin, szAll.find(']') - begin);
    }
    bool bAwaitLit(bool bLit)
    {
        return bAwait([&] { return m_Board.bDirectLedLit() == bLit; });
    }
    /// @return How long the direct LED stays as it is, which may be part of a phase, in ms.
    int iPhaseMs()
    {
        const bool bLit = m_Board.bDirectLedLit();
        const auto begin = clock_type::now();
        EXPECT_TRUE(bAwaitLit(!bLit));
        return static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - begin)
                .count());
    }

    CBoard m_Board;
};

TEST_F(ALedOnTheBoard, IsSwitched)
{
    CLed led(m_Board.szDirectLed());
    led.SetBrightness(200, true);
    EXPECT_EQ(1, led.iGetBrightness());
    EXPECT_EQ("1\n", szReadFile(m_Board.szDirectLed() + "brightness")); // not 200
    EXPECT_TRUE(bAwaitLit(true));
    led.SetBrightness(0, true);
    EXPECT_EQ(0, led.iGetBrightness());
    EXPECT_TRUE(bAwaitLit(false));
}

TEST_F(ALedOnTheBoard, IsToggled)
{
    CLed led(m_Board.szDirectLed());
    led.SetBrightness(0, true);
    led.ToggleBrightness();
    EXPECT_TRUE(bAwaitLit(true));
    led.ToggleBrightness();
    EXPECT_TRUE(bAwaitLit(false));
}

TEST_F(ALedOnTheBoard, TakesFullBrightnessForOn)
{
    CLed led(m_Board.szDirectLed());
    led.SetValue("trigger", "none");
    led.SetValue("brightness", 255);
    EXPECT_EQ(2, led.iGetBrightness());
    EXPECT_EQ(2, led.iGetValue("max_brightness"));
    led.ToggleBrightness();
    EXPECT_TRUE(bAwaitLit(false));
}

TEST_F(ALedOnTheBoard, KeepsItsTriggerUnlessItIsToldOtherwise)
{
    CLed led(m_Board.szDirectLed());
    led.SetBlinking(100, 100);
    led.SetBrightness(1, false);
    EXPECT_EQ("timer", szTrigger(m_Board.szDirectLed()));
    led.SetBrightness(1, true);
    EXPECT_EQ("none", szTrigger(m_Board.szDirectLed()));
    EXPECT_TRUE(bAwaitLit(true));
}

TEST_F(ALedOnTheBoard, Blinks)
{
    CLed led(m_Board.szDirectLed());
    led.SetBlinking(300, 900);
    EXPECT_EQ("timer", szTrigger(m_Board.szDirectLed()));
    EXPECT_EQ("300\n", szReadFile(m_Board.szDirectLed() + "delay_on"));
    EXPECT_EQ("900\n", szReadFile(m_Board.szDirectLed() + "delay_off"));
    int iOnMs = 0;
    int iOffMs = 0;
    const CDeadline deadline(kAwaitLimitMs);
    do { // a busy machine may look too late
        ASSERT_TRUE(bAwaitLit(false));
        ASSERT_TRUE(bAwaitLit(true)); // from here on whole phases
        iOnMs = iPhaseMs();
        iOffMs = iPhaseMs();
    } while ((iOnMs <= 100 || iOffMs <= 600 || iOnMs >= iOffMs) && !deadline.bPassed());
    EXPECT_LT(iOnMs, iOffMs);
    EXPECT_LT(100, iOnMs);
    EXPECT_LT(600, iOffMs);
}

TEST_F(ALedOnTheBoard, FlashesInBursts)
{
    CLed led(m_Board.szDirectLed());
    led.SetFlashing(2);
    EXPECT_EQ("pattern", szTrigger(m_Board.szDirectLed()));
    const std::string szPattern = "255 50 255 0 0 300 0 0 255 50 255 0 0 2000 0 0";
    EXPECT_EQ(szPattern, szReadFile(m_Board.szDirectLed() + "pattern").substr(0, szPattern.size()));
    // Its pauses: short ones are between the flashes of a burst, long ones between bursts. Until a
    // burst was seen whole: a busy machine may miss a flash.
    std::string szPauses;
    ASSERT_TRUE(bAwaitLit(true));
    const CDeadline deadline(kAwaitLimitMs);
    do {
        ASSERT_TRUE(bAwaitLit(false));
        const int iDarkMs = iPhaseMs();
        szPauses += iDarkMs < 1000 ? "short " : iDarkMs > 1500 ? "long " : "neither ";
    } while (szPauses.find("long short long") == std::string::npos && !deadline.bPassed());
    EXPECT_NE(std::string::npos, szPauses.find("long short long")) << szPauses;
}

TEST_F(ALedOnTheBoard, StopsFlashing)
{
    CLed led(m_Board.szDirectLed());
    led.SetFlashing(1);
    led.SetFlashing(0);
    EXPECT_EQ("none", szTrigger(m_Board.szDirectLed()));
    EXPECT_EQ(0, led.iGetBrightness());
    EXPECT_TRUE(bAwaitLit(false));
}

TEST_F(ALedOnTheBoard, OnALineIsSwitchedAndBlinks)
{
    CLed led(m_Board.szGpioLed());
    led.SetBrightness(1, true);
    EXPECT_EQ(1, led.iGetBrightness());
    led.SetBrightness(0, true);
    EXPECT_EQ(0, led.iGetBrightness());
    led.SetBlinking(60, 40);
    EXPECT_EQ("timer", szTrigger(m_Board.szGpioLed()));
    EXPECT_EQ("60\n", szReadFile(m_Board.szGpioLed() + "delay_on"));
}

// The pattern names a brightness of 255, which such a LED does not have; known, and the caller's to
// know, too.
TEST_F(ALedOnTheBoard, OnALineDoesNotFlash)
{
    CLed led(m_Board.szGpioLed());
    led.SetFlashing(2);
    EXPECT_EQ("pattern", szTrigger(m_Board.szGpioLed()));
    EXPECT_EQ(std::string::npos, szReadFile(m_Board.szGpioLed() + "pattern").find("255"));
}
} // namespace
