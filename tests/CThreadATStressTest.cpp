// Many commands at once, and a modem that is late, forgets, tears its answers, or goes: whatever it
// does, a command gets its own answer or none.
#include "libQuorCore/CThreadAT.h"

#include "support/CLogLevel.h"
#include "support/CMessageStore.h"
#include "support/CPty.h"
#include "support/CTempDirectory.h"
#include "support/CTestSerial.h"

#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;
using std::chrono::milliseconds;

namespace
{
constexpr int kStartLimitMs = 10000;
constexpr int kCommands = 50;      // of each caller
constexpr int kLateMs = 45;        // later than the impatient ones wait
constexpr long kImpatientMs = 30;  // of a command
constexpr long kPatientMs = 400;   // enough unless the modem has forgotten it
constexpr uint32_t kCancelled = 7; // a tag

/// A modem that answers one command after the other, "AT+N1" with "+N1: done", as it likes.
class CMoodyModem
{
public:
    /// @param szName  A link to its device, as long as it is plugged in.
    explicit CMoodyModem(std::string szName, bool bLeaves)
        : m_szName(std::move(szName)), m_bLeaves(bLeaves)
    {
        Plug();
        m_thread = std::thread([this] { Run(); });
    }
    CMoodyModem(const CMoodyModem&) = delete;
    CMoodyModem& operator=(const CMoodyModem&) = delete;
    ~CMoodyModem()
    {
        m_bEnd = true;
        m_thread.join();
    }

    void CalmDown() { m_bCalm = true; } ///< From now on it answers at once, with news as well.

private:
    enum eMood { FORGETS, LATE, TORN, TALKS, LEAVES, PLAIN };

    void Plug()
    {
        m_pPty = std::make_unique<CPty>();
        unlink(m_szName.c_str());
        EXPECT_EQ(0, symlink(m_pPty->szPath().c_str(), m_szName.c_str()));
    }

    void Run()
    {
        std::string szLine;
        while (!m_bEnd) {
            szLine += m_pPty->szReceiveUntil("\r", 20);
            const size_t nBegin = szLine.find("AT");
            if (!szLine.empty() && szLine.back() == '\r') {
                szLine.pop_back();
                if (nBegin != std::string::npos) {
                    Answer(szLine.substr(nBegin));
                }
                szLine.clear();
            }
        }
    }

    eMood Mood()
    {
        if (m_bCalm) {
            return TALKS;
        }
        switch (std::uniform_int_distribution<int>(0, 19)(m_random)) {
        case 0:
            return FORGETS;
        case 1:
        case 2:
        case 3:
            return LATE;
        case 4:
        case 5:
            return TORN;
        case 6:
        case 7:
            return TALKS;
        case 8:
            return m_bLeaves ? LEAVES : PLAIN;
        default:
            return PLAIN;
        }
    }

    void Answer(const std::string& szCommand)
    {
        std::string szAnswer = "\r\n" + szCommand.substr(2) + ": done\r\n";
        if (szCommand == "ATV1S3?") { // not all of them know it
            szAnswer = m_bCalm || m_random() % 2 == 0 ? "\r\n013\r\n" : "";
        }
        szAnswer += szAnswer.empty() ? "\r\nERROR\r\n" : "\r\nOK\r\n";
        const eMood mood = Mood();
        if (mood == FORGETS) {
            return;
        }
        if (mood == LEAVES) {
            m_pPty->Unplug();
            unlink(m_szName.c_str());
            Plug();
            return;
        }
        if (mood == LATE) {
            std::this_thread::sleep_for(milliseconds(kLateMs));
        }
        if (szCommand.compare(0, 4, "AT+P") == 0 && !bTakeText()) {
            szAnswer = "\r\nOK\r\n";
        }
        if (mood == TALKS) {
            szAnswer = "\r\n+NEWS: 1\r\n" + szAnswer + "\r\n+NEWS: 2\r\n";
        }
        if (mood == TORN) {
            m_pPty->bSend(szAnswer.substr(0, szAnswer.size() / 2));
            std::this_thread::sleep_for(milliseconds(5));
            szAnswer.erase(0, szAnswer.size() / 2);
        }
        m_pPty->bSend(szAnswer);
    }

    /// @return False: ESC came instead, or nothing at all.
    bool bTakeText()
    {
        m_pPty->bSend("\r\n> ");
        for (std::string szByte = "x"; !szByte.empty();) {
            szByte = m_pPty->szReceive(1, 1000);
            if (szByte == "\x1a" || szByte == "\x1b") {
                return szByte == "\x1a";
            }
        }
        return false;
    }

