#include "examples/NetdProgram.h"
#include "support/CNetLab.h"
#include "support/CSysClass.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

using namespace TestSupport;

namespace
{
class ANetd : public ::testing::Test
{
protected:
    CNetdProgram m_Netd;
};

TEST_F(ANetd, SaysWhatTheMachineLacksAndGoesOn)
{
    CSysClass sysClass; // none of either, whatever this machine has
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("button_line=4\nled=status\n"));
    EXPECT_FALSE(AwaitLog("this machine has no GPIO line 4: there is no reset button").empty());
    EXPECT_FALSE(AwaitLog("this machine has no LED status: nothing is shown").empty());
    EXPECT_FALSE(AwaitLog("no interface is configured: the network is left alone").empty());
    EXPECT_EQ(R"({"button":"none","led":"none","network":{"state":"unset"},"presses":0})",
              m_Netd.szStatus());
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetd, SaysWhatIsNotConfigured)
{
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start(""));
    EXPECT_FALSE(AwaitLog("no button_line is configured").empty());
    EXPECT_FALSE(AwaitLog("no led is configured").empty());
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetd, DoesNotStartWithABadSetting)
{
    const CTempDirectory directory;
    WriteFile(directory.szPath("conf"), "button_line=four\n");
    const ChildResult result = RunProgram({NETD, "--config", directory.szPath("conf")});
    EXPECT_EQ(EXIT_FAILURE, result.iExitCode);
    EXPECT_FALSE(AwaitLog("button_line=four is not a number").empty());
}

TEST_F(ANetd, ShowsNothingOutsideOfTheDirectoryOfLeds)
{
    CSysClass sysClass;
    sysClass.szMakeDirectory("leds");
    const std::string szOther = sysClass.szMakeDirectory("backlight");
    WriteFile(szOther + "brightness", "7");
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("led=../backlight\n"));
    EXPECT_FALSE(AwaitLog("led=\\.\\./backlight is not a name: nothing is shown").empty());
    EXPECT_EQ(0, m_Netd.iEnd());
    EXPECT_EQ("7", szReadFile(szOther + "brightness"));
}

/// Makes the files of line 4, a button that is up. @return Their directory.
std::string szMakeLine(CSysClass& sysClass)
{
    const std::string szLine = sysClass.szMakeDirectory("gpio/gpio4");
    for (const char* szFile : {"direction", "edge", "active_low"}) {
        WriteFile(szLine + szFile, "\n");
    }
    WriteFile(szLine + "value", "0\n");
    return szLine;
}

TEST_F(ANetd, SeesAReleaseSoonerThanItWaitsForAPress)
{
    CSysClass sysClass;
    const std::string szLine = szMakeLine(sysClass);
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("button_line=4\n"));
    ASSERT_TRUE(m_Netd.bAwaitStatus(R"("button":"up")"));
    auto fastest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 10 && fastest > std::chrono::milliseconds(150); ++i) { // it may be busy
        WriteFile(szLine + "value", "1\n");
        ASSERT_TRUE(m_Netd.bAwaitStatus(R"("button":"down")"));
        const auto begin = std::chrono::steady_clock::now();
        WriteFile(szLine + "value", "0\n");
        ASSERT_TRUE(m_Netd.bAwaitStatus(R"("button":"up")"));
        fastest = std::min(fastest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_GT(std::chrono::milliseconds(150), fastest);
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetd, SparesTheProcessorWhenItsLineIsNeitherUpNorDown)
{
    CSysClass sysClass;
    const std::string szLine = szMakeLine(sysClass);
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("button_line=4\n"));
    ASSERT_TRUE(m_Netd.bAwaitStatus(R"("button":"up")"));
    WriteFile(szLine + "value", "2\n"); // neither down nor up: no wait, as for a line that has gone
    const QuorCore::CUniqueFd looks(inotify_init1(IN_CLOEXEC));
    ASSERT_NE(-1, inotify_add_watch(looks.iGet(), (szLine + "value").c_str(), IN_ACCESS));
    pollfd look{looks.iGet(), POLLIN, 0};
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 26; ++i) { // several at once are told as one
        ASSERT_EQ(1, poll(&look, 1, kAwaitLimitMs));
        inotify_event event = {};
        ASSERT_LT(0, read(looks.iGet(), &event, sizeof(event)));
    }
    EXPECT_LE(std::chrono::milliseconds(25 * 19), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetd, ShowsAHeldButton)
{
    CSysClass sysClass;
    const std::string szLed = sysClass.szMakeDirectory("leds/status");
    const std::string szLine = szMakeLine(sysClass);
    WriteFile(szLed + "brightness", "1\n");
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("button_line=4\nled=status\n"));
    ASSERT_TRUE(m_Netd.bAwaitStatus(R"("button":"up","led":"dark")"));
    // Dark before, too, and switched off once more: between two writes a plain file is empty.
    EXPECT_TRUE(bAwait([&] { return szReadFile(szLed + "brightness") == "0"; }));
    WriteFile(szLine + "value", "1\n"); // seen at the next look: a plain file has no edges
    EXPECT_TRUE(m_Netd.bAwaitStatus(R"("button":"down","led":"lit")"));
    EXPECT_EQ("1", szReadFile(szLed + "brightness"));
    EXPECT_FALSE(AwaitLog("the reset button was pressed").empty());
    WriteFile(szLine + "value", "0\n");
    EXPECT_TRUE(m_Netd.bAwaitStatus(R"("button":"up","led":"dark")"));
    EXPECT_TRUE(m_Netd.bAwaitStatus(R"("presses":1)"));
    EXPECT_EQ(0, m_Netd.iEnd());
}

