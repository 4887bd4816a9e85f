// The thread of a serial port, on pseudo-terminals.
//
// What those cannot show, and only a real UART could: that the modem signals are raised, lowered
// and told (a pty has none; here are the failures), that bytes really travel at the speed that was
// set, that 8N1 without flow control is on the wire, and that closing does not wait for a line that
// takes nothing.
#include "libQuorCore/CThreadSerial.h"

#include "support/CChild.h"
#include "support/CForced.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CPty.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CTestSerial.h"
#include "support/CUntakeableLock.h"
#include "support/LogLines.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr long kForEver = -1;
constexpr long kAmpleMs = 20000;  // for an answer that comes
const milliseconds kAtOnce{8000}; // far below what it would take otherwise

termios SettingsOf(int iFd)
{
    termios settings{};
    EXPECT_EQ(0, tcgetattr(iFd, &settings));
    return settings;
}

uint8_t* pBytes(std::string& szText)
{
    return reinterpret_cast<uint8_t*>(szText.data());
}

template <class Port>
class ASerialTest : public ::testing::Test
{
protected:
    void SetUp() override { m_Port.Configure(0, 1000, m_Pty.szPath().c_str()); }

    void Start()
    {
        ASSERT_EQ(0, m_Port.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(m_Port.bAwaitOpen());
    }

    long lWrite(std::string szText)
    {
        return m_Port.iWrite(pBytes(szText), static_cast<long>(szText.size()));
    }

    /// Waits until so many bytes have come that nobody has read: they take a while through a pty.
    bool bAwaitUnread(int nBytes)
    {
        int iUnread = 0;
        return bAwait(
            [&] { return ioctl(m_Port.m_hTTY, FIONREAD, &iUnread) == 0 && iUnread == nBytes; });
    }

    /// @return How long stopping takes.
    steady_clock::duration TimeOfStop()
    {
        const auto begin = steady_clock::now();
        m_Port.iStop(true, false);
        return steady_clock::now() - begin;
    }

    const CLogLevel m_Level;
    CMessageStore m_Store;
    CPty m_Pty;
    Port m_Port;
};

using AThreadSerial = ASerialTest<CChunkPort>;

/// Tells when it is destroyed.
class CPassingPort : public CThreadSerial
{
public:
    explicit CPassingPort(std::atomic<bool>& bGone)
        : CThreadSerial(nullptr, "passing"), m_bGone(bGone)
    {
    }
    ~CPassingPort() override
    {
        EndThread();
        m_bGone = true;
    }

private:
    std::atomic<bool>& m_bGone;
};

/// Dwells on the loss of its link.
class CSlowPort : public COpenPort<CThreadSerial>
{
public:
    ~CSlowPort() override { EndThread(); }

    void OnLinkLost() override
    {
        CThreadSerial::OnLinkLost();
        if (m_OnLost) {
            m_OnLost();
        }
    }

    std::function<void()> m_OnLost; ///< Set before the thread starts.
};

/// Tells of each chunk before it is handed on.
class CTellingPort : public CTextPort
{
public:
    ~CTellingPort() override { EndThread(); }

    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override
    {
        const long lResult = CTextPort::iRead(pFrame, lSizeToRead, plNbrRcv);
        if (*plNbrRcv > 0) {
            m_OnChunk();
        }
        return lResult;
    }

    std::function<void()> m_OnChunk; ///< Set before the thread starts.
};

/// A modem whose node comes and goes, as that of a USB modem behind the name that udev gives it.
class AThreadSerialWithAPluggedModem : public AThreadSerial
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, symlink(m_Pty.szPath().c_str(), m_szName.c_str()));
        m_Port.Configure(0, 1000, m_szName.c_str());
        Start();
        ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    }

    void Plug(const CPty& pty)
    {
        unlink(m_szName.c_str());
        ASSERT_EQ(0, symlink(pty.szPath().c_str(), m_szName.c_str()));
    }

    const CTempDirectory m_Directory;
    const std::string m_szName = m_Directory.szPath("ttyModem");
};

/// The exchange of texts on a real terminal.
class AnExchangeOverASerialLine : public ASerialTest<CTextPort>
{
protected:
    void SetUp() override
    {
        ASerialTest::SetUp();
        Start();
    }

    std::future<long> Exchange(const char* pszRequest, const char* pszTag, long lTimeOut = kAmpleMs)
    {
        return std::async(std::launch::async, [this, pszRequest, pszTag, lTimeOut] {
            const CLogLevel level;
            return m_Port.iExchangeAT(pszRequest, pszTag, m_aAnswer.data(), m_lRoom, &m_lSize,
                                      lTimeOut);
        });
    }

    std::string szAnswer() const
    {
        return std::string(m_aAnswer.data(), static_cast<size_t>(std::min(m_lSize, m_lRoom)));
    }

    std::array<char, 256> m_aAnswer{};
    long m_lRoom = 256;
    long m_lSize = 77;
};
} // namespace

TEST_F(AThreadSerial, BeginsClosedAnd9600)
{
    EXPECT_EQ(-1, m_Port.m_hTTY);
    EXPECT_EQ(13u, m_Port.m_iSpeed);
    EXPECT_EQ(static_cast<uint32_t>(B9600), m_Port.m_iSpeed);
    EXPECT_EQ(100u, m_Port.m_iInterCharTimeout_ms);
    EXPECT_FALSE(m_Port.bGetConnected());
}

