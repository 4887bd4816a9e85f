// modemd against the simulated modem: both are processes of their own, with a pseudo-terminal
// between them.
#include "examples/ExampleProgram.h"
#include "support/CSysClass.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/Frames.h"

#include "libQuorCore/libQuorCore.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>

using namespace TestSupport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{
constexpr uint16_t kPing = 10;
constexpr uint16_t kSetConfig = 14;
constexpr uint16_t kGetConfig = 15;
constexpr uint16_t kPong = 18;
constexpr uint16_t kImei = 3000;
constexpr uint16_t kCsq = 3003;
constexpr uint16_t kPinState = 3006;
constexpr uint16_t kSetPin = 3007;
constexpr uint16_t kPinActive = 3008;
constexpr uint16_t kNextSms = 3011;
constexpr uint16_t kSendSms = 3012;
constexpr uint16_t kShutDown = 3014;
constexpr uint16_t kInit = 3015;
constexpr uint16_t kCells = 3018;
constexpr uint16_t kScan = 3020;
constexpr uint16_t kTestConnectivity = 3032;
constexpr uint16_t kApn = 3033;
constexpr uint16_t kCell = 3034;
constexpr uint16_t kWhitelist = 3036;
constexpr uint16_t kRaw = 3100;
constexpr uint16_t kRecord = 3101;
constexpr uint16_t kNews = 3102;

constexpr int16_t kAdd = 1;
constexpr int16_t kRemove = 2;

constexpr int kBadRequest = 1;
constexpr int kAway = 2;
constexpr int kTimeOut = 3;
constexpr int kRefused = 4;
constexpr int kNotUnderstood = 5;
constexpr int kBusy = 6;
constexpr int kNotAllowed = 7;
constexpr int kNotSupported = 8;
constexpr int kCme = 1000;
constexpr int kCms = 10000;

constexpr const char* kLocked = "on AT+CPIN?\n"
                                "    +CPIN: SIM PIN\n"
                                "    OK\n";

size_t nCount(const std::string& szText, const std::string& szPart)
{
    size_t nFound = 0;
    for (size_t n = szText.find(szPart); n != std::string::npos; n = szText.find(szPart, n + 1)) {
        ++nFound;
    }
    return nFound;
}

template <class Record>
void Read(const std::string& szBytes, Record& record)
{
    std::string szCopy = szBytes;
    QuorCore::CSerializeBuffer stream(reinterpret_cast<uint8_t*>(szCopy.data()),
                                      static_cast<long>(szCopy.size()), false, false, false);
    ASSERT_EQ(0, record.iSerialize(stream));
    ASSERT_EQ(static_cast<int>(szBytes.size()), stream.iGetPos());
}

std::vector<std::string> NumbersOf(const std::string& szBytes)
{
    QuorCore::CDMSrvCallback record(nullptr, "");
    Read(szBytes, record);
    std::vector<std::string> numbers;
    for (int i = 0; i < record.m_WhiteList.iGetNbr(); ++i) {
        numbers.push_back(
            dynamic_cast<QuorCore::CDMString*>(record.m_WhiteList.pGetAt(i))->szGetVal());
    }
    return numbers;
}

class AModemDaemon : public ::testing::Test
{
protected:
    // Whatever was asked of it: it ends in order, and under a sanitizer without a complaint.
    void TearDown() override
    {
        if (m_pDaemon != nullptr) {
            EXPECT_EQ(0, iEnd());
        }
    }

    void StartModem(const std::string& szScript)
    {
        const std::string szFile = m_Directory.szPath("script");
        WriteFile(szFile, szScript);
        m_pModem = std::make_unique<CChild>(
            Program({MODEM_SIMULATOR, "--echo", "--link", m_szDevice, "--script", szFile}));
        ASSERT_TRUE(m_pModem->bAwaitOutput("/dev/pts/"));
    }

    void Configure(const std::string& szMore) const
    {
        WriteFile(m_szConfig, "device=" + m_szDevice +
                                  "\nport=0\nsettle_s=0\nreopen_s=1\nregistration_period_s=1\n"
                                  "signal_period_s=1\n" +
                                  szMore);
    }

    std::vector<std::string> CommandLine() const { return {MODEMD, "--config", m_szConfig}; }

    void RunDaemon() { RunDaemon(CommandLine()); }

    void RunDaemon(const std::vector<std::string>& args)
    {
        m_pDaemon = std::make_unique<CChild>(Program(args));
        const std::vector<std::string> ready = AwaitLog("ready, pid [0-9]+, port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        m_iPort = std::stoi(ready[1]);
        ASSERT_TRUE(m_Peer.bConnect(m_iPort));
        ASSERT_TRUE(m_Peer.bSend(FrameBytes(kPing)));
        ASSERT_TRUE(AwaitAnswer(m_Peer, kPong).bComplete); // it is told all news from here on
    }

    void StartDaemon(const std::string& szMore)
    {
        Configure(szMore);
        RunDaemon();
    }

    /// A modem and a daemon that is done with initialising it.
    void Start(const std::string& szScript = "", const std::string& szMore = "")
    {
        ASSERT_NO_FATAL_FAILURE(StartModem(szScript));
        ASSERT_NO_FATAL_FAILURE(StartDaemon(szMore));
        ASSERT_FALSE(AwaitLog("the modem is ready").empty());
    }

    /// Passes over the news.
    static Frame AwaitAnswer(CTcpPeer& peer, uint16_t iCommand)
    {
        Frame frame = ReceiveFrame(peer);
        while (frame.bComplete && frame.iCommand != iCommand) {
            frame = ReceiveFrame(peer);
        }
        return frame;
    }

    static Frame Ask(CTcpPeer& peer, uint16_t iCommand, const std::string& szData = "",
                     int16_t iUser1 = 0)
    {
        Frame request;
        request.iCommand = iCommand;
        request.iUser1 = iUser1;
        request.iUser2 = 77;
        request.szData = szData;
        EXPECT_TRUE(peer.bSend(FrameBytes(request)));
        const Frame answer = AwaitAnswer(peer, iCommand);
        EXPECT_TRUE(answer.bComplete);
        EXPECT_EQ(77, answer.iUser2);
        return answer;
    }

    Frame Ask(uint16_t iCommand, const std::string& szData = "", int16_t iUser1 = 0)
    {
        return Ask(m_Peer, iCommand, szData, iUser1);
    }

    bool bAwaitNews(const std::string& szPart)
    {
        for (;;) {
            const Frame frame = AwaitAnswer(m_Peer, kNews);
            if (!frame.bComplete) {
                return false;
            }
            if (frame.szData.find(szPart) != std::string::npos) {
                return true;
            }
        }
    }

    int iEnd()
    {
        m_pDaemon->Signal(SIGTERM);
        return iAwaitEnd();
    }

    int iAwaitEnd()
    {
        const ChildResult result = m_pDaemon->Await();
        m_pDaemon.reset();
        return result.iExitCode;
    }

    std::string szSaved() const { return szReadFile(m_szConfig); }

    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("modemd.conf");
    const std::string m_szDevice = m_Directory.szPath("ttyModem");
    std::unique_ptr<CChild> m_pModem;
    std::unique_ptr<CChild> m_pDaemon;
    CTcpPeer m_Peer;
    int m_iPort = -1;
};

struct Query {
    const char* pszName;
    uint16_t iCommand;
    const char* pszAnswer;
};

class AModemQuery : public AModemDaemon, public ::testing::WithParamInterface<Query>
{
};

TEST_P(AModemQuery, IsAnsweredWithAText)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const Frame answer = Ask(GetParam().iCommand);
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ(GetParam().pszAnswer, answer.szData);
}

INSTANTIATE_TEST_SUITE_P(
    For, AModemQuery,
    ::testing::Values(Query{"Imei", 3000, "356938035643809"},
                      Query{"Imsi", 3001, "208011234567890"},
                      Query{"Cid", 3002, "89330123456789012345"}, Query{"Csq", 3003, "17,99"},
                      Query{"Cgreg", 3004, "2,1,\"00C3\",\"0000ABCD\",7"},
                      Query{"Rssi", 3005, "-79"}, Query{"PinState", 3006, "READY"},
                      Query{"Registration", 3009, "home"}, Query{"Techno", 3010, "LTE"},
                      Query{"Quality", 3023, "17,99"}, Query{"ErrorReport", 3021, "no cause"},
                      Query{"Connectivity", 3032, "attached"}, Query{"OldSms", 3013, ""},
                      Query{"Register", 3016, ""}, Query{"Deregister", 3017, ""}),
    [](const auto& query) { return query.param.pszName; });

TEST_F(AModemDaemon, KeepsARecordOfTheServingCell)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    QuorCore::CDMStatCellServing cell(nullptr, "");
    ASSERT_TRUE(bAwait([&] {
        Read(Ask(kCell).szData, cell);
        return !cell.m_Rssi.bIsNull() && !cell.m_Mcc.bIsNull();
    }));
    EXPECT_EQ("LTE", cell.m_Techno.szGetVal());
    EXPECT_EQ(17U, cell.m_Rssi.iGetVal());
    EXPECT_EQ(-79, cell.m_RxLevel.iGetVal());
    EXPECT_TRUE(cell.m_Ber.bIsNull()); // 99: not known
    EXPECT_EQ(0xC3U, cell.m_Lac.iGetVal());
    EXPECT_EQ(0xABCDU, cell.m_Ci.iGetVal());
    EXPECT_EQ(208U, cell.m_Mcc.iGetVal());
    EXPECT_EQ(1U, cell.m_Mnc.iGetVal());
    EXPECT_LT(cell.m_DateMes.dGetDiffTimeS(), 60);
}

