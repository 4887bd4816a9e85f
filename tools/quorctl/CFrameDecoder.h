/// @file
/// @brief Finds the frames in a stream of bytes that come in pieces of any size.
#pragma once

#include "CFrame.h"

#include <cstddef>
#include <optional>
#include <string>

namespace QuorCtl
{
/**
 * @brief Takes bytes as they come and gives frames.
 *
 * The bytes are a stranger's: wrong ones are refused as soon as they show, and a size beyond
 * kFrameDataBytesMax before any room is made for it. It never holds more than was appended, and a
 * caller that appends at most @e n bytes whenever Next() has none left holds it to one frame and
 * @e n bytes. Errors: throws CLinkFailure, whose text begins with the name given at construction.
 */
class CFrameDecoder
{
public:
    /// @param szPeer  Who sends, as messages call it.
    explicit CFrameDecoder(std::string szPeer) : m_szPeer(std::move(szPeer)) {}

    void Append(const char* pBytes, size_t size) { m_szBytes.append(pBytes, size); }

    /// @return The next whole frame, or none yet.
    /// @throw CLinkFailure  What comes is no frame, or one that nobody may send.
    std::optional<CFrame> Next();

    /// @return Whether the stream stands in the middle of a frame.
    bool bMidFrame() const { return m_taken < m_szBytes.size(); }

private:
    void CheckMagic() const;

    std::string m_szPeer;
    std::string m_szBytes;
    size_t m_taken = 0; ///< Bytes at the front of m_szBytes that were given out.
};
} // namespace QuorCtl