/// With a network of the test's own.
class ANetdInANetwork : public ANetd
{
protected:
    void SetUp() override
    {
        const std::string szWhyNot = CNetLab::szWhyNot();
        if (!szWhyNot.empty()) {
            GTEST_SKIP() << szWhyNot;
        }
        m_pLab = std::make_unique<CNetLab>();
    }

    std::unique_ptr<CNetLab> m_pLab;
};

TEST_F(ANetdInANetwork, SetsAnAddress)
{
    CNetLab::szRun({"ip", "link", "set", "dev0", "up", "address", "02:00:00:00:00:07"});
    WriteFile("/run/dnsmasq/resolv.conf", "nameserver 10.77.0.53\n");
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start(
        "interface=dev0\naddress=10.77.0.5\nnetmask=255.255.255.0\ngateway=10.77.0.1\n"));
    EXPECT_TRUE(m_Netd.bAwaitStatus(
        R"({"address":"10.77.0.5","dns1":"10.77.0.53","interface":"dev0","mac":"02:00:00:00:00:07",)"
        R"("netmask":"255.255.255.0","state":"up"})"));
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetdInANetwork, AsksForAnAddressAndTellsItsPeers)
{
    m_pLab->StartServer();
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("interface=dev0\naddress=dhcp\n"));
    EXPECT_TRUE(m_Netd.bAwaitStatus(R"("state":"up")"));
    EXPECT_NE(std::string::npos, m_Netd.szStatus().find(R"("address":"10.77.0.1)"));
    EXPECT_FALSE(AwaitLog("interface dev0: up, address \"10\\.77\\.0\\.1").empty());
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetdInANetwork, RunsNothingThatASettingSays)
{
    const CTempDirectory directory;
    const std::string szMark = directory.szPath("mark");
    ASSERT_NO_FATAL_FAILURE(
        m_Netd.Start("interface=dev0\naddress=10.77.0.5;touch " + szMark + "\n"));
    EXPECT_TRUE(m_Netd.bAwaitStatus(R"("state":"failed")"));
    EXPECT_FALSE(AwaitLog("interface dev0 could not be set up: -1").empty());
    EXPECT_FALSE(std::filesystem::exists(szMark));
    EXPECT_EQ(0, m_Netd.iEnd());
}

TEST_F(ANetdInANetwork, EndsInTheMiddleOfAnExchange)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    WriteFile("/etc/dhcp/dhclient.conf", "timeout 600;\n"); // no server answers
    ASSERT_NO_FATAL_FAILURE(m_Netd.Start("interface=dev0\naddress=dhcp\n"));
    ASSERT_TRUE(bAwait([] { // is under way when the client has brought the link up
        return CNetLab::szRun({"ip", "link", "show", "dev0"}).find("state UP") != std::string::npos;
    }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, m_Netd.iEnd());
    EXPECT_GT(std::chrono::seconds(9), std::chrono::steady_clock::now() - begin);
}
} // namespace
