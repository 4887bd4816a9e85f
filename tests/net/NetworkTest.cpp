// The network helpers with ip(8), sudo(8), dhclient(8) and a DHCP server, in a network of their
// own.
#include "libQuorCore/network_helper.h"

#include "support/CDeadline.h"
#include "support/CLogLevel.h"
#include "support/CNetLab.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"

#include "internal/CUniqueFd.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <netdb.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using commands_t = std::vector<std::string>;
using clock_type = std::chrono::steady_clock;

constexpr char kResolver[] = "/run/dnsmasq/resolv.conf";
constexpr char kDeleteAddresses[] =
    "/sbin/ip addr show dev dev0 | /usr/bin/awk '/inet / && ! /10.0.0.123/ "
    "{cmd=\"/sbin/ip addr del \" $2 \" dev dev0\"; cmd | getline line; close(cmd);}'";

bool s_bNameless = false; // getnameinfo(3) fails
std::string s_szPipeMode; // of the last popen(3)

class ANetwork : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string szWhyNot = CNetLab::szWhyNot();
        if (!szWhyNot.empty()) {
            GTEST_SKIP() << szWhyNot;
        }
        m_pLab = std::make_unique<CNetLab>();
        CSyslogReceiver::Get().Clear();
    }

    /// @return The commands that were run since the last call, as "RESULT: COMMAND".
    static commands_t Commands()
    {
        commands_t commands;
        const std::string szBegin = "command ";
        const std::string szEnd = " exited, ret = ";
        for (const auto& record : CSyslogReceiver::Get().Records()) {
            const size_t begin = record.szText.find(szBegin);
            const size_t end = record.szText.rfind(szEnd);
            if (begin != std::string::npos && end != std::string::npos) {
                commands.push_back(
                    record.szText.substr(end + szEnd.size()) + ": " +
                    record.szText.substr(begin + szBegin.size(), end - begin - szBegin.size()));
            }
        }
        CSyslogReceiver::Get().Clear();
        return commands;
    }
    static void Ip(const std::vector<std::string>& args)
    {
        std::vector<std::string> command = {"ip"};
        command.insert(command.end(), args.begin(), args.end());
        CNetLab::szRun(command);
    }
    /// @return The addresses of dev0 as ip(8) lists them, with a blank behind each.
    static std::string szAddresses(const char* szFamily)
    {
        return CNetLab::szRun({"sh", "-c",
                               std::string("ip ") + szFamily +
                                   " -oneline addr show dev dev0 scope global | "
                                   "while read -r n i f a rest; do printf '%s ' \"$a\"; done"});
    }
    static std::string szDefaultRoute()
    {
        return CNetLab::szRun({"ip", "route", "show", "default"});
    }
    static long lSecondsSince(clock_type::time_point begin)
    {
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::seconds>(clock_type::now() - begin).count());
    }

    std::unique_ptr<CNetLab> m_pLab;
    CLogLevel m_LogLevel;
};

TEST_F(ANetwork, AsksAServerForAnAddress)
{
    m_pLab->StartServer();
    EXPECT_EQ(0, iStartDhcp("dev0", false));
    EXPECT_EQ((commands_t{"0: sudo /sbin/ip link set dev0 down", "0: /sbin/dhclient -1 dev0"}),
              Commands());
    std::string szAddress;
    std::string szNetmask;
    EXPECT_EQ(0, iGetIp("dev0", &szAddress, &szNetmask, false, 0));
    EXPECT_EQ("10.77.0.1", szAddress.substr(0, 9));
    EXPECT_EQ("255.255.255.0", szNetmask);
    EXPECT_NE(std::string::npos, szDefaultRoute().find("via 10.77.0.1 dev dev0"));
    EXPECT_NE(std::string::npos, szReadFile("/etc/resolv.conf").find("10.77.0.53"));
}

TEST_F(ANetwork, AsksAServerForAnIpv6Address)
{
    if (!m_pLab->bHasIpv6()) {
        GTEST_SKIP() << "this kernel has no IPv6";
    }
    m_pLab->StartServer();
    Ip({"link", "set", "dev0", "up"});
    ASSERT_TRUE(bAwait([] { // the client gives up at once without an address of the link
        return CNetLab::szRun({"ip", "-6", "addr", "show", "dev", "dev0", "scope", "link"})
                   .find("fe80:") != std::string::npos;
    }));
    EXPECT_EQ(0, iStartDhcp("dev0", true));
    EXPECT_EQ((commands_t{"0: sudo /sbin/ip link set dev0 up", "0: /sbin/dhclient -6 -1 dev0"}),
              Commands());
    EXPECT_NE(std::string::npos, szAddresses("-6").find("fd77::1"));
}

