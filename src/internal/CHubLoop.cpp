#include "internal/CHubLoop.h"

#include "internal/Clock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr uint64_t kTagWake = 0;
constexpr uint64_t kTagTcp = 1;
constexpr uint64_t kTagLocal = 2;
constexpr uint64_t kFirstPeer = 16;

constexpr int kEventsMax = 64;   // of one wait
constexpr int kAcceptsMax = 32;  // in a row, then the peers that are there have their turn
constexpr int kWaitMsMax = 1000; // until a stop is noticed at the latest
constexpr int kSweepMsMin = 10;  // between two looks after silent peers
constexpr int64_t kListenRetryMs = 5000;
constexpr int64_t kAcceptPauseMs = 250; // when descriptors have run out

int64_t iNowMs()
{
    const timespec now = Now(CLOCK_MONOTONIC);
    return static_cast<int64_t>(now.tv_sec) * kMsPerSecond + now.tv_nsec / kNanosecondsPerMs;
}

/// @return A number that no connection of this process had.
CSocketHub::peerId_t NextId()
{
    static std::atomic<CSocketHub::peerId_t> s_next{kFirstPeer};
    return s_next++;
}

int iSweepPeriod(const int iPingMs, const int iDropMs)
{
    int iShorterMs = kWaitMsMax * 4;
    for (const int iLimitMs : {iPingMs, iDropMs}) {
        iShorterMs = iLimitMs > 0 ? std::min(iShorterMs, iLimitMs) : iShorterMs;
    }
    return std::max(iShorterMs / 4, kSweepMsMin);
}

bool bOutOfResources(int iError)
{
    return iError == EMFILE || iError == ENFILE || iError == ENOBUFS || iError == ENOMEM;
}

