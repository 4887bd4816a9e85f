#include "libQuorCore/CDMUrl.h"

#include <arpa/inet.h>
#include <string>

namespace QuorCore
{
namespace
{
constexpr size_t kShortestHost = 5; // shorter ones are not looked at

/// @return What stands between two places; empty when either is not there, they stand the other
///         way round, or it is too short.
std::string szHost(const std::string& szUrl, size_t before, size_t behind)
{
    if (before == std::string::npos || behind == std::string::npos || behind <= before) {
        return {};
    }
    const size_t size = behind - before - 1;
    return size >= kShortestHost ? szUrl.substr(before + 1, size) : std::string();
}
} // namespace

uint32_t CDMUrl::iGetAddrIpV4() const
{
    in_addr address = {};
    const std::string szText = szHost(m_Val, m_Val.rfind('/'), m_Val.rfind(':'));
    return !szText.empty() && ::inet_aton(szText.c_str(), &address) != 0 ? address.s_addr : 0;
}

in6_addr CDMUrl::iGetAddrIpV6() const
{
    in6_addr address = {};
    const std::string szText = szHost(m_Val, m_Val.find('['), m_Val.rfind(']'));
    if (szText.empty() || ::inet_pton(AF_INET6, szText.c_str(), &address) != 1) {
        address = in6_addr{};
    }
    return address;
}
} // namespace QuorCore
