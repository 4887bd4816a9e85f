#include "internal/CListener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr int kBacklog = 256;
constexpr int kPortMax = 65535;

/// An address as the socket calls take it.
struct address_t {
    sockaddr_storage storage = {};
    socklen_t length = 0; ///< 0: there is none.

    const sockaddr* pGet() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

address_t MakeTcpAddress(const std::string& szAddress, int iPort)
{
    address_t address;
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(address.storage);
    auto& ipv6 = reinterpret_cast<sockaddr_in6&>(address.storage);
    if (iPort < 0 || iPort > kPortMax) {
        return address;
    }
    if (inet_pton(AF_INET, szAddress.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(static_cast<uint16_t>(iPort));
        address.length = sizeof(ipv4);
    } else if (inet_pton(AF_INET6, szAddress.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(static_cast<uint16_t>(iPort));
        address.length = sizeof(ipv6);
    }
    return address;
}

CUniqueFd OpenSocket(int iFamily)
{
    return CUniqueFd(::socket(iFamily, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Removes a socket on which nobody listens: a process that was killed leaves it behind.
void RemoveAbandoned(const address_t& address, const std::string& szPath)
{
    struct stat file = {};
    if (lstat(szPath.c_str(), &file) != 0 || !S_ISSOCK(file.st_mode)) {
        return;
    }
    const CUniqueFd probe = OpenSocket(AF_UNIX);
    if (probe && connect(probe.iGet(), address.pGet(), address.length) != 0 &&
        errno == ECONNREFUSED) {
        unlink(szPath.c_str());
    }
}
} // namespace

int CListener::iOpenTcp(const std::string& szAddress, int iPort)
{
    Close();
    const address_t address = MakeTcpAddress(szAddress, iPort);
    if (address.length == 0) {
        return EINVAL;
    }
    CUniqueFd socket = OpenSocket(address.storage.ss_family);
    const int iOn = 1;
    const int iOff = 0;
    if (!socket) {
        return errno;
    }
    setsockopt(socket.iGet(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    if (address.storage.ss_family == AF_INET6) {
        setsockopt(socket.iGet(), IPPROTO_IPV6, IPV6_V6ONLY, &iOff, sizeof(iOff));
    }
    if (bind(socket.iGet(), address.pGet(), address.length) != 0) {
        return errno;
    }
    return iKeep(std::move(socket));
}

int CListener::iOpenUnix(const std::string& szPath, mode_t mode)
{
    Close();
    address_t address;
    auto& local = reinterpret_cast<sockaddr_un&>(address.storage);
    if (szPath.empty() || szPath.size() >= sizeof(local.sun_path)) {
        return ENAMETOOLONG;
    }
    local.sun_family = AF_UNIX;
    std::memcpy(local.sun_path, szPath.c_str(), szPath.size() + 1);
    address.length = sizeof(local);
    RemoveAbandoned(address, szPath);
    CUniqueFd socket = OpenSocket(AF_UNIX);
    if (!socket) {
        return errno;
    }
    // Nobody can connect before it listens: the permissions are those wanted by then.
    if (bind(socket.iGet(), address.pGet(), address.length) != 0) {
        return errno;
    }
    m_szPath = szPath;
    if (lstat(szPath.c_str(), &m_file) != 0 || chmod(szPath.c_str(), mode) != 0) {
        const int iError = errno;
        Close();
        return iError;
    }
    const int iError = iKeep(std::move(socket));
    if (iError != 0) {
        Close();
    }
    return iError;
}

int CListener::iKeep(CUniqueFd socket)
{
    if (listen(socket.iGet(), kBacklog) != 0) {
        return errno;
    }
    m_socket = std::move(socket);
    return 0;
}

void CListener::Close()
{
    // The file goes first: once nobody listens, the next one may replace it, and the kernel give
    // the new file the number of the old one.
    struct stat file = {};
    if (!m_szPath.empty() && lstat(m_szPath.c_str(), &file) == 0 && file.st_ino == m_file.st_ino &&
        file.st_dev == m_file.st_dev) {
        unlink(m_szPath.c_str());
    }
    m_szPath.clear();
    if (m_socket) { // frees the port though a child that was forked has the socket, too
        shutdown(m_socket.iGet(), SHUT_RDWR);
    }
    m_socket.Reset();
}

int CListener::iPort() const
{
    sockaddr_storage address = {};
    socklen_t length = sizeof(address);
    if (!m_socket ||
        getsockname(m_socket.iGet(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return -1;
    }
    switch (address.ss_family) {
    case AF_INET:
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    case AF_INET6:
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    default:
        return -1;
    }
}
} // namespace QuorCore
