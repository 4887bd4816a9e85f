#include "libQuorCore/network_helper.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/ProcessFacts.h"

#include "internal/CUniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// What goes without an interface to set up.
class ANetworkHelper : public ::testing::Test
{
protected:
    void SetUp() override { CSyslogReceiver::Get().Clear(); }

    /// Runs a call that must refuse. @return What it wrote on standard error.
    static std::string szRefusal(const std::function<int()>& call)
    {
        const ChildResult result = RunInChild([&] { return call() == -1 ? 0 : 1; });
        EXPECT_EQ(0, result.iExitCode) << "it did not refuse";
        EXPECT_EQ(0U, CSyslogReceiver::Get().Count("command")) << "it ran a command";
        return result.szErrors;
    }

    CLogLevel m_LogLevel;
};

TEST_F(ANetworkHelper, ConvertsNetmasksByTheirHighestBit)
{
    EXPECT_EQ(24, iConvertNetmaskIp("255.255.255.0", false));
    EXPECT_EQ(16, iConvertNetmaskIp("255.255.0.0", false));
    EXPECT_EQ(8, iConvertNetmaskIp("255.0.0.0", false));
    EXPECT_EQ(0, iConvertNetmaskIp("0.0.0.0", false));
    EXPECT_EQ(31, iConvertNetmaskIp("255.255.255.127", false));
    // Not what the name promises, and relied upon.
    EXPECT_EQ(0, iConvertNetmaskIp("255.255.255.255", false));
    EXPECT_EQ(0, iConvertNetmaskIp("255.255.255.128", false));
    EXPECT_EQ(24, iConvertNetmaskIp("255.255.254.0", false));
    EXPECT_EQ(25, iConvertNetmaskIp("255.255.255.1", false));
}

TEST_F(ANetworkHelper, ConvertsTheFirstFourBytesOfAnIpv6Netmask)
{
    EXPECT_EQ(0, iConvertNetmaskIp("ffff:ffff:ffff:ffff::", true));
    EXPECT_EQ(24, iConvertNetmaskIp("ffff:ff00::", true));
    EXPECT_EQ(16, iConvertNetmaskIp("ffff::", true));
    EXPECT_EQ(0, iConvertNetmaskIp("::ffff", true));
}

TEST_F(ANetworkHelper, ConvertsWhatIsNoNetmaskToZero)
{
    for (const char* szText : {"", "24", "255.255.255", "255.255.255.0 ", "net", "ffff::"}) {
        EXPECT_EQ(0, iConvertNetmaskIp(szText, false)) << szText;
    }
    EXPECT_EQ(0, iConvertNetmaskIp("255.255.255.0", true));
}

TEST_F(ANetworkHelper, OpensASocketThatNoChildInherits)
{
    const CUniqueFd socket(create_socket());
    ASSERT_TRUE(socket);
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket.iGet(), F_GETFD));
    int iType = 0;
    int iDomain = 0;
    socklen_t size = sizeof(int);
    getsockopt(socket.iGet(), SOL_SOCKET, SO_TYPE, &iType, &size);
    getsockopt(socket.iGet(), SOL_SOCKET, SO_DOMAIN, &iDomain, &size);
    EXPECT_EQ(SOCK_DGRAM, iType);
    EXPECT_EQ(AF_INET, iDomain);
}

