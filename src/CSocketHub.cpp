#include "libQuorCore/CSocketHub.h"

#include "internal/CHubLoop.h"
#include "internal/CHubPeers.h"
#include "internal/CUniqueFd.h"
#include "internal/CommonCommands.h"
#include "internal/FrameRules.h"
#include "internal/Sigpipe.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <sys/eventfd.h>
#include <utility>

namespace QuorCore
{
namespace
{
std::string szOrEmpty(const char* szText)
{
    return szText != nullptr ? szText : "";
}

/// Names the peer whose frame is being handled, for a scope; a cancelled handler leaves it as well.
class CAsking
{
public:
    CAsking(const CSocketHub::peer_t*& pAsking, const CSocketHub::peer_t& peer) : m_pAsking(pAsking)
    {
        m_pAsking = &peer;
    }
    CAsking(const CAsking&) = delete;
    CAsking& operator=(const CAsking&) = delete;
    ~CAsking() { m_pAsking = nullptr; }

private:
    const CSocketHub::peer_t*& m_pAsking;
};
} // namespace

/// Answers one of the common commands.
class CHubCommonCommand : public CInvokeCallback
{
public:
    CHubCommonCommand(CSocketHub& hub, CommonCommands::command_t command)
        : m_hub(hub), m_command(command)
    {
    }

    void invoke(void* pData) const override
    {
        auto& frame = *static_cast<socketFrame_t*>(pData);
        m_hub.Serve(frame, m_command(frame));
    }

private:
    CSocketHub& m_hub;
    const CommonCommands::command_t m_command;
};

const char* CSocketHub::pszGone(eGone reason)
{
    switch (reason) {
    case eGone::CLOSED:
        return "closed";
    case eGone::BAD_MAGIC:
        return "bad magic";
    case eGone::OVERSIZE:
        return "oversize";
    case eGone::IDLE:
        return "idle";
    case eGone::READ_ERROR:
        return "read error";
    case eGone::WRITE_ERROR:
        return "write error";
    case eGone::TOO_SLOW:
        return "too slow";
    case eGone::DROPPED:
        return "dropped";
    case eGone::STOPPED:
        return "stopped";
    }
    return "unknown";
}

CSocketHub::CSocketHub(CObject* pParent, const char* pszLabel)
    : CThreadCom(pParent, pszLabel), m_pPeers(std::make_unique<CHubPeers>()),
      m_pWake(std::make_shared<CUniqueFd>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))
{
    EnsureSigpipeHandled();
}

CSocketHub::~CSocketHub()
{
    EndThread();
    WithdrawMessages();
}

void CSocketHub::SetBindAddress(const char* szAddress)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    m_settings.szAddress = szOrEmpty(szAddress);
}

void CSocketHub::SetUnixPath(const char* szPath, mode_t mode)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    m_settings.szUnixPath = szOrEmpty(szPath);
    m_settings.unixMode = mode;
}

void CSocketHub::SetPeersMax(int nPeers)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    m_settings.nPeersMax = static_cast<size_t>(std::max(nPeers, 1));
}

void CSocketHub::SetSendLimit(size_t sizeMax)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    m_settings.sendMax = sizeMax;
}

void CSocketHub::SetSilence(int iPingMs, int iDropMs)
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    m_settings.iPingMs = iPingMs;
    m_settings.iDropMs = iDropMs;
}

CSocketHub::settings_t CSocketHub::Settings() const
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_settingsLock);
    return m_settings;
}

bool CSocketHub::bGetConnected()
{
    return m_bListening;
}

const CSocketHub::peer_t* CSocketHub::pAskingPeer() const
{
    return bIsReadingThread() ? m_pAsking : nullptr;
}

long CSocketHub::iAnswer(peerId_t peer, socketFrame_t* pFrame)
{
    const CDeferredCancel deferred;
    if (pFrame == nullptr) {
        return -1;
    }
    pFrame->SetDataSize(pFrame->GetDataSize()); // what is sent is what it tells
    const std::shared_ptr<CHubPeer> pPeer = m_pPeers->pFind(peer);
    return pPeer != nullptr ? pPeer->lSend(*pFrame, pFrame->pGetData(), 1) : -1;
}

long CSocketHub::iPush(peerId_t peer, uint16_t command, const uint8_t* pPayload, long size,
                       uint16_t typeITF, uint16_t protocol, uint16_t user1, uint16_t user2)
{
    const CDeferredCancel deferred;
    const long lSize = pPayload != nullptr ? size : 0;
    const std::shared_ptr<CHubPeer> pPeer = m_pPeers->pFind(peer);
    if (pPeer == nullptr || lSize < 0 || lSize > kFrameDataBytesMax) {
        return -1;
    }
    socketFrameHdr_t header = MakeHeader(command, lSize, typeITF, protocol, user1, user2);
    return pPeer->lSend(header, pPayload, lSize > 0 ? 2 : 1);
}

