/// @file
/// @brief The endpoint that serves many peers at once, over TCP and over a Unix-domain socket.
#pragma once

#include "libQuorCore/CThreadCom.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/socketFrame.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace QuorCore
{
class CHubLoop;
class CHubPeers;
class CUniqueFd;
namespace CommonCommands
{
struct outcome_t;
}

/**
 * @brief Listens, reads the frames of any number of peers, and answers the common commands of each.
 *
 * Configured and started like the other endpoints: Configure() takes the port (0: one that the
 * kernel chooses; SetUnixPath() alone needs none) and the largest data of a frame that a peer may
 * send; then iCreateThread(). The commands that every endpoint answers by itself (10 to 13 and 16
 * to 18) are answered with the same bytes here. Every other frame goes to the handlers that were
 * registered with `pAddCallback(command, new CSocketCallback<T>(this, &T::OnCmd))`; a subclass
 * registers them in iInitInstance(), after calling this one. A handler learns from pAskingPeer()
 * who asks, and answers with iAnswer(), at once or later, from any thread. The frame, which has the
 * room that Configure() made, is its to change.
 *
 * What one peer does costs that peer alone. Each has a bounded buffer either way; who sends what is
 * no frame, or announces more data than is taken, is dropped, as is a peer that does not read while
 * more waits for it than SetSendLimit() allows. A peer from which no frame came for 10 s is pinged,
 * and dropped when none came for 40 s. A peer that closes is noticed at once, without
 * iMonitoring(). Nothing authenticates a TCP peer; the kernel tells who is at the other end of a
 * Unix-domain socket.
 *
 * The listening socket is bound with SO_REUSEADDR. While it cannot be had, it is tried again every
 * 5 s. When descriptors run out, the peers that are there are served, and others are accepted again
 * as soon as there are some.
 *
 * Threads: any may answer, push, drop, look at the peers and stop. Handlers, OnPeerConnected() and
 * OnPeerGone() run on the hub's thread and must not wait long: nobody else is served meanwhile. A
 * standard exception that leaves one of them is logged. A stop takes effect after the frame that is
 * being handled, and is joined before the next start.
 * Ownership: owns its descriptors; the callback map owns the handlers given to it. A derived class
 * calls EndThread() in its own destructor. Errors: by return value; nothing throws. Rests on
 * epoll(7), tcp(7) and unix(7).
 */
class QUORCORE_API CSocketHub : public CThreadCom
{
public:
    using peerId_t = uint64_t; ///< Names one connection; never 0, never given again.

    /// Who is at the other end.
    struct peer_t {
        peerId_t id = 0;
        bool bLocal = false;   ///< On the Unix-domain socket.
        std::string szAddress; ///< Numeric, of TCP; empty for a local peer.
        uint16_t iPort = 0;    ///< Of the peer; 0 for a local one.
        pid_t pid = 0;         ///< Of a local peer, when it connected; else 0.
        uid_t uid = 0;         ///< Of a local peer.
        gid_t gid = 0;         ///< Of a local peer.
    };

    /// Why a peer is gone.
    enum class eGone {
        CLOSED,      ///< It has closed or reset the connection.
        BAD_MAGIC,   ///< It sent what is no frame.
        OVERSIZE,    ///< It announced more data than Configure() allows.
        IDLE,        ///< Nothing came from it for too long.
        READ_ERROR,  ///< The kernel could not read from it.
        WRITE_ERROR, ///< The kernel could not write to it.
        TOO_SLOW,    ///< More waited for it than SetSendLimit() allows.
        DROPPED,     ///< By DropPeer().
        STOPPED,     ///< The hub was stopped.
    };

    /// @return A word for logs, such as "closed".
    static const char* pszGone(eGone reason);

    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CSocketHub(CObject* pParent, const char* pszLabel);
    ~CSocketHub() override; ///< Stops the thread and closes everything.

    /// @name Settings, which count from the next start of the thread on
    /// @{

    /// @param szAddress  Numeric IPv4 or IPv6 address to listen at, 127.0.0.1 unless set; null or
    ///                   empty: no TCP at all. "::" takes IPv4 peers, too. A name is no address: it
    ///                   is logged, and nobody can connect.
    void SetBindAddress(const char* szAddress);

    /**
     * @param szPath  Path to listen at besides TCP, at most 107 bytes; null or empty, as at first:
     *                none. A socket on which nobody listens any more is replaced; any other file is
     *                left alone, and the path is tried again every 5 s. Removed at the end.
     * @param mode    Who may connect, as the permissions of the file; by default its owner.
     */
    void SetUnixPath(const char* szPath, mode_t mode = 0600);

    void SetPeersMax(int nPeers); ///< 1024 unless set, at least 1. More are closed as they come.

    /// Most bytes that may wait for a peer: 256 KiB unless set. One frame always may.
    void SetSendLimit(size_t sizeMax);

    /// @param iPingMs  Silence in ms until a peer is pinged: 10 s unless set; below 1: never.
    /// @param iDropMs  Until it is dropped: 40 s unless set; below 1: never.
    void SetSilence(int iPingMs, int iDropMs);
    /// @}

    /// @return The TCP port that it listens on, -1 while it does not. Any thread.
    int iListeningPort() const { return m_iListeningPort; }

    /// @return Whether it listens wherever it was told to.
    bool bGetConnected() override;

    /// @return The peer whose frame is being handled; null outside of a handler and on any other
    ///         thread. Valid until the handler returns.
    const peer_t* pAskingPeer() const;

    /**
     * @brief Sends a frame to a peer, usually the request with the answer in it.
     *
     * The bytes go out at once where the connection takes them, else they wait; no call blocks.
     * Within a handler they leave when the frames that came together have been handled.
     *
     * @param pFrame  Receives magic and counter. The caller's, complete with its data.
     * @return The frame's bytes; -1: no such peer (any more), or it is dropped for this.
     */
    long iAnswer(peerId_t peer, socketFrame_t* pFrame);

    /**
     * @brief Sends a command to a peer.
     * @param pPayload  Borrowed; @p size bytes (0 to 65535); null for none.
     * @return As iAnswer(); -1 also for another @p size.
     */
    long iPush(peerId_t peer, uint16_t command, const uint8_t* pPayload, long size,
               uint16_t typeITF = 0, uint16_t protocol = 0, uint16_t user1 = 0, uint16_t user2 = 0);

    /// Sends a command to all peers. @return How many take it; -1 for a size that no frame has.
    long iPushAll(uint16_t command, const uint8_t* pPayload, long size, uint16_t typeITF = 0,
                  uint16_t protocol = 0, uint16_t user1 = 0, uint16_t user2 = 0);

    /// Ends a connection. What waits for the peer is lost, but for what a handler has answered and
    /// the connection takes at once. @return Whether there was such a peer.
    bool bDropPeer(peerId_t peer);

    bool bGetPeer(peerId_t id, peer_t& peer) const; ///< @return Whether there is such a peer.
    std::vector<peer_t> Peers() const;              ///< @return All peers, in the order they came.
    size_t nPeers() const;                          ///< @return How many there are.

    long iRunThread() override;    ///< Listens and serves until it is stopped. @return 0.
    long iInitInstance() override; ///< Registers the thread and the common commands. @return 0.
    long iStop(bool bWait, bool bForce) override; ///< Wakes and stops the thread. @return 0.

protected:
    /// A peer has come; called before its first frame. The default posts EVT_COM_CONNECTED, of
    /// which one at most waits in the queue.
    virtual void OnPeerConnected(const peer_t& peer);

    /// It is gone: nothing reaches it any more. The default posts EVT_COM_DISCONNECTED likewise.
    virtual void OnPeerGone(const peer_t& peer, eGone reason);

private:
    friend class CHubLoop;
    friend class CHubCommonCommand;

    struct settings_t {
        std::string szAddress = "127.0.0.1";
        std::string szUnixPath;
        mode_t unixMode = 0600;
        size_t nPeersMax = 1024;
        size_t sendMax = 262144;
        int iPingMs = 10000;
        int iDropMs = 40000;
    };

    settings_t Settings() const;
    template <class Call>
    void Guarded(Call call);
    void Dispatch(const peer_t& peer, socketFrame_t* pFrame);
    void AnnounceConnected(const peer_t& peer);
    void AnnounceGone(const peer_t& peer, eGone reason);
    void Serve(socketFrame_t& frame, const CommonCommands::outcome_t& outcome);

    std::mutex m_loopLock; ///< Held by the loop: there is one.
    settings_t m_settings; ///< Guarded by m_settingsLock.
    mutable std::mutex m_settingsLock;
    const std::unique_ptr<CHubPeers> m_pPeers;
    const std::shared_ptr<CUniqueFd> m_pWake; ///< eventfd(2) that ends the loop's wait.
    std::atomic<int> m_iListeningPort{-1};
    std::atomic<bool> m_bListening{false};
    const peer_t* m_pAsking = nullptr; ///< The thread's own.
};
} // namespace QuorCore
