// What only real serial hardware shows: a UART in its loop-back mode, which joins its outputs to
// its inputs (RTS to CTS, DTR to DSR, OUT1 to RI, OUT2 to DCD), and a USB adapter that is pulled
// and plugged in again.
#include "libQuorCore/CThreadSerial.h"

#include "internal/CUniqueFd.h"
#include "support/CBoard.h"
#include "support/CChild.h"
#include "support/CMessageStore.h"
#include "support/CTestSerial.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr int kLoop = 0x8000; // TIOCM_LOOP of asm/termios.h, which termios.h does not let in
constexpr int kOut1 = 0x2000; // TIOCM_OUT1
constexpr int kOut2 = 0x4000; // TIOCM_OUT2
constexpr uid_t kNobody = 65534;

bool bExists(const std::string& szNode)
{
    struct stat status = {};
    return stat(szNode.c_str(), &status) == 0;
}

termios SettingsOf(int iFd)
{
    termios settings{};
    EXPECT_EQ(0, tcgetattr(iFd, &settings));
    return settings;
}

class ASerialBoard : public ::testing::Test
{
protected:
    void SetUp() override { QUORCORE_NEEDS_A_BOARD(); }
    void TearDown() override { m_Port.iStop(true, false); }

    void Start(const std::string& szDevice)
    {
        m_Port.Configure(0, 1000, szDevice.c_str());
        ASSERT_EQ(0, m_Port.iCreateThread(true, kStartLimitMs));
    }

    long lWrite(std::string szText)
    {
        return m_Port.iWrite(reinterpret_cast<uint8_t*>(szText.data()),
                             static_cast<long>(szText.size()));
    }

    bool bAwaitReceived(const std::string& szText)
    {
        return bAwait([&] {
            std::string szAll;
            for (const std::string& szChunk : m_Port.Chunks()) {
                szAll += szChunk;
            }
            return szAll.find(szText) != std::string::npos;
        });
    }

    CMessageStore m_Store;
    CBoard m_Board;
    CChunkPort m_Port;
};

/// The UART, open, with its outputs joined to its inputs.
class ALoopedUart : public ASerialBoard
{
protected:
    void SetUp() override
    {
        QUORCORE_NEEDS_A_BOARD();
        Start(m_Board.szLoopSerial());
        ASSERT_TRUE(m_Port.bAwaitOpen());
        ASSERT_EQ(0, m_Port.iSetPortSignal(kLoop, true));
        ASSERT_EQ(0, m_Port.iSetPortSignal(TIOCM_DTR | TIOCM_RTS | kOut1 | kOut2, false));
        ASSERT_EQ("", szRaised());
    }
    void TearDown() override
    {
        m_Port.iSetPortSignal(kLoop, false);
        ASerialBoard::TearDown();
    }

    /// The inputs that are up.
    std::string szRaised()
    {
        std::string szNames;
        szNames += m_Port.iGetCTS() != 0 ? "CTS " : "";
        szNames += m_Port.iGetDSR() != 0 ? "DSR " : "";
        szNames += m_Port.iGetRNG() != 0 ? "RNG " : "";
        szNames += m_Port.iGetDCD() != 0 ? "DCD " : "";
        return szNames;
    }
};

/// An adapter that is plugged in, with its peer echoing.
class AUsbAdapter : public ASerialBoard
{
protected:
    void SetUp() override
    {
        QUORCORE_NEEDS_A_BOARD();
        m_szNode = m_Board.szUsbSerial();
        m_Board.PlugUsbSerial(true);
        ASSERT_TRUE(bAwait([this] { return bExists(m_szNode); }));
    }
    void TearDown() override
    {
        ASerialBoard::TearDown();
        if (!m_szNode.empty()) {
            Pull();
        }
    }

    void Pull()
    {
        m_Board.PlugUsbSerial(false);
        ASSERT_TRUE(bAwait([this] { return !bExists(m_szNode); }));
    }

    size_t nConnections() { return m_Store.Count(&m_Port, EVT_COM_CONNECTED); }

    std::string m_szNode;
};
} // namespace

TEST_F(ASerialBoard, OpensAUartRawWithEightBitsAndNoFlowControl)
{
    Start(m_Board.szLoopSerial());
    ASSERT_TRUE(m_Port.bAwaitOpen());
    const termios settings = SettingsOf(m_Port.m_hTTY);
    EXPECT_EQ(CS8 | CREAD | CLOCAL,
              static_cast<int>(settings.c_cflag &
                               (CSIZE | CREAD | CLOCAL | CSTOPB | PARENB | PARODD | CRTSCTS)));
    EXPECT_EQ(0U, settings.c_iflag &
                      (IGNBRK | BRKINT | IGNPAR | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON));
    EXPECT_EQ(0U, settings.c_oflag & OPOST);
    EXPECT_EQ(0U, settings.c_lflag & (ISIG | ICANON | ECHO | ECHONL | IEXTEN));
    EXPECT_EQ(0, settings.c_cc[VMIN]);
    EXPECT_EQ(1, settings.c_cc[VTIME]);
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetispeed(&settings));
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&settings));
    EXPECT_EQ(0, fcntl(m_Port.m_hTTY, F_GETFL) & O_NONBLOCK);
}