TEST_F(AModemDaemon, TellsOfAModemErrorByItsNumber)
{
    ASSERT_NO_FATAL_FAILURE(Start("on AT+CIMI\n    +CME ERROR: SIM busy\n"
                                  "on AT+CCID\n    +CME ERROR: 13\n"
                                  "on AT+CGSN\n    ERROR\n"
                                  "on AT+CGATT?\n    +CGATT: perhaps\n    OK\n"
                                  "on AT+CMGS=*\n    +CMS ERROR: 38\n"));
    EXPECT_EQ(kCme + 14, Ask(3001).iError);
    EXPECT_EQ(kCme + 13, Ask(3002).iError);
    EXPECT_EQ("SIM failure", Ask(3002).szData);
    const Frame refused = Ask(kImei);
    EXPECT_EQ(kRefused, refused.iError);
    EXPECT_EQ("ERROR", refused.szData);
    EXPECT_EQ(kNotUnderstood, Ask(kTestConnectivity).iError);
    EXPECT_EQ(kCms + 38, Ask(kSendSms, "+331\nHello").iError);
}

TEST_F(AModemDaemon, SendsAnSmsWithThePrompt)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const Frame answer = Ask(kSendSms, "+33123456789\nHello\"; AT+CFUN=0");
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ("1", answer.szData);
    EXPECT_THAT(Ask(kRecord).szData, HasSubstr(" > AT+CMGS=\"+33123456789\"\n"));
    EXPECT_THAT(Ask(kRecord).szData, HasSubstr(" ^ Hello\"; AT+CFUN=0\n"));
}

TEST_F(AModemDaemon, RefusesAnSmsThatItCannotSend)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    for (const std::string& szBad :
         {std::string(), std::string("+331"), std::string("+331\n"), std::string("\nHello"),
          std::string("+33\"1\nHello"), std::string("+331\nHel\nlo"),
          std::string("+331\nHel\x1alo"), "+331\n" + std::string(161, 'x'),
          "+" + std::string(21, '3') + "\nHello", std::string("+331\nHel\0lo", 11)}) {
        EXPECT_EQ(kBadRequest, Ask(kSendSms, szBad).iError) << szBad;
    }
    EXPECT_EQ(0, Ask(kSendSms, "+331\n" + std::string(160, 'x')).iError);
    EXPECT_EQ(1U, nCount(Ask(kRecord).szData, "> AT+CMGS"));
}

