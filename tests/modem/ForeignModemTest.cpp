// The serial threads, with modems at the other end that others wrote: two of iaxmodem(1), each on a
// pseudo-terminal, that can call each other.
#include "libQuorCore/CThreadAT.h"

#include "ForeignProgram.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CTempDirectory.h"
#include "support/CTestSerial.h"
#include "support/Files.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{
namespace fs = std::filesystem;
using lines_t = std::vector<std::string>;

constexpr int kStartLimitMs = 10000;
constexpr int kCallLimitMs = 40000; // until two modems have found each other
constexpr long kAmpleMs = 20000;

void Check(bool bDone, const std::string& szCall)
{
    if (!bDone) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
}

void Cover(const std::string& szPath)
{
    Check(mount("tmpfs", szPath.c_str(), "tmpfs", MS_NOSUID, "mode=755") == 0, szPath);
}

/// Moves the thread, and the children that it makes, to a network of their own; only a loopback.
void EnterPrivateNetwork()
{
    Check(unshare(CLONE_NEWNET) == 0, "unshare(CLONE_NEWNET)");
    const CUniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP;
    Check(ioctl(socket.iGet(), SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS lo");
}

/// A modem whose line ends at another one's.
class CForeignModem
{
public:
    /// @param szDevice    Where its device is to be.
    /// @param iPort       Its own end of the line, in this network.
    /// @param iOtherPort  The other's.
    CForeignModem(const std::string& szDevice, int iPort, int iOtherPort)
        : m_szDevice(szDevice), m_Child([=] {
              CoverFiles(szDevice, iPort, iOtherPort);
              const std::string szProgram = szForeignProgram("iaxmodem");
              execl(szProgram.c_str(), szProgram.c_str(), "modem", static_cast<char*>(nullptr));
              return EXIT_FAILURE;
          })
    {
    }

    bool bAwaitDevice() const
    {
        return bAwait([this] { return fs::exists(m_szDevice); });
    }

private:
    /// It reads /etc/iaxmodem and looks for users there, and writes below /var.
    static void CoverFiles(const std::string& szDevice, int iPort, int iOtherPort)
    {
        Check(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS)");
        Cover("/etc");
        Cover("/var");
        fs::create_directories("/var/log/iaxmodem");
        fs::create_directories("/var/run");
        fs::create_directory("/etc/iaxmodem");
        WriteFile("/etc/passwd", "root:x:0:0::/:/bin/sh\nuucp:x:0:0::/:/bin/sh\n");
        WriteFile("/etc/group", "root:x:0:\nuucp:x:0:\n");
        WriteFile("/etc/iaxmodem/modem",
                  "device " + szDevice + "\nowner root:root\nmode 660\nport " +
                      std::to_string(iPort) +
                      "\nrefresh 0\nserver 127.0.0.1:" + std::to_string(iOtherPort) +
                      "\npeername modem\nsecret none\ncodec alaw\nnodaemon\n");
    }

    const std::string m_szDevice;
    CChild m_Child;
};

class CLineModem : public COpenPort<CThreadAT>
{
public:
    ~CLineModem() override { EndThread(); }

    atResult_t Ask(const std::string& szText, long lTimeOut = kAmpleMs)
    {
        atResult_t result;
        EXPECT_EQ(lCommand(szText, "", result, lTimeOut), result.lResult);
        return result;
    }
};

class AForeignModem : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "setting up a network takes root";
        }
        if (szForeignProgram("iaxmodem").empty()) {
            GTEST_SKIP() << szMissing("iaxmodem");
        }
        EnterPrivateNetwork();
        UseForeignLibraries();
        m_pCallerModem = std::make_unique<CForeignModem>(m_szCaller, 4569, 4570);
        m_pCalledModem = std::make_unique<CForeignModem>(m_szCalled, 4570, 4569);
        ASSERT_TRUE(m_pCallerModem->bAwaitDevice());
        ASSERT_TRUE(m_pCalledModem->bAwaitDevice());
    }

    void Connect(CLineModem& modem, const std::string& szDevice)
    {
        modem.Configure(0, 1000, szDevice.c_str());
        ASSERT_EQ(0, modem.iCreateThread(true, kStartLimitMs));
        ASSERT_TRUE(bAwait([&] { return m_Store.Count(&modem, EVT_COM_CONNECTED) == 1; }));
    }

    /// Both, as modems for facsimile that are told to be quiet.
    void ConnectBoth()
    {
        m_Called.SetUnsolicited("RING", 0, [this](const lines_t&) { ++m_nRings; });
        m_Called.SetUnsolicited("NO CARRIER", 0, [this](const lines_t&) { ++m_nLost; });
        m_Caller.SetUnsolicited("OK", 0, [this](const lines_t&) { ++m_nBack; });
        for (auto* const pModem : {&m_Caller, &m_Called}) {
            ASSERT_NO_FATAL_FAILURE(
                Connect(*pModem, pModem == &m_Caller ? m_szCaller : m_szCalled));
            ASSERT_EQ(0, pModem->Ask("ATE0").lResult);
            ASSERT_EQ(0, pModem->Ask("AT+FCLASS=1").lResult);
        }
    }

    std::future<atResult_t> Dial()
    {
        return std::async(std::launch::async, [this] {
            const CLogLevel level;
            return m_Caller.Ask("ATDT5551234", kCallLimitMs);
        });
    }

    const CTempDirectory m_Directory;
    const std::string m_szCaller = m_Directory.szPath("ttyCaller");
    const std::string m_szCalled = m_Directory.szPath("ttyCalled");
    std::unique_ptr<CForeignModem> m_pCallerModem; // forked before there is a thread
    std::unique_ptr<CForeignModem> m_pCalledModem;
    const CLogLevel m_Level;
    CMessageStore m_Store;
    std::atomic<int> m_nRings{0};
    std::atomic<int> m_nLost{0};
    std::atomic<int> m_nBack{0}; ///< So often the caller's modem has said unasked that it listens.
    CLineModem m_Caller;
    CLineModem m_Called;
};
} // namespace

