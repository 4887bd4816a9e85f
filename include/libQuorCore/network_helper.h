/// @file
/// @brief Setting up and asking for the IP interfaces of the device.
///
/// What sets up runs the system's own tools by CProcess::iCmdSystem(): "/sbin/ip", "/sbin/dhclient"
/// and "sudo". What goes into their command lines may come from anywhere: an interface name must be
/// one that the kernel admits (1 to 15 characters), made of letters, digits and "._-@+=,", and not
/// begin with "-"; an address or gateway must be an IPv4 or IPv6 address as inet_pton(3) reads it.
/// Anything else is refused with -1 and a line on standard error, before any command runs.
///
/// Threads: any; nothing is shared. All of it blocks: for the commands (a DHCP exchange takes up to
/// minutes) and for whole seconds between retries. Never call it on the dispatcher's thread.
/// Errors: nothing is logged; texts go to standard output and standard error.
#pragma once

#include "libQuorCore/Export.h"

#include <net/if.h>
#include <netinet/in.h>
#include <string>

namespace QuorCore
{
/// @return An IPv4 datagram socket, close-on-exec, which the caller closes; -1 (told on standard
///         error).
QUORCORE_API int create_socket();

/**
 * @brief Calls ioctl(2) with the pointer itself as the number of the request.
 * @param request  The number, or the address of a text that names it, which the kernel then
 *                 rejects: a failure prints it as a text, so it must be one unless the call
 *                 succeeds.
 * @return 1; -1 on failure (told on standard error).
 */
QUORCORE_API int generic_ioctrlcall(int socket, unsigned long* request, ifreq* ifr);

/**
 * @brief Adds an IPv4 default route, which the kernel lists with metric 99; netdevice(7).
 *
 * The number that is passed is 100: the kernel counts this field from one.
 *
 * @param gateway  IPv4 address.
 * @param ignored  Accepted and not used.
 * @return 1; -1 on failure (errno).
 */
QUORCORE_API int iSetRoute(int socket, char* gateway, sockaddr_in* ignored);

/**
 * @brief Sets an IPv4 address without running a program; SIOCSIFADDR of netdevice(7).
 *
 * Does not bring the link up, though it tries, and says so with two "ioctl" lines on standard
 * error: scripts look for them, so they stay. Held by ANetwork.SetsAnAddressByIoctl. Leaves one
 * socket (close-on-exec) open in each call, which is meant, too: it is a call for a program that
 * sets the address once, and not for one that does so at a peer's command.
 *
 * @param interface  At most 16 characters count.
 * @param address    IPv4; a text that is none is taken for 0.0.0.0, which removes the address.
 * @param gateway    IPv4 for the default route, added before the address is set; null or empty for
 *                   none.
 * @return 0; -1 for a null interface or address, and on failure (told on standard error).
 */
QUORCORE_API int iSetIp(char* interface, char* address, char* gateway);

/**
 * @brief Gives the prefix length of a dotted netmask.
 *
 * Only the first four bytes count, as a signed number with the first byte the lowest, and the
 * result is the position of its highest bit. So a last byte of 128 or more gives 0 (255.255.255.255
 * and 255.255.255.128), and 255.255.254.0 gives 24: known, relied upon, and not to be mended. Held
 * by ANetworkHelper.ConvertsNetmasksByTheirHighestBit.
 *
 * @param ipv6  Read the text as an IPv6 address.
 * @return 0 to 31; 0 also for a text that is no address.
 */
QUORCORE_API int iConvertNetmaskIp(std::string netmask, bool ipv6);

/**
 * @brief Replaces the IPv4 addresses of an interface by one, and adds a default route.
 *
 * The address 10.0.0.123 stays: it is the device's own for service. With @p ipv6 the route command
 * carries "+6", which ip(8) refuses; both are meant.
 *
 * @param address  IPv4 or IPv6.
 * @param netmask  See iConvertNetmaskIp(); null is an empty one.
 * @param gateway  IPv4 or IPv6; null or empty: no route is added.
 * @return Exit status of the last command that was run, 0 for success; -1 for an argument that is
 *         refused and for a command that could not be run.
 */
QUORCORE_API int iSetStaticIp(const char* interface, const char* address, const char* netmask,
                              const char* gateway, bool ipv6);

/**
 * @brief Reads the IPv4 address and netmask of an interface; SIOCGIFADDR of netdevice(7).
 * @param interface         At most 15 characters count.
 * @param address, netmask  Receive dotted texts; null for none. Without @p address the netmask is
 *                          not asked for.
 * @param ignored           Accepted and not used.
 * @param retries           Further attempts, a second apart.
 * @return 0, or -1.
 */
QUORCORE_API int iGetIp(const char* interface, std::string* address, std::string* netmask,
                        bool ignored, long retries);

/// @brief Reads the first two name servers of the DNS forwarder, "/run/dnsmasq/resolv.conf".
/// @param dns1, dns2  Receive them; empty where there is none.
/// @return 0; -1 when the filter could not be run.
QUORCORE_API int iGetDns(std::string* dns1, std::string* dns2);

/**
 * @brief Switches the link, then lets dhclient(8) do one exchange; that stays as a daemon.
 * @param flag  Both the state of the link, true for up, and whether the exchange is for IPv6. With
 *              false the link goes down, and dhclient brings it up again: the interface begins
 *              afresh. Both are meant.
 * @return Exit status of dhclient, 0 for success; -1 for an interface that is refused.
 */
QUORCORE_API int iStartDhcp(const char* interface, bool flag);

/**
 * @brief Finds the last address that getifaddrs(3) lists for an interface that is up.
 *
 * Link-local addresses of IPv6 do not count. Prints interface and address on standard output.
 *
 * @param address  Receives the address as a text; null for none.
 * @param netmask  Receives the bytes of an IPv4 netmask up to the first zero byte, not as digits:
 *                 three bytes 255 for 255.255.255.0; empty for IPv6. Null for none.
 * @param family   Receives the family of the last entry, AF_INET, AF_INET6 or AF_PACKET, also when
 *                 there is no address. Null for none.
 * @param retries  Further attempts; a second passes after each that failed, the last one included.
 * @return 0, or -1 when there is no address.
 */
QUORCORE_API int iFindNetworkInterface(const char* interface, std::string* address,
                                       std::string* netmask, long* family, long retries);

/// @brief Gives the hardware address as a line of a page: "Mac : 02:00:00:00:00:01" and a line
/// feed.
/// @param interface  At most 15 characters count; of one that is not there all bytes are zero.
/// @param out        Receives the line; "00:00:00:00:00:00" alone when there is no socket to be
/// had.
/// @return Its characters.
QUORCORE_API const char* szGetMacAddress(const char* interface, std::string& out);
} // namespace QuorCore