TEST_F(AModemDaemon, ReportsATimeOutAndServesOn)
{
    ASSERT_NO_FATAL_FAILURE(Start("on AT+CIMI\n", "command_timeout_ms=1000\n"));
    const Frame late = Ask(3001);
    EXPECT_EQ(kTimeOut, late.iError);
    EXPECT_EQ("the modem does not answer", late.szData);
    EXPECT_EQ("356938035643809", Ask(kImei).szData); // it did answer "AT"
}

// The modem answers this one only when the test lets it, be it late.
constexpr const char* kAmpleTime = "command_timeout_ms=60000\n";
constexpr const char* kHeldImsi = "on AT+CIMI\n"
                                  "signal USR1\n"
                                  "    208011234567890\n"
                                  "    OK\n";

TEST_F(AModemDaemon, ServesOthersWhileTheModemTakesItsTime)
{
    ASSERT_NO_FATAL_FAILURE(Start(kHeldImsi, kAmpleTime));
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(3001)));
    CTcpPeer other;
    ASSERT_TRUE(other.bConnect(m_iPort));
    EXPECT_EQ(0, Ask(other, kCell).iError);
    EXPECT_EQ(0, Ask(other, kWhitelist).iError);
    ASSERT_TRUE(other.bSend(FrameBytes(kImei)));
    ASSERT_TRUE(bAwait([&] { return nCount(Ask(other, kRecord).szData, "> AT+CIMI") == 1; }));
    m_pModem->Signal(SIGUSR1);
    EXPECT_EQ("208011234567890", AwaitAnswer(m_Peer, 3001).szData);
    EXPECT_EQ("356938035643809", AwaitAnswer(other, kImei).szData);
}

TEST_F(AModemDaemon, RefusesRequestsWhenTooManyWait)
{
    ASSERT_NO_FATAL_FAILURE(Start(kHeldImsi, kAmpleTime));
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(3001)));
    ASSERT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CIMI") == 1; }));
    std::string szMany;
    for (int i = 0; i < 66; ++i) {
        szMany += FrameBytes(kImei);
    }
    ASSERT_TRUE(m_Peer.bSend(szMany));
    EXPECT_EQ(kBusy, AwaitAnswer(m_Peer, kImei).iError);
    EXPECT_EQ(kBusy, AwaitAnswer(m_Peer, kImei).iError);
    m_pModem->Signal(SIGUSR1);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(0, AwaitAnswer(m_Peer, kImei).iError);
    }
}

TEST_F(AModemDaemon, EndsInOrderInTheMiddleOfAnExchange)
{
    ASSERT_NO_FATAL_FAILURE(Start(kHeldImsi, kAmpleTime));
    ASSERT_TRUE(m_Peer.bSend(FrameBytes(3001)));
    ASSERT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CIMI") == 1; }));
    m_pDaemon->Signal(SIGTERM);
    EXPECT_EQ(kAway, AwaitAnswer(m_Peer, 3001).iError);
    EXPECT_EQ(0, iAwaitEnd());
    EXPECT_THAT(szSaved(), HasSubstr("\nlog_level_modem_keeper=5\n"));
}

TEST_F(AModemDaemon, NoticesThatTheModemIsUnpluggedAndPluggedInAgain)
{
    ASSERT_NO_FATAL_FAILURE(Start("signal USR1\n    @hangup\nsignal USR2\n    @hangup 100\n"));
    m_pModem->Signal(SIGUSR1);
    ASSERT_TRUE(bAwaitNews("the modem is away"));
    EXPECT_EQ(kAway, Ask(kImei).iError);
    EXPECT_FALSE(AwaitLog("the port is closed").empty());
    QuorCore::CDMStatCellServing cell(nullptr, "");
    Read(Ask(kCell).szData, cell);
    EXPECT_TRUE(cell.m_Rssi.bIsNull());
    EXPECT_EQ(-999, cell.m_RxLevel.iGetVal());
    m_pModem->Signal(SIGUSR2); // it comes back
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ(0, Ask(kImei).iError);
}

TEST_F(AModemDaemon, WaitsForAModemThatIsNotThereYet)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon(""));
    ASSERT_FALSE(AwaitLog("the modem is away: " + m_szDevice).empty());
    EXPECT_EQ(kAway, Ask(kImei).iError);
    ASSERT_NO_FATAL_FAILURE(StartModem(""));
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ(0, Ask(kImei).iError);
}

TEST_F(AModemDaemon, TellsThatTheModemIsSilent)
{
    ASSERT_NO_FATAL_FAILURE(StartModem("on *\n"));
    ASSERT_NO_FATAL_FAILURE(StartDaemon("command_timeout_ms=1000\n"));
    ASSERT_TRUE(bAwaitNews("the modem does not answer"));
    const Frame answer = Ask(kImei);
    EXPECT_EQ(kTimeOut, answer.iError);
    EXPECT_EQ("the modem does not answer", answer.szData);
    EXPECT_EQ(kTimeOut, Ask(kTestConnectivity).iError); // this one tries
    EXPECT_EQ(kTimeOut, Ask(kInit).iError);
    EXPECT_EQ(0, iEnd());
}

TEST_F(AModemDaemon, RecoversWithAModemThatWasSilent)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CIMI\nonce AT\nonce AT\n", "command_timeout_ms=1500\n"));
    EXPECT_EQ(kTimeOut, Ask(3001).iError);
    ASSERT_TRUE(bAwaitNews("the modem does not answer"));
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ("208011234567890", Ask(3001).szData);
}