TEST_F(ASerialBoard, HasAUartForItselfAlone)
{
    const std::string szDevice = m_Board.szLoopSerial();
    ASSERT_EQ(0, chmod(szDevice.c_str(), 0666));
    const auto iOpenAsNobody = [&] {
        if (setuid(kNobody) != 0) { // root is exempt: ioctl_tty(2), TIOCEXCL
            return -1;
        }
        const CUniqueFd fd(open(szDevice.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        return fd ? 0 : errno;
    };
    EXPECT_EQ(0, RunInChild(iOpenAsNobody).iExitCode);
    m_Port.Configure(0, 1000, szDevice.c_str());
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(EBUSY, RunInChild(iOpenAsNobody).iExitCode);
    m_Port.Close();
    EXPECT_EQ(0, RunInChild(iOpenAsNobody).iExitCode);
}

TEST_F(ASerialBoard, OpensAUartAnewWithANewSpeed)
{
    Start(m_Board.szLoopSerial());
    ASSERT_TRUE(m_Port.bAwaitOpen());
    EXPECT_EQ(-1, m_Port.iSetSpeed(B9600)) << "it has that";
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    EXPECT_EQ(0, m_Port.iSetSpeed(B115200));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    const termios settings = SettingsOf(m_Port.m_hTTY);
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetispeed(&settings));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&settings));
}

TEST_F(ALoopedUart, TellsEachOfItsModemSignals)
{
    EXPECT_EQ(0, m_Port.iSetRTS(true));
    EXPECT_EQ("CTS ", szRaised());
    EXPECT_EQ(1, m_Port.iGetRTS());
    EXPECT_EQ(0, m_Port.iSetRTS(false));
    EXPECT_EQ(0, m_Port.iSetDTR(true));
    EXPECT_EQ("DSR ", szRaised());
    EXPECT_EQ(1, m_Port.iGetDTR());
    EXPECT_EQ(0, m_Port.iSetDTR(false));
    EXPECT_EQ(0, m_Port.iSetPortSignal(kOut1, true));
    EXPECT_EQ("RNG ", szRaised());
    EXPECT_EQ(0, m_Port.iSetPortSignal(kOut1, false));
    EXPECT_EQ(0, m_Port.iSetPortSignal(kOut2, true));
    EXPECT_EQ("DCD ", szRaised());
    EXPECT_EQ(0, m_Port.iSetPortSignal(kOut2, false));
    EXPECT_EQ("", szRaised());
}

TEST_F(ALoopedUart, RaisesAndLowersTwoSignalsAtOnceAndLeavesTheOthers)
{
    EXPECT_EQ(0, m_Port.iSetPortSignal(kOut2, true));
    EXPECT_EQ(0, m_Port.iGetRTS_DTR());
    EXPECT_EQ(0, m_Port.iSetRTS_DTR(true));
    EXPECT_EQ("CTS DSR DCD ", szRaised());
    EXPECT_EQ(0, m_Port.iSetRTS(false));
    EXPECT_EQ(1, m_Port.iGetRTS_DTR()) << "either";
    EXPECT_EQ("DSR DCD ", szRaised());
    EXPECT_EQ(0, m_Port.iSetRTS_DTR(false));
    EXPECT_EQ("DCD ", szRaised());
}

TEST_F(ALoopedUart, ReceivesEveryByteAsItWasSent)
{
    std::string szBytes;
    for (int i = 0; i < 256; ++i) {
        szBytes += static_cast<char>(i);
    }
    EXPECT_EQ(0, lWrite(szBytes));
    EXPECT_TRUE(bAwaitReceived(szBytes));
}

TEST_F(AUsbAdapter, ReadsAsSilenceWhenItIsGone)
{
    const CUniqueFd fd(open(m_szNode.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(fd);
    termios settings = SettingsOf(fd.iGet());
    cfmakeraw(&settings);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 1;
    ASSERT_EQ(0, tcsetattr(fd.iGet(), TCSANOW, &settings));
    Pull();
    char aByte[1];
    EXPECT_EQ(0, read(fd.iGet(), aByte, sizeof aByte)) << "as a line on which nobody speaks";
}

TEST_F(AUsbAdapter, IsServedWhenItComesAndGoes)
{
    Start(m_szNode);
    ASSERT_TRUE(bAwait([this] { return nConnections() == 1; }));
    EXPECT_EQ(0, lWrite("first"));
    EXPECT_TRUE(bAwaitReceived("first"));

    Pull();
    EXPECT_TRUE(bAwait([this] { return m_Port.m_hTTY == -1 && !m_Port.m_bConnected; }))
        << "the missing node tells it";
    EXPECT_EQ(0U, m_Store.Count(&m_Port, EVT_COM_DISCONNECTED));
    EXPECT_TRUE(m_Port.bIsRunning());

    m_Board.PlugUsbSerial(true);
    ASSERT_TRUE(bAwait([this] { return nConnections() == 2; }));
    EXPECT_EQ(0, lWrite("second"));
    EXPECT_TRUE(bAwaitReceived("second"));
}

TEST_F(AUsbAdapter, IsAwaitedUntilItIsPluggedIn)
{
    Pull();
    Start(m_szNode);
    EXPECT_EQ(-1, m_Port.m_hTTY);
    m_Board.PlugUsbSerial(true);
    EXPECT_TRUE(bAwait([this] { return nConnections() == 1; }));
}

TEST_F(AUsbAdapter, StopsAtOnceWhenItIsGone)
{
    Start(m_szNode);
    ASSERT_TRUE(m_Port.bAwaitOpen());
    Pull();
    const CDeadline limit(8000); // a stop that fails takes ten seconds
    EXPECT_EQ(0, m_Port.iStop(true, false));
    EXPECT_FALSE(limit.bPassed());
}
