/// @file
/// @brief A frame's header and its data, sent as one.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace QuorCore
{
/// A held header and a write's bytes, on their way out.
class CSendParts
{
public:
    CSendParts(uint8_t* pHeader, size_t nHeader, const uint8_t* pBytes, size_t nBytes)
        : m_aParts{iovec{pHeader, nHeader}, iovec{const_cast<uint8_t*>(pBytes), nBytes}},
          m_bJoined(nHeader > 0 && nBytes > 0 && nHeader + nBytes <= m_aJoined.size())
    {
        if (m_bJoined) { // for so few bytes the kernel's look at two parts costs more than a copy
            std::memcpy(m_aJoined.data(), pHeader, nHeader);
            std::memcpy(m_aJoined.data() + nHeader, pBytes, nBytes);
            m_aParts[0].iov_base = m_aJoined.data();
            m_aParts[1].iov_base = m_aJoined.data() + nHeader;
        }
    }
    CSendParts(const CSendParts&) = delete;
    CSendParts& operator=(const CSendParts&) = delete;

    bool bLeft() const { return m_aParts[0].iov_len + m_aParts[1].iov_len > 0; }

    bool bHeaderLeft() const { return m_aParts[0].iov_len > 0; }

    /// send(2) without flags, of both parts at once while there are two.
    ssize_t lSend(int iFd)
    {
        if (m_aParts[0].iov_len == 0) {
            return send(iFd, m_aParts[1].iov_base, m_aParts[1].iov_len, 0);
        }
        if (m_bJoined) {
            return send(iFd, m_aParts[0].iov_base, m_aParts[0].iov_len + m_aParts[1].iov_len, 0);
        }
        msghdr message = {};
        message.msg_iov = m_aParts.data();
        message.msg_iovlen = m_aParts.size();
        return sendmsg(iFd, &message, 0);
    }

    /// Takes what was sent off. @return How much of it was the write's own, at least 1.
    long lAdvance(size_t nSent)
    {
        long lOwn = 0;
        for (iovec& part : m_aParts) {
            const size_t nTaken = std::min(nSent, part.iov_len);
            part.iov_base = static_cast<uint8_t*>(part.iov_base) + nTaken;
            part.iov_len -= nTaken;
            nSent -= nTaken;
            lOwn = static_cast<long>(nTaken);
        }
        return std::max(lOwn, 1L);
    }

private:
    static constexpr size_t kJoinedBytesMax = 512;

    std::array<iovec, 2> m_aParts;
    const bool m_bJoined; // both parts lie in m_aJoined, one behind the other
    std::array<uint8_t, kJoinedBytesMax> m_aJoined;
};
} // namespace QuorCore
