#include "support/CTcpPeer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace TestSupport
{
namespace
{
constexpr int kBacklog = 16; // connections that wait for bAccept()

void Check(int iResult, const char* pszCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), pszCall);
    }
}

int iNewSocket()
{
    const int iFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    Check(iFd, "socket");
    return iFd;
}

sockaddr_in LoopbackAddress(int iPort)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(iPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
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

void CloseFd(int& iFd)
{
    if (iFd != -1) {
        close(std::exchange(iFd, -1));
    }
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

int iFreePort()
{
    int iFd = iNewSocket();
    Bind(iFd, 0);
    const int iPort = iPortOf(iFd);
    CloseFd(iFd);
    return iPort;
}

CTcpPeer::~CTcpPeer()
{
    StopListening();
    Close();
}

void CTcpPeer::Listen(int iPort)
{
    StopListening();
    m_iListener = iNewSocket();
    const int iOn = 1; // a port of before may still have connections in TIME_WAIT
    Check(setsockopt(m_iListener, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)), "setsockopt");
    Bind(m_iListener, iPort);
    Check(listen(m_iListener, kBacklog), "listen");
}

void CTcpPeer::StopListening()
{
    CloseFd(m_iListener);
}

int CTcpPeer::iPort() const
{
    return iPortOf(m_iListener != -1 ? m_iListener : m_iSocket);
}

bool CTcpPeer::bAccept(int iLimitMs)
{
    Close();
    const CDeadline deadline(iLimitMs);
    while (m_iSocket == -1 && bReady(m_iListener, POLLIN, deadline)) {
        m_iSocket = accept4(m_iListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    return m_iSocket != -1;
}

bool CTcpPeer::bConnect(int iPort, int iLimitMs)
{
    Close();
    m_iSocket = iNewSocket();
    const sockaddr_in address = LoopbackAddress(iPort);
    int iError = 0;
    if (connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        iError = errno;
    }
    if (iError == EINPROGRESS) {
        iError = ETIMEDOUT;
        if (bReady(m_iSocket, POLLOUT, CDeadline(iLimitMs))) {
            socklen_t length = sizeof(iError);
            Check(getsockopt(m_iSocket, SOL_SOCKET, SO_ERROR, &iError, &length), "getsockopt");
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
    while (sent < szBytes.size() && bReady(m_iSocket, POLLOUT, deadline)) {
        const ssize_t lSent =
            send(m_iSocket, szBytes.data() + sent, szBytes.size() - sent, MSG_NOSIGNAL);
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
    while (received < size && bReady(m_iSocket, POLLIN, deadline)) {
        const ssize_t lReceived = recv(m_iSocket, &szBytes[received], size - received, 0);
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
    if (!bReady(m_iSocket, POLLIN, CDeadline(iLimitMs))) {
        return false;
    }
    char cByte = 0;
    const ssize_t lReceived = recv(m_iSocket, &cByte, 1, MSG_PEEK);
    return lReceived == 0 || (lReceived == -1 && errno == ECONNRESET);
}

void CTcpPeer::EndSending()
{
    Check(shutdown(m_iSocket, SHUT_WR), "shutdown");
}

void CTcpPeer::Close()
{
    CloseFd(m_iSocket);
}

void CTcpPeer::Reset()
{
    const linger abortively = {1, 0}; // on, with no time to linger: socket(7)
    Check(setsockopt(m_iSocket, SOL_SOCKET, SO_LINGER, &abortively, sizeof(abortively)),
          "setsockopt");
    Close();
}
} // namespace TestSupport
