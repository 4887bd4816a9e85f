/// @file
/// @brief The endpoint that connects to a host and a TCP port.
#pragma once

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/**
 * @brief A CSocketBase that looks for its peer.
 *
 * Configure() takes the port and, as the connection name, the host: an IPv4 address, or a name that
 * is looked up at each attempt. Threads, ownership, errors: as CSocketBase; besides, writers wait
 * for m_RecursiveLock while the endpoint is connecting, which may take minutes, whereas Close() and
 * iStop() do not.
 */
class QUORCORE_API CSocketClient : public CSocketBase
{
public:
    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CSocketClient(CObject* pParent, const char* pszLabel);
    ~CSocketClient() override; ///< Stops the thread and closes.

    /**
     * @brief Tries the addresses of the host in turn until one answers; the thread calls it.
     *
     * The failure of each address is logged at level 4, that of the look-up is not. Nothing is done
     * when there is a socket already, or no lock to be had.
     *
     * @return 0 connected, or nothing done; else the result of the last call that failed: -1, or
     *         that of getaddrinfo(3).
     */
    long iConnect() override;

protected:
    sockaddr_storage m_ClientAddr{}; ///< Reserved for the connected address; zero.

private:
    long lConnectTo(const addrinfo& entry, int& iError);
    int iAwaitConnection(int iFd);
};
} // namespace QuorCore
