/// @file
/// @brief Reads a connection ahead, so that a frame costs one system call.
#pragma once

#include "internal/CFdGate.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace QuorCore
{
/**
 * @brief Hands out the bytes of one connection after the other, of which it holds a few KiB.
 *
 * A frame's length stands in its header: who reads the two with a call each pays twice for every
 * frame with data. What was read ahead belongs to the connection that it came from, and goes with
 * it.
 *
 * Threads: one, the reader's own.
 */
class CSocketReader
{
public:
    explicit CSocketReader(CFdGate& gate) : m_pin(gate) {}

    /// Pins the connection that @p slot names, as CFdPin does. @return Its descriptor, or -1.
    int iEnter(const std::atomic<int>& slot);

    /// Pins nothing else, so that what was begun on one connection is not ended on another.
    /// @return The descriptor that is pinned, if @p slot names it still, else -1.
    int iStay(const std::atomic<int>& slot) const
    {
        const int iFd = slot;
        return iFd == m_pin.iGet() ? iFd : -1;
    }

    void Leave(); ///< Unpins what was pinned.

    /**
     * @brief Gives bytes of the pinned connection, as recv(2) would.
     *
     * @param pTarget  Room for @p nWanted bytes, at least 1.
     * @return Bytes given, which may be fewer; 0 at the end of the stream; -1 with errno.
     */
    ssize_t lReceive(uint8_t* pTarget, size_t nWanted);

private:
    static constexpr size_t kAheadBytes = 4096;

    CFdPin m_pin;
    size_t m_iNext = 0; ///< First byte of m_aAhead that was not given yet.
    size_t m_iEnd = 0;  ///< End of those.
    std::array<uint8_t, kAheadBytes> m_aAhead;
};
} // namespace QuorCore
