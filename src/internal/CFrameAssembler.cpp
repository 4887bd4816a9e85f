#include "internal/CFrameAssembler.h"

#include "internal/FrameRules.h"

#include <algorithm>
#include <cstring>

namespace QuorCore
{
CFrameAssembler::eResult CFrameAssembler::eTake(received_t& received, long lDataMax,
                                                uint8_t* pFrame)
{
    if (!bFill(received, kFrameHeaderSize)) {
        return bMayBecomeFrame() ? eResult::INCOMPLETE : eResult::BAD_MAGIC;
    }
    socketFrameHdr_t header;
    std::memcpy(&header, m_begun.data(), sizeof(header));
    switch (JudgeHeader(header, lDataMax)) {
    case eHeader::BAD_MAGIC:
        return eResult::BAD_MAGIC;
    case eHeader::OVERSIZE:
        return eResult::OVERSIZE;
    case eHeader::GOOD:
        break;
    }
    if (!bFill(received, kFrameHeaderSize + header.size)) {
        return eResult::INCOMPLETE;
    }
    std::memcpy(pFrame, m_begun.data(), m_begun.size());
    constexpr size_t kKeptBytes = 64; // so that small frames cost no allocation each
    m_begun.clear();
    if (m_begun.capacity() > kKeptBytes) {
        std::vector<uint8_t>().swap(m_begun);
    }
    return eResult::FRAME;
}

/// @return Whether the few bytes that are there begin as a frame does.
bool CFrameAssembler::bMayBecomeFrame() const
{
    uint8_t aMagic[sizeof(kFrameMagic)];
    std::memcpy(aMagic, &kFrameMagic, sizeof(aMagic));
    return std::equal(m_begun.begin(),
                      m_begun.begin() + static_cast<long>(std::min(m_begun.size(), sizeof(aMagic))),
                      aMagic);
}

/// Moves bytes until there are so many of the frame. @return Whether there are.
bool CFrameAssembler::bFill(received_t& received, size_t nWanted)
{
    if (m_begun.size() < nWanted) {
        const size_t nTaken = std::min(nWanted - m_begun.size(), received.nBytes);
        m_begun.insert(m_begun.end(), received.pBytes, received.pBytes + nTaken);
        received.pBytes += nTaken;
        received.nBytes -= nTaken;
    }
    return m_begun.size() >= nWanted;
}
} // namespace QuorCore
