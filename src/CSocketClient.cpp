#include "libQuorCore/CSocketClient.h"

#include "internal/CAddressList.h"
#include "internal/CFdGate.h"
#include "internal/CHeldLock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr int kConnectSliceMs = 1000; // until a stop is noticed at the latest

/// Sets or clears O_NONBLOCK; fcntl(2).
void SetNonBlocking(int iFd, bool bOn)
{
    const int iFlags = fcntl(iFd, F_GETFL);
    fcntl(iFd, F_SETFL, bOn ? iFlags | O_NONBLOCK : iFlags & ~O_NONBLOCK);
}

// A connection attempt from the very port that it goes to meets itself and succeeds, although
// nobody listens there (RFC 9293, 3.5, simultaneous open). The kernel picks such a port now and
// then, and a daemon that retries for weeks would end up talking to itself.
bool bMetItself(int iFd)
{
    sockaddr_in own = {};
    sockaddr_in peer = {};
    socklen_t ownLength = sizeof(own);
    socklen_t peerLength = sizeof(peer);
    return getsockname(iFd, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           getpeername(iFd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}
} // namespace

CSocketClient::CSocketClient(CObject* pParent, const char* pszLabel)
    : CSocketBase(pParent, pszLabel)
{
}

CSocketClient::~CSocketClient()
{
    EndThread();
    WithdrawMessages();
}

long CSocketClient::iConnect()
{
    long lResult = 0;
    std::vector<int> errors; // logged when the lock is free
    {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        if (!held || m_iSocket != -1) {
            return 0;
        }
        const CAddressList addresses(szCopyConnexionName().c_str(), m_iNumPort, m_AddrInfo);
        lResult = addresses.iResult();
        const addrinfo* pEntry = addresses.pFirst();
        while (pEntry != nullptr && m_iSocket == -1 && !bGiveUpConnecting()) {
            int iError = 0;
            lResult = lConnectTo(*pEntry, iError);
            if (lResult != 0 && !bGiveUpConnecting()) {
                errors.push_back(iError);
            }
            pEntry = pEntry->ai_next;
        }
    }
    for (const int iError : errors) {
        iLogError(iError);
    }
    return lResult;
}

long CSocketClient::lConnectTo(const addrinfo& entry, int& iError)
{
    const int iFd = ::socket(entry.ai_family, entry.ai_socktype | SOCK_CLOEXEC, entry.ai_protocol);
    if (iFd == -1) {
        iError = errno;
        return -1;
    }
    m_iSocket = iFd; // from here on Close() reaches the attempt
    const CFdPin socket(FdGate(), m_iSocket);
    if (socket.iGet() != iFd) { // it already has: the number is not ours any more
        iError = ECONNABORTED;
        return -1;
    }
    lSetOption();
    SetNonBlocking(iFd, true);
    iError = connect(iFd, entry.ai_addr, entry.ai_addrlen) == 0 ? 0 : errno;
    if (iError == EINPROGRESS || iError == EINTR) {
        iError = iAwaitConnection(iFd);
    }
    SetNonBlocking(iFd, false);
    if (iError == 0 && bMetItself(iFd)) {
        iError = ECONNREFUSED;
    }
    if (iError == 0 && !bAnnounceConnected(iFd)) {
        iError = ECONNABORTED;
    }
    if (iError != 0) {
        FdGate().Retire(m_iSocket);
        return -1;
    }
    m_AddrInfo = CAddressList::Detached(entry);
    return 0;
}

// Waits for what connect(2) has begun, but no longer than somebody wants it. Returns 0 or an error.
int CSocketClient::iAwaitConnection(int iFd)
{
    int iReady = 0;
    while (iReady <= 0 && m_iSocket == iFd && !bGiveUpConnecting()) {
        pollfd entry = {iFd, POLLOUT, 0};
        iReady = poll(&entry, 1, kConnectSliceMs);
    }
    int iError = ECONNABORTED;
    socklen_t length = sizeof(iError);
    if (iReady > 0) {
        getsockopt(iFd, SOL_SOCKET, SO_ERROR, &iError, &length);
    }
    return iError;
}
} // namespace QuorCore