TEST_F(AModemDaemon, EntersThePinThatIsConfigured)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CPIN?\n    +CPIN: SIM PIN\n    OK\n"
                                  "on AT+CPIN=\"1234\"\n    OK\n",
                                  "pin=1234\n"));
    EXPECT_EQ("READY", Ask(kPinState).szData);
    EXPECT_THAT(szSaved(), HasSubstr("\npin_tried=\n"));
    const std::string szRecord = Ask(kRecord).szData;
    EXPECT_EQ(1U, nCount(szRecord, "> AT+CPIN=****\n"));
    EXPECT_THAT(szRecord, Not(HasSubstr("1234\"")));
    EXPECT_EQ(0, iEnd());
    EXPECT_THAT(szSaved(), HasSubstr("\npin=1234\n"));
}

class AWrongPin : public AModemDaemon
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StartModem("on AT+CPIN=\"2222\"\n    OK\n"
                                           "on AT+CPIN=*\n    +CME ERROR: 16\n" +
                                           std::string(kLocked) +
                                           "signal USR1\n    @hangup 100\n"));
        ASSERT_NO_FATAL_FAILURE(StartDaemon("pin=1111\n"));
        ASSERT_FALSE(AwaitLog("the SIM has refused the PIN: incorrect password").empty());
    }

    size_t nAttempts() { return nCount(Ask(kRecord).szData, "> AT+CPIN=****\n"); }

    void AwaitSecondLook()
    {
        ASSERT_FALSE(AwaitLog("the configured one was tried in vain").empty());
    }
};

TEST_F(AWrongPin, IsNotSentASecondTime)
{
    ASSERT_NO_FATAL_FAILURE(AwaitSecondLook());
    ASSERT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CPIN?") >= 4; }));
    EXPECT_EQ(1U, nAttempts());
    EXPECT_EQ("SIM PIN", Ask(kPinState).szData);
    EXPECT_EQ("356938035643809", Ask(kImei).szData); // what needs no SIM works
}

TEST_F(AWrongPin, IsNotSentToAModemThatComesBack)
{
    m_pModem->Signal(SIGUSR1);
    ASSERT_FALSE(AwaitLog("the modem is away|the port is closed").empty());
    ASSERT_NO_FATAL_FAILURE(AwaitSecondLook());
    EXPECT_EQ(1U, nAttempts());
}

TEST_F(AWrongPin, IsNotSentAfterARestart)
{
    m_pDaemon->Signal(SIGKILL); // it has no chance to note anything at its end
    iAwaitEnd();
    EXPECT_THAT(szSaved(), HasSubstr("pin_refused=1111\n"));
    CSyslogReceiver::Get().Clear();
    ASSERT_NO_FATAL_FAILURE(RunDaemon());
    ASSERT_NO_FATAL_FAILURE(AwaitSecondLook());
    EXPECT_EQ(0U, nAttempts());
}

TEST_F(AWrongPin, CanBeReplacedByAPeer)
{
    EXPECT_EQ(kCme + 16, Ask(kSetPin, "3333").iError);
    EXPECT_EQ(kBadRequest, Ask(kSetPin, "22").iError);
    EXPECT_EQ(kBadRequest, Ask(kSetPin, "2222\"\rATD1").iError);
    EXPECT_EQ(0, Ask(kSetPin, "2222").iError);
    EXPECT_THAT(szSaved(), HasSubstr("\npin=2222\npin_refused=\n"));
}

TEST_F(AModemDaemon, DoesNotSendAPinAgainWhoseFateIsNotKnown)
{
    ASSERT_NO_FATAL_FAILURE(StartModem("on AT+CPIN=*\n" + std::string(kLocked)));
    ASSERT_NO_FATAL_FAILURE(StartDaemon("pin=1111\n"));
    ASSERT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CPIN=****") == 1; }));
    m_pDaemon->Signal(SIGKILL);
    iAwaitEnd();
    EXPECT_THAT(szSaved(), HasSubstr("pin_tried=1111\n"));
    CSyslogReceiver::Get().Clear();
    ASSERT_NO_FATAL_FAILURE(RunDaemon());
    ASSERT_FALSE(AwaitLog("the configured one was tried in vain").empty());
    EXPECT_EQ(0U, nCount(Ask(kRecord).szData, "AT+CPIN="));
}

TEST_F(AModemDaemon, HoldsNothingAgainstAPinWhenTheSimWorks)
{
    ASSERT_NO_FATAL_FAILURE(Start("", "pin=1111\npin_tried=1111\n"));
    EXPECT_THAT(szSaved(), HasSubstr("\npin_tried=\n"));
}

TEST_F(AModemDaemon, SendsNoPinThatItCannotNote)
{
    ASSERT_NO_FATAL_FAILURE(StartModem(kLocked));
    Configure("pin=1111\n");
    // No file of its own may grow: not even root's.
    ASSERT_NO_FATAL_FAILURE(RunDaemon(
        {"/bin/sh", "-c",
         std::string("trap '' XFSZ; ulimit -f 0; exec ") + MODEMD + " --config " + m_szConfig}));
    ASSERT_FALSE(AwaitLog("the PIN is not sent").empty());
    EXPECT_EQ(0U, nCount(Ask(kRecord).szData, "AT+CPIN="));
}

TEST_F(AModemDaemon, TellsThatItsSimWantsWhatItDoesNotHave)
{
    ASSERT_NO_FATAL_FAILURE(StartModem("once AT+CPIN?\n    +CPIN: SIM PIN\n    OK\n"
                                       "once AT+CPIN?\n    +CPIN: SIM PUK\n    OK\n"
                                       "once AT+CPIN?\n    +CME ERROR: SIM not inserted\n"));
    ASSERT_NO_FATAL_FAILURE(StartDaemon(""));
    EXPECT_FALSE(AwaitLog("the SIM wants a PIN, and none is configured").empty());
    EXPECT_FALSE(AwaitLog("the SIM wants: SIM PUK").empty());
    EXPECT_FALSE(AwaitLog("the SIM cannot be used: SIM not inserted").empty());
    EXPECT_FALSE(AwaitLog("the modem is ready").empty());
}

