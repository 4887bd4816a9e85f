/// @file
/// @brief A frame with its data in one object of its own.
#pragma once

#include <libQuorCore/socketFrame.h>

#include <string>

namespace QuorCtl
{
/// @brief Header and data; szBytes() is what goes over the wire, see docs/frame-format.md.
struct CFrame {
    CFrame() = default;

    /// @param szBytes  Data, 0 to kFrameDataBytesMax bytes.
    explicit CFrame(uint16_t iCommand, std::string szBytes = "");

    /// @return Magic, the header's words, the size of the data as it is, and the data.
    std::string szBytes() const;

    QuorCore::socketFrameHdr_t header{};
    std::string szData;
};

/// @return What answers a daemon's ping: the same frame as a pong.
CFrame PongFor(CFrame ping);
} // namespace QuorCtl
