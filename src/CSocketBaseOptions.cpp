// The options of an endpoint's connection.
#include "libQuorCore/CSocketBase.h"

#include "internal/CFdGate.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace QuorCore
{
namespace
{
constexpr int kSendTimeoutSec = 10; // to a peer that reads nothing

template <class Value>
int iSetSocketOption(int iFd, int iLevel, int iOption, const Value& value)
{
    return setsockopt(iFd, iLevel, iOption, &value, sizeof(value));
}

void LogIntOption(int iFd, int iLevel, int iOption, const char* pszLabel)
{
    int iValue = 0;
    socklen_t length = sizeof(iValue);
    if (getsockopt(iFd, iLevel, iOption, &iValue, &length) == 0) {
        QUORCORE_LOG(LOG_INFO, "%s = %d", pszLabel, iValue);
    }
}
} // namespace

// What a connection needs beyond lSetOption(), which subclasses may replace.
void CSocketBase::SetConnectionExtras()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    // A header and its data are two writes: held back until the first is acknowledged, the second
    // would wait 40 ms for the peer's delayed acknowledgement.
    iSetSocketOption(socket.iGet(), IPPROTO_TCP, TCP_NODELAY, 1);
    // A peer that stops reading must not hold a writer, and with it the supervision, for ever.
    timeval timeout = {};
    timeout.tv_sec = kSendTimeoutSec;
    iSetSocketOption(socket.iGet(), SOL_SOCKET, SO_SNDTIMEO, timeout);
}

long CSocketBase::lSetOption()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    const int iFd = socket.iGet();
    linger lingering = {};
    lingering.l_onoff = 1;
    lingering.l_linger = 5; // seconds
    long lResult = iSetSocketOption(iFd, SOL_SOCKET, SO_KEEPALIVE, 1);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_RCVBUF, 8192);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_SNDBUF, 8192);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_LINGER, lingering);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_REUSEADDR, 1);
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPIDLE, 20);  // seconds
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPINTVL, 10); // seconds
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    return lResult;
}

long CSocketBase::iLogOption()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    const int iFd = socket.iGet();
    LogIntOption(iFd, SOL_SOCKET, SO_KEEPALIVE, "SOL_SOCKET,SO_KEEPALIVE");
    LogIntOption(iFd, SOL_SOCKET, SO_RCVBUF, "SOL_SOCKET,SO_RCVBUF");
    LogIntOption(iFd, SOL_SOCKET, SO_SNDBUF, "SOL_SOCKET,SO_SNDBUF");
    linger lingering = {};
    socklen_t length = sizeof(lingering);
    if (getsockopt(iFd, SOL_SOCKET, SO_LINGER, &lingering, &length) == 0) {
        QUORCORE_LOG(LOG_INFO, "SOL_SOCKET,SO_LINGER onoff = %d; linger = %d", lingering.l_onoff,
                     lingering.l_linger);
    }
    // The numbers are those of SOL_SOCKET and name other options of TCP, and the first label is
    // clipped. Both are kept: the lines are compared with those of devices in the field. Held by
    // ASocketBase.LogsTheOptionsOfTheConnection.
    LogIntOption(iFd, IPPROTO_TCP, 9, "PPROTO_TCP,SO_KEEPALIVE");
    LogIntOption(iFd, IPPROTO_TCP, 8, "IPPROTO_TCP,SO_RCVBUF");
    LogIntOption(iFd, IPPROTO_TCP, 7, "IPPROTO_TCP,SO_SNDBUF");
    return 0;
}
} // namespace QuorCore
