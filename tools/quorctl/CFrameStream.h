/// @file
/// @brief A connected socket on which frames go and come, without waiting.
#pragma once

#include "CDescriptor.h"
#include "CFrameDecoder.h"

#include <cstddef>
#include <optional>
#include <string>

namespace QuorCtl
{
/**
 * @brief Sends what the kernel takes and finds the frames in what has come; never blocks.
 *
 * Errors: throws CLinkFailure with a text that names the peer, for a connection that ended and for
 * what is no frame. Rests on send(2) and recv(2); never raises SIGPIPE.
 */
class CFrameStream
{
public:
    /// @param szPeer  The other end, as messages call it.
    /// @param socket  Connected and non-blocking.
    CFrameStream(std::string szPeer, CDescriptor socket);

    int iFd() const { return m_socket.iGet(); }
    const std::string& szPeer() const { return m_szPeer; }
    bool bHeard() const { return m_bHeard; }                 ///< At least one byte has come.
    bool bMidFrame() const { return m_decoder.bMidFrame(); } ///< A part of a frame has come.

    /// Sends from the front of some bytes. @return How many the kernel took; 0 has no room now.
    size_t Write(const char* pBytes, size_t size);

    void ReadSome(); ///< Takes what has come, 64 KiB at most.

    /// @return The next whole frame of what was taken, or none yet.
    std::optional<CFrame> Next() { return m_decoder.Next(); }

private:
    [[noreturn]] void FailClosed() const;

    std::string m_szPeer;
    CDescriptor m_socket;
    CFrameDecoder m_decoder;
    bool m_bHeard = false;
};
} // namespace QuorCtl