TEST_F(AThreadSerial, OpensItsDeviceRaw)
{
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_TRUE(m_Port.bGetConnected());
    const termios settings = SettingsOf(m_Port.m_hTTY);
    EXPECT_EQ(static_cast<tcflag_t>(CLOCAL | CREAD | CS8),
              settings.c_cflag & (CLOCAL | CREAD | CSTOPB | CRTSCTS | CSIZE | PARENB | PARODD));
    EXPECT_EQ(0u, settings.c_iflag &
                      (IGNBRK | BRKINT | IGNPAR | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON));
    EXPECT_EQ(0u, settings.c_oflag & OPOST);
    EXPECT_EQ(0u, settings.c_lflag & (ISIG | ICANON | ECHO | ECHONL | IEXTEN));
    EXPECT_EQ(0, settings.c_cc[VMIN]);
    EXPECT_EQ(1, settings.c_cc[VTIME]);
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetispeed(&settings));
    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&settings));
}

TEST_F(AThreadSerial, OverwritesEveryFlagThatItFinds)
{
    const CUniqueFd other(open(m_Pty.szPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings = SettingsOf(other.iGet());
    settings.c_cflag |= CSTOPB | CRTSCTS | PARODD;
    settings.c_iflag =
        IGNBRK | BRKINT | IGNPAR | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IUTF8;
    ASSERT_EQ(0, tcsetattr(other.iGet(), TCSANOW, &settings));
    ASSERT_EQ(0, m_Port.iConnect());
    settings = SettingsOf(other.iGet());
    EXPECT_EQ(0u, settings.c_cflag & (CSTOPB | CRTSCTS | PARENB | PARODD));
    EXPECT_EQ(static_cast<tcflag_t>(IXANY | IUTF8), settings.c_iflag); // as they were found
}

TEST_F(AThreadSerial, HasItsPortForItselfAloneAndBlocking)
{
    const CUniqueFd other(open(m_Pty.szPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(0, m_Port.iConnect());
    int iExclusive = 0;
    EXPECT_EQ(0, ioctl(other.iGet(), TIOCGEXCL, &iExclusive));
    EXPECT_NE(0, iExclusive);
    EXPECT_EQ(0, fcntl(m_Port.m_hTTY, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(m_Port.m_hTTY, F_GETFD) & FD_CLOEXEC);
    m_Port.Close();
    EXPECT_EQ(0, ioctl(other.iGet(), TIOCGEXCL, &iExclusive));
    EXPECT_EQ(0, iExclusive); // though somebody has it open still
}

TEST_F(AThreadSerial, DoesNotMakeItsPortTheControllingTerminal)
{
    CChild child([this] {
        setsid(); // has none, and would take the first terminal that it opens
        m_Port.iConnect();
        return m_Port.bGetConnected() && open("/dev/tty", O_RDWR | O_CLOEXEC) == -1 &&
                       errno == ENXIO
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, child.Await().iExitCode);
}

TEST_F(AThreadSerial, TellsThatItsDeviceCannotBeOpened)
{
    m_Port.Configure(0, 1000, "/dev/no-such-modem");
    EXPECT_EQ(-1, m_Port.iConnect());
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, " : Failed to open serial connection /dev/no-such-modem"));
    EXPECT_EQ(-1, m_Port.m_hTTY);
    EXPECT_FALSE(m_Port.bGetConnected());
}

TEST_F(AThreadSerial, RefusesWhatIsNoTerminal)
{
    m_Port.Configure(0, 1000, "/dev/null");
    const size_t nOpen = nOpenDescriptors();
    EXPECT_EQ(-1, m_Port.iConnect());
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "Failed to open serial connection /dev/null"));
    EXPECT_EQ(nOpen, nOpenDescriptors());
}

TEST_F(AThreadSerial, RefusesASpeedThatNoLineHas)
{
    m_Port.m_iSpeed = 0x7FFFFFFF;
    EXPECT_EQ(-1, m_Port.iConnect());
    EXPECT_FALSE(m_Port.bGetConnected());
}

TEST_F(AThreadSerial, DoesNotConnectWithoutItsLock)
{
    const CUntakeableLock refused(m_Port.m_RecursiveLock);
    EXPECT_EQ(-1, m_Port.iConnect());
}

TEST_F(AThreadSerial, ClosesAnOpenPortBeforeItConnectsAnew)
{
    ASSERT_EQ(0, m_Port.iConnect());
    const size_t nOpen = nOpenDescriptors();
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(nOpen, nOpenDescriptors());
    m_Port.Close();
    EXPECT_EQ(nOpen - 1, nOpenDescriptors());
}

TEST_F(AThreadSerial, ClosesItsPortWhenItGoes)
{
    const size_t nOpen = nOpenDescriptors();
    {
        CThreadSerial port(nullptr, "port");
        port.Configure(0, 10, m_Pty.szPath().c_str());
        ASSERT_EQ(0, port.iConnect());
        EXPECT_EQ(nOpen + 1, nOpenDescriptors());
    }
    EXPECT_EQ(nOpen, nOpenDescriptors());
}

TEST_F(AThreadSerial, WritesNothingWithoutAThread)
{
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(-1, lWrite("AT\r"));
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
    EXPECT_TRUE(m_Port.bGetConnected());
}

TEST_F(AThreadSerial, WritesAndTracesWhatItWrote)
{
    Start();
    EXPECT_EQ(0, lWrite("AT\r"));
    EXPECT_EQ("AT\r", m_Pty.szReceive(3));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, " : 41 54 0D "));
    EXPECT_EQ(0, m_Port.iWrite(nullptr, 0));
    EXPECT_EQ(0, m_Port.iWrite(nullptr, -5));
    EXPECT_EQ(-1, m_Port.iWrite(nullptr, 5));
}