    const std::string m_szName;
    const bool m_bLeaves;
    std::unique_ptr<CPty> m_pPty; ///< The thread's own, once it runs.
    std::mt19937 m_random{20261122};
    std::atomic<bool> m_bEnd{false};
    std::atomic<bool> m_bCalm{false};
    std::thread m_thread;
};

class AThreadATUnderFire : public ::testing::TestWithParam<bool>
{
protected:
    /// A caller's commands. @return How many were answered.
    int iCommand(int iCaller)
    {
        const CLogLevel level;
        std::mt19937 random(static_cast<unsigned>(iCaller));
        int iAnswered = 0;
        for (int i = 0; i < kCommands; ++i) {
            const bool bText = random() % 5 == 0;
            const std::string szName =
                std::string(bText ? "+P" : "+N") + std::to_string(iCaller * 1000 + i);
            atCommand_t command;
            command.szText = "AT" + szName;
            command.szPrefix = random() % 2 == 0 ? szName + ':' : "";
            command.iTimeOut = random() % 3 == 0 ? kImpatientMs : kPatientMs;
            command.bUrgent = random() % 4 == 0;
            command.iTag = random() % 8 == 0 ? kCancelled : 0;
            command.bPrompt = bText;
            command.szPayload = "text";
            atResult_t result;
            m_Modem.lCommand(command, result);
            if (result.lResult == 0) {
                ++iAnswered;
                EXPECT_EQ("OK", result.szFinal);
                EXPECT_EQ(std::vector<std::string>{szName + ": done"}, result.lines);
            }
            EXPECT_NE(AT_MODEM_ERROR, result.lResult) << "only a question is refused";
        }
        return iAnswered;
    }

    /// Cancels commands, and has handlers come and go, those that remove themselves included.
    void Disturb()
    {
        const CLogLevel level;
        while (!m_bEnd) {
            m_Modem.Cancel(kCancelled);
            m_Modem.SetUnsolicited("+NEWS: 1", 0, [this](const std::vector<std::string>& lines) {
                EXPECT_EQ("+NEWS: 1", lines.front());
                ++m_nNews;
                m_Modem.RemoveUnsolicited("+NEWS: 1");
            });
            m_Modem.SetUnsolicited("+NEWS: 2", 0, [this](const auto&) { ++m_nNews; });
            std::this_thread::sleep_for(milliseconds(7));
            m_Modem.RemoveUnsolicited("+NEWS: 2");
        }
    }

    const CTempDirectory m_Directory;
    const std::string m_szName = m_Directory.szPath("ttyModem");
    const CLogLevel m_Level;
    CMessageStore m_Store;
    std::atomic<bool> m_bEnd{false};
    std::atomic<int> m_nNews{0};
    COpenPort<CThreadAT> m_Modem;
};
} // namespace

TEST_P(AThreadATUnderFire, GivesACommandItsOwnAnswerOrNone)
{
    CMoodyModem modem(m_szName, GetParam());
    m_Modem.SetLogLevel(LOG_CRIT); // each of the many time-outs logs the flight record
    m_Modem.SetUnsolicited("+NEWS:", 0, [this](const auto&) { ++m_nNews; });
    m_Modem.Configure(0, 1000, m_szName.c_str());
    ASSERT_EQ(0, m_Modem.iCreateThread(true, kStartLimitMs));
    ASSERT_TRUE(bAwait([this] { return m_Store.Count(&m_Modem, EVT_COM_CONNECTED) == 1; }));
    auto disturbing = std::async(std::launch::async, [this] { Disturb(); });
    std::vector<std::future<int>> callers;
    for (int iCaller = 1; iCaller <= 3; ++iCaller) {
        callers.push_back(std::async(std::launch::async, [=] { return iCommand(iCaller); }));
    }
    int iAnswered = 0;
    for (std::future<int>& caller : callers) {
        iAnswered += caller.get();
    }
    EXPECT_LT(0, iAnswered);
    EXPECT_EQ(0u, m_Modem.nQueued());
    m_bEnd = true;
    disturbing.get();

    const int nNews = m_nNews;
    modem.CalmDown();
    EXPECT_TRUE(bAwait([this] { // it may be coming back just now
        atResult_t result;
        return m_Modem.lCommand("AT+N1", "+N1:", result, kPatientMs) == 0;
    }));
    EXPECT_TRUE(bAwait([this, nNews] { return m_nNews > nNews; })) << "a handler that stayed";
}

INSTANTIATE_TEST_SUITE_P(OnALine, AThreadATUnderFire, ::testing::Bool(), [](const auto& instance) {
    return instance.param ? "ThatIsUnpluggedNowAndThen" : "ThatStays";
});
