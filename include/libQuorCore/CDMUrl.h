/// @file
/// @brief A URL of the data model.
#pragma once

#include "libQuorCore/CDMString.h"
#include "libQuorCore/Export.h"

#include <cstdint>
#include <netinet/in.h>

namespace QuorCore
{
/// A text that holds a URL, whose numeric host can be asked for.
class QUORCORE_API CDMUrl : public CDMString
{
public:
    using CDMString::CDMString;
    using CDMString::operator=;
    CDMUrl(const CDMUrl& other) = default;
    CDMUrl& operator=(const CDMUrl& other) = default;

    /**
     * @brief The IPv4 address between the last "/" and the last ":".
     *
     * A URL yields its address only when it ends with the port. The text between must have more
     * than 4 characters, and is read by inet_aton(3), with all the forms that it knows.
     *
     * @return The address in network byte order; 0 when there is none.
     */
    uint32_t iGetAddrIpV4() const;

    /// The IPv6 address between the first "[" and the last "]", of more than 4 characters, as
    /// inet_pton(3) reads it. @return All zero when there is none.
    in6_addr iGetAddrIpV6() const;
};
} // namespace QuorCore