TEST_F(AThreadSerial, WritesMoreThanTheLineTakesAtOnce)
{
    Start();
    std::string szText(100000, 'x');
    for (size_t i = 0; i < szText.size(); ++i) {
        szText[i] = static_cast<char>(i * 7 % 251);
    }
    auto writing = std::async(std::launch::async, [&] { return lWrite(szText); });
    EXPECT_EQ(szText, m_Pty.szReceive(szText.size()));
    EXPECT_EQ(0, writing.get());
}

TEST_F(AThreadSerial, ClosesAPortThatItCannotWriteTo)
{
    ASSERT_EQ(0, m_Port.iConnect());
    m_Port.m_bRun = true; // without the thread, which would notice the loss by itself
    m_Pty.Unplug();
    EXPECT_EQ(-1, lWrite("AT\r"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Input/output error"));
    EXPECT_EQ(-1, m_Port.m_hTTY);
    EXPECT_FALSE(m_Port.bGetConnected());
    EXPECT_EQ(-1, lWrite("AT\r"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Bad file descriptor"));
    m_Port.m_bRun = false;
}

TEST_F(AThreadSerial, IsStoppedThoughALineTakesNothing)
{
    Start();
    auto writing = std::async(std::launch::async, [&] { return lWrite(std::string(100000, 'x')); });
    int iWaiting = 0; // for the far end, until the line is full
    ASSERT_TRUE(bAwait([&] {
        const int iBefore = iWaiting;
        return ioctl(m_Pty.iFar(), FIONREAD, &iWaiting) == 0 && iWaiting > 0 &&
               iWaiting == iBefore && m_Port.iLock() == 0 && (m_Port.UnLock(), true);
    }));
    EXPECT_GT(kAtOnce, TimeOfStop());
    EXPECT_EQ(-1, writing.get());
}

TEST_F(AThreadSerial, ReadsUntilTheLineIsSilent)
{
    ASSERT_EQ(0, m_Port.iConnect());
    m_Port.m_bRun = true;
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(bAwaitUnread(3));
    std::array<uint8_t, 10> aBytes{};
    long lRead = 9;
    EXPECT_EQ(0, m_Port.iRead(aBytes.data(), 10, &lRead));
    EXPECT_EQ(3, lRead);
    EXPECT_EQ(0, m_Port.iRead(aBytes.data(), 10, &lRead));
    EXPECT_EQ(0, lRead);
    ASSERT_TRUE(m_Pty.bSend("0123456789"));
    ASSERT_TRUE(bAwaitUnread(10));
    EXPECT_LT(0, m_Port.iRead(aBytes.data(), 4, &lRead)); // full
    EXPECT_EQ(4, lRead);
    EXPECT_EQ(0, m_Port.iRead(aBytes.data(), 10, nullptr));
    EXPECT_EQ('9', aBytes[5]);
    m_Port.m_bRun = false;
    EXPECT_EQ(0, m_Port.iRead(aBytes.data(), 10, &lRead));
    EXPECT_EQ(0, lRead);
}

TEST_F(AThreadSerial, ReadsNothingFromAClosedPort)
{
    m_Port.m_bRun = true;
    std::array<uint8_t, 10> aBytes{};
    long lRead = 9;
    EXPECT_EQ(-1, m_Port.iRead(aBytes.data(), 10, &lRead));
    EXPECT_EQ(0, lRead);
    m_Port.m_bRun = false;
}

// A hung-up terminal gives 0 for ever, like a silent line.
TEST_F(AThreadSerial, TellsAModemThatHasGoneFromASilentOne)
{
    ASSERT_EQ(0, m_Port.iConnect());
    m_Port.m_bRun = true;
    m_Pty.Unplug();
    std::array<uint8_t, 10> aBytes{};
    long lRead = 9;
    EXPECT_EQ(-1, m_Port.iRead(aBytes.data(), 10, &lRead));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Input/output error"));
    m_Port.m_bRun = false;
}

TEST_F(AThreadSerial, LogsNothingWhileTheLineIsSilent)
{
    Start();
    const int iReads = m_Port.m_nReads;
    ASSERT_TRUE(bAwait([&] { return m_Port.m_nReads > iReads + 3; }));
    for (const auto& record : CSyslogReceiver::Get().Records()) {
        EXPECT_LT(LOG_ERR, record.iLevel) << record.szText; // a pty has no modem signals
    }
}

TEST_F(AThreadSerial, HandsOnWhatComesBetweenTwoSilences)
{
    Start();
    ASSERT_TRUE(m_Pty.bSend("AT\r\r\nOK\r\n"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    ASSERT_TRUE(m_Pty.bSend(std::string("\0\xff", 2)));
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    EXPECT_EQ((std::vector<std::string>{"AT\r\r\nOK\r\n", std::string("\0\xff", 2)}),
              m_Port.Chunks());
}

TEST_F(AThreadSerial, TracesAndTakesChunksThatNobodyElseWants)
{
    COpenPort<CThreadSerial> port;
    port.Configure(0, 1000, m_Pty.szPath().c_str());
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(port.bAwaitOpen());
    ASSERT_TRUE(m_Pty.bSend("OK"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, " : 4F 4B "));
    ASSERT_TRUE(m_Pty.bSend("!"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, " : 21 ")); // alone: the other two were taken
    long lUsed = 7;
    EXPECT_EQ(0, port.lDispatchTrame(nullptr, 0, &lUsed));
    EXPECT_EQ(7, lUsed);
}

TEST_F(AThreadSerial, GivesAgainWhatWasNotTaken)
{
    m_Port.m_Take = [](const std::string& szChunk) {
        return szChunk.size() < 6 ? 0 : static_cast<long>(szChunk.size());
    };
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    ASSERT_TRUE(m_Pty.bSend("def"));
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    EXPECT_EQ((std::vector<std::string>{"abc", "abcdef"}), m_Port.Chunks());
}

TEST_F(AThreadSerial, GivesAgainTheRestOfWhatWasTakenInPart)
{
    m_Port.m_Take = [](const std::string&) { return 2L; };
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    ASSERT_TRUE(m_Pty.bSend("de"));
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    EXPECT_EQ((std::vector<std::string>{"abc", "cde"}), m_Port.Chunks());
}

TEST_F(AThreadSerial, StandsAConsumerThatMiscounts)
{
    m_Port.m_Take = [](const std::string& szChunk) {
        return szChunk.size() % 2 == 0 ? LONG_MAX : LONG_MIN;
    };
    Start();
    ASSERT_TRUE(m_Pty.bSend("ab")); // more than there is: all
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    ASSERT_TRUE(m_Pty.bSend("c")); // less than nothing: nothing
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    ASSERT_TRUE(m_Pty.bSend("d"));
    ASSERT_TRUE(m_Port.bAwaitChunks(3));
    EXPECT_EQ((std::vector<std::string>{"ab", "c", "cd"}), m_Port.Chunks());
}

TEST_F(AThreadSerial, DropsWhatNobodyTakesWhenItsBufferIsFull)
{
    m_Port.Configure(0, 8, m_Pty.szPath().c_str());
    m_Port.m_Take = [](const std::string&) { return 0L; };
    Start();
    ASSERT_TRUE(m_Pty.bSend("abcde"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    ASSERT_TRUE(m_Pty.bSend("fghij"));
    ASSERT_TRUE(m_Port.bAwaitChunks(3));
    EXPECT_EQ((std::vector<std::string>{"abcde", "abcdefgh", "ij"}), m_Port.Chunks());
    EXPECT_NE(-1, m_Port.m_hTTY); // dropping is all that happens
}

TEST_F(AThreadSerial, ForgetsWhatItKeptWhenItsBufferIsRestarted)
{
    m_Port.m_Take = [](const std::string&) { return 0L; };
    Start();
    m_Port.RestartBuffer(); // nothing is kept yet: the request stays
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    EXPECT_TRUE(m_Port.m_bRestartBuffer);
    ASSERT_TRUE(m_Pty.bSend("de"));
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    EXPECT_FALSE(m_Port.m_bRestartBuffer);
    ASSERT_TRUE(m_Pty.bSend("f"));
    ASSERT_TRUE(m_Port.bAwaitChunks(3));
    EXPECT_EQ((std::vector<std::string>{"abc", "de", "def"}), m_Port.Chunks());
}

TEST_F(AThreadSerial, ClosesAPortThatHasNoRoomLeft)
{
    m_Port.m_Take = [](const std::string&) { return 0L; };
    Start();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    ASSERT_TRUE(m_Pty.bSend("abcde"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    const int nReads = m_Port.m_nReads;
    ASSERT_TRUE(bAwait([&] { return m_Port.m_nReads > nReads; })); // they are kept by now
    m_Port.Configure(0, 4, m_Pty.szPath().c_str());                // below that
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(m_Pty.bSend("xy"));
    ASSERT_TRUE(m_Port.bAwaitChunks(2));
    EXPECT_EQ("xy", m_Port.Chunks().back());
}

TEST_F(AThreadSerial, ReadsNothingWithoutABuffer)
{
    COpenPort<CThreadSerial> port;
    port.Configure(0, 0, m_Pty.szPath().c_str());
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    // Opened, closed again, and so on every two seconds.
    EXPECT_TRUE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) >= 2; }));
}

TEST_F(AThreadSerial, LetsItsPortSettleForTwoSecondsBeforeItIsAnnounced)
{
    CThreadSerial port(nullptr, "port");
    port.Configure(0, 1000, m_Pty.szPath().c_str());
    const auto begin = steady_clock::now();
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return port.bGetConnected(); }));
    EXPECT_EQ(0u, m_Store.Count(&port, EVT_COM_CONNECTED));
    EXPECT_TRUE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) == 1; }));
    EXPECT_LE(milliseconds(2000), steady_clock::now() - begin);
}