CUniqueFd AcceptFrom(const CListener& listener)
{
    const CNoCancel noCancel; // between the kernel's gift and our taking it
    return CUniqueFd(accept4(listener.iGet(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

void SetTcpOptions(int iFd)
{
    const int iOn = 1;
    setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    setsockopt(iFd, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof(iOn));
}

/// @return Who is at the other end, as far as the kernel knows.
CSocketHub::peer_t LookUpPeer(int iFd, bool bLocal)
{
    CSocketHub::peer_t peer;
    peer.id = NextId();
    peer.bLocal = bLocal;
    if (bLocal) {
        ucred credentials = {};
        socklen_t length = sizeof(credentials);
        if (getsockopt(iFd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
            peer.pid = credentials.pid;
            peer.uid = credentials.uid;
            peer.gid = credentials.gid;
        }
        return peer;
    }
    sockaddr_storage address = {};
    socklen_t length = sizeof(address);
    getpeername(iFd, reinterpret_cast<sockaddr*>(&address), &length);
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
    const bool bIpv4 = address.ss_family == AF_INET;
    const void* const pBytes = bIpv4 ? static_cast<const void*>(&ipv4.sin_addr) : &ipv6.sin6_addr;
    char szAddress[INET6_ADDRSTRLEN] = "";
    if (inet_ntop(address.ss_family, pBytes, szAddress, sizeof(szAddress)) != nullptr) {
        peer.szAddress = szAddress;
        peer.iPort = ntohs(bIpv4 ? ipv4.sin_port : ipv6.sin6_port);
    }
    return peer;
}

std::string szName(const CSocketHub::peer_t& peer)
{
    return peer.bLocal ? "pid " + std::to_string(peer.pid)
                       : peer.szAddress + " port " + std::to_string(peer.iPort);
}
} // namespace

CHubLoop::CHubLoop(CSocketHub& hub, CHubPeers& peers, const CUniqueFd& wake)
    : m_hub(hub), m_peers(peers), m_wake(wake), m_settings(hub.Settings()),
      m_iSweepPeriodMs(iSweepPeriod(m_settings.iPingMs, m_settings.iDropMs)),
      m_tcp{kTagTcp, !m_settings.szAddress.empty(), {}}, m_local{kTagLocal,
                                                                 !m_settings.szUnixPath.empty(),
                                                                 {}},
      m_iNowMs(iNowMs())
{
}

CHubLoop::~CHubLoop()
{
    for (const auto& pPeer : m_peers.All()) {
        m_peers.Remove(pPeer->Facts().id);
        pPeer->Close();
    }
    m_hub.m_iListeningPort = -1;
    m_hub.m_bListening = false;
}

void CHubLoop::Run()
{
    while (m_hub.m_bRun && !bOpen()) {
        QUORCORE_LOG(LOG_ERR, "can't wait for peers: %s",
                     CThread::m_Logger.strerrorT(errno).c_str());
        m_hub.bDynWait(static_cast<int>(kListenRetryMs / kMsPerSecond));
    }
    std::array<epoll_event, kEventsMax> events;
    while (m_hub.m_bRun) {
        m_iNowMs = iNowMs();
        Listen();
        Sweep();
        const int nEvents = epoll_wait(m_epoll.iGet(), events.data(), kEventsMax, iWaitMs());
        m_iNowMs = iNowMs();
        for (int i = 0; i < nEvents && m_hub.m_bRun; ++i) {
            Handle(events[static_cast<size_t>(i)].data.u64, events[static_cast<size_t>(i)].events);
        }
    }
    m_tcp.bWanted = m_local.bWanted = false;
    m_tcp.listener.Close();
    m_local.listener.Close();
    m_hub.m_iListeningPort = -1;
    m_hub.m_bListening = false;
    for (const auto& pPeer : m_peers.All()) {
        pPeer->Doom(CSocketHub::eGone::STOPPED);
        Remove(pPeer);
    }
}

// Without an eventfd, when descriptors had run out as the hub was made, a stop is noticed later.
bool CHubLoop::bOpen()
{
    m_epoll.Reset(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kTagWake;
    return m_epoll &&
           (!m_wake || epoll_ctl(m_epoll.iGet(), EPOLL_CTL_ADD, m_wake.iGet(), &event) == 0);
}

void CHubLoop::Listen()
{
    if (m_iResumeMs >= 0) {
        if (m_iNowMs >= m_iResumeMs) {
            ResumeAccepting();
        }
        return;
    }
    Listen(m_tcp);
    Listen(m_local);
}

void CHubLoop::Listen(place_t& place)
{
    if (!place.bWanted || place.listener || m_iNowMs < place.iRetryMs) {
        return;
    }
    place.iRetryMs = m_iNowMs + kListenRetryMs;
    const bool bTcp = place.iTag == kTagTcp;
    int iError = bTcp ? place.listener.iOpenTcp(m_settings.szAddress, m_hub.m_iNumPort)
                      : place.listener.iOpenUnix(m_settings.szUnixPath, m_settings.unixMode);
    if (iError == 0) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = place.iTag;
        if (epoll_ctl(m_epoll.iGet(), EPOLL_CTL_ADD, place.listener.iGet(), &event) != 0) {
            iError = errno;
            place.listener.Close();
        }
    }
    if (iError != 0) {
        QUORCORE_LOG(LOG_ERR, "can't listen at %s, port %d: %s",
                     (bTcp ? m_settings.szAddress : m_settings.szUnixPath).c_str(),
                     bTcp ? m_hub.m_iNumPort.load() : 0,
                     CThread::m_Logger.strerrorT(iError).c_str());
    }
    UpdateListening();
}

void CHubLoop::UpdateListening()
{
    m_hub.m_iListeningPort = m_tcp.listener.iPort();
    m_hub.m_bListening = (m_tcp.bWanted || m_local.bWanted) &&
                         m_tcp.bWanted == static_cast<bool>(m_tcp.listener) &&
                         m_local.bWanted == static_cast<bool>(m_local.listener);
}

void CHubLoop::StopListening(place_t& place)
{
    // Also if a child that was forked has the socket: see CHubPeer::Close().
    epoll_ctl(m_epoll.iGet(), EPOLL_CTL_DEL, place.listener.iGet(), nullptr);
    place.listener.Close();
}

void CHubLoop::Handle(uint64_t iTag, uint32_t iEvents)
{
    if (iTag == kTagWake) {
        eventfd_t nIgnored = 0;
        eventfd_read(m_wake.iGet(), &nIgnored);
        return;
    }
    if (iTag == kTagTcp || iTag == kTagLocal) {
        Accept(iTag == kTagTcp ? m_tcp : m_local);
        return;
    }
    const std::shared_ptr<CHubPeer> pPeer = m_peers.pFind(iTag);
    if (pPeer == nullptr) {
        return; // an earlier event of the same wait has ended it
    }
    if ((iEvents & EPOLLOUT) != 0) {
        pPeer->SendMore();
    }
    if ((iEvents & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        Read(*pPeer);
    }
    if (pPeer->bDoomed()) {
        Remove(pPeer);
    }
}

void CHubLoop::Accept(place_t& place)
{
    for (int i = 0; i < kAcceptsMax && place.listener; ++i) {
        CUniqueFd socket = AcceptFrom(place.listener);
        if (socket) {
            Admit(std::move(socket), place.iTag == kTagLocal);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return;
        } else if (bOutOfResources(errno)) {
            PauseAccepting();
            return;
        } else if (errno == EBADF || errno == EINVAL || errno == ENOTSOCK) {
            StopListening(place); // and listens anew
            UpdateListening();
        } // else: that peer has given up, or the network with it
    }
}

void CHubLoop::Admit(CUniqueFd socket, bool bLocal)
{
    if (m_peers.nPeers() >= m_settings.nPeersMax) {
        if (!std::exchange(m_bFull, true)) {
            QUORCORE_LOG(LOG_WARNING, "%zu peers are there: no more are taken",
                         m_settings.nPeersMax);
        }
        return; // which closes it: better than no answer
    }
    m_bFull = m_bStarved = false;
    if (!bLocal) {
        SetTcpOptions(socket.iGet());
    }
    const CSocketHub::peer_t facts = LookUpPeer(socket.iGet(), bLocal);
    const auto pPeer =
        std::make_shared<CHubPeer>(std::move(socket), m_epoll, facts, m_settings.sendMax, m_iNowMs);
    if (!pPeer->bWatch()) {
        QUORCORE_LOG(LOG_ERR, "can't watch a peer: %s", CThread::m_Logger.strerrorT(errno).c_str());
        return;
    }
    QUORCORE_LOG(LOG_INFO, "peer %s has come", szName(facts).c_str());
    m_peers.Add(pPeer);
    m_hub.AnnounceConnected(pPeer->Facts());
}

// The listeners stay, and the kernel keeps who comes meanwhile.
void CHubLoop::PauseAccepting()
{
    const int iError = errno;
    if (!std::exchange(m_bStarved, true)) {
        QUORCORE_LOG(LOG_ERR, "no peer is taken for now: %s",
                     CThread::m_Logger.strerrorT(iError).c_str());
    }
    WatchListeners(false);
    m_iResumeMs = m_iNowMs + kAcceptPauseMs;
}

void CHubLoop::ResumeAccepting()
{
    m_iResumeMs = -1;
    WatchListeners(true);
}

// They stay in the set: to put them into it again could fail for want of memory.
void CHubLoop::WatchListeners(bool bOn)
{
    for (place_t* const pPlace : {&m_tcp, &m_local}) {
        epoll_event event = {};
        event.events = bOn ? EPOLLIN : 0U;
        event.data.u64 = pPlace->iTag;
        if (pPlace->listener) {
            epoll_ctl(m_epoll.iGet(), EPOLL_CTL_MOD, pPlace->listener.iGet(), &event);
        }
    }
}

void CHubLoop::Read(CHubPeer& peer)
{
    const ssize_t lReceived = peer.lReceive(m_aReceived.data(), m_aReceived.size());
    if (lReceived < 1) {
        return;
    }
    peer.Hold();
    const CFrameAssembler::eResult last =
        DispatchAll(peer, {m_aReceived.data(), static_cast<size_t>(lReceived)});
    peer.Release(); // before the end: what came before a bad frame is answered
    if (last == CFrameAssembler::eResult::BAD_MAGIC) {
        peer.Doom(CSocketHub::eGone::BAD_MAGIC);
    } else if (last == CFrameAssembler::eResult::OVERSIZE) {
        peer.Doom(CSocketHub::eGone::OVERSIZE);
    }
}

CFrameAssembler::eResult CHubLoop::DispatchAll(CHubPeer& peer, received_t received)
{
    const long lDataMax = std::min<long>(m_hub.m_lSizeDataMax, kFrameDataBytesMax);
    auto result = CFrameAssembler::eResult::FRAME;
    bool bHeard = false;
    while (result == CFrameAssembler::eResult::FRAME && received.nBytes > 0 && m_hub.m_bRun &&
           !peer.bDoomed()) {
        result = peer.Assembler().eTake(received, lDataMax, m_hub.m_pRxBuffer);
        if (result == CFrameAssembler::eResult::FRAME) {
            bHeard = true;
            m_hub.Dispatch(peer.Facts(), reinterpret_cast<socketFrame_t*>(m_hub.m_pRxBuffer));
        }
    }
    if (bHeard) {
        peer.Heard(iNowMs()); // from now on, however long the handlers took
    }
    return result;
}

void CHubLoop::Remove(const std::shared_ptr<CHubPeer>& pPeer)
{
    const CSocketHub::peer_t& facts = pPeer->Facts();
    m_peers.Remove(facts.id);
    const CSocketHub::eGone reason = pPeer->Close();
    const bool bExpected = reason == CSocketHub::eGone::CLOSED ||
                           reason == CSocketHub::eGone::DROPPED ||
                           reason == CSocketHub::eGone::STOPPED;
    QUORCORE_LOG(bExpected ? LOG_INFO : LOG_WARNING, "peer %s is gone: %s", szName(facts).c_str(),
                 CSocketHub::pszGone(reason));
    if (m_iResumeMs >= 0) {
        ResumeAccepting(); // there is a descriptor now
    }
    m_hub.AnnounceGone(facts, reason);
}

void CHubLoop::Sweep()
{
    if (m_iNowMs < m_iSweepMs) {
        return;
    }
    m_iSweepMs = m_iNowMs + m_iSweepPeriodMs;
    for (const auto& pPeer : m_peers.All()) {
        if (bSilentTooLong(*pPeer)) {
            pPeer->Doom(CSocketHub::eGone::IDLE);
        }
        if (pPeer->bDoomed()) {
            Remove(pPeer);
        } else if (m_settings.iPingMs > 0 && pPeer->bToBeAsked(m_iNowMs, m_settings.iPingMs)) {
            m_hub.iPush(pPeer->Facts().id, CMD_COMMUN_PING, nullptr, 0);
        }
    }
}

// A handler that took its time, or a process that was halted, is not the peer's silence: what has
// come meanwhile counts, and nobody is dropped who was not asked.
bool CHubLoop::bSilentTooLong(CHubPeer& peer)
{
    const auto isSilent = [&] {
        return m_settings.iDropMs > 0 && peer.iSilenceMs(m_iNowMs) >= m_settings.iDropMs;
    };
    if (isSilent()) {
        Read(peer);
    }
    const bool bAsks = m_settings.iPingMs > 0 && m_settings.iPingMs < m_settings.iDropMs;
    return isSilent() && (peer.bAsked() || !bAsks);
}

int CHubLoop::iWaitMs() const
{
    int64_t iUntilMs = m_iNowMs + kWaitMsMax;
    iUntilMs = std::min(iUntilMs, m_iSweepMs);
    if (m_iResumeMs >= 0) {
        iUntilMs = std::min(iUntilMs, m_iResumeMs);
    }
    return static_cast<int>(std::clamp<int64_t>(iUntilMs - m_iNowMs, 0, kWaitMsMax));
}
} // namespace QuorCore
