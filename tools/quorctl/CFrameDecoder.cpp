#include "CFrameDecoder.h"

#include "Failure.h"

#include <cstring>

namespace QuorCtl
{
std::optional<CFrame> CFrameDecoder::Next()
{
    const size_t there = m_szBytes.size() - m_taken;
    CheckMagic();
    CFrame frame;
    if (there < sizeof(frame.header)) {
        return std::nullopt;
    }
    std::memcpy(&frame.header, m_szBytes.data() + m_taken, sizeof(frame.header));
    const uint32_t iSize = frame.header.size;
    if (iSize > QuorCore::kFrameDataBytesMax) {
        throw CLinkFailure(m_szPeer + " announced " + std::to_string(iSize) +
                           " bytes of data; a frame has " +
                           std::to_string(QuorCore::kFrameDataBytesMax) + " at most");
    }
    if (there < sizeof(frame.header) + iSize) {
        return std::nullopt;
    }
    frame.szData.assign(m_szBytes, m_taken + sizeof(frame.header), iSize);
    m_taken += sizeof(frame.header) + iSize;
    if (m_taken == m_szBytes.size() || m_taken > QuorCore::kFrameDataBytesMax) {
        m_szBytes.erase(0, m_taken); // seldom, so that many small frames cost no move each
        m_taken = 0;
    }
    return frame;
}

// Byte by byte: a stranger that sends one wrong byte and waits is found out, too.
void CFrameDecoder::CheckMagic() const
{
    constexpr char kMagicByte = static_cast<char>(QuorCore::kFrameMagic & 0xFF); // both are alike
    for (size_t i = m_taken; i < m_szBytes.size() && i < m_taken + 2; ++i) {
        if (m_szBytes[i] != kMagicByte) {
            throw CLinkFailure(m_szPeer + " sent something that is no frame (wrong magic number)");
        }
    }
}
} // namespace QuorCtl