TEST_F(AThreadSerial, TriesAgainAfterFiveSecondsOrWhenItIsToldNotToWait)
{
    CThreadSerial port(nullptr, "port");
    port.SetLogLevel(LOG_DEBUG);
    port.Configure(0, 1000, "/dev/no-such-modem");
    const auto nAttempts = [] { return CSyslogReceiver::Get().Count("Failed to open serial"); };
    const auto begin = steady_clock::now();
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return nAttempts() == 2; }));
    EXPECT_LE(milliseconds(5000), steady_clock::now() - begin);
    EXPECT_TRUE(bAwait(
        [&] {
            port.StopDynWait(); // the thread may not have begun to wait
            return nAttempts() >= 3;
        },
        4500));
}

TEST_F(AThreadSerial, GoesStraightToReadingWithAPortThatIsOpen)
{
    ASSERT_EQ(0, m_Port.iConnect());
    const int iFd = m_Port.m_hTTY;
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    EXPECT_EQ(iFd, m_Port.m_hTTY);
    EXPECT_EQ(0u, m_Store.Count(&m_Port, EVT_COM_CONNECTED));
}

TEST_F(AThreadSerial, OpensAPortAnewThatWasDeclaredUnconnected)
{
    Start();
    const size_t nOpen = nOpenDescriptors();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    m_Port.SetConnected(false);
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    EXPECT_EQ(nOpen, nOpenDescriptors());
}

