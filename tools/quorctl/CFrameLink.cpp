#include "CFrameLink.h"

#include "Failure.h"
#include "Poll.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>

namespace QuorCtl
{
namespace
{
constexpr size_t kReadBytes = 65536;
constexpr int kFullQueuePauseMs = 20;
constexpr int kFinishLimitMs = 300; // an endpoint looks for 100 ms whether a stream has ended

// An attempt at a local port on which nobody listens may begin at that very port: TCP then connects
// the socket with itself, and our own ping would be taken for a daemon's.
bool bIsConnectedToItself(int iFd)
{
    sockaddr_storage own = {};
    sockaddr_storage peer = {};
    socklen_t ownLength = sizeof(own);
    socklen_t peerLength = sizeof(peer);
    return getsockname(iFd, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           getpeername(iFd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           own.ss_family != AF_UNIX && ownLength == peerLength &&
           std::memcmp(&own, &peer, ownLength) == 0;
}

/// One attempt. @return 0, or the error number; ETIMEDOUT when the deadline has passed.
int iConnectTo(const Address& address, const CDeadline& deadline, int iWakeFd, CDescriptor& result)
{
    CDescriptor fd(
        socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.iGet() == -1) {
        return errno;
    }
    const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address.storage);
    int iError = 0;
    do {
        iError = connect(fd.iGet(), pAddress, address.length) == 0 ? 0 : errno;
        // A Unix-domain listener whose queue is full gives nothing to wait for: connect(2).
    } while (iError == EAGAIN && !deadline.bPassed() && bPause(kFullQueuePauseMs, iWakeFd));
    if (iError == EINPROGRESS) {
        if (!bAwaitFd(fd.iGet(), POLLOUT, deadline, iWakeFd)) {
            return ETIMEDOUT;
        }
        socklen_t length = sizeof(iError);
        if (getsockopt(fd.iGet(), SOL_SOCKET, SO_ERROR, &iError, &length) != 0) {
            return errno;
        }
    }
    if (iError == 0 && bIsConnectedToItself(fd.iGet())) {
        iError = ECONNREFUSED;
    }
    if (iError == 0) {
        const int iOn = 1; // a request is one small segment that must not wait; nothing on AF_UNIX
        setsockopt(fd.iGet(), IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
        result = std::move(fd);
    }
    return iError;
}
} // namespace

CDescriptor Connect(const CTarget& target, const CDeadline& whole, int iWakeFd, int iConnectLimitMs)
{
    const std::vector<Address> addresses = target.Addresses(whole, iWakeFd);
    const bool bLess = iConnectLimitMs < whole.iRemainingMs();
    const CDeadline deadline = bLess ? CDeadline(iConnectLimitMs) : whole;
    CDescriptor result;
    int iError = 0;
    int iLeft = static_cast<int>(addresses.size());
    for (const Address& address : addresses) {
        // None may use up the time of those after it.
        iError = iConnectTo(address, deadline.Share(iLeft--), iWakeFd, result);
        if (iError == 0) {
            return result;
        }
    }
    if (deadline.bPassed() || iError == ETIMEDOUT || iError == EAGAIN) {
        throw CTimeOut("no connection to " + target.szName() + " in " +
                       std::to_string(deadline.iLimitMs()) + " ms");
    }
    throw CLinkFailure("cannot connect to " + target.szName() + ": " +
                       std::generic_category().message(iError));
}

CFrameLink::CFrameLink(const CTarget& target, const CDeadline& deadline, int iWakeFd,
                       int iConnectLimitMs)
    : m_iWakeFd(iWakeFd),
      m_stream(target.szName(), Connect(target, deadline, iWakeFd, iConnectLimitMs))
{
}

void CFrameLink::Send(const CFrame& frame, const CDeadline& deadline)
{
    const std::string szBytes = frame.szBytes();
    size_t sent = 0;
    for (;;) {
        sent += m_stream.Write(szBytes.data() + sent, szBytes.size() - sent);
        if (sent == szBytes.size()) {
            return;
        }
        if (!bAwaitFd(m_stream.iFd(), POLLOUT, deadline, m_iWakeFd)) {
            throw CTimeOut(szPeer() + " has read nothing for " +
                           std::to_string(deadline.iLimitMs()) + " ms");
        }
    }
}

std::optional<CFrame> CFrameLink::ReceiveWithPings(const CDeadline& deadline)
{
    std::optional<CFrame> frame = m_stream.Next();
    while (!frame && bReadSome(deadline)) {
        frame = m_stream.Next();
    }
    if (frame && frame->header.command == QuorCore::CMD_COMMUN_PING) {
        Send(PongFor(*frame), deadline);
    }
    return frame;
}

std::optional<CFrame> CFrameLink::Receive(const CDeadline& deadline)
{
    std::optional<CFrame> frame = ReceiveWithPings(deadline);
    while (frame && frame->header.command == QuorCore::CMD_COMMUN_PING) {
        // Asked here, too: who sends pings without a pause never makes bReadSome() wait.
        frame = deadline.bPassed() ? std::nullopt : ReceiveWithPings(deadline);
    }
    return frame;
}

CFrame CFrameLink::Await(const std::optional<uint16_t>& command, const CDeadline& deadline)
{
    while (!deadline.bPassed()) {
        std::optional<CFrame> frame = Receive(deadline);
        if (frame && (!command || frame->header.command == *command)) {
            return *std::move(frame);
        }
    }
    throw NoAnswer(deadline);
}

CFrame CFrameLink::Exchange(const CFrame& request, uint16_t iAnswer, const CDeadline& deadline)
{
    Send(request, deadline);
    CFrame answer = Await(iAnswer, deadline);
    if (answer.header.error != 0) {
        throw CRefusal(szPeer() + " answered command " + std::to_string(request.header.command) +
                       " with error " + std::to_string(answer.header.error));
    }
    return answer;
}

void CFrameLink::Finish(const CDeadline& deadline)
{
    shutdown(m_stream.iFd(), SHUT_WR);
    const CDeadline limit(std::min(kFinishLimitMs, deadline.iRemainingMs()));
    std::array<char, kReadBytes> bytes;
    while (bAwaitFd(m_stream.iFd(), POLLIN, limit, m_iWakeFd) && !limit.bPassed() &&
           recv(m_stream.iFd(), bytes.data(), bytes.size(), 0) > 0) {
    }
}

CTimeOut CFrameLink::NoAnswer(const CDeadline& deadline) const
{
    const std::string szLimit = std::to_string(deadline.iLimitMs()) + " ms from " + szPeer();
    if (m_stream.bMidFrame()) {
        return CTimeOut("only a part of a frame in " + szLimit);
    }
    // An endpoint with one peer leaves others in the kernel's queue, where they look connected.
    return CTimeOut("no answer in " + szLimit +
                    (m_stream.bHeard() ? "" : " (is another peer connected?)"));
}

// Appends what is there, or waits for it. False: the deadline has passed.
bool CFrameLink::bReadSome(const CDeadline& deadline)
{
    if (!bAwaitFd(m_stream.iFd(), POLLIN, deadline, m_iWakeFd)) {
        return false;
    }
    m_stream.ReadSome();
    return true;
}
} // namespace QuorCtl
