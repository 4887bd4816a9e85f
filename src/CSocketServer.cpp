#include "libQuorCore/CSocketServer.h"

#include "internal/CAddressList.h"
#include "internal/CCancelGuard.h"
#include "internal/CFdGate.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace QuorCore
{
namespace
{
constexpr int kBacklog = 256;
constexpr int kAcceptSliceMs = 1000; // until a stop is noticed at the latest
} // namespace

CSocketServer::CSocketServer(CObject* pParent, const char* pszLabel)
    : CSocketBase(pParent, pszLabel)
{
}

CSocketServer::~CSocketServer()
{
    EndThread();
    FdGate().Retire(m_iListenSocket);
    WithdrawMessages();
}

void CSocketServer::SetBindAddress(const char* szAddress)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_bindAddressLock);
    m_szBindAddress = szAddress != nullptr ? szAddress : "";
}

std::string CSocketServer::szCopyBindAddress()
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_bindAddressLock);
    return m_szBindAddress;
}

long CSocketServer::iConnect()
{
    long lResult = 0;
    int iError = 0;
    if (m_iListenSocket == -1) {
        lResult = lListen(iError);
    }
    if (m_iListenSocket != -1) {
        lResult = lAcceptPeer(iError);
    }
    if (lResult != 0 && !bGiveUpConnecting()) {
        QUORCORE_LOG(LOG_ERR, "Connexion Failed (err = %d ;errno = %s)", static_cast<int>(lResult),
                     m_Logger.strerrorT(iError).c_str());
    }
    return lResult;
}

void CSocketServer::Close()
{
    FdGate().Retire(m_iListenSocket);
    CSocketBase::Close();
}

// Binds the listening socket to the first address that takes it.
long CSocketServer::lListen(int& iError)
{
    const std::string szAddress = szCopyBindAddress();
    const CAddressList addresses(szAddress.empty() ? nullptr : szAddress.c_str(), m_iNumPort,
                                 m_AddrInfo, CAddressList::HOST_AS_NUMBERS);
    iError = addresses.iError();
    long lResult = addresses.iResult();
    if (lResult == EAI_NONAME && !szAddress.empty()) {
        QUORCORE_LOG(LOG_ERR, "cannot listen on \"%s\": not a numeric address", szAddress.c_str());
    }
    const addrinfo* pEntry = addresses.pFirst();
    for (; pEntry != nullptr && m_iListenSocket == -1; pEntry = pEntry->ai_next) {
        lResult = lBind(*pEntry, iError);
    }
    return lResult;
}

long CSocketServer::lBind(const addrinfo& entry, int& iError)
{
    // Non-blocking, so that a peer that is gone again when accept() looks does not block it.
    m_iListenSocket = ::socket(entry.ai_family, entry.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                               entry.ai_protocol);
    if (m_iListenSocket == -1) {
        iError = errno;
        return -1;
    }
    // Sets the options of the connection, and there is none yet: it fails without effect, and the
    // listening socket stays as the kernel made it. Kept: the port is not to be shared or reused
    // early by who has not asked for it. Held by
    // ASocketServer.LeavesTheListeningSocketWithoutOptions.
    lSetOption();
    {
        const CFdPin listener(FdGate(), m_iListenSocket);
        const int iOff = 0;
        const int iOn = 1;
        bool bOpen = entry.ai_family != AF_INET6 ||
                     setsockopt(listener.iGet(), IPPROTO_IPV6, IPV6_V6ONLY, &iOff,
                                sizeof(iOff)) == 0; // "::" takes IPv4 peers, too
        if (bOpen && m_bReuseAddress) {
            bOpen = setsockopt(listener.iGet(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)) == 0;
        }
        if (bOpen && bind(listener.iGet(), entry.ai_addr, entry.ai_addrlen) == 0) {
            m_AddrInfo = CAddressList::Detached(entry);
            return 0;
        }
        iError = errno;
    }
    iLogError(iError);
    Close();
    QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(iError).c_str());
    return -1;
}

long CSocketServer::lAcceptPeer(int& iError)
{
    int iFd = -1;
    {
        const CFdPin listener(FdGate(), m_iListenSocket);
        if (listen(listener.iGet(), kBacklog) != 0) {
            iError = errno;
            return -1;
        }
        iFd = iAwaitPeer(listener.iGet());
        iError = errno;
    }
    if (iFd == -1) {
        if (!bGiveUpConnecting()) {
            iLogError(iError);
        }
        Close();
        return -1;
    }
    FdGate().Retire(m_iSocket); // one that SetConnected(false) has left open
    m_iSocket = iFd;
    LogPeer();
    iError = ECONNABORTED;
    return bAnnounceConnected(iFd) ? 0 : -1;
}

// accept(2) that notices within a second that the loop is to end.
int CSocketServer::iAwaitPeer(int iListener)
{
    int iFd = -1;
    bool bAgain = true;
    while (iFd == -1 && bAgain && !bGiveUpConnecting()) {
        pollfd entry = {iListener, POLLIN, 0};
        const int iReady = poll(&entry, 1, kAcceptSliceMs);
        if (iReady > 0) {
            m_ClientAddress = {};
            socklen_t length = sizeof(m_ClientAddress);
            iFd = accept4(iListener, reinterpret_cast<sockaddr*>(&m_ClientAddress), &length,
                          SOCK_CLOEXEC);
        }
        bAgain = iReady == 0 || errno == EINTR || errno == EAGAIN;
    }
    return iFd;
}

void CSocketServer::LogPeer() const
{
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(m_ClientAddress);
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(m_ClientAddress);
    const bool bIpv4 = m_ClientAddress.ss_family == AF_INET;
    const void* const pAddress = bIpv4 ? static_cast<const void*>(&ipv4.sin_addr) : &ipv6.sin6_addr;
    char szAddress[INET6_ADDRSTRLEN] = "";
    inet_ntop(m_ClientAddress.ss_family, pAddress, szAddress, sizeof(szAddress));
    QUORCORE_LOG(LOG_INFO, ">> connecté à [%s]:", szAddress);
    QUORCORE_LOG(LOG_INFO, "%hu\n", ntohs(bIpv4 ? ipv4.sin_port : ipv6.sin6_port));
}
} // namespace QuorCore
