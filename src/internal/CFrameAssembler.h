/// @file
/// @brief Puts frames together from bytes as they come.
#pragma once

#include "libQuorCore/socketFrame.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QuorCore
{
/// Bytes that were received and not looked at yet.
struct received_t {
    const uint8_t* pBytes;
    size_t nBytes;
};

/**
 * @brief Keeps the beginning of a frame until the rest of it comes.
 *
 * Memory grows with what has come, never with what was announced, and is given back with each
 * frame. Threads: one at a time.
 */
class CFrameAssembler
{
public:
    enum class eResult {
        FRAME,      ///< A whole frame is there.
        INCOMPLETE, ///< All bytes were taken, and more are wanted.
        BAD_MAGIC,  ///< What follows is no frame.
        OVERSIZE    ///< A frame of more data than is taken.
    };

    /**
     * @brief Takes bytes up to the end of the next frame off @p received.
     * @param lDataMax  Largest data of a frame in bytes.
     * @param pFrame    Receives the frame when it is whole; room for header and @p lDataMax bytes.
     */
    eResult eTake(received_t& received, long lDataMax, uint8_t* pFrame);

    bool bEmpty() const { return m_begun.empty(); } ///< No frame has begun.

private:
    bool bMayBecomeFrame() const;
    bool bFill(received_t& received, size_t nWanted);

    std::vector<uint8_t> m_begun;
};
} // namespace QuorCore
