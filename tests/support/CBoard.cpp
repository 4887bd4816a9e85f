#include "support/CBoard.h"

#include "support/CDeadline.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr int kAnswerLimitMs = 5000;

std::string szVariable(const char* szName)
{
    const char* const szValue = std::getenv(szName);
    if (szValue == nullptr || *szValue == '\0') {
        throw std::runtime_error(std::string("the board does not say its ") + szName);
    }
    return szValue;
}

std::string szLedDirectory(const char* szName)
{
    return "/sys/class/leds/" + szVariable(szName) + '/';
}

/// What is an answer to yes or no.
bool bLevel(const std::string& szRequest, const std::string& szAnswer)
{
    if (szAnswer != "0" && szAnswer != "1") {
        throw std::runtime_error("the board answered \"" + szRequest + "\" by: " + szAnswer);
    }
    return szAnswer == "1";
}

/// Takes what an earlier program has not read.
void Discard(int iFd)
{
    pollfd left{iFd, POLLIN, 0};
    char aLeft[256];
    while (poll(&left, 1, 0) == 1 && (left.revents & POLLIN) != 0 &&
           read(iFd, aLeft, sizeof(aLeft)) > 0) {
    }
}
} // namespace

std::string CBoard::szWhyNot()
{
    const char* const szDevice = std::getenv("QUORCORE_DEVICE");
    return szDevice != nullptr && std::string(szDevice) == "1"
               ? ""
               : "no board here: QUORCORE_DEVICE is not set, see tests/device/README.md";
}

int CBoard::iGpio(int iLine) const
{
    return std::stoi(szVariable("QUORCORE_GPIO_CHIP_BASE")) + iLine;
}

std::string CBoard::szDirectLed() const
{
    return szLedDirectory("QUORCORE_LED_DIRECT");
}

std::string CBoard::szGpioLed() const
{
    return szLedDirectory("QUORCORE_LED_GPIO");
}

std::string CBoard::szLoopSerial() const
{
    return szVariable("QUORCORE_SERIAL_LOOP");
}

std::string CBoard::szUsbSerial() const
{
    return szVariable("QUORCORE_SERIAL_USB");
}

void CBoard::SetInput(int iLine, bool bHigh)
{
    Do("set " + std::to_string(iLine) + (bHigh ? " 1" : " 0"));
}

void CBoard::PlugUsbSerial(bool bIn)
{
    Do(bIn ? "plug" : "unplug");
}

bool CBoard::bOutput(int iLine)
{
    const std::string szRequest = "get " + std::to_string(iLine);
    return bLevel(szRequest, szAsk(szRequest));
}

bool CBoard::bDirectLedLit()
{
    return bLevel("led", szAsk("led"));
}

void CBoard::Do(const std::string& szRequest)
{
    const std::string szAnswer = szAsk(szRequest);
    if (szAnswer != "ok") {
        throw std::runtime_error("the board answered \"" + szRequest + "\" by: " + szAnswer);
    }
}

std::string CBoard::szAsk(const std::string& szRequest)
{
    if (!m_Outside) {
        Open();
    }
    const std::string szLine = szRequest + '\n';
    if (write(m_Outside.iGet(), szLine.data(), szLine.size()) !=
        static_cast<ssize_t>(szLine.size())) {
        throw std::system_error(errno, std::generic_category(), "asking the board " + szRequest);
    }
    return szReadLine();
}

void CBoard::Open()
{
    const std::string szPath = szVariable("QUORCORE_BOARD_IO");
    QuorCore::CUniqueFd outside(open(szPath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!outside) {
        throw std::system_error(errno, std::generic_category(), szPath);
    }
    termios settings{};
    if (tcgetattr(outside.iGet(), &settings) == 0) {
        cfmakeraw(&settings);
        tcsetattr(outside.iGet(), TCSANOW, &settings);
    }
    Discard(outside.iGet());
    m_Outside = std::move(outside);
}

std::string CBoard::szReadLine()
{
    const CDeadline deadline(kAnswerLimitMs);
    std::string szLine;
    for (;;) {
        pollfd answer{m_Outside.iGet(), POLLIN, 0};
        char cNext = '\0';
        if (poll(&answer, 1, deadline.iRemainingMs()) != 1 || read(answer.fd, &cNext, 1) != 1) {
            throw std::runtime_error("the outside of the board does not answer");
        }
        if (cNext == '\n') {
            return szLine;
        }
        if (cNext != '\r') { // a terminal on its way may have added it
            szLine += cNext;
        }
    }
}
} // namespace TestSupport
