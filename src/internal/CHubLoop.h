/// @file
/// @brief What a hub's thread does.
#pragma once

#include "internal/CHubPeers.h"
#include "internal/CListener.h"
#include "internal/CUniqueFd.h"

#include "libQuorCore/CSocketHub.h"

#include <array>
#include <cstdint>
#include <memory>

namespace QuorCore
{
/// Accepts peers, reads from them, sends what waits for them, and looks after the silent ones.
/// Threads: the hub's own.
class CHubLoop
{
public:
    CHubLoop(CSocketHub& hub, CHubPeers& peers, const CUniqueFd& wake);
    CHubLoop(const CHubLoop&) = delete;
    CHubLoop& operator=(const CHubLoop&) = delete;
    ~CHubLoop(); ///< Closes what is left, telling nobody.

    void Run(); ///< Until the hub is to stop. Afterwards all peers are gone, and told of.

private:
    /// Where to listen, and when to try again.
    struct place_t {
        uint64_t iTag;
        bool bWanted;
        CListener listener;
        int64_t iRetryMs = 0;
    };

    bool bOpen();
    void Listen();
    void Listen(place_t& place);
    void UpdateListening();
    void StopListening(place_t& place);
    void Handle(uint64_t iTag, uint32_t iEvents);
    void Accept(place_t& place);
    void Admit(CUniqueFd socket, bool bLocal);
    void PauseAccepting();
    void ResumeAccepting();
    void WatchListeners(bool bOn);
    void Read(CHubPeer& peer);
    CFrameAssembler::eResult DispatchAll(CHubPeer& peer, received_t received);
    void Remove(const std::shared_ptr<CHubPeer>& pPeer);
    void Sweep();
    bool bSilentTooLong(CHubPeer& peer);
    int iWaitMs() const;

    CSocketHub& m_hub;
    CHubPeers& m_peers;
    const CUniqueFd& m_wake;
    const CSocketHub::settings_t m_settings;
    const int m_iSweepPeriodMs;
    CUniqueFd m_epoll;
    place_t m_tcp;
    place_t m_local;
    int64_t m_iNowMs; ///< When the events at hand came.
    int64_t m_iSweepMs = 0;
    int64_t m_iResumeMs = -1; ///< When peers are accepted again; -1: they are.
    bool m_bFull = false;     ///< It was logged that there are too many peers,
    bool m_bStarved = false;  ///< and that descriptors have run out.
    std::array<uint8_t, 65536> m_aReceived;
};
} // namespace QuorCore
