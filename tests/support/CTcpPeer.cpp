#include "support/CTcpPeer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace TestSupport
{
namespace
{
constexpr int kBacklog = 16; // connections that wait for bAccept()

// Ports that the kernel gives to nobody, as ip_local_port_range (ip(7)) begins at 32768.
constexpr int kAsidePort = 20000;
constexpr int kAsidePorts = 12000;

void Check(int iResult, const char* pszCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), pszCall);
    }
}

QuorCore::CUniqueFd NewSocket(int iFamily = AF_INET)
{
    QuorCore::CUniqueFd fd(socket(iFamily, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    Check(fd.iGet(), "socket");
    return fd;
}

sockaddr_in LoopbackAddress(int iPort)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(iPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The abstract name (unix(7)) that marks a port as given away. The port itself cannot be kept: a
// server that does not share its address would not get it.
sockaddr_un MarkAddress(int iPort)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "port %d of a test", iPort);
    return address;
}

template <class Address>
bool bBind(int iFd, const Address& address)
{
    return bind(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// Writes the address of either family. Returns its length.
socklen_t AddressOf(const std::string& szAddress, int iPort, sockaddr_storage& storage)
{
    storage = {};
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(storage);
    auto& ipv6 = reinterpret_cast<sockaddr_in6&>(storage);
    const auto port = htons(static_cast<uint16_t>(iPort));
    if (inet_pton(AF_INET, szAddress.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = port;
        return sizeof(ipv4);
    }
    if (inet_pton(AF_INET6, szAddress.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = port;
        return sizeof(ipv6);
    }
    throw std::system_error(EINVAL, std::generic_category(), szAddress);
}

void Bind(int iFd, int iPort)
{
    const sockaddr_in address = LoopbackAddress(iPort);
    Check(bind(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
}

int iPortOf(int iFd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    Check(getsockname(iFd, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    return ntohs(address.sin_port);
}

// True: ready for events, or at an end, which the next call on the socket tells.
bool bReady(int iFd, short events, const CDeadline& deadline)
{
    if (iFd == -1) { // poll(2) would wait for nothing
        return false;
    }
    pollfd entry = {iFd, events, 0};
    int iResult = 0;
    do {
        iResult = poll(&entry, 1, deadline.iRemainingMs());
    } while (iResult == -1 && errno == EINTR);
    return iResult == 1;
}
} // namespace

int iFreePort(int iFrom)
{
    static std::mutex s_Lock;
    static std::vector<QuorCore::CUniqueFd> s_Marks; // to the end of the process
    const std::lock_guard<std::mutex> lock(s_Lock);
    for (int iTry = 0; iTry < kAsidePorts; ++iTry) {
        const int iPort = kAsidePort + (iFrom - kAsidePort + iTry) % kAsidePorts;
        QuorCore::CUniqueFd mark = NewSocket(AF_UNIX);
        if (bBind(mark.iGet(), MarkAddress(iPort)) &&
            bBind(NewSocket().iGet(), LoopbackAddress(iPort))) {
            s_Marks.push_back(std::move(mark));
            return iPort;
        }
    }
    throw std::system_error(EADDRINUSE, std::generic_category(), "bind");
}

int iFreePort()
{
    // Not the process id: each test has process ids of its own, and they are the same ones.
    return iFreePort(kAsidePort + static_cast<int>(std::random_device()() % kAsidePorts));
}

void CTcpPeer::Listen(int iPort)
{
    StopListening();
    m_Listener = NewSocket();
    const int iOn = 1; // a port of before may still have connections in TIME_WAIT
    Check(setsockopt(m_Listener.iGet(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)), "setsockopt");
    Bind(m_Listener.iGet(), iPort);
    Check(listen(m_Listener.iGet(), kBacklog), "listen");
}

void CTcpPeer::StopListening()
{
    m_Listener.Reset();
}

int CTcpPeer::iPort() const
{
    return iPortOf(m_Listener ? m_Listener.iGet() : m_Socket.iGet());
}

bool CTcpPeer::bAccept(int iLimitMs)
{
    Close();
    const CDeadline deadline(iLimitMs);
    while (!m_Socket && bReady(m_Listener.iGet(), POLLIN, deadline)) {
        m_Socket.Reset(accept4(m_Listener.iGet(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    }
    return static_cast<bool>(m_Socket);
}

bool CTcpPeer::bConnect(int iPort, int iLimitMs)
{
    return bConnectTo("127.0.0.1", iPort, iLimitMs);
}

bool CTcpPeer::bConnectTo(const std::string& szAddress, int iPort, int iLimitMs)
{
    sockaddr_storage address;
    const socklen_t length = AddressOf(szAddress, iPort, address);
    return bConnectSocket(reinterpret_cast<const sockaddr*>(&address), length, iLimitMs);
}

bool CTcpPeer::bConnectUnix(const std::string& szPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (szPath.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    szPath.copy(address.sun_path, szPath.size());
    return bConnectSocket(reinterpret_cast<const sockaddr*>(&address), sizeof(address), 0);
}

bool CTcpPeer::bConnectSocket(const sockaddr* pAddress, socklen_t addressLength, int iLimitMs)
{
    Close();
    m_Socket = NewSocket(pAddress->sa_family);
    int iError = 0;
    if (connect(m_Socket.iGet(), pAddress, addressLength) == -1) {
        iError = errno;
    }
    if (iError == EINPROGRESS) {
        iError = ETIMEDOUT;
        if (bReady(m_Socket.iGet(), POLLOUT, CDeadline(iLimitMs))) {
            socklen_t length = sizeof(iError);
            Check(getsockopt(m_Socket.iGet(), SOL_SOCKET, SO_ERROR, &iError, &length),
                  "getsockopt");
        }
    }
    if (iError != 0) {
        Close();
    }
    errno = iError;
    return iError == 0;
}

bool CTcpPeer::bSend(const std::string& szBytes, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    size_t sent = 0;
    while (sent < szBytes.size() && bReady(m_Socket.iGet(), POLLOUT, deadline)) {
        const ssize_t lSent =
            send(m_Socket.iGet(), szBytes.data() + sent, szBytes.size() - sent, MSG_NOSIGNAL);
        if (lSent == -1 && errno != EAGAIN) {
            return false;
        }
        sent += lSent > 0 ? static_cast<size_t>(lSent) : 0;
    }
    return sent == szBytes.size();
}

std::string CTcpPeer::szReceive(size_t size, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    std::string szBytes(size, '\0');
    size_t received = 0;
    while (received < size && bReady(m_Socket.iGet(), POLLIN, deadline)) {
        const ssize_t lReceived = recv(m_Socket.iGet(), &szBytes[received], size - received, 0);
        if (lReceived == 0 || (lReceived == -1 && errno != EAGAIN)) {
            break;
        }
        received += lReceived > 0 ? static_cast<size_t>(lReceived) : 0;
    }
    szBytes.resize(received);
    return szBytes;
}

bool CTcpPeer::bReceiveEof(int iLimitMs)
{
    if (!bReady(m_Socket.iGet(), POLLIN, CDeadline(iLimitMs))) {
        return false;
    }
    char cByte = 0;
    const ssize_t lReceived = recv(m_Socket.iGet(), &cByte, 1, MSG_PEEK);
    return lReceived == 0 || (lReceived == -1 && errno == ECONNRESET);
}

void CTcpPeer::EndSending()
{
    Check(shutdown(m_Socket.iGet(), SHUT_WR), "shutdown");
}

void CTcpPeer::Close()
{
    m_Socket.Reset();
}

void CTcpPeer::Reset()
{
    const linger abortively = {1, 0}; // on, with no time to linger: socket(7)
    Check(setsockopt(m_Socket.iGet(), SOL_SOCKET, SO_LINGER, &abortively, sizeof(abortively)),
          "setsockopt");
    Close();
}
} // namespace TestSupport
