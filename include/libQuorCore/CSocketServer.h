/// @file
/// @brief The endpoint that listens on a TCP port and serves one peer at a time.
#pragma once

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/Export.h"

#include <atomic>

namespace QuorCore
{
/**
 * @brief A CSocketBase that waits for its peer.
 *
 * It listens on all IPv4 interfaces, and nothing authenticates a peer: handlers treat what comes as
 * coming from anybody. While it serves one peer others wait in the queue; the end of a connection
 * closes the listening socket with it, so they are reset then, and the port is bound anew 5 s
 * later. When this end closed first, the port stays taken for up to 60 s (TIME_WAIT of tcp(7)):
 * binding is tried again every 5 s.
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
};
} // namespace QuorCore
