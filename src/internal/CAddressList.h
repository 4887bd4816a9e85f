/// @file
/// @brief The addresses that a host and a port stand for.
#pragma once

#include <netdb.h>

namespace QuorCore
{
/// Asks getaddrinfo(3) for the IPv4 stream addresses of a host and a port, and owns its answer.
class CAddressList
{
public:
    /**
     * @param pszHost  Name or numeric address; null for all interfaces of this machine, to bind to.
     * @param iPort    0 to 65535; any other gives EAI_SERVICE.
     * @param hints    Overwritten with the request: the object that keeps the address in use shows
     *                 what is being looked for.
     */
    CAddressList(const char* pszHost, int iPort, addrinfo& hints);
    CAddressList(const CAddressList&) = delete;
    CAddressList& operator=(const CAddressList&) = delete;
    ~CAddressList();

    int iResult() const { return m_iResult; }           ///< 0, or as getaddrinfo(3).
    int iError() const { return m_iError; }             ///< errno after it.
    const addrinfo* pFirst() const { return m_pFirst; } ///< Linked by ai_next; null without one.

    /// @return The entry without its pointers, which lead into memory of the list.
    static addrinfo Detached(const addrinfo& entry);

private:
    addrinfo* m_pFirst = nullptr;
    int m_iResult;
    int m_iError;
};
} // namespace QuorCore