TEST_F(AForeignModem, AnswersWithAndWithoutAnEcho)
{
    ASSERT_NO_FATAL_FAILURE(Connect(m_Caller, m_szCaller));
    for (const char* const pszEcho : {"ATE1", "ATE0"}) {
        EXPECT_EQ(0, m_Caller.Ask(pszEcho).lResult);
        EXPECT_THAT(m_Caller.Ask("ATI").lines, ElementsAre("spandsp")) << pszEcho;
        EXPECT_THAT(m_Caller.Ask("ATI9").szFinal, "ERROR") << pszEcho;
    }
    EXPECT_THAT(m_Caller.Ask("AT+FTM=?;+FRM=?").lines,
                ElementsAre("24,48,72,73,74,96,97,98,121,122,145,146",
                            "24,48,72,73,74,96,97,98,121,122,145,146"));
}

// Numbers are no final lines: the command ends with its time, and shows what the modem has said.
// The next one finds it using words again.
TEST_F(AForeignModem, IsToldToUseWordsWhenItAnswersInNumbers)
{
    ASSERT_NO_FATAL_FAILURE(Connect(m_Caller, m_szCaller));
    EXPECT_EQ(0, m_Caller.Ask("ATE0").lResult);
    const atResult_t result = m_Caller.Ask("ATV0", 3000);
    EXPECT_EQ(-7, result.lResult);
    EXPECT_THAT(result.lines, ElementsAre("0"));
    EXPECT_THAT(m_Caller.Ask("ATI").lines, ElementsAre("spandsp"));
}

