/// @file
/// @brief What every endpoint asks of a frame's header, and puts into it.
#pragma once

#include "libQuorCore/socketFrame.h"

#include <algorithm>
#include <cstdint>

namespace QuorCore
{
/// What a header that was received tells.
enum class eHeader {
    GOOD,
    BAD_MAGIC, ///< No frame begins here, and there is no search for one.
    OVERSIZE   ///< More data than the receiver takes.
};

/// @param lDataMax  Largest data in bytes that the receiver takes; negative as 0.
inline eHeader JudgeHeader(const socketFrameHdr_t& header, long lDataMax)
{
    if (header.magicNumber != kFrameMagic) {
        return eHeader::BAD_MAGIC;
    }
    const bool bFits = static_cast<int64_t>(header.size) <= std::max(lDataMax, 0L);
    return bFits ? eHeader::GOOD : eHeader::OVERSIZE;
}

/// What each frame bears as it goes out.
inline void StampHeader(socketFrameHdr_t& header, uint16_t iCounter)
{
    header.magicNumber = kFrameMagic;
    header.msgCounter = iCounter;
}

/// @param lSize  Of the data, negative as 0. @return A header with all words but the stamp's.
inline socketFrameHdr_t MakeHeader(uint16_t command, long lSize, uint16_t typeITF,
                                   uint16_t protocol, uint16_t user1, uint16_t user2)
{
    socketFrameHdr_t header = {};
    header.SetDataSize(static_cast<uint16_t>(std::max(lSize, 0L)));
    header.typeITF = typeITF;
    header.command = command;
    header.protocol = protocol;
    header.user1 = static_cast<int16_t>(user1);
    header.user2 = static_cast<int16_t>(user2);
    return header;
}
} // namespace QuorCore