TEST_F(AModemDaemon, GoesOnWithASetUpThatTheSimWasNotReadyFor)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CNMI=2,1\n    +CMS ERROR: 314\n"
                                  "on AT+CLIP=1\n    ERROR\n"));
    EXPECT_FALSE(AwaitLog("AT\\+CLIP=1: ERROR").empty());
    EXPECT_EQ(2U, nCount(Ask(kRecord).szData, "> AT+CNMI=2,1\n"));
}

TEST_F(AModemDaemon, InitialisesAModemAnewThatWasReset)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CREG?\n    +CREG: 2,1\n    OK\n"
                                  "once AT+CREG?\n    +CREG: 0,1\n    OK\n"
                                  "signal USR1\n    +CPIN: NOT READY\n"));
    EXPECT_FALSE(AwaitLog("the modem has been reset").empty());
    EXPECT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CLIP=1\n") == 2; }));
    EXPECT_EQ(2U, nCount(Ask(kRecord).szData, "> ATE0\n"));
    m_pModem->Signal(SIGUSR1);
    EXPECT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> ATE0\n") == 3; }));
    EXPECT_EQ(0, Ask(kInit).iError);
    EXPECT_EQ(4U, nCount(Ask(kRecord).szData, "> ATE0\n"));
    EXPECT_EQ(3U, nCount(Ask(kRecord).szData, "> AT+CFUN=1\n")); // else a report for each of them
}

TEST_F(AModemDaemon, OutlivesAnswersThatMakeNoSense)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CREG?\n    +CREG: \n    OK\n"
                                  "once AT+CREG?\n    +CREG: 2\n    OK\n"
                                  "once AT+CREG?\n    +CREG: 2,77777777777,\"zz\",\"\n    OK\n"
                                  "once AT+CREG?\n    +CREG: 2,1,\"FFFFFFFF\",\"\",99\n    OK\n"
                                  "once AT+CREG?\n    OK\n"
                                  "on AT+COPS?\n    +COPS: ,,,,,\"\"\"\n    OK\n"
                                  "on AT+CSQ\n    +CSQ: 300,-1\n    OK\n"
                                  "on AT+CGREG?\n    OK\n"
                                  "signal USR1\n    +CMTI: \"SM\"\n    +CMTI: \"SM\",x;+CFUN=0\n"
                                  "    +CLIP:\n    +CREG: \xFF\x01\n    +CPIN\n    RING\n"));
    m_pModem->Signal(SIGUSR1);
    ASSERT_TRUE(bAwaitNews("RING"));
    ASSERT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> AT+CREG?\n") > 5; }));
    EXPECT_EQ(kNotUnderstood, Ask(3004).iError);
    EXPECT_EQ(kNotUnderstood, Ask(3005).iError);
    EXPECT_EQ(kNotUnderstood, Ask(3010).iError);
    EXPECT_EQ(0U, nCount(Ask(kRecord).szData, "> AT+CMGR"));
    QuorCore::CDMStatCellServing cell(nullptr, "");
    Read(Ask(kCell).szData, cell);
    EXPECT_TRUE(cell.m_Rssi.bIsNull());
    EXPECT_TRUE(cell.m_Mcc.bIsNull());
}

TEST_F(AModemDaemon, TakesADeviceThatIsNoSerialLineForNone)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon("device=/dev/null\n"));
    EXPECT_FALSE(AwaitLog("the modem is away: /dev/null").empty());
    EXPECT_EQ(kAway, Ask(kImei).iError);
}

TEST_F(AModemDaemon, FollowsWhatTheModemReports)
{
    ASSERT_NO_FATAL_FAILURE(Start("signal USR1\n    +CREG: 5,\"00C4\",\"0000ABCE\",2\n    RING\n",
                                  "registration_period_s=3600\nlog_level_CCallbackManager=6\n"));
    ASSERT_FALSE(AwaitLog("registration: home").empty());
    m_pModem->Signal(SIGUSR1);
    ASSERT_TRUE(bAwaitNews("RING"));
    ASSERT_FALSE(AwaitLog("the modem says: RING").empty());
    ASSERT_FALSE(AwaitLog("registration: roaming").empty());
    QuorCore::CDMStatCellServing cell(nullptr, "");
    Read(Ask(kCell).szData, cell);
    EXPECT_EQ("UMTS", cell.m_Techno.szGetVal());
    EXPECT_EQ(0xC4U, cell.m_Lac.iGetVal());
    EXPECT_EQ(0xABCEU, cell.m_Ci.iGetVal());
}

TEST_F(AModemDaemon, ReadsMessagesOfThoseOnTheWhiteListOnly)
{
    ASSERT_NO_FATAL_FAILURE(Start("signal USR1\n    +CMTI: \"SM\",3\n"));
    m_pModem->Signal(SIGUSR1);
    EXPECT_TRUE(bAwaitNews("SMS 3 of +33123456789 is not allowed"));
    EXPECT_EQ(0, Ask(kWhitelist, "+33123456789", kAdd).iError);
    m_pModem->Signal(SIGUSR1);
    EXPECT_TRUE(bAwaitNews("SMS 3 of +33123456789: Hello"));
}

TEST_F(AModemDaemon, GivesTheMessagesThatWaitAsPdus)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("", Ask(kNextSms).szData); // its sender is not on the white list
    EXPECT_EQ(0, Ask(kWhitelist, "+33123456789", kAdd).iError);
    const std::string szMessage =
        "1\n07913321436587F9040B913321436587F900006211220000004005C8329BFD06";
    EXPECT_EQ(szMessage, Ask(kNextSms).szData);
    EXPECT_EQ(szMessage, Ask(kNextSms).szData); // until somebody says that he has it
    const Frame last = Ask(kNextSms, "1");
    EXPECT_EQ(0, last.iError);
    EXPECT_EQ("", last.szData);
    EXPECT_EQ(kBadRequest, Ask(kNextSms, "1;+CFUN=0").iError);
    EXPECT_EQ("1", Ask(kSendSms, "+33123456789\nHello").szData); // as text, as before
    const std::string szRecord = Ask(kRecord).szData;
    EXPECT_LT(szRecord.rfind("> AT+CMGF=0\n"), szRecord.rfind("> AT+CMGF=1\n"));
    EXPECT_LT(szRecord.rfind("> AT+CMGF=1\n"), szRecord.rfind("> AT+CMGS="));
}