TEST_F(ANetwork, GivesUpWithoutAServer)
{
    WriteFile("/etc/dhcp/dhclient.conf", "timeout 4;\n");
    const auto begin = clock_type::now();
    EXPECT_EQ(2, iStartDhcp("dev0", false));
    EXPECT_GT(30, lSecondsSince(begin)); // it was told 4
    EXPECT_EQ((commands_t{"0: sudo /sbin/ip link set dev0 down", "2: /sbin/dhclient -1 dev0"}),
              Commands());
}

TEST_F(ANetwork, TellsThatThereIsNoSuchInterface)
{
    EXPECT_EQ(1, iStartDhcp("dev7", true));
    EXPECT_EQ((commands_t{"1: sudo /sbin/ip link set dev7 up", "1: /sbin/dhclient -6 -1 dev7"}),
              Commands());
}

TEST_F(ANetwork, KnowsNamesWithUnusualCharacters)
{
    std::string szFormer = "dev0";
    for (const char* szName : {"a.b_c-d@e", "+g=h,i", "fifteen_letters", "0", "up"}) {
        Ip({"link", "set", "dev", szFormer, "name", szName});
        EXPECT_EQ(0, iSetStaticIp(szName, "10.78.0.5", "255.255.255.0", "", false)) << szName;
        EXPECT_EQ("0: /sbin/ip addr add 10.78.0.5/24 dev " + std::string(szName),
                  Commands().back());
        std::string szAddress;
        EXPECT_EQ(0, iGetIp(szName, &szAddress, nullptr, false, 0));
        EXPECT_EQ("10.78.0.5", szAddress);
        szFormer = szName;
    }
}

TEST_F(ANetwork, ReplacesTheAddressesOfAnInterface)
{
    Ip({"link", "set", "dev0", "up"});
    for (const char* szAddress : {"192.0.2.7/24", "10.0.0.123/24", "198.51.100.3/25"}) {
        Ip({"addr", "add", szAddress, "dev", "dev0"});
    }
    EXPECT_EQ(0, iSetStaticIp("dev0", "10.77.0.5", "255.255.255.0", "10.77.0.1", false));
    EXPECT_EQ("10.0.0.123/24 10.77.0.5/24 ", szAddresses("-4"));
    EXPECT_NE(std::string::npos, szDefaultRoute().find("default via 10.77.0.1 dev dev0"));
    EXPECT_EQ((commands_t{std::string("0: ") + kDeleteAddresses,
                          "0: /sbin/ip addr add 10.77.0.5/24 dev dev0",
                          "0: /sbin/ip route add default via 10.77.0.1 dev dev0"}),
              Commands());
}

TEST_F(ANetwork, AddsNoRouteWithoutAGateway)
{
    for (const char* szGateway : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(0, iSetStaticIp("dev0", "10.77.0.5", "255.255.255.255", szGateway, false));
        EXPECT_EQ((commands_t{std::string("0: ") + kDeleteAddresses,
                              "0: /sbin/ip addr add 10.77.0.5/0 dev dev0"}),
                  Commands());
    }
}

TEST_F(ANetwork, ReturnsTheResultOfTheLastCommand)
{
    // The link is down: the address can be set, the route cannot.
    EXPECT_EQ(2, iSetStaticIp("dev0", "10.77.0.5", nullptr, "10.77.0.1", false));
    EXPECT_EQ((commands_t{std::string("0: ") + kDeleteAddresses,
                          "0: /sbin/ip addr add 10.77.0.5/0 dev dev0",
                          "2: /sbin/ip route add default via 10.77.0.1 dev dev0"}),
              Commands());
    // And the other way round: the address is the kept one, so it is still there.
    Ip({"link", "set", "dev0", "up"});
    Ip({"addr", "add", "10.0.0.123/24", "dev", "dev0"});
    EXPECT_EQ(0, iSetStaticIp("dev0", "10.0.0.123", "255.255.255.0", "10.0.0.1", false));
    EXPECT_EQ("2: /sbin/ip addr add 10.0.0.123/24 dev dev0", Commands().at(1));
}

