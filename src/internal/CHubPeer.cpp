#include "internal/CHubPeer.h"

#include "internal/FrameRules.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr size_t kKeptBytes = 4096; // of an emptied send buffer

bool bIsLater(int iError)
{
    return iError == EAGAIN || iError == EWOULDBLOCK || iError == EINTR;
}
} // namespace

CHubPeer::CHubPeer(CUniqueFd socket, const CUniqueFd& epoll, CSocketHub::peer_t facts,
                   size_t sendMax, int64_t iNowMs)
    : m_facts(std::move(facts)), m_sendMax(sendMax), m_epoll(epoll), m_socket(std::move(socket)),
      m_iHeardMs(iNowMs), m_iAskedMs(iNowMs)
{
}

bool CHubPeer::bWatch()
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = m_facts.id;
    return epoll_ctl(m_epoll.iGet(), EPOLL_CTL_ADD, m_socket.iGet(), &event) == 0;
}

long CHubPeer::lSend(socketFrameHdr_t& header, const uint8_t* pData, size_t nWrites)
{
    const std::lock_guard<std::mutex> held(m_lock);
    StampHeader(header, m_iCounter);
    m_iCounter = static_cast<uint16_t>(m_iCounter + nWrites);
    const size_t nData = header.GetDataSize();
    const size_t nFrame = kFrameHeaderSize + nData;
    if (!bHasRoomFor(nFrame)) {
        return -1;
    }
    const auto* const pHeader = reinterpret_cast<const uint8_t*>(&header);
    m_waiting.insert(m_waiting.end(), pHeader, pHeader + kFrameHeaderSize);
    if (nData > 0) {
        m_waiting.insert(m_waiting.end(), pData, pData + nData);
    }
    if (!m_bHeld && !m_bAwaitsRoom) {
        SendWaiting();
    }
    return m_bDoomed ? -1 : static_cast<long>(nFrame);
}

/// Under m_lock. A single frame always has, whatever the limit.
bool CHubPeer::bHasRoomFor(size_t nFrame)
{
    const auto isOver = [&] { return nWaiting() > 0 && nWaiting() + nFrame > m_sendMax; };
    if (isOver() && !m_bAwaitsRoom) {
        SendWaiting(); // it was only held
    }
    if (isOver()) {
        DoomLocked(CSocketHub::eGone::TOO_SLOW);
    }
    return !m_bDoomed;
}

/// Under m_lock. What the connection does not take waits until it does.
void CHubPeer::SendWaiting()
{
    if (m_bDoomed || nWaiting() == 0) {
        return;
    }
    const CNoCancel noCancel; // a sender that was cancelled must not leave half a frame behind
    const ssize_t lSent =
        send(m_socket.iGet(), m_waiting.data() + m_sent, nWaiting(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (lSent < 0 && !bIsLater(errno)) {
        DoomLocked(CSocketHub::eGone::WRITE_ERROR);
        return;
    }
    m_sent += lSent > 0 ? static_cast<size_t>(lSent) : 0;
    if (nWaiting() == 0) {
        m_waiting.clear();
        m_sent = 0;
        if (m_waiting.capacity() > kKeptBytes) {
            std::vector<uint8_t>().swap(m_waiting);
        }
    } else if (m_sent > m_waiting.size() / 2) { // each byte is moved a few times at most
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<long>(m_sent));
        m_sent = 0;
    }
    AwaitRoom(nWaiting() > 0);
}

void CHubPeer::AwaitRoom(bool bOn)
{
    if (m_bAwaitsRoom == bOn) {
        return;
    }
    m_bAwaitsRoom = bOn;
    epoll_event event = {};
    event.events = bOn ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.u64 = m_facts.id;
    epoll_ctl(m_epoll.iGet(), EPOLL_CTL_MOD, m_socket.iGet(), &event);
}

void CHubPeer::SendMore()
{
    const std::lock_guard<std::mutex> held(m_lock);
    SendWaiting();
}

void CHubPeer::Hold()
{
    const std::lock_guard<std::mutex> held(m_lock);
    m_bHeld = true;
}

void CHubPeer::Release()
{
    const std::lock_guard<std::mutex> held(m_lock);
    m_bHeld = false;
    if (!m_bAwaitsRoom) {
        SendWaiting();
    }
}

ssize_t CHubPeer::lReceive(uint8_t* pTarget, size_t size)
{
    const ssize_t lReceived = recv(m_socket.iGet(), pTarget, size, MSG_DONTWAIT);
    if (lReceived == 0 || (lReceived < 0 && errno == ECONNRESET)) {
        Doom(CSocketHub::eGone::CLOSED);
    } else if (lReceived < 0 && !bIsLater(errno)) {
        Doom(CSocketHub::eGone::READ_ERROR);
    }
    return lReceived;
}

void CHubPeer::Doom(CSocketHub::eGone reason)
{
    const std::lock_guard<std::mutex> held(m_lock);
    if (m_bHeld && !m_bAwaitsRoom) {
        SendWaiting(); // a handler that answers and then drops the peer has answered it
    }
    DoomLocked(reason);
}

void CHubPeer::DoomLocked(CSocketHub::eGone reason)
{
    if (!m_bDoomed) {
        m_bDoomed = true;
        m_reason = reason;
        ::shutdown(m_socket.iGet(), SHUT_RDWR); // the loop hears of it, and closes
    }
}

bool CHubPeer::bDoomed() const
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_bDoomed;
}

CSocketHub::eGone CHubPeer::Close()
{
    const std::lock_guard<std::mutex> held(m_lock);
    // A child that was forked meanwhile has the connection, too. The peer is to see its end all the
    // same, and epoll(7), which forgets a connection when nobody has it any more, to tell of it no
    // more. And who still has this object sends nothing.
    DoomLocked(CSocketHub::eGone::CLOSED);
    epoll_ctl(m_epoll.iGet(), EPOLL_CTL_DEL, m_socket.iGet(), nullptr);
    m_socket.Reset();
    std::vector<uint8_t>().swap(m_waiting);
    return m_reason;
}

bool CHubPeer::bToBeAsked(int64_t iNowMs, int iPeriodMs)
{
    if (iNowMs - m_iAskedMs < iPeriodMs) {
        return false;
    }
    m_iAskedMs = iNowMs;
    return true;
}
} // namespace QuorCore