// The modem goes while it takes a text, and while it lists its messages; then it is asked as ever.
TEST_F(AModemDaemon, ComesThroughAModemThatGoesInTheMiddle)
{
    ASSERT_NO_FATAL_FAILURE(StartDaemon("")); // first: then it is known when it tells each news
    ASSERT_NO_FATAL_FAILURE(
        StartModem("once AT+CMGS=*\n    @prompt\n    @hangup 200\n"
                   "once AT+CMGL=4\n    @raw \\x0D\\x0A+CMGL: 1,1,,24\\x0D\\x0A\n"
                   "    @hangup 200\n"));
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ(0, Ask(kWhitelist, "+33123456789", kAdd).iError);
    EXPECT_EQ(kAway, Ask(kSendSms, "+33123456789\nHello").iError);
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ(kAway, Ask(kNextSms).iError);
    ASSERT_TRUE(bAwaitNews("the modem is ready"));
    EXPECT_EQ("1", Ask(kSendSms, "+33123456789\nHello").szData);
    EXPECT_THAT(Ask(kNextSms).szData, HasSubstr("1\n0791"));
}

// Of a name, no PDU at all, cut off, not hexadecimal, one that was to be sent, of somebody else:
// none of them. The one of 112, a national number, is.
TEST_F(AModemDaemon, GivesNoMessageWhoseSenderItCannotTell)
{
    ASSERT_NO_FATAL_FAILURE(Start("on AT+CMGL=4\n"
                                  "    +CMGL: 1,1,,24\n"
                                  "    @raw 00040BD0C8329BFD0600006211220000004000\\x0D\\x0A\n"
                                  "    +CMGL: 2,1,,24\n"
                                  "    @raw FF\\x0D\\x0A\n"
                                  "    +CMGL: 3,1,,24\n"
                                  "    @raw 0004039111\\x0D\\x0A\n"
                                  "    +CMGL: 4,1,,24\n"
                                  "    @raw 000403911XF20000621122000000400\\x0D\\x0A\n"
                                  "    +CMGL: 5,2,,24\n"
                                  "    @raw 0004038111F200006211220000004000\\x0D\\x0A\n"
                                  "    +CMGL: 6,1,,24\n"
                                  "    @raw 0004038112F200006211220000004000\\x0D\\x0A\n"
                                  "    +CMGL: 7,0,,24\n"
                                  "    @raw 0004038111F200006211220000004000\\x0D\\x0A\n"
                                  "    OK\n"));
    EXPECT_EQ(0, Ask(kWhitelist, "112", kAdd).iError);
    EXPECT_EQ("7\n0004038111F200006211220000004000", Ask(kNextSms).szData);
}

TEST_F(AModemDaemon, LooksForNetworks)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ("20801,in use,LTE,Simulated Network\n20810,available,UMTS,Second Network",
              Ask(kScan).szData);
    EXPECT_EQ("1,\"20801\",\"00C3\",\"0000ABCD\",17", Ask(kCells).szData);
}

TEST_F(AModemDaemon, UnderstandsOnlyNetworksThatItIsToldWhole)
{
    ASSERT_NO_FATAL_FAILURE(
        Start("on AT+COPS=?\n"
              "    +COPS: ),(2,\"a),b\",\"\",\"20801\"),(x,,,\"1\"),(1,,,\"2a\"),(3,\n"
              "    OK\n"));
    EXPECT_EQ("20801,in use,,a),b", Ask(kScan).szData);
}

TEST_F(AModemDaemon, SetsTheAccessPoint)
{
    ASSERT_NO_FATAL_FAILURE(Start("", "allow_at=1\n"));
    EXPECT_EQ(0, Ask(kApn, "internet.example-1").iError);
    EXPECT_EQ("+CGDCONT: 1,\"IP\",\"internet.example-1\"", Ask(kRaw, "AT+CGDCONT?").szData);
    for (const char* const pszName : {"", "two words", "\",1;+CFUN=0"}) {
        EXPECT_EQ(kBadRequest, Ask(kApn, pszName).iError) << pszName;
    }
}

TEST_F(AModemDaemon, SetsWhetherTheSimAsksForItsPin)
{
    ASSERT_NO_FATAL_FAILURE(Start("on AT+CLCK=\"SC\",0,\"1234\"\n    OK\n"
                                  "on AT+CLCK=\"SC\",*\n    +CME ERROR: 16\n"));
    EXPECT_EQ(0, Ask(kPinActive, "1234", 0).iError);
    EXPECT_EQ(1016, Ask(kPinActive, "4321", 1).iError);
    EXPECT_EQ(kBadRequest, Ask(kPinActive, "1234", 2).iError);
    EXPECT_EQ(kBadRequest, Ask(kPinActive, "123", 1).iError);
    const std::string szRecord = Ask(kRecord).szData;
    EXPECT_EQ(2U, nCount(szRecord, "> AT+CLCK=****\n"));
    EXPECT_EQ(0U, nCount(szRecord, "1234"));
}

// Nobody waits in vain, whatever of the interface he asks for.
TEST_F(AModemDaemon, AnswersOrRefusesEveryCommandOfItsInterface)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<uint16_t> refused;
    for (uint16_t iCommand = kImei; iCommand <= kWhitelist; ++iCommand) {
        if (Ask(iCommand).iError == kNotSupported) {
            refused.push_back(iCommand);
        }
    }
    EXPECT_THAT(refused,
                ElementsAre(3019, 3022, 3024, 3025, 3026, 3027, 3028, 3029, 3030, 3031, 3035));
}