TEST_F(ANetworkHelper, SaysThatThereIsNoSocketToBeHad)
{
    const ChildResult result = RunInChild([] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        std::string szMac;
        const bool bAll = create_socket() == -1 && iGetIp("lo", &szMac, nullptr, false, 0) == -1 &&
                          std::string("00:00:00:00:00:00") == szGetMacAddress("lo", szMac);
        return bAll ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Could not get socket.\n", result.szErrors); // only who asks for one is told
}

TEST_F(ANetworkHelper, SaysAllThatFailsWithoutASocket)
{
    const ChildResult result = RunInChild([] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        char szInterface[] = "lo";
        char szAddress[] = "127.0.0.1";
        const bool bAll = iSetIp(szInterface, szAddress, szAddress) == -1 &&
                          iFindNetworkInterface(szInterface, nullptr, nullptr, nullptr, 0) == -1;
        return bAll ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Could not get socket.\nioctl: SIOCGIFFLAGS\nioctl: SIOCSIFFLAGS\n"
              "Cannot set IP address. lo: Bad file descriptor\n"
              "getifaddrs: Too many open files\n",
              result.szErrors);
}

TEST_F(ANetworkHelper, TakesAPointerForTheNumberOfARequest)
{
    const CUniqueFd socket(create_socket());
    ifreq request = {};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is what the function takes
    EXPECT_EQ(1, generic_ioctrlcall(socket.iGet(), reinterpret_cast<unsigned long*>(SIOCGIFINDEX),
                                    &request));
    EXPECT_EQ(1, request.ifr_ifindex);
}

TEST_F(ANetworkHelper, NamesTheRequestThatFails)
{
    const ChildResult result = RunInChild([] {
        const CUniqueFd socket(create_socket());
        ifreq request = {};
        alignas(8) char szName[] = "SIOCNOTHING";
        return generic_ioctrlcall(-1, reinterpret_cast<unsigned long*>(szName), &request) == -1 ? 0
                                                                                                : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("ioctl: SIOCNOTHING\n", result.szErrors);
}

TEST_F(ANetworkHelper, SetsNothingWithoutAName)
{
    char szAddress[] = "10.77.0.5";
    char szInterface[] = "lo";
    const size_t nBefore = nOpenDescriptors();
    EXPECT_EQ(-1, iSetIp(nullptr, szAddress, szAddress));
    EXPECT_EQ(-1, iSetIp(szInterface, nullptr, szAddress));
    EXPECT_EQ(-1, iSetRoute(-1, nullptr, nullptr));
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

/// Names that no interface has, or that the shell, awk(1) or a tool would not take for a name.
const std::vector<std::string> kNoNames = {"",       ".",     "..",          "sixteen_is_a_lot",
                                           "a b",    "a/b",   "eth0:1",      "-r",
                                           "a;id",   "a&id",  "a|id",        "$(id)",
                                           "`id`",   "$HOME", "a>b",         "a<b",
                                           "a'b",    "a\"b",  "a\\b",        "a\nid",
                                           "a\tb",   "a*",    "a?",          "[a]",
                                           "eth%d",  "{a}",   "(a)",         "~root",
                                           "#a",     "!a",    "caf\xC3\xA9", "eth0\n",
                                           "eth0 ",  " eth0", "\neth0",      "a\rb",
                                           "eth0%1", "a\x7F"};

const std::vector<std::string> kNoAddresses = {"10.77.0",
                                               "10.77.0.256",
                                               "10.77.0.5/24",
                                               "10.77.0.5 ",
                                               "10.77.0.5;id",
                                               "fd77::5%dev0",
                                               "fd77::5::1",
                                               "localhost",
                                               "10.77.0.5\nid",
                                               "$(id)",
                                               "-4",
                                               "10.77.0.5 dev",
                                               "10.77.0.5`id`",
                                               "::1'",
                                               "0x0a4d0005",
                                               "010.77.0.5",
                                               "10.77.0.05",
                                               "10.77.0.5\n",
                                               "\n10.77.0.5",
                                               " 10.77.0.5",
                                               "10.77.0.5\t",
                                               "fe80::1%eth0",
                                               "fe80::1 ",
                                               "[::1]",
                                               "10.77.0.5,10.77.0.6",
                                               "1.2.3.4.5",
                                               "1:2:3:4:5:6:7:8:9",
                                               "::ffff:10.77.0.256"};

TEST_F(ANetworkHelper, RefusesWhatIsNoInterface)
{
    for (const std::string& szName : kNoNames) {
        const char* const pszName = szName.c_str();
        EXPECT_EQ(0U, szRefusal([&] {
                          return iStartDhcp(pszName, true);
                      }).find("refused, not an interface name: \""))
            << szName;
        EXPECT_EQ(0U, szRefusal([&] {
                          return iSetStaticIp(pszName, "10.77.0.5", "255.255.255.0", "", false);
                      }).find("refused, not an interface name: \""))
            << szName;
    }
    EXPECT_EQ("refused, not an interface name: \"(null)\"\n",
              szRefusal([] { return iStartDhcp(nullptr, false); }));
    EXPECT_EQ("refused, not an interface name: \"a?id\"\n", // one line, whatever is in the name
              szRefusal([] { return iStartDhcp("a\nid", false); }));
}

TEST_F(ANetworkHelper, RefusesWhatIsNoAddress)
{
    for (const std::string& szAddress : kNoAddresses) {
        const char* const pszAddress = szAddress.c_str();
        for (const bool bIpv6 : {false, true}) {
            EXPECT_EQ(0U, szRefusal([&] {
                              return iSetStaticIp("dev0", pszAddress, "255.255.255.0", "", bIpv6);
                          }).find("refused, not an address: \""))
                << szAddress;
            EXPECT_EQ(0U, szRefusal([&] {
                              return iSetStaticIp("dev0", "10.77.0.5", "255.255.255.0", pszAddress,
                                                  bIpv6);
                          }).find("refused, not a gateway: \""))
                << szAddress;
        }
    }
    EXPECT_EQ("refused, not an address: \"\"\n",
              szRefusal([] { return iSetStaticIp("dev0", "", "", "", false); }));
    EXPECT_EQ("refused, not an address: \"(null)\"\n",
              szRefusal([] { return iSetStaticIp("dev0", nullptr, nullptr, nullptr, false); }));
}

TEST_F(ANetworkHelper, HasNamesUpToAZeroByte)
{
    const std::string szName("lo\0;id", 6); // what a C string is: the rest is nobody's
    std::string szAddress;
    EXPECT_EQ(0, iGetIp(szName.c_str(), &szAddress, nullptr, false, 0));
    EXPECT_EQ("127.0.0.1", szAddress);
    EXPECT_EQ(24, iConvertNetmaskIp(std::string("255.255.255.0\0.5", 16), false));
}

TEST_F(ANetworkHelper, ShowsNoMoreOfARefusedArgumentThanALineTakes)
{
    const std::string szLong(100000, 'x');
    EXPECT_EQ("refused, not an interface name: \"" + std::string(64, 'x') + "\"\n",
              szRefusal([&] { return iStartDhcp(szLong.c_str(), true); }));
}
} // namespace
