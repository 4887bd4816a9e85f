/// @file
/// @brief The endpoint that listens on a TCP port and serves one peer at a time.
#pragma once

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/Export.h"

#include <atomic>
#include <mutex>
#include <string>

namespace QuorCore
{
/**
 * @brief A CSocketBase that waits for its peer.
 *
 * It listens on all IPv4 interfaces unless SetBindAddress() names one, and nothing authenticates a
 * peer: handlers treat what comes as coming from anybody. While it serves one peer others wait in
 * the queue; the end of a connection closes the listening socket with it, so they are reset then,
 * and the port is bound anew 5 s later. When this end closed first, the port stays taken for up to
 * 60 s (TIME_WAIT of tcp(7)): binding is tried again every 5 s. SetReuseAddress() spares that.
 *
 * Configure() takes the port, 0 for one that the kernel chooses anew each time, and a name that is
 * only a label. Threads, ownership, errors: as CSocketBase.
 */
class QUORCORE_API CSocketServer : public CSocketBase
{
public:
    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CSocketServer(CObject* pParent, const char* pszLabel);
    ~CSocketServer() override; ///< Stops the thread and closes both sockets.

    /**
     * @brief Chooses the address to listen on, for who is not to be reached from everywhere.
     *
     * Counts from the next time that the port is bound; a socket that listens stays as it is. Any
     * thread may call this at any time; before the thread is created, to be safe from the start.
     *
     * An address that is none fails at each attempt: a line at level 3 names it, then comes the
     * line of a failed look-up with EAI_NONAME of getaddrinfo(3). One that no interface of this
     * machine has fails as a port that is taken does.
     *
     * @param szAddress  Numeric IPv4 ("127.0.0.1") or IPv6 ("::1", "fe80::1%eth0") address; a name
     *                   is never looked up. "::" takes IPv4 peers, too. Null or "": all IPv4
     *                   interfaces, as without this call. Copied.
     */
    void SetBindAddress(const char* szAddress);

    /**
     * @brief Lets the port be bound while a former connection on it is in TIME_WAIT.
     *
     * Sets SO_REUSEADDR of socket(7) on the listening socket before it is bound: a daemon that has
     * closed a connection itself, or is started anew, need not wait up to 60 s. A port on which
     * somebody listens stays taken. Counts, and may be called, as SetBindAddress().
     *
     * @param bOn  Off unless set.
     */
    void SetReuseAddress(bool bOn) { m_bReuseAddress = bOn; }

    /**
     * @brief Listens, unless it does already, and waits for one peer; the thread calls it.
     *
     * Waits without limit, until a peer comes or another thread closes or stops the endpoint. Every
     * failure is logged at level 3, and one to bind calls Close(), with its event, each time.
     *
     * @return 0 connected; else the result of the call that failed: -1, or that of getaddrinfo(3).
     */
    long iConnect() override;

    void Close() override; ///< Ends listening, then the connection as CSocketBase::Close() does.

protected:
    std::atomic<int> m_iListenSocket{-1}; ///< -1 while it does not listen.

private:
    long lListen(int& iError);
    long lBind(const addrinfo& entry, int& iError);
    long lAcceptPeer(int& iError);
    int iAwaitPeer(int iListener);
    void LogPeer() const;
    std::string szCopyBindAddress();

    std::mutex m_bindAddressLock;
    std::string m_szBindAddress; ///< Guarded by m_bindAddressLock. Empty: all IPv4 interfaces.
    std::atomic<bool> m_bReuseAddress{false};
};
} // namespace QuorCore
