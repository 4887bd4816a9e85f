/// @file
/// @brief A real terminal, with the end of the line in the hand of a test.
#pragma once

#include "internal/CUniqueFd.h"
#include "support/CDeadline.h"

#include <cstddef>
#include <string>

namespace TestSupport
{
/**
 * @brief A pseudo-terminal: the device under szPath(), and the far end of its line here.
 *
 * What the device does with the bytes (echo, line editing) is up to who has opened it. The node
 * goes when the far end is closed, as that of an unplugged modem does.
 *
 * Bytes are strings; every wait has a limit. Threads: one at a time. Errors: the constructor throws
 * std::system_error, the rest is told by the result. Rests on pty(7).
 */
class CPty
{
public:
    CPty();

    /// @return The device's path; stays when it has gone.
    const std::string& szPath() const { return m_szPath; }

    /// @return True: the line has taken all bytes. False: nobody reads, or the time is over.
    bool bSend(const std::string& szBytes, int iLimitMs = kAwaitLimitMs);

    /// @return @p size bytes; fewer if the time was over before.
    std::string szReceive(size_t size, int iLimitMs = kAwaitLimitMs);

    /// @return All up to and with @p szEnd; less if the time was over before.
    std::string szReceiveUntil(const std::string& szEnd, int iLimitMs = kAwaitLimitMs);

    void Unplug() { m_Far.Reset(); } ///< The device goes away.
    bool bPlugged() const { return static_cast<bool>(m_Far); }
    int iFar() const { return m_Far.iGet(); } ///< The descriptor of the far end.

private:
    bool bReadSome(std::string& szText, size_t nMax, const CDeadline& deadline);

    QuorCore::CUniqueFd m_Far;
    std::string m_szPath;
};
} // namespace TestSupport
