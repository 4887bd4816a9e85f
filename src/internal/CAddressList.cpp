#include "internal/CAddressList.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>

namespace QuorCore
{
namespace
{
constexpr size_t kServiceCharsMax = 14; // more than any int has
constexpr int kPortMax = 65535;
} // namespace

CAddressList::CAddressList(const char* pszHost, int iPort, addrinfo& hints)
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
    std::array<char, kServiceCharsMax + 1> service;
    std::snprintf(service.data(), service.size(), "%d", iPort);
    errno = 0;
    m_iResult = getaddrinfo(pszHost, service.data(), &hints, &m_pFirst);
    m_iError = errno;
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