TEST_F(ANetwork, SetsAnIpv6AddressAndNoRoute)
{
    if (!m_pLab->bHasIpv6()) {
        GTEST_SKIP() << "this kernel has no IPv6";
    }
    Ip({"link", "set", "dev0", "up"});
    EXPECT_EQ(1, iSetStaticIp("dev0", "fd77::5", "ffff:ff00::", "fd77::1", true));
    EXPECT_EQ((commands_t{std::string("0: ") + kDeleteAddresses,
                          "0: /sbin/ip addr add fd77::5/24 dev dev0",
                          "1: /sbin/ip +6 route add default via fd77::1 dev dev0"}),
              Commands());
    EXPECT_EQ("fd77::5/24 ", szAddresses("-6"));
}

TEST_F(ANetwork, SetsAnAddressByIoctl)
{
    const ChildResult result = RunInChild([] {
        char szInterface[] = "dev0";
        char szAddress[] = "10.77.0.5";
        char szGateway[] = "";
        const size_t nBefore = nOpenDescriptors();
        const int iResult = iSetIp(szInterface, szAddress, szGateway);
        const bool bOne = nOpenDescriptors() == nBefore + 1; // stays open
        const bool bTwo = iSetIp(szInterface, szAddress, nullptr) == 0;
        return iResult == 0 && bOne && bTwo && nOpenDescriptors() == nBefore + 2 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(
        "ioctl: SIOCGIFFLAGS\nioctl: SIOCSIFFLAGS\nioctl: SIOCGIFFLAGS\nioctl: SIOCSIFFLAGS\n",
        result.szErrors);
    EXPECT_EQ("10.77.0.5/8 ", szAddresses("-4")); // the netmask of its class
    EXPECT_EQ(commands_t(), Commands());
}

TEST_F(ANetwork, AddsTheRouteBeforeTheAddress)
{
    Ip({"link", "set", "dev0", "up"});
    char szInterface[] = "dev0";
    char szAlias[] = "dev0:1";
    char szFirst[] = "10.77.0.5";
    char szFirstGateway[] = "10.77.0.1"; // the way there comes with the address: too late
    EXPECT_EQ(0, iSetIp(szInterface, szFirst, szFirstGateway));
    EXPECT_EQ("", szDefaultRoute());
    char szSecond[] = "192.168.7.5";
    EXPECT_EQ(0, iSetIp(szAlias, szSecond, szFirstGateway));
    EXPECT_EQ("default via 10.77.0.1 dev dev0 metric 99 \n", szDefaultRoute());
    EXPECT_EQ("10.77.0.5/8 192.168.7.5/24 ", szAddresses("-4"));
}

TEST_F(ANetwork, TakesTheAddressAwayForOneThatIsNone)
{
    Ip({"addr", "add", "10.77.0.9/24", "dev", "dev0"});
    char szInterface[] = "dev0";
    char szAddress[] = "none";
    EXPECT_EQ(0, iSetIp(szInterface, szAddress, nullptr));
    EXPECT_EQ("", szAddresses("-4"));
}

TEST_F(ANetwork, SaysThatAnAddressCannotBeSet)
{
    const ChildResult result = RunInChild([] {
        char szInterface[] = "dev7";
        char szAddress[] = "10.77.0.5";
        return iSetIp(szInterface, szAddress, nullptr) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(
        "ioctl: SIOCGIFFLAGS\nioctl: SIOCSIFFLAGS\nCannot set IP address. dev7: No such device\n",
        result.szErrors);
}

TEST_F(ANetwork, AddsADefaultRoute)
{
    Ip({"link", "set", "dev0", "up"});
    Ip({"addr", "add", "10.77.0.9/24", "dev", "dev0"});
    const CUniqueFd socket(create_socket());
    char szGateway[] = "10.77.0.1";
    EXPECT_EQ(1, iSetRoute(socket.iGet(), szGateway, nullptr));
    EXPECT_EQ("default via 10.77.0.1 dev dev0 metric 99 \n", szDefaultRoute());
    EXPECT_EQ(-1, iSetRoute(socket.iGet(), szGateway, nullptr)); // it is there
    char szFar[] = "192.0.2.1";
    EXPECT_EQ(-1, iSetRoute(socket.iGet(), szFar, nullptr));
    char szNone[] = "gateway";
    EXPECT_EQ(-1, iSetRoute(socket.iGet(), szNone, nullptr));
}

TEST_F(ANetwork, ReadsAnAddress)
{
    Ip({"addr", "add", "10.77.0.9/20", "dev", "dev0"});
    std::string szAddress = "before";
    std::string szNetmask = "before";
    EXPECT_EQ(0, iGetIp("dev0", nullptr, &szNetmask, false, 0));
    EXPECT_EQ("before", szNetmask); // is asked for with an address only
    EXPECT_EQ(0, iGetIp("dev0", &szAddress, nullptr, true, 0));
    EXPECT_EQ("10.77.0.9", szAddress);
    EXPECT_EQ(0, iGetIp("dev0", &szAddress, &szNetmask, true, 0));
    EXPECT_EQ("255.255.240.0", szNetmask);
}

TEST_F(ANetwork, KnowsALongNameByItsFirstCharacters)
{
    Ip({"link", "set", "dev", "dev0", "name", "fifteen_letters"});
    Ip({"link", "set", "fifteen_letters", "address", "02:0a:bc:00:7f:ff"});
    char szInterface[] = "fifteen_letters_and_more";
    char szAddress[] = "10.77.0.5";
    EXPECT_EQ(0, iSetIp(szInterface, szAddress, nullptr));
    std::string szRead;
    EXPECT_EQ(0, iGetIp(szInterface, &szRead, nullptr, false, 0));
    EXPECT_EQ("10.77.0.5", szRead);
    EXPECT_STREQ("Mac : 02:0a:bc:00:7f:ff\n", szGetMacAddress(szInterface, szRead));
    EXPECT_EQ(-1, iStartDhcp(szInterface, true)); // but not for the tools, which refuse it
    EXPECT_EQ(commands_t(), Commands());
}

TEST_F(ANetwork, ReadsNoAddressWhereThereIsNone)
{
    const size_t nBefore = nOpenDescriptors();
    std::string szAddress = "before";
    long lFastest = 1;
    for (int i = 0; i < 10 && lFastest > 0; ++i) { // the machine may be busy
        const auto begin = clock_type::now();
        EXPECT_EQ(-1, iGetIp("dev0", &szAddress, nullptr, false, 0));
        EXPECT_EQ(-1, iGetIp("dev0", &szAddress, nullptr, false, -5));
        EXPECT_EQ(-1, iGetIp(nullptr, &szAddress, nullptr, false, 0));
        lFastest = lSecondsSince(begin);
    }
    EXPECT_EQ(0, lFastest);
    const auto begin = clock_type::now();
    EXPECT_EQ(-1, iGetIp("no interface has so long a name", &szAddress, nullptr, false, 2));
    EXPECT_LE(2, lSecondsSince(begin));
    EXPECT_EQ("before", szAddress);
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(ANetwork, ReadsAnAddressThatComesLater)
{
    CChild later([] {
        return execl("/bin/sh", "sh", "-c", "sleep 0.3; ip addr add 10.77.0.9/24 dev dev0",
                     nullptr);
    });
    std::string szAddress;
    EXPECT_EQ(0, iGetIp("dev0", &szAddress, nullptr, false, 20));
    EXPECT_EQ(0, later.Await().iExitCode);
    EXPECT_EQ("10.77.0.9", szAddress);
}

TEST_F(ANetwork, ReadsTwoNameServers)
{
    std::string szFirst = "before";
    std::string szSecond = "before";
    WriteFile(kResolver, "# by the forwarder\nnameserver 10.77.0.53\nsearch lan\n"
                         "nameserver fd77::53\nnameserver 10.77.0.55\n");
    EXPECT_EQ(0, iGetDns(&szFirst, &szSecond));
    EXPECT_EQ("10.77.0.53", szFirst);
    EXPECT_EQ("fd77::53", szSecond);
    EXPECT_EQ(0, iGetDns(nullptr, &szFirst));
    EXPECT_EQ("fd77::53", szFirst);
}

TEST_F(ANetwork, ReadsNameServersFromAPipeThatNoOtherProgramInherits)
{
    EXPECT_EQ(0, iGetDns(nullptr, nullptr));
    EXPECT_EQ("re", s_szPipeMode);
}

TEST_F(ANetwork, ReadsFewerNameServersThanTwo)
{
    std::string szFirst = "before";
    std::string szSecond = "before";
    WriteFile(kResolver, "nameserver 10.77.0.53\n");
    EXPECT_EQ(0, iGetDns(&szFirst, &szSecond));
    EXPECT_EQ("10.77.0.53", szFirst);
    EXPECT_EQ("", szSecond);
    std::filesystem::remove(kResolver);
    EXPECT_EQ(0, iGetDns(&szFirst, &szSecond));
    EXPECT_EQ("", szFirst);
    EXPECT_EQ("", szSecond);
}

TEST_F(ANetwork, ReadsNameServersWhateverSignalsCome)
{
    WriteFile(kResolver, "nameserver 10.77.0.53\nnameserver 10.77.0.54\n");
    const CTempDirectory directory;
    const std::string szSlow = directory.szPath("awk");
    WriteFile(szSlow, "#!/bin/sh\nsleep 0.3\nexec /usr/bin/awk \"$@\"\n");
    std::filesystem::permissions(szSlow, std::filesystem::perms::owner_all);
    const std::string szPath = directory.szPath() + ":/usr/bin:/bin";
    const ChildResult result = RunInChild([&] {
        setenv("PATH", szPath.c_str(), 1);
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
        const itimerval often = {{0, 20000}, {0, 20000}};
        setitimer(ITIMER_REAL, &often, nullptr);
        std::string szFirst;
        std::string szSecond;
        const bool bRead = iGetDns(&szFirst, &szSecond) == 0;
        return bRead && szFirst == "10.77.0.53" && szSecond == "10.77.0.54" ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ANetwork, ReadsANameServerLongerThanItsBuffer)
{
    const std::string szLong(1000, 'x');
    WriteFile(kResolver, "nameserver " + szLong + "\nnameserver y\n");
    std::string szFirst;
    std::string szSecond;
    EXPECT_EQ(0, iGetDns(&szFirst, &szSecond));
    EXPECT_EQ(szLong, szFirst);
    EXPECT_EQ("y", szSecond);
}

TEST_F(ANetwork, SaysThatTheNameServersCannotBeRead)
{
    const ChildResult result = RunInChild([] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        std::string szFirst = "before";
        return iGetDns(&szFirst, nullptr) == -1 && szFirst.empty() ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(ANetwork, FindsTheLastAddressOfAnInterface)
{
    Ip({"link", "set", "dev0", "up"});
    Ip({"addr", "add", "10.77.0.9/24", "dev", "dev0"});
    Ip({"addr", "add", "10.78.0.9/16", "dev", "dev0"});
    const ChildResult result = RunInChild([] {
        std::string szAddress;
        std::string szNetmask;
        long lFamily = 0;
        const int iResult = iFindNetworkInterface("dev0", &szAddress, &szNetmask, &lFamily, 0);
        std::printf("%d %s %zu %ld\n", iResult, szAddress.c_str(), szNetmask.size(), lFamily);
        const bool bNull = iFindNetworkInterface("dev0", nullptr, nullptr, nullptr, -1) == 0;
        std::fflush(stdout);
        return bNull && szNetmask == "\xFF\xFF" ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    const std::string szShown = "\tInterface : <dev0>\n\t  Address : <10.77.0.9>\n"
                                "\tInterface : <dev0>\n\t  Address : <10.78.0.9>\n";
    EXPECT_EQ(szShown + "0 10.78.0.9 2 " + std::to_string(AF_INET) + "\n" + szShown,
              result.szOutput);
}

TEST_F(ANetwork, FindsAnIpv6AddressThatIsNotOfTheLinkAlone)
{
    if (!m_pLab->bHasIpv6()) {
        GTEST_SKIP() << "this kernel has no IPv6";
    }
    Ip({"link", "set", "dev0", "up"});
    Ip({"addr", "add", "febf::9/64", "dev", "dev0", "nodad"});
    std::string szAddress = "before";
    std::string szNetmask = "before";
    long lFamily = 0;
    EXPECT_EQ(-1, iFindNetworkInterface("dev0", &szAddress, &szNetmask, &lFamily, 0));
    EXPECT_EQ("before", szAddress);
    EXPECT_EQ(AF_PACKET, lFamily); // of an entry without an IP address
    EXPECT_EQ("", szNetmask);
    Ip({"addr", "add", "fd77::9/64", "dev", "dev0", "nodad"});
    EXPECT_EQ(0, iFindNetworkInterface("dev0", &szAddress, &szNetmask, &lFamily, 0));
    EXPECT_EQ("fd77::9", szAddress);
    EXPECT_EQ(AF_INET6, lFamily);
    EXPECT_EQ("", szNetmask); // where IPv4 has its own there is none
}

TEST_F(ANetwork, FindsNoAddressThatCannotBeShown)
{
    Ip({"link", "set", "dev0", "up"});
    Ip({"addr", "add", "10.77.0.9/24", "dev", "dev0"});
    const ChildResult result = RunInChild([] {
        s_bNameless = true;
        std::string szAddress = "before";
        const int iResult = iFindNetworkInterface("dev0", &szAddress, nullptr, nullptr, 0);
        std::fflush(stdout);
        return iResult == -1 && szAddress == "before" ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("getnameinfo() failed: " + std::string(gai_strerror(EAI_FAIL)) + "\n",
              result.szOutput);
}

TEST_F(ANetwork, FindsNoInterfaceThatIsDown)
{
    Ip({"addr", "add", "10.77.0.9/24", "dev", "dev0"});
    long lFamily = 7;
    const auto begin = clock_type::now();
    EXPECT_EQ(-1, iFindNetworkInterface("dev0", nullptr, nullptr, &lFamily, 1));
    EXPECT_LE(2, lSecondsSince(begin)); // one after each pass
    EXPECT_EQ(7, lFamily);
    EXPECT_EQ(-1, iFindNetworkInterface("dev", nullptr, nullptr, &lFamily, -1));
    EXPECT_EQ(-1, iFindNetworkInterface(nullptr, nullptr, nullptr, &lFamily, 0));
}

TEST_F(ANetwork, TellsTheHardwareAddress)
{
    Ip({"link", "set", "dev0", "address", "02:0a:bc:00:7f:ff"});
    const size_t nBefore = nOpenDescriptors();
    std::string szMac;
    const char* const pszMac = szGetMacAddress("dev0", szMac);
    EXPECT_EQ(pszMac, szMac.c_str());
    EXPECT_EQ("Mac : 02:0a:bc:00:7f:ff\n", szMac);
    szGetMacAddress("dev7", szMac);
    EXPECT_EQ("Mac : 00:00:00:00:00:00\n", szMac);
    szGetMacAddress(nullptr, szMac);
    EXPECT_EQ("Mac : 00:00:00:00:00:00\n", szMac);
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(ANetwork, LeavesTheMachineAsItWas)
{
    const std::string szBefore = m_pLab->szMachineState();
    m_pLab->StartServer();
    ASSERT_EQ(0, iStartDhcp("dev0", false));
    EXPECT_LE(2U, m_pLab->Programs().size()); // the server, and the client that stays
    EXPECT_EQ(szBefore, m_pLab->szMachineState());
    const std::vector<pid_t> programs = m_pLab->Programs();
    m_pLab.reset();
    for (const pid_t pid : programs) {
        EXPECT_TRUE(bAwait([pid] { return kill(pid, 0) == -1; })); // once it was collected
    }
}
} // namespace

/// In the C library's place: it fails when a test wants that.
extern "C" int getnameinfo(const sockaddr* pAddress, socklen_t nAddress, char* pszHost,
                           socklen_t nHost, char* pszService, socklen_t nService, int iFlags)
{
    if (s_bNameless) {
        return EAI_FAIL;
    }
    const auto original = reinterpret_cast<decltype(&getnameinfo)>(dlsym(RTLD_NEXT, "getnameinfo"));
    return original(pAddress, nAddress, pszHost, nHost, pszService, nService, iFlags);
}

/// In the C library's place: it tells how it was called.
extern "C" FILE* popen(const char* pszCommand, const char* pszMode)
{
    s_szPipeMode = pszMode;
    return reinterpret_cast<decltype(&popen)>(dlsym(RTLD_NEXT, "popen"))(pszCommand, pszMode);
}
