/// @file
/// @brief Frames as bytes, built and taken apart without the library's own records.
#pragma once

#include "support/CDeadline.h"
#include "support/CTcpPeer.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace TestSupport
{
constexpr size_t kHeaderBytes = 20;

/// @brief A frame in the order of its fields on the wire.
struct Frame {
    uint16_t iMagic = 0xAAAA;
    uint32_t iSize = 0; ///< As the header tells it; FrameBytes() takes that of the data instead.
    uint16_t iTypeItf = 0;
    uint16_t iCommand = 0;
    uint16_t iError = 0;
    uint16_t iProtocol = 0;
    uint16_t iCounter = 0;
    int16_t iUser1 = 0;
    int16_t iUser2 = 0;
    std::string szData;
    bool bComplete = false; ///< Received with all the data that its header announces.
};

/// @return The 20 bytes of the header, little-endian, with iSize as it is.
std::string HeaderBytes(const Frame& frame);

/// @return Header and data, with the size of the data.
std::string FrameBytes(Frame frame);

/// @return A frame with all other words 0.
std::string FrameBytes(uint16_t iCommand, const std::string& szData = "");

/// @return A header that announces @p iSize bytes, and no data.
std::string HeaderBytes(uint16_t iCommand, uint32_t iSize);

/// @brief Takes a frame apart. @return Incomplete for fewer bytes than its header announces.
Frame ParseFrame(const std::string& szBytes);

/// @brief Receives one frame.
/// @return Incomplete, with what came, when the connection or the time ended before.
Frame ReceiveFrame(CTcpPeer& peer, int iLimitMs = kAwaitLimitMs);

/// @brief Makes a connection whose one end is the peer.
/// @return The other end: a blocking, close-on-exec descriptor that the caller owns.
int iConnectTo(CTcpPeer& peer);
} // namespace TestSupport
