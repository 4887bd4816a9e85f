// What a peer sends to a hub: any bytes, in any pieces. The frames that the assembler gives must be
// the very ones that a look at the whole input finds, and nothing behind a bad header is looked at.
// The first byte of the input chooses the hub's maximum, the second how the input is cut into
// pieces, and the rest is what the peer sends.
#include "internal/CFrameAssembler.h"
#include "internal/FrameRules.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
using eResult = CFrameAssembler::eResult;

constexpr long kMaxima[] = {-1, 0, 1, 4, 100, 1000, 65515, 65535};

void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}

/// What the input is by the rules of frames, found without any state.
class CExpected
{
public:
    CExpected(const uint8_t* pData, size_t nData, long lDataMax) : m_pRest(pData), m_nRest(nData)
    {
        const size_t nDataMax = static_cast<size_t>(std::max(lDataMax, 0L));
        while (m_nRest >= kFrameHeaderSize) {
            socketFrameHdr_t header;
            std::memcpy(&header, m_pRest, sizeof(header));
            m_bBadMagic = header.magicNumber != kFrameMagic;
            m_bOversize = !m_bBadMagic && header.size > nDataMax;
            if (m_bBadMagic || m_bOversize || header.size > m_nRest - kFrameHeaderSize) {
                return;
            }
            const size_t nFrame = kFrameHeaderSize + header.size;
            m_frames.emplace_back(m_pRest, m_pRest + nFrame);
            m_pRest += nFrame;
            m_nRest -= nFrame;
        }
        m_bBadMagic = (m_nRest > 0 && m_pRest[0] != 0xAA) || (m_nRest > 1 && m_pRest[1] != 0xAA);
    }

    void Check(const std::vector<std::vector<uint8_t>>& frames, eResult end, bool bEmpty) const
    {
        Require(frames == m_frames);
        Require((end == eResult::BAD_MAGIC) == m_bBadMagic);
        Require((end == eResult::OVERSIZE) == m_bOversize);
        Require(m_bBadMagic || m_bOversize || bEmpty == (m_nRest == 0));
    }

private:
    const uint8_t* m_pRest;
    size_t m_nRest;
    std::vector<std::vector<uint8_t>> m_frames;
    bool m_bBadMagic = false;
    bool m_bOversize = false;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize)
{
    if (iSize < 2) {
        return 0;
    }
    const long lDataMax = kMaxima[pData[0] % std::size(kMaxima)];
    size_t nPiece = 1 + size_t{pData[1]};
    pData += 2;
    iSize -= 2;
    const CExpected expected(pData, iSize, lDataMax);

    CFrameAssembler assembler;
    std::vector<uint8_t> room(kFrameHeaderSize + static_cast<size_t>(std::max(lDataMax, 0L)));
    std::vector<std::vector<uint8_t>> frames;
    eResult result = eResult::INCOMPLETE;
    while (iSize > 0 && result != eResult::BAD_MAGIC && result != eResult::OVERSIZE) {
        received_t received{pData, std::min(nPiece, iSize)};
        const size_t nGiven = received.nBytes;
        do {
            result = assembler.eTake(received, lDataMax, room.data());
            if (result == eResult::FRAME) {
                socketFrameHdr_t header;
                std::memcpy(&header, room.data(), sizeof(header));
                const auto nFrame = static_cast<long>(kFrameHeaderSize + header.size);
                frames.emplace_back(room.begin(), room.begin() + nFrame);
            }
        } while (result == eResult::FRAME && received.nBytes > 0);
        Require(result != eResult::INCOMPLETE || received.nBytes == 0);
        pData += nGiven;
        iSize -= nGiven;
        nPiece = 1 + (nPiece * 7 + 3) % 300; // pieces of all sizes
    }
    expected.Check(frames, result, assembler.bEmpty());
    return 0;
}