TEST_F(AModemDaemon, HangsUpOnThoseWhoAreNotOnTheWhiteList)
{
    ASSERT_NO_FATAL_FAILURE(Start("signal USR1\n    RING\n    +CLIP: \"+331\",145\n    RING\n"
                                  "    +CLIP: \"+331\",145\n    NO CARRIER\n"));
    EXPECT_EQ(0, Ask(kWhitelist, "+331", kAdd).iError);
    m_pModem->Signal(SIGUSR1);
    ASSERT_TRUE(bAwaitNews("NO CARRIER"));
    ASSERT_FALSE(AwaitLog("call of \\+331").empty());
    EXPECT_EQ(0U, nCount(Ask(kRecord).szData, "> ATH"));
    EXPECT_EQ(0, Ask(kWhitelist, "+331", kRemove).iError);
    m_pModem->Signal(SIGUSR1);
    ASSERT_TRUE(bAwaitNews("call of +331 is not allowed, hanging up"));
    EXPECT_TRUE(bAwait([this] { return nCount(Ask(kRecord).szData, "> ATH") > 0; }));
}

TEST_F(AModemDaemon, ChangesItsWhiteList)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_THAT(NumbersOf(Ask(kWhitelist).szData), ElementsAre());
    EXPECT_THAT(NumbersOf(Ask(kWhitelist, "+331", kAdd).szData), ElementsAre("+331"));
    EXPECT_THAT(NumbersOf(Ask(kWhitelist, "112", kAdd).szData), ElementsAre("+331", "112"));
    EXPECT_THAT(NumbersOf(Ask(kWhitelist, "112", kAdd).szData), ElementsAre("+331", "112"));
    EXPECT_THAT(NumbersOf(Ask(kWhitelist, "+331", kRemove).szData), ElementsAre("112"));
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, "+331", kRemove).iError);
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, "my mother", kAdd).iError);
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, "", kAdd).iError);
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, "112", 3).iError);
}

TEST_F(AModemDaemon, TakesAWholeWhiteListOrNothing)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    QuorCore::CDMSrvCallback record(nullptr, "");
    record.m_WhiteList.SetAttributeCanDelete(true);
    record.m_AuthSms.SetVal(false);
    for (const char* pszNumber : {"+331", " 332", "333"}) {
        record.AddPhoneNumberToWhitelist(pszNumber);
    }
    const auto bytes = [&record] {
        QuorCore::ustring text;
        QuorCore::CSerialize stream(&text, true, false, false);
        record.iSerialize(stream);
        return std::string(text.begin(), text.end());
    };
    const std::string szGood = bytes();
    const Frame answer = Ask(kWhitelist, szGood);
    EXPECT_EQ(0, answer.iError);
    EXPECT_THAT(NumbersOf(answer.szData), ElementsAre("+331", " 332", "333"));
    QuorCore::CDMSrvCallback taken(nullptr, "");
    Read(answer.szData, taken);
    EXPECT_FALSE(taken.m_AuthSms.iGetVal());
    record.AddPhoneNumberToWhitelist("no number");
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, bytes()).iError);
    for (size_t n = 1; n < szGood.size(); ++n) {
        ASSERT_EQ(kBadRequest, Ask(kWhitelist, szGood.substr(0, n)).iError) << n;
    }
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, szGood + 'x').iError);
    EXPECT_EQ(kBadRequest, Ask(kWhitelist, std::string(200, '\xFF')).iError);
    EXPECT_THAT(NumbersOf(Ask(kWhitelist).szData), ElementsAre("+331", " 332", "333"));
}

TEST_F(AModemDaemon, KeepsItsTreeInADirectory)
{
    const std::string szDirectory = m_Directory.szPath("data");
    ASSERT_NO_FATAL_FAILURE(Start("", "tree_directory=" + szDirectory + "\n"));
    EXPECT_EQ(0, Ask(kWhitelist, "+331", kAdd).iError);
    EXPECT_EQ(0, Ask(kSetConfig, "{\"callback\":{\"authMtc\":false}}").iError);
    EXPECT_THAT(Ask(kGetConfig, "/db/callback/authMtc").szData, HasSubstr("false"));
    EXPECT_EQ(403, Ask(kSetConfig, "{\"cell\":{\"rssi\":31}}").iError); // the modem's own
    ASSERT_TRUE(bAwait([&] { // the state that is current may be removed while it is looked up
        std::ifstream file(szDirectory + "/current/callback");
        const std::string szText(std::istreambuf_iterator<char>(file), {});
        return szText.find("\"authMtc\" : false") != std::string::npos;
    }));
    m_pDaemon->Signal(SIGKILL);
    iAwaitEnd();
    CSyslogReceiver::Get().Clear();
    ASSERT_NO_FATAL_FAILURE(RunDaemon());
    EXPECT_THAT(NumbersOf(Ask(kWhitelist).szData), ElementsAre("+331"));
    EXPECT_THAT(Ask(kGetConfig, "/db/callback/authMtc").szData, HasSubstr("false"));
    EXPECT_EQ(0, iEnd());
}

TEST_F(AModemDaemon, TakesCommandsOfPeopleOnlyWhenThatIsAllowed)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const Frame answer = Ask(kRaw, "ATI");
    EXPECT_EQ(kNotAllowed, answer.iError);
    EXPECT_THAT(answer.szData, HasSubstr("allow_at=1"));
    EXPECT_EQ(0U, nCount(Ask(kRecord).szData, "> ATI"));
}

TEST_F(AModemDaemon, PassesOnCommandsOfPeople)
{
    ASSERT_NO_FATAL_FAILURE(Start("on AT+CEER\n    +CME ERROR: 4\n", "allow_at=1\n"));
    EXPECT_EQ("Simulated Modem\nRevision 1.0", Ask(kRaw, "ATI").szData);
    EXPECT_EQ("+CREG: 2,1,\"00C3\",\"0000ABCD\",7", Ask(kRaw, "AT+CREG?").szData);
    EXPECT_EQ("", Ask(kRaw, "AT").szData);
    const Frame refused = Ask(kRaw, "AT+CEER");
    EXPECT_EQ(kCme + 4, refused.iError);
    EXPECT_EQ("operation not supported", refused.szData);
    EXPECT_EQ(kBadRequest, Ask(kRaw, "").iError);
    EXPECT_EQ(kBadRequest, Ask(kRaw, "AT\rATD112;").iError);
    EXPECT_EQ("Simulated Modem\nRevision 1.0", Ask(kRaw, std::string("ATI\0", 4)).szData);
}