TEST_F(AForeignModem, AnswersAnExchangeThatNamesItsEnd)
{
    ASSERT_NO_FATAL_FAILURE(Connect(m_Caller, m_szCaller));
    std::array<char, 100> aAnswer{};
    long lSize = 0;
    EXPECT_EQ(0, m_Caller.iExchangeAT("ATI\r", "OK\r\n", aAnswer.data(), aAnswer.size() - 1, &lSize,
                                      kAmpleMs));
    EXPECT_STREQ("ATI\r\r\nspandsp\r\n\r\nOK\r\n", aAnswer.data());
    EXPECT_EQ(0, m_Caller.iExchangeAT("ATE0\r", "OK\r\n", nullptr, 0, nullptr, kAmpleMs));
    EXPECT_EQ(0, m_Caller.iExchangeAT("ATV0\r", "0\r", nullptr, 0, nullptr, kAmpleMs));
    aAnswer.fill(0);
    EXPECT_EQ(0, m_Caller.iExchangeAT("ATI\r", "0\r", aAnswer.data(), aAnswer.size() - 1, &lSize,
                                      kAmpleMs));
    EXPECT_STREQ("spandsp\r\n0\r", aAnswer.data());
}

TEST_F(AForeignModem, AnswersAPlainSerialThread)
{
    CTextPort port;
    port.Configure(0, 1000, m_szCaller.c_str());
    ASSERT_EQ(0, port.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([&] { return m_Store.Count(&port, EVT_COM_CONNECTED) == 1; }));
    std::array<char, 100> aAnswer{};
    long lSize = 0;
    EXPECT_EQ(0, port.iExchangeAT("ATI\r", "OK\r\n", aAnswer.data(), aAnswer.size() - 1, &lSize,
                                  kAmpleMs));
    EXPECT_STREQ("ATI\r\r\nspandsp\r\n\r\nOK\r\n", aAnswer.data());
    EXPECT_EQ(-7, port.iExchangeAT("ATI9\r", "OK\r\n", nullptr, 0, nullptr, 500)); // "ERROR" came
}

// RING comes while one command after the other is being answered, until it has come between a
// command and its outcome. It is in no answer, and no answer misses a line.
TEST_F(AForeignModem, RingsInTheMiddleOfAnAnswer)
{
    ASSERT_NO_FATAL_FAILURE(ConnectBoth());
    auto dialling = Dial();
    const auto bMidway = [this] {
        const std::string szRecord = m_Called.szFlightRecord();
        const size_t nRing = szRecord.find(" ! RING\n");
        return nRing != std::string::npos &&
               szRecord.rfind(" > ATI\n", nRing) > szRecord.rfind(" = 0\n", nRing);
    };
    const CDeadline deadline(kCallLimitMs);
    while (!bMidway() && !deadline.bPassed()) {
        const atResult_t result = m_Called.Ask("ATI");
        ASSERT_EQ(0, result.lResult);
        ASSERT_THAT(result.lines, ElementsAre("spandsp"));
    }
    EXPECT_TRUE(bMidway());
    EXPECT_LE(1, m_nRings);
    EXPECT_EQ("OK", m_Called.Ask("ATI").szFinal);
    m_Caller.Close(); // nobody waits for the call any more
    EXPECT_EQ(-1, dialling.get().lResult);
}

TEST_F(AForeignModem, IsCalledAnswersAndHangsUp)
{
    ASSERT_NO_FATAL_FAILURE(ConnectBoth());
    auto dialling = Dial();
    ASSERT_TRUE(bAwait([this] { return m_nRings >= 1; }, kCallLimitMs));
    const atResult_t answered = m_Called.Ask("ATA", kCallLimitMs);
    EXPECT_EQ(0, answered.lResult);
    EXPECT_EQ("CONNECT", answered.szFinal);
    const atResult_t dialled = dialling.get();
    EXPECT_EQ(0, dialled.lResult);
    EXPECT_EQ("CONNECT", dialled.szFinal);

    uint8_t iCancel = 0x18; // back from the line to its commands, ITU-T T.31
    EXPECT_EQ(0, m_Caller.iWrite(&iCancel, 1));
    EXPECT_TRUE(bAwait([this] { return m_nBack == 1; }));
    EXPECT_EQ(0, m_Caller.Ask("ATH", kAmpleMs).lResult);
    EXPECT_TRUE(bAwait([this] { return m_nLost == 1; }, kCallLimitMs));
    EXPECT_EQ(0, m_Called.Ask("AT").lResult);
}