TEST_F(AThreadSerial, TellsNobodyThatItsPortIsClosed)
{
    Start();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    m_Port.Close();
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    m_Port.iStop(true, false);
    EXPECT_EQ(0u, m_Store.Count(&m_Port, EVT_COM_DISCONNECTED));
    EXPECT_EQ(-1, m_Port.m_hTTY);
    EXPECT_FALSE(m_Port.bGetConnected());
}

TEST_F(AThreadSerial, CanBeStartedAgain)
{
    Start();
    m_Port.iStop(true, false);
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    EXPECT_TRUE(m_Port.bAwaitChunks(1));
}

using AForcedSerial = ASerialTest<CForced<COpenPort<CThreadSerial>>>;

TEST_F(AForcedSerial, EndsByItself)
{
    const size_t nOpen = nOpenDescriptors();
    const int nStops = nRounds(50);
    for (int i = 0; i < nStops; ++i) {
        Start();
        m_Port.iStop(true, true);
        ASSERT_FALSE(m_Port.bIsRunning());
    }
    EXPECT_LE(nStops * 9 / 10, m_Port.m_nEnds) << "the others were too slow, and cancelled";
    EXPECT_EQ(nOpen, nOpenDescriptors());
}

TEST_F(AForcedSerial, IsCancelledInAHandlerThatNeverReturns)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    const size_t nOpen = nOpenDescriptors();
    m_Port.m_bDwells = true;
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(bAwait([this] { return m_Port.m_nHandled == 1; }));
    const auto begin = steady_clock::now();
    EXPECT_EQ(0, m_Port.iStop(true, true));
    EXPECT_GT(kAtOnce, steady_clock::now() - begin);
    EXPECT_FALSE(m_Port.bIsRunning());
    EXPECT_EQ(0, m_Port.m_nEnds);
    EXPECT_EQ(nOpen, nOpenDescriptors());
}

TEST_F(AThreadSerial, DeletesItselfWhenToldSo)
{
    std::atomic<bool> bGone{false};
    auto* const pPort = new CPassingPort(bGone);
    const size_t nOpen = nOpenDescriptors();
    pPort->SetSettleDelay(0);
    pPort->SetAutoDelete(true);
    pPort->Configure(0, 1000, m_Pty.szPath().c_str());
    ASSERT_EQ(0, pPort->iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return pPort->bGetConnected(); }));
    EXPECT_EQ(0, pPort->iStop(true, false));
    EXPECT_TRUE(bAwait([&] { return bGone && nOpenDescriptors() == nOpen; }));
}

TEST_F(AThreadSerialWithAPluggedModem, NoticesThatItWasUnpluggedAndComesBack)
{
    m_Pty.Unplug();
    ASSERT_TRUE(bAwait([this] { return m_Port.m_hTTY == -1; }));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "Failed to open serial connection " + m_szName));
    CPty next;
    Plug(next);
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(next.bSend("RDY"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    EXPECT_EQ("RDY", m_Port.Chunks().back());
}

TEST_F(AThreadSerialWithAPluggedModem, NoticesThatOnlyItsNodeHasGone)
{
    unlink(m_szName.c_str()); // the line itself is still up
    EXPECT_TRUE(bAwait([this] { return m_Port.m_hTTY == -1; }));
    Plug(m_Pty);
    EXPECT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
}

TEST_F(AThreadSerialWithAPluggedModem, NoticesAnotherOneThatTookItsName)
{
    CPty next;
    Plug(next); // the name is never without a node
    m_Pty.Unplug();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(next.bSend("RDY"));
    EXPECT_TRUE(m_Port.bAwaitChunks(1));
}

TEST_F(AThreadSerialWithAPluggedModem, NoticesThatItsNameIsAnotherOnesThoughTheLineIsUp)
{
    CPty next;
    Plug(next);
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    ASSERT_TRUE(next.bSend("RDY"));
    EXPECT_TRUE(m_Port.bAwaitChunks(1));
}

// Else the loss that is told of late would be taken for that of the new connection.
TEST_F(AThreadSerial, IsNotOpenedAnewBeforeItsLossWasTold)
{
    std::promise<void> told;
    std::atomic<bool> bTelling{false};
    CSlowPort port;
    port.m_OnLost = [&] {
        if (!bTelling.exchange(true)) { // the first time
            told.get_future().wait();
        }
    };
    port.Configure(0, 1000, m_Pty.szPath().c_str());
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) == 1; }));
    auto closing = std::async(std::launch::async, [&port] {
        const CLogLevel level;
        port.Close();
    });
    EXPECT_TRUE(bAwait([&] { return bTelling.load(); }));
    EXPECT_FALSE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) == 2; }, 300));
    told.set_value();
    closing.get();
    EXPECT_TRUE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) == 2; }));
}