long CSocketHub::iPushAll(uint16_t command, const uint8_t* pPayload, long size, uint16_t typeITF,
                          uint16_t protocol, uint16_t user1, uint16_t user2)
{
    const CDeferredCancel deferred;
    const long lSize = pPayload != nullptr ? size : 0;
    if (lSize < 0 || lSize > kFrameDataBytesMax) {
        return -1;
    }
    long nTaken = 0;
    for (const auto& pPeer : m_pPeers->All()) {
        socketFrameHdr_t header = MakeHeader(command, lSize, typeITF, protocol, user1, user2);
        nTaken += pPeer->lSend(header, pPayload, lSize > 0 ? 2 : 1) > 0 ? 1 : 0;
    }
    return nTaken;
}

bool CSocketHub::bDropPeer(peerId_t peer)
{
    const CDeferredCancel deferred;
    const std::shared_ptr<CHubPeer> pPeer = m_pPeers->pFind(peer);
    if (pPeer == nullptr) {
        return false;
    }
    pPeer->Doom(eGone::DROPPED);
    return true;
}

bool CSocketHub::bGetPeer(peerId_t id, peer_t& peer) const
{
    const CDeferredCancel deferred;
    const std::shared_ptr<CHubPeer> pPeer = m_pPeers->pFind(id);
    if (pPeer != nullptr) {
        peer = pPeer->Facts();
    }
    return pPeer != nullptr;
}

std::vector<CSocketHub::peer_t> CSocketHub::Peers() const
{
    const CDeferredCancel deferred;
    std::vector<peer_t> peers;
    for (const auto& pPeer : m_pPeers->All()) {
        peers.push_back(pPeer->Facts());
    }
    return peers;
}

size_t CSocketHub::nPeers() const
{
    const CDeferredCancel deferred;
    return m_pPeers->nPeers();
}

long CSocketHub::iRunThread()
{
    const CDeferredCancel deferred;
    // The loop is woken and ends by itself. Cancelled in a system call of its own, which on 32-bit
    // ARM may not unwind it, it would leave the lock behind, and no other loop could begin.
    const CNoCancel noCancel;
    // A stop that did not join may have left a loop in a handler's hands. The flag is not raised
    // before that one has ended, or it would go on as well, with the same buffer.
    const std::lock_guard<std::mutex> loopHeld(m_loopLock);
    const CReading reading(*this);
    if (m_pRxBuffer == nullptr) {
        QUORCORE_LOG(LOG_ERR, "%s has not been configured", m_szLabel.c_str());
        return -1;
    }
    m_bRun = true;
    const auto pLoop = std::make_unique<CHubLoop>(*this, *m_pPeers, *m_pWake);
    pLoop->Run();
    return 0;
}

long CSocketHub::iInitInstance()
{
    if (CThreadCom::iInitInstance() == 0) {
        for (const CommonCommands::entry_t& entry : CommonCommands::kAll) {
            pAddCallback(entry.command, new CHubCommonCommand(*this, entry.handler));
        }
    }
    return 0;
}

long CSocketHub::iStop(bool bWait, bool bForce)
{
    const CDeferredCancel deferred;
    const bool bAutoDelete = bIsAutoDelete();
    const std::shared_ptr<CUniqueFd> pWake = m_pWake; // an auto-delete object may go at once
    AskStop();
    eventfd_write(pWake->iGet(), 1);
    return bAutoDelete ? 0 : CThreadCom::iStop(bWait, bForce);
}

// A handler that throws has a peer to blame, and the other peers go on. One that waits for ever may
// be cancelled.
template <class Call>
void CSocketHub::Guarded(Call call)
{
    const CCancelAllowed allowed;
    try {
        call();
    } catch (const std::exception& exception) {
        QUORCORE_LOG(LOG_ERR, "%s;", exception.what());
    }
}

void CSocketHub::Dispatch(const peer_t& peer, socketFrame_t* pFrame)
{
    const CAsking asking(m_pAsking, peer);
    Guarded([&] { m_CallbackMap.iDispatchMessage(pFrame->command, pFrame); });
}

void CSocketHub::AnnounceConnected(const peer_t& peer)
{
    Guarded([&] { OnPeerConnected(peer); });
}

void CSocketHub::AnnounceGone(const peer_t& peer, eGone reason)
{
    Guarded([&] { OnPeerGone(peer, reason); });
}

void CSocketHub::Serve(socketFrame_t& frame, const CommonCommands::outcome_t& outcome)
{
    using eAnswer = CommonCommands::outcome_t::eAnswer;
    if (m_pAsking == nullptr) {
        return;
    }
    PostOnce(outcome.iEventBefore);
    if (outcome.answer == eAnswer::FRAME) {
        iAnswer(m_pAsking->id, &frame);
    } else if (outcome.answer == eAnswer::NEW_DATA) {
        const std::shared_ptr<CHubPeer> pPeer = m_pPeers->pFind(m_pAsking->id);
        if (pPeer != nullptr) {
            socketFrameHdr_t header = frame;
            header.SetDataSize(static_cast<uint16_t>(outcome.szData.size()));
            header.error = 0;
            pPeer->lSend(header, reinterpret_cast<const uint8_t*>(outcome.szData.data()), 1);
        }
    }
    PostOnce(outcome.iEventAfter);
}

void CSocketHub::OnPeerConnected(const peer_t&)
{
    PostOnce(EVT_COM_CONNECTED);
}

void CSocketHub::OnPeerGone(const peer_t&, eGone)
{
    PostOnce(EVT_COM_DISCONNECTED);
}
} // namespace QuorCore
