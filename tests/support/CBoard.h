/// @file
/// @brief The hardware of the board that a test runs on, if it is one.
#pragma once

#include "internal/CUniqueFd.h"

#include <memory>
#include <string>

namespace TestSupport
{
/**
 * @brief Reads from the environment what the board has, and talks to the outside of it.
 *
 * What the variables mean, and what the board has to offer, is in tests/device/README.md.
 *
 * Threads: one. Errors: std::runtime_error for what the board should have and has not.
 */
class CBoard
{
public:
    /// @return Why the test cannot run here: this is no board; empty on a board.
    static std::string szWhyNot();

    CBoard() = default;
    CBoard(const CBoard&) = delete;
    CBoard& operator=(const CBoard&) = delete;

    /// @param iLine  0 to 7. @return The kernel's number of that line of the chip.
    int iGpio(int iLine) const;

    std::string szDirectLed() const; ///< Directory of the LED that can be dimmed, with a "/".
    std::string szGpioLed() const;   ///< Directory of the LED on a line, with a "/".

    std::string szLoopSerial() const; ///< Device of the UART that can loop back.
    std::string szUsbSerial() const;  ///< Device of the USB adapter, while it is plugged in.

    void SetInput(int iLine, bool bHigh); ///< Sets the level of an input line from outside.
    bool bOutput(int iLine);              ///< @return The level of an output, seen from outside.
    bool bDirectLedLit();                 ///< @return Whether it is lit, seen from outside.

    /// Plugs the USB serial adapter in, or pulls it; the kernel notices a moment later. What is
    /// sent to it comes back.
    void PlugUsbSerial(bool bIn);

private:
    void Do(const std::string& szRequest);
    std::string szAsk(const std::string& szRequest);
    void Open();
    std::string szReadLine();

    QuorCore::CUniqueFd m_Outside; ///< Opened by the first request.
};
} // namespace TestSupport

/// Skips the test, saying why, where there is no board.
#define QUORCORE_NEEDS_A_BOARD()                                                                   \
    do {                                                                                           \
        const std::string szWhyNoBoard = ::TestSupport::CBoard::szWhyNot();                        \
        if (!szWhyNoBoard.empty()) {                                                               \
            GTEST_SKIP() << szWhyNoBoard;                                                          \
        }                                                                                          \
    } while (false)