TEST_F(AModemDaemon, SwitchesTheModemOffAndOnAgain)
{
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CIMI\n", "command_timeout_ms=1500\n"));
    EXPECT_EQ(0, Ask(kShutDown).iError);
    ASSERT_FALSE(AwaitLog("the modem was switched off").empty());
    EXPECT_EQ(0, Ask(kImei).iError);
    EXPECT_EQ(kTimeOut, Ask(3001).iError); // nothing is asked by itself, not even for this
    const size_t nAsked = nCount(Ask(kRecord).szData, "> AT+C");
    EXPECT_EQ(0, Ask(kImei).iError);
    EXPECT_EQ(nAsked + 1, nCount(Ask(kRecord).szData, "> AT+C"));
    const Frame answer = Ask(kInit);
    EXPECT_EQ(0, answer.iError);
    EXPECT_EQ("the modem is ready", answer.szData);
    EXPECT_EQ(0, Ask(kCsq).iError);
}

TEST_F(AModemDaemon, ServesAnotherDaemon)
{
    ASSERT_NO_FATAL_FAILURE(Start("signal USR1\n    @hangup\n"));
    const std::string szConfig = m_Directory.szPath("watch.conf");
    WriteFile(szConfig, "port=" + std::to_string(m_iPort) + "\nperiod_s=1\n");
    CChild watch(Program({MODEM_WATCH, "--config", szConfig}));
    EXPECT_FALSE(AwaitLog("modem_link.* cell 43981 of area 195, LTE, -79 dBm").empty());
    EXPECT_FALSE(AwaitLog("modem_link.* registration: home, error 0").empty());
    m_pModem->Signal(SIGUSR1);
    EXPECT_FALSE(AwaitLog("modem_link.* news: the modem is away").empty());
    EXPECT_FALSE(AwaitLog("modem_link.* registration: there is no modem, error 2").empty());
    watch.Signal(SIGTERM);
    EXPECT_EQ(0, watch.Await().iExitCode);
    EXPECT_EQ(0, iEnd());
}

TEST_F(AModemDaemon, ShowsTheStateOfItsModemByALed)
{
    CSysClass sysClass;
    const std::string szLed = sysClass.szMakeDirectory("leds/modem");
    for (const char* pszFile : {"brightness", "trigger", "delay_on", "delay_off"}) {
        WriteFile(szLed + pszFile, "");
    }
    const auto bAwaitFile = [&szLed](const char* pszFile, const std::string& szContent) {
        return bAwait([&] { return szReadFile(szLed + pszFile) == szContent; });
    };
    ASSERT_NO_FATAL_FAILURE(Start("once AT+CPIN?\n    +CME ERROR: SIM not inserted\n"
                                  "signal USR1\n    @hangup\n",
                                  "led=modem\nregistration_period_s=2\n"));
    EXPECT_TRUE(bAwaitFile("brightness", "1"));
    EXPECT_TRUE(bAwaitFile("delay_on", "500")); // it did blink before
    m_pModem->Signal(SIGUSR1);
    EXPECT_TRUE(bAwaitFile("brightness", "0"));
    EXPECT_EQ("none", szReadFile(szLed + "trigger"));
}

TEST_F(AModemDaemon, AnswersForItsVersion)
{
    const ChildResult result = RunProgram({MODEMD, "--version"});
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("modemd 1.00\n", result.szOutput);
}

struct BadLine {
    const char* pszWhat;
    const char* pszLine;
    const char* pszComplaint;
};

class ABadModemConfiguration : public AModemDaemon, public ::testing::WithParamInterface<BadLine>
{
};

TEST_P(ABadModemConfiguration, EndsTheDaemonWithAClearLine)
{
    Configure(std::string(GetParam().pszLine) + "\n");
    const ChildResult result = RunProgram(CommandLine());
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_EQ("modemd: not started, the system log says why\n", result.szErrors);
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count(GetParam().pszComplaint));
    EXPECT_THAT(szSaved(), HasSubstr(GetParam().pszLine));
}

INSTANTIATE_TEST_SUITE_P(
    With, ABadModemConfiguration,
    ::testing::Values(
        BadLine{"APortOfLetters", "port=abc", ": port=abc is not a number from -1 to 65535"},
        BadLine{"ASpeedOfLetters", "speed=fast", ": speed=fast is not a number"},
        BadLine{"ASpeedThatNoLineHas", "speed=115201", ": no serial line has speed=115201"},
        BadLine{"NoPeriod", "signal_period_s=0", ": signal_period_s=0 is not a number from 1"},
        BadLine{"APeriodBeyondAnyNumber", "registration_period_s=99999999999",
                ": registration_period_s=99999999999 is not"},
        BadLine{"ATimeOutThatIsTooShort", "command_timeout_ms=10",
                ": command_timeout_ms=10 is not"},
        BadLine{"APinOfLetters", "pin=12ab", ": pin does not have 4 to 8 digits"},
        BadLine{"APinThatIsTooLong", "pin=123456789", ": pin does not have 4 to 8 digits"},
        BadLine{"AnUnclearPermission", "allow_at=yes",
                ": allow_at=yes is not a number from 0 to 1"},
        BadLine{"ATreeThatCannotBeKept", "tree_directory=/proc/none/tree", "/proc/none/tree"},
        BadLine{"ALevelOfLetters", "log_level_modem_port=chatty",
                ": log_level_modem_port=chatty is not a number from 0 to 7"}),
    [](const auto& bad) { return bad.param.pszWhat; });
} // namespace