TEST_F(AThreadSerial, LeavesItsPortAloneForTheSpeedItHas)
{
    Start();
    const int iFd = m_Port.m_hTTY;
    EXPECT_EQ(-1, m_Port.iSetSpeed(B9600));
    EXPECT_EQ(-1, m_Port.iSetSpeed(0));
    EXPECT_EQ(iFd, m_Port.m_hTTY);
    EXPECT_EQ(13u, m_Port.m_iSpeed);
}

TEST_F(AThreadSerial, OpensItsPortAnewWithAnotherSpeed)
{
    const CUniqueFd other(open(m_Pty.szPath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    Start();
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 1; }));
    EXPECT_EQ(0, m_Port.iSetSpeed(B115200));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Port, EVT_COM_CONNECTED) == 2; }));
    const termios settings = SettingsOf(other.iGet());
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetispeed(&settings));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&settings));
}

TEST_F(AThreadSerial, ChangesTheSpeedOfAnOpenPortWithoutAThread)
{
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(0, m_Port.iSetSpeed(B19200));
    const termios settings = SettingsOf(m_Port.m_hTTY);
    EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&settings));
}

TEST_F(AThreadSerial, KeepsASpeedForWhenItsPortIsOpened)
{
    EXPECT_EQ(-1, m_Port.iSetSpeed(B38400));
    ASSERT_EQ(0, m_Port.iConnect());
    const termios settings = SettingsOf(m_Port.m_hTTY);
    EXPECT_EQ(static_cast<speed_t>(B38400), cfgetispeed(&settings));
}

TEST_F(AThreadSerial, ClosesItsPortAlsoForASpeedThatItDoesNotTake)
{
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(-1, m_Port.iSetSpeed(0x7FFFFFFF));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Invalid argument"));
    EXPECT_NE(-1, m_Port.m_hTTY);
    m_Port.m_bRun = true;
    EXPECT_EQ(-1, m_Port.iSetSpeed(0x7FFFFFFE));
    EXPECT_EQ(-1, m_Port.m_hTTY);
    m_Port.m_bRun = false;
}

TEST_F(AThreadSerial, MeasuresSilenceInTenthsOfASecond)
{
    ASSERT_EQ(0, m_Port.iConnect());
    const auto iVtimeFor = [this](int32_t iMs) {
        EXPECT_EQ(0, m_Port.iSetInterCharTimeout(iMs));
        const termios settings = SettingsOf(m_Port.m_hTTY);
        EXPECT_EQ(0, settings.c_cc[VMIN]);
        return int{settings.c_cc[VTIME]};
    };
    EXPECT_EQ(2, iVtimeFor(250));
    EXPECT_EQ(0, iVtimeFor(99));
    EXPECT_EQ(0, iVtimeFor(0));
    EXPECT_EQ(255, iVtimeFor(25500));
    EXPECT_EQ(255, iVtimeFor(INT32_MAX)); // a byte holds no more
    EXPECT_EQ(3, iVtimeFor(300));
    EXPECT_EQ(3, iVtimeFor(-1)); // unchanged
    EXPECT_EQ(300u, m_Port.m_iInterCharTimeout_ms);
}

TEST_F(AThreadSerial, KeepsATimeoutForWhenItsPortIsOpened)
{
    EXPECT_EQ(0, m_Port.iSetInterCharTimeout(500));
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(5, SettingsOf(m_Port.m_hTTY).c_cc[VTIME]);
}

TEST_F(AThreadSerial, ClosesAPortThatDoesNotTakeItsTimeout)
{
    ASSERT_EQ(0, m_Port.iConnect());
    m_Pty.Unplug();
    EXPECT_EQ(-1, m_Port.iSetInterCharTimeout(500));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Input/output error"));
    EXPECT_NE(-1, m_Port.m_hTTY);
    m_Port.m_bRun = true;
    EXPECT_EQ(-1, m_Port.iSetInterCharTimeout(500));
    EXPECT_EQ(-1, m_Port.m_hTTY);
    m_Port.m_bRun = false;
}

TEST_F(AThreadSerial, WaitsAlsoWithATimeoutThatItsDriverCannotMeasure)
{
    m_Port.iSetInterCharTimeout(0);
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    const int iReads = m_Port.m_nReads;
    const auto begin = steady_clock::now();
    EXPECT_EQ("", m_Pty.szReceive(1, 500)); // half a second of silence, at least
    const int iSoFar = m_Port.m_nReads;
    EXPECT_GE((steady_clock::now() - begin) / milliseconds(25), iSoFar - iReads);
}

