#include "libQuorCore/network_helper.h"

#include "internal/CCancelGuard.h"
#include "internal/CUniqueFd.h"
#include "internal/Clock.h"

#include "libQuorCore/CProcess.h"
#include "libQuorCore/string_tools.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/route.h>
#include <netdb.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr int kRetryPauseMs = 1000;
constexpr short kRouteMetric = 100;
constexpr size_t kShownMax = 64; // characters of a refused argument
constexpr size_t kNameMax = IFNAMSIZ - 1;

/**
 * Texts whose addresses are given to ioctl(2) as the number of a request, of which the kernel looks
 * at the low 32 bits. Behind 0xC0 of a block of 256 it knows none, of sockets (0x89..) or wireless
 * links (0x8B..): wherever the block is loaded, the call fails.
 */
struct alignas(256) requestNames_t {
    char aUnused[0xC0];
    char szGetFlags[16];
    char szSetFlags[16];
};
requestNames_t g_requestNames = {{}, "SIOCGIFFLAGS", "SIOCSIFFLAGS"};

/// Calls an ioctl with a number. @return As ioctl(2).
template <class Request>
int iAsk(int iSocket, unsigned long ulRequest, Request& request)
{
    return ioctl(iSocket, ulRequest, &request);
}

CUniqueFd OpenSocket()
{
    return CUniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

/// @return An empty request for an interface, of whose name @p nMax characters count.
ifreq RequestFor(const char* interface, size_t nMax)
{
    ifreq request = {};
    if (interface != nullptr) {
        std::memcpy(request.ifr_name, interface, strnlen(interface, nMax));
    }
    return request;
}

sockaddr_in ToIpv4(const sockaddr& address)
{
    sockaddr_in ipv4 = {};
    std::memcpy(&ipv4, &address, sizeof(ipv4));
    return ipv4;
}

std::string szDotted(const sockaddr& address)
{
    char szText[INET_ADDRSTRLEN] = "";
    const sockaddr_in ipv4 = ToIpv4(address);
    inet_ntop(AF_INET, &ipv4.sin_addr, szText, sizeof(szText));
    return szText;
}

/// Says on standard error why a command is not run, showing what may be shown.
void Refuse(const char* szWhat, const char* szArgument)
{
    std::string szShown = szArgument != nullptr ? szArgument : "(null)";
    szShown.resize(std::min(szShown.size(), kShownMax));
    std::replace_if(
        szShown.begin(), szShown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    std::fprintf(stderr, "refused, not %s: \"%s\"\n", szWhat, szShown.c_str());
}

bool bMayStandInName(char c)
{
    return ('0' <= c && c <= '9') || ('A' <= c && c <= 'Z') || ('a' <= c && c <= 'z') ||
           (c != '\0' && std::strchr("._-@+=,", c) != nullptr);
}

/**
 * The kernel's rules for a name, and nothing that the shell or awk(1) would take for more than a
 * letter, or a tool for an option: these commands run with root's rights.
 */
bool bInterfaceName(const char* interface)
{
    const std::string szName(interface != nullptr ? interface : "");
    const bool bGood = !szName.empty() && szName.size() <= kNameMax && szName != "." &&
                       szName != ".." && szName[0] != '-' &&
                       std::all_of(szName.begin(), szName.end(), bMayStandInName);
    if (!bGood) {
        Refuse("an interface name", interface);
    }
    return bGood;
}

bool bAddress(const char* szWhat, const char* szText)
{
    in6_addr binary = {};
    const bool bGood = szText != nullptr && (inet_pton(AF_INET, szText, &binary) == 1 ||
                                             inet_pton(AF_INET6, szText, &binary) == 1);
    if (!bGood) {
        Refuse(szWhat, szText);
    }
    return bGood;
}

int iRun(const std::string& szCommand)
{
    return CProcess::iCmdSystem(szCommand.c_str(), 0, true);
}

int EnableIpInterface(const char* interface, bool up)
{
    return iRun(std::string("sudo /sbin/ip link set ") + interface + " " + (up ? "up" : "down"));
}

/// Removes what the interface has but for the service address.
void DeleteAddresses(const std::string& szInterface)
{
    iRun("/sbin/ip addr show dev " + szInterface +
         " | /usr/bin/awk '/inet / && ! /10.0.0.123/ {cmd=\"/sbin/ip addr del \" $2 \" dev " +
         szInterface + "\"; cmd | getline line; close(cmd);}'");
}

/// Once: stores address and netmask. @return 0, or -1.
int iReadIp(int iSocket, const char* interface, std::string* address, std::string* netmask)
{
    ifreq request = RequestFor(interface, kNameMax);
    request.ifr_addr.sa_family = AF_INET;
    int iResult = iAsk(iSocket, SIOCGIFADDR, request);
    if (iResult == 0 && address != nullptr) {
        *address = szDotted(request.ifr_addr);
        iResult = iAsk(iSocket, SIOCGIFNETMASK, request);
        if (iResult == 0 && netmask != nullptr) {
            *netmask = szDotted(request.ifr_netmask);
        }
    }
    return iResult;
}

bool bLinkLocal(const sockaddr& address)
{
    sockaddr_in6 ipv6 = {};
    if (address.sa_family != AF_INET6) {
        return false;
    }
    std::memcpy(&ipv6, &address, sizeof(ipv6));
    return ipv6.sin6_addr.s6_addr[0] == 0xFE && (ipv6.sin6_addr.s6_addr[1] & 0xC0) == 0x80;
}

/// The bytes of an IPv4 netmask as a C string. Where IPv6 has its own, IPv4 has none.
std::string szNetmaskBytes(const sockaddr* pNetmask)
{
    char szBytes[sizeof(in_addr) + 1] = "";
    if (pNetmask != nullptr) {
        const sockaddr_in netmask = ToIpv4(*pNetmask);
        std::memcpy(szBytes, &netmask.sin_addr, sizeof(in_addr));
    }
    return szBytes;
}

/// Takes over what one entry tells. @return Whether it told an address.
bool bTakeAddress(const ifaddrs& entry, std::string* address)
{
    const int iFamily = entry.ifa_addr->sa_family;
    if (iFamily != AF_INET && iFamily != AF_INET6) {
        return false;
    }
    const socklen_t size = iFamily == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    char szHost[NI_MAXHOST] = "";
    const int iError =
        getnameinfo(entry.ifa_addr, size, szHost, sizeof(szHost), nullptr, 0, NI_NUMERICHOST);
    if (iError != 0) {
        std::printf("getnameinfo() failed: %s\n", gai_strerror(iError));
        return false;
    }
    if (address != nullptr) {
        *address = szHost;
    }
    std::printf("\tInterface : <%s>\n", entry.ifa_name);
    std::printf("\t  Address : <%s>\n", szHost);
    return true;
}

/// Once: looks through all entries, of which the last one counts. @return Whether one matched.
bool bFindAddress(const char* interface, std::string* address, std::string* netmask, long* family)
{
    ifaddrs* pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0) {
        std::perror("getifaddrs");
        return false;
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> entries(pFirst, &freeifaddrs);
    bool bFound = false;
    for (const ifaddrs* pEntry = pFirst; pEntry != nullptr; pEntry = pEntry->ifa_next) {
        const bool bMatches = pEntry->ifa_addr != nullptr && (pEntry->ifa_flags & IFF_UP) != 0 &&
                              std::strcmp(pEntry->ifa_name, interface) == 0 &&
                              !bLinkLocal(*pEntry->ifa_addr);
        if (!bMatches) {
            continue;
        }
        if (family != nullptr) {
            *family = pEntry->ifa_addr->sa_family;
        }
        if (netmask != nullptr) {
            *netmask = szNetmaskBytes(pEntry->ifa_netmask);
        }
        bFound |= bTakeAddress(*pEntry, address);
    }
    return bFound;
}

/// Reads a pipe to its end, which no signal makes come early.
std::string szReadAll(int iFd)
{
    std::string szAll;
    char szPiece[128];
    ssize_t lRead = 0;
    do {
        lRead = read(iFd, szPiece, sizeof(szPiece));
        szAll.append(szPiece, static_cast<size_t>(std::max<ssize_t>(lRead, 0)));
    } while (lRead > 0 || (lRead < 0 && errno == EINTR));
    return szAll;
}

/// Closes what popen(3) has opened, with the wait for its program.
struct closePipe_t {
    void operator()(FILE* pPipe) const
    {
        const CNoCancel noCancel; // pclose() is a cancellation point, and this is a destructor
        pclose(pPipe);            // its result tells nothing: the reaper may have been first
    }
};
} // namespace

int create_socket()
{
    CUniqueFd opened = OpenSocket();
    if (!opened) {
        std::fputs("Could not get socket.\n", stderr);
    }
    return opened.iRelease();
}

int generic_ioctrlcall(int socket, unsigned long* request, ifreq* ifr)
{
    if (ioctl(socket, reinterpret_cast<unsigned long>(request), ifr) < 0) {
        std::fprintf(stderr, "ioctl: %s\n", reinterpret_cast<const char*>(request));
        return -1;
    }
    return 1;
}

int iSetRoute(int socket, char* gateway, sockaddr_in*)
{
    if (gateway == nullptr) {
        errno = EINVAL;
        return -1;
    }
    rtentry route = {};
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    std::memcpy(&route.rt_dst, &address, sizeof(address));
    std::memcpy(&route.rt_genmask, &address, sizeof(address));
    address.sin_addr.s_addr = inet_addr(gateway);
    std::memcpy(&route.rt_gateway, &address, sizeof(address));
    route.rt_flags = RTF_UP | RTF_GATEWAY;
    route.rt_metric = kRouteMetric;
    return iAsk(socket, SIOCADDRT, route) < 0 ? -1 : 1;
}

int iSetIp(char* interface, char* address, char* gateway)
{
    if (interface == nullptr || address == nullptr) {
        return -1;
    }
    const int iSocket = create_socket(); // stays open: see the header
    ifreq request = RequestFor(interface, IFNAMSIZ);
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    if (inet_aton(address, &ipv4.sin_addr) == 0) {
        ipv4.sin_addr.s_addr = INADDR_ANY;
    }
    generic_ioctrlcall(iSocket, reinterpret_cast<unsigned long*>(g_requestNames.szGetFlags),
                       &request);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    generic_ioctrlcall(iSocket, reinterpret_cast<unsigned long*>(g_requestNames.szSetFlags),
                       &request);
    if (gateway != nullptr && *gateway != '\0') {
        iSetRoute(iSocket, gateway, &ipv4);
    }
    std::memcpy(&request.ifr_addr, &ipv4, sizeof(ipv4)); // in the place of the flags
    if (iAsk(iSocket, SIOCSIFADDR, request) < 0) {
        const int iError = errno;
        std::fputs("Cannot set IP address. ", stderr);
        errno = iError;
        std::perror(interface);
        return -1;
    }
    return 0;
}

int iConvertNetmaskIp(std::string netmask, bool ipv6)
{
    uint8_t aBytes[sizeof(in6_addr)] = {};
    if (inet_pton(ipv6 ? AF_INET6 : AF_INET, netmask.c_str(), aBytes) != 1) {
        return 0;
    }
    uint32_t iBits = 0;
    for (int i = 3; i >= 0; --i) {
        iBits = iBits << 8 | aBytes[i];
    }
    int iLength = 0;
    for (auto iSigned = static_cast<int32_t>(iBits); iSigned > 0; iSigned >>= 1) {
        ++iLength;
    }
    return iLength;
}

int iSetStaticIp(const char* interface, const char* address, const char* netmask,
                 const char* gateway, bool ipv6)
{
    const CDeferredCancel deferred;
    const bool bRoute = gateway != nullptr && *gateway != '\0';
    if (!bInterfaceName(interface) || !bAddress("an address", address) ||
        (bRoute && !bAddress("a gateway", gateway))) {
        return -1;
    }
    const std::string szInterface(interface);
    DeleteAddresses(szInterface);
    const int iPrefix = iConvertNetmaskIp(netmask != nullptr ? netmask : "", ipv6);
    int iResult = iRun(std::string("/sbin/ip addr add ") + address + "/" + std::to_string(iPrefix) +
                       " dev " + szInterface);
    if (bRoute) {
        iResult = iRun(std::string("/sbin/ip ") + (ipv6 ? "+6 " : "") + "route add default via " +
                       gateway + " dev " + szInterface);
    }
    return iResult;
}

int iGetIp(const char* interface, std::string* address, std::string* netmask, bool, long retries)
{
    const CDeferredCancel deferred;
    const CUniqueFd socket = OpenSocket();
    if (!socket) {
        return -1;
    }
    int iResult = iReadIp(socket.iGet(), interface, address, netmask);
    for (long lRetry = 0; iResult != 0 && lRetry < retries; ++lRetry) {
        SleepMs(kRetryPauseMs);
        iResult = iReadIp(socket.iGet(), interface, address, netmask);
    }
    return iResult;
}

int iGetDns(std::string* dns1, std::string* dns2)
{
    const CDeferredCancel deferred;
    std::string szFirst;
    std::string szSecond;
    const std::unique_ptr<FILE, closePipe_t> pPipe(
        popen("awk 'BEGIN { n = 1; }; /nameserver/ { print $2; n++; }; n > 2 { exit; }' "
              "/run/dnsmasq/resolv.conf",
              "re"));
    if (pPipe != nullptr) {
        std::istringstream(szReadAll(fileno(pPipe.get()))) >> szFirst >> szSecond;
    }
    if (dns1 != nullptr) {
        *dns1 = szFirst;
    }
    if (dns2 != nullptr) {
        *dns2 = szSecond;
    }
    return pPipe != nullptr ? 0 : -1;
}

int iStartDhcp(const char* interface, bool flag)
{
    const CDeferredCancel deferred;
    if (!bInterfaceName(interface)) {
        return -1;
    }
    EnableIpInterface(interface, flag);
    return iRun(std::string("/sbin/dhclient ") + (flag ? "-6 " : "") + "-1 " + interface);
}

int iFindNetworkInterface(const char* interface, std::string* address, std::string* netmask,
                          long* family, long retries)
{
    const CDeferredCancel deferred;
    const char* const szName = interface != nullptr ? interface : "";
    bool bFound = false;
    for (long lPass = 0; !bFound && lPass <= std::max(retries, 0L); ++lPass) {
        bFound = bFindAddress(szName, address, netmask, family);
        if (!bFound) {
            SleepMs(kRetryPauseMs);
        }
    }
    return bFound ? 0 : -1;
}

const char* szGetMacAddress(const char* interface, std::string& out)
{
    const CDeferredCancel deferred;
    out = "00:00:00:00:00:00";
    const CUniqueFd socket = OpenSocket();
    if (socket) {
        ifreq request = RequestFor(interface, kNameMax);
        iAsk(socket.iGet(), SIOCGIFHWADDR, request);
        uint8_t aMac[6] = {};
        std::memcpy(aMac, request.ifr_hwaddr.sa_data, sizeof(aMac));
        out = string_format("Mac : %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", aMac[0], aMac[1], aMac[2],
                            aMac[3], aMac[4], aMac[5]);
    }
    return out.c_str();
}
} // namespace QuorCore
