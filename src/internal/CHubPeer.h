/// @file
/// @brief One of the connections of a hub.
#pragma once

#include "internal/CFrameAssembler.h"
#include "internal/CUniqueFd.h"

#include "libQuorCore/CSocketHub.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace QuorCore
{
/**
 * @brief A connection, what waits for its peer, and what has begun to come from it.
 *
 * Threads: any may send and doom; all else is the loop's. A doomed peer is shut down, which wakes
 * the loop, and the loop closes it: no thread ever uses a descriptor that another has closed.
 */
class CHubPeer
{
public:
    /// @param epoll    Watches the connection; borrowed.
    /// @param sendMax  Bytes that may wait.
    CHubPeer(CUniqueFd socket, const CUniqueFd& epoll, CSocketHub::peer_t facts, size_t sendMax,
             int64_t iNowMs);

    const CSocketHub::peer_t& Facts() const { return m_facts; }

    /**
     * @brief Sends a frame, or keeps it until the connection takes more.
     * @param header   Without its stamp.
     * @param nWrites  How far the message counter moves.
     * @return The frame's bytes; -1: it does not go out.
     */
    long lSend(socketFrameHdr_t& header, const uint8_t* pData, size_t nWrites);

    /// Ends the connection for a reason, of which the first holds.
    void Doom(CSocketHub::eGone reason);

    /// @name The loop's
    /// @{

    bool bWatch();   ///< Begins to be told of what comes. @return False: the kernel refuses.
    void SendMore(); ///< The connection takes bytes again.

    /// Keeps what is sent from now on until Release(): the answers to frames that came together
    /// leave together, which costs one system call and wakes the peer once.
    void Hold();
    void Release();

    /// recv(2) without waiting. @return As recv(2); what ends the connection dooms it.
    ssize_t lReceive(uint8_t* pTarget, size_t size);

    bool bDoomed() const;
    CSocketHub::eGone Close(); ///< @return The reason.

    CFrameAssembler& Assembler() { return m_assembler; }
    void Heard(int64_t iNowMs) { m_iHeardMs = m_iAskedMs = iNowMs; } ///< A frame has come.
    int64_t iSilenceMs(int64_t iNowMs) const { return iNowMs - m_iHeardMs; }

    bool bAsked() const { return m_iAskedMs != m_iHeardMs; } ///< Since it was heard.

    /// @return Whether it was neither heard nor asked for so long; from now on it was asked.
    bool bToBeAsked(int64_t iNowMs, int iPeriodMs);
    /// @}

private:
    size_t nWaiting() const { return m_waiting.size() - m_sent; }
    bool bHasRoomFor(size_t nFrame);
    void SendWaiting();
    void AwaitRoom(bool bOn);
    void DoomLocked(CSocketHub::eGone reason);

    const CSocketHub::peer_t m_facts;
    const size_t m_sendMax;
    const CUniqueFd& m_epoll;

    mutable std::mutex m_lock; ///< Guards what follows.
    CUniqueFd m_socket;
    std::vector<uint8_t> m_waiting; ///< From m_sent on.
    size_t m_sent = 0;
    uint16_t m_iCounter = 0;
    bool m_bHeld = false;
    bool m_bAwaitsRoom = false; ///< The loop is told when the connection takes more.
    bool m_bDoomed = false;
    CSocketHub::eGone m_reason = CSocketHub::eGone::CLOSED;

    CFrameAssembler m_assembler; ///< These are the loop's.
    int64_t m_iHeardMs;
    int64_t m_iAskedMs;
};
} // namespace QuorCore