TEST_F(AThreadSerial, IsStoppedInTheMiddleOfALongSilence)
{
    m_Port.iSetInterCharTimeout(25500);
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    EXPECT_GT(kAtOnce, TimeOfStop());
}

TEST_F(AThreadSerial, ReadsAChunkUntilALongSilence)
{
    m_Port.iSetInterCharTimeout(1500);
    Start();
    ASSERT_TRUE(m_Pty.bSend("abc"));
    EXPECT_EQ("", m_Pty.szReceive(1, 300)); // shorter than the silence that ends it
    ASSERT_TRUE(m_Pty.bSend("def"));
    ASSERT_TRUE(m_Port.bAwaitChunks(1));
    EXPECT_EQ("abcdef", m_Port.Chunks().front());
}

TEST_F(AThreadSerial, FlushesItsPort)
{
    EXPECT_EQ(-1, m_Port.iFlush());
    ASSERT_EQ(0, m_Port.iConnect());
    ASSERT_TRUE(m_Pty.bSend("old"));
    ASSERT_TRUE(bAwaitUnread(3));
    EXPECT_EQ(0, m_Port.iFlush());
    int iWaiting = -1;
    ASSERT_EQ(0, ioctl(m_Port.m_hTTY, FIONREAD, &iWaiting));
    EXPECT_EQ(0, iWaiting);
    const CUntakeableLock refused(m_Port.m_RecursiveLock);
    EXPECT_EQ(0, m_Port.iFlush());
}

TEST_F(AThreadSerial, TakesAnUnknownSignalForARaisedOne)
{
    EXPECT_EQ(1, m_Port.iGetCTS()); // closed
    EXPECT_EQ(0u, CSyslogReceiver::Get().Count("Inappropriate ioctl"));
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(1, m_Port.iGetPortSignal(0)); // a pty has none
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Inappropriate ioctl for device"));
    for (const int iSignal :
         {m_Port.iGetRTS(), m_Port.iGetDTR(), m_Port.iGetRTS_DTR(), m_Port.iGetCTS(),
          m_Port.iGetDCD(), m_Port.iGetRNG(), m_Port.iGetDSR()}) {
        EXPECT_EQ(1, iSignal);
    }
    EXPECT_TRUE(m_Port.bGetConnected());
    const CUntakeableLock refused(m_Port.m_RecursiveLock);
    EXPECT_EQ(1, m_Port.iGetPortSignal(0));
}

TEST_F(AThreadSerial, TellsThatASignalCannotBeChanged)
{
    EXPECT_EQ(-1, m_Port.iSetDTR(true));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Bad file descriptor"));
    ASSERT_EQ(0, m_Port.iConnect());
    EXPECT_EQ(-1, m_Port.iSetDTR(true));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : Inappropriate ioctl for device"));
    EXPECT_EQ(-1, m_Port.iSetRTS(false));
    EXPECT_EQ(-1, m_Port.iSetRTS_DTR(true));
    EXPECT_TRUE(m_Port.bGetConnected());
    const CUntakeableLock refused(m_Port.m_RecursiveLock);
    EXPECT_EQ(-1, m_Port.iSetRTS(true));
}

