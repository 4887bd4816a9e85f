#include "internal/CAddressList.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace QuorCore
{
namespace
{
constexpr size_t kServiceCharsMax = 14; // more than any int has
constexpr int kPortMax = 65535;

/// @return AF_INET for four numbers; AF_INET6 for what may be an address with colons, which
/// getaddrinfo(3) judges, scope and all; else AF_UNSPEC. It would also take the one to three
/// numbers of inet_aton(3), of which "1" is an address that nobody means.
int iFamilyOfNumbers(const char* pszHost)
{
    in_addr address;
    if (inet_pton(AF_INET, pszHost, &address) == 1) {
        return AF_INET;
    }
    return std::strchr(pszHost, ':') != nullptr ? AF_INET6 : AF_UNSPEC;
}
} // namespace

CAddressList::CAddressList(const char* pszHost, int iPort, addrinfo& hints, eHost host)
{
    hints = {};
    hints.ai_flags = pszHost == nullptr ? AI_PASSIVE : 0;
    hints.ai_family = AF_INET; // the links of the device are IPv4, on both ends
    hints.ai_socktype = SOCK_STREAM;
    if (iPort < 0 || iPort > kPortMax) { // would silently become another port, modulo 65536
        m_iResult = EAI_SERVICE;
        m_iError = EINVAL;
        return;
    }
    const bool bNumbers = pszHost != nullptr && host == HOST_AS_NUMBERS;
    if (bNumbers) {
        hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
        hints.ai_family = iFamilyOfNumbers(pszHost);
    }
    if (hints.ai_family == AF_UNSPEC) {
        m_iResult = EAI_NONAME;
        m_iError = EINVAL;
        return;
    }
    std::array<char, kServiceCharsMax + 1> service;
    std::snprintf(service.data(), service.size(), "%d", iPort);
    errno = 0;
    m_iResult = getaddrinfo(pszHost, service.data(), &hints, &m_pFirst);
    m_iError = bNumbers && m_iResult == EAI_NONAME ? EINVAL : errno; // errno may tell nothing
}

CAddressList::~CAddressList()
{
    if (m_pFirst != nullptr) {
        freeaddrinfo(m_pFirst);
    }
}

addrinfo CAddressList::Detached(const addrinfo& entry)
{
    addrinfo detached = entry;
    detached.ai_addr = nullptr;
    detached.ai_canonname = nullptr;
    detached.ai_next = nullptr;
    return detached;
}
} // namespace QuorCore
