/// @file
/// @brief The addresses that a host and a port stand for.
#pragma once

#include <netdb.h>

namespace QuorCore
{
/// Asks getaddrinfo(3) for the stream addresses of a host and a port, and owns its answer.
class CAddressList
{
public:
    /// What a host's text may be.
    enum eHost {
        HOST_TO_FIND,   ///< A name or an address, of which IPv4 ones are wanted.
        HOST_AS_NUMBERS ///< An IPv4 or IPv6 address to bind to; a name is not looked up.
    };

    /**
     * @param pszHost  As @p host says; null for all IPv4 interfaces of this machine, to bind to.
     *                 Numbers that are none give EAI_NONAME.
     * @param iPort    0 to 65535; any other gives EAI_SERVICE.
     * @param hints    Overwritten with the request: the object that keeps the address in use shows
     *                 what is being looked for.
     */
    CAddressList(const char* pszHost, int iPort, addrinfo& hints, eHost host = HOST_TO_FIND);
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