TEST_F(AnExchangeOverASerialLine, EndsWithTheTagAnywhereInTheAnswer)
{
    auto exchange = Exchange("AT+CSQ\r", "OK");
    ASSERT_EQ("AT+CSQ\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("AT+CSQ\r\r\n+CSQ: 17,99\r\n\r\nOK\r\n"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("AT+CSQ\r\r\n+CSQ: 17,99\r\n\r\nOK\r\n", szAnswer());
}

TEST_F(AnExchangeOverASerialLine, PutsAnAnswerTogetherThatComesInBursts)
{
    auto exchange = Exchange("AT\r", "OK");
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nO"));
    ASSERT_TRUE(bAwait([this] { return m_Port.m_lKept == 3; }));
    ASSERT_TRUE(m_Pty.bSend("K\r\n")); // the tag lies across both
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("\r\nOK\r\n", szAnswer());
    EXPECT_TRUE(bAwait([this] { return m_Port.m_lKept == 0; }));
}

TEST_F(AnExchangeOverASerialLine, IsNotEndedByAReport)
{
    auto exchange = Exchange("AT\r", "OK");
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\nRING\r\n"));
    ASSERT_TRUE(bAwait([this] { return m_Port.m_lKept == 8; })); // not taken either
    EXPECT_EQ(-6, m_Port.m_ExchangeResult);
    ASSERT_TRUE(m_Pty.bSend("OK"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("\r\nRING\r\nOK", szAnswer());
}

TEST_F(AnExchangeOverASerialLine, IsEndedByItsTagEvenWithinAReport)
{
    auto exchange = Exchange("AT\r", "OK");
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("\r\n+CUSD: 0,\"BOOK\"\r\n")); // it knows texts, not lines
    EXPECT_EQ(0, exchange.get());
}

TEST_F(AnExchangeOverASerialLine, CutsALongAnswerAndTellsItsLength)
{
    m_lRoom = 4;
    auto exchange = Exchange("AT\r", "OK");
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("0123456789OK"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("0123", szAnswer());
    EXPECT_EQ(12, m_lSize);
    EXPECT_EQ(0, m_aAnswer[4]);
}

TEST_F(AnExchangeOverASerialLine, SeesNothingBehindAZeroByte)
{
    auto exchange = Exchange("AT\r", "OK", 500);
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend(std::string("x\0OK", 4)));
    EXPECT_EQ(-7, exchange.get());
}

TEST_F(AnExchangeOverASerialLine, WaitsNoLongerThanToldForAModemThatNeverStopsTalking)
{
    auto exchange = Exchange("AT\r", "OK", 700);
    const auto begin = steady_clock::now();
    while (exchange.wait_for(milliseconds(0)) != std::future_status::ready) {
        ASSERT_TRUE(m_Pty.bSend("blah blah "));
        ASSERT_GT(milliseconds(kAmpleMs), steady_clock::now() - begin);
    }
    EXPECT_EQ(-7, exchange.get());
}

TEST_F(AnExchangeOverASerialLine, EndsWithTheFirstTextWithoutATag)
{
    auto exchange = Exchange("AT\r", nullptr);
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("?"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_EQ("?", szAnswer());
}

TEST_F(AnExchangeOverASerialLine, WritesNothingWithoutARequest)
{
    auto exchange = Exchange(nullptr, "RING");
    ASSERT_TRUE(m_Port.bAwaitPending());
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
    ASSERT_TRUE(m_Pty.bSend("\r\nRING\r\n"));
    EXPECT_EQ(0, exchange.get());
}

TEST_F(AnExchangeOverASerialLine, LogsTheRequestThatNobodyAnswered)
{
    EXPECT_EQ(-7, Exchange("AT+CREG?", "OK", 100).get());
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, " : request:AT+CREG?"));
    EXPECT_EQ(-7, Exchange("AT", "OK", 0).get()); // nothing is signalled yet
}

TEST_F(AnExchangeOverASerialLine, LetsALateAnswerWithoutTheNextTagPass)
{
    EXPECT_EQ(-7, Exchange("AT+CPIN?\r", "+CPIN: READY", 100).get());
    ASSERT_EQ("AT+CPIN?\r", m_Pty.szReceiveUntil("\r"));
    auto next = Exchange("AT+CGSN\r", "3578");
    ASSERT_EQ("AT+CGSN\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("+CPIN: READY\r\nOK\r\n"));
    ASSERT_TRUE(bAwait([this] { return m_Port.m_lKept > 0; }));
    EXPECT_EQ(-6, m_Port.m_ExchangeResult);
    ASSERT_TRUE(m_Pty.bSend("3578\r\nOK\r\n"));
    EXPECT_EQ(0, next.get());
}

TEST_F(AnExchangeOverASerialLine, WaitsForTheOneBeforeIt)
{
    auto first = Exchange("ONE\r", "1");
    ASSERT_EQ("ONE\r", m_Pty.szReceiveUntil("\r"));
    auto second = std::async(std::launch::async, [&] {
        return m_Port.iExchangeAT("TWO\r", "2", nullptr, 0, nullptr, kAmpleMs);
    });
    EXPECT_EQ("", m_Pty.szReceive(1, 50));
    ASSERT_TRUE(m_Pty.bSend("1"));
    EXPECT_EQ(0, first.get());
    EXPECT_EQ("TWO\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("2"));
    EXPECT_EQ(0, second.get());
}

TEST_F(AnExchangeOverASerialLine, EndsWhenItsPortIsStopped)
{
    auto exchange = Exchange("AT\r", "OK", kForEver);
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Port.bAwaitPending());
    EXPECT_GT(kAtOnce, TimeOfStop());
    EXPECT_EQ(-1, exchange.get());
}

TEST_F(AnExchangeOverASerialLine, EndsWhenTheModemIsUnplugged)
{
    auto exchange = Exchange("AT\r", "OK", kForEver);
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    m_Pty.Unplug();
    EXPECT_EQ(-1, exchange.get());
    EXPECT_EQ(-1, m_Port.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver)); // closed
}

TEST_F(AnExchangeOverASerialLine, TakesTheLastWordsOfAModemThatIsUnplugged)
{
    const CTempDirectory directory;
    const std::string szName = directory.szPath("ttyModem");
    ASSERT_EQ(0, symlink(m_Pty.szPath().c_str(), szName.c_str()));
    m_Port.iStop(true, false);
    CTellingPort port;
    port.m_OnChunk = [&szName] { unlink(szName.c_str()); };
    port.Configure(0, 1000, szName.c_str());
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(port.bAwaitOpen());
    auto exchange = std::async(std::launch::async, [&port] {
        return port.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kAmpleMs);
    });
    ASSERT_EQ("AT\r", m_Pty.szReceiveUntil("\r"));
    ASSERT_TRUE(m_Pty.bSend("OK"));
    EXPECT_EQ(0, exchange.get());
    EXPECT_TRUE(bAwait([&port] { return port.m_hTTY == -1; }));
}

TEST_F(AnExchangeOverASerialLine, ReturnsWhatAFailedWriteReturns)
{
    ASSERT_TRUE(m_Port.bGetConnected());
    m_Port.iStop(true, false);
    ASSERT_EQ(0, m_Port.iConnect()); // open, but without a thread
    EXPECT_EQ(-1, m_Port.iExchangeAT("AT\r", "OK", nullptr, 0, nullptr, kForEver));
}
