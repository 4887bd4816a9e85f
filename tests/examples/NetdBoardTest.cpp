// netd with a real line and a real LED; tests/device/README.md.
#include "examples/NetdProgram.h"
#include "support/CBoard.h"

#include <gtest/gtest.h>
#include <string>

using namespace TestSupport;

namespace
{
constexpr int kButton = 1;

TEST(ANetdOnTheBoard, ShowsTheButtonByTheLed)
{
    QUORCORE_NEEDS_A_BOARD();
    CBoard board;
    board.SetInput(kButton, false);
    const std::string szLed = board.szDirectLed();
    const std::string szName = szLed.substr(szLed.rfind('/', szLed.size() - 2) + 1);
    CNetdProgram netd;
    ASSERT_NO_FATAL_FAILURE(netd.Start("button_line=" + std::to_string(board.iGpio(kButton)) +
                                       "\nled=" + szName.substr(0, szName.size() - 1) + "\n"));
    ASSERT_TRUE(netd.bAwaitStatus(R"("button":"up","led":"dark")"));
    for (const bool bDown : {true, false, true, false}) {
        board.SetInput(kButton, bDown);
        EXPECT_TRUE(netd.bAwaitStatus(bDown ? R"("button":"down","led":"lit")"
                                            : R"("button":"up","led":"dark")"));
        EXPECT_TRUE(bAwait([&] { return board.bDirectLedLit() == bDown; })); // set a moment later
    }
    EXPECT_NE(std::string::npos, netd.szStatus().find(R"("presses":2)"));
    EXPECT_EQ(0, netd.iEnd());
    WriteFile("/sys/class/gpio/unexport", std::to_string(board.iGpio(kButton)));
}
} // namespace
