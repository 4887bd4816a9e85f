/// @file
/// @brief A connection to a daemon, on which frames go and come with a limit in time.
#pragma once

#include "CDeadline.h"
#include "CDescriptor.h"
#include "CFrame.h"
#include "CFrameStream.h"
#include "CTarget.h"
#include "Failure.h"

#include <climits>
#include <optional>
#include <string>

namespace QuorCtl
{
/// @return A connected, non-blocking, close-on-exec stream socket.
/// @param iWakeFd  Readable when the command is to be given up; -1 for none.
/// @param iConnectLimitMs  For connecting alone, once the host was looked up, in ms; the deadline
///                         holds all the same.
/// @throw CLinkFailure  No address of the target took the connection in time.
CDescriptor Connect(const CTarget& target, const CDeadline& deadline, int iWakeFd = -1,
                    int iConnectLimitMs = INT_MAX);

/**
 * @brief Connects, sends and receives, and answers the daemon's pings on the way.
 *
 * It connects once: there is no second attempt and no pause. Every call is over when its deadline
 * passes, whatever the daemon does; a daemon that sends without end costs no more memory than one
 * frame. Errors: throws CLinkFailure, CTimeOut and CInterrupted with a text that names the daemon.
 * Rests on connect(2), poll(2), send(2), recv(2); never raises SIGPIPE.
 */
class CFrameLink
{
public:
    /// @param iWakeFd  Readable when the command is to be given up, as that of CSignalWatch; -1 for
    ///                 none. Not owned.
    /// @param iConnectLimitMs  As Connect() has it.
    CFrameLink(const CTarget& target, const CDeadline& deadline, int iWakeFd = -1,
               int iConnectLimitMs = INT_MAX);

    /// @throw CTimeOut  The daemon does not read.
    void Send(const CFrame& frame, const CDeadline& deadline);

    /// @brief Waits for the next frame, the daemon's pings excepted: these are answered.
    /// @return None when the deadline has passed.
    std::optional<CFrame> Receive(const CDeadline& deadline);

    /// @brief As Receive(), with the daemon's pings, which are answered all the same.
    std::optional<CFrame> ReceiveWithPings(const CDeadline& deadline);

    /**
     * @brief Waits for the answer to a request that was sent.
     * @param command  The one that the answer has; none: any but a ping.
     * @throw CTimeOut  It did not come in time.
     */
    CFrame Await(const std::optional<uint16_t>& command, const CDeadline& deadline);

    /// @brief Sends a request and waits for what answers it, which must be free of error.
    /// @throw CRefusal  The answer's error word is not 0.
    CFrame Exchange(const CFrame& request, uint16_t iAnswer, const CDeadline& deadline);

    /**
     * @brief Ends the sending, and gives the daemon a moment to read all and close.
     *
     * A socket that is closed with bytes unread, as with a ping of the daemon's, resets the
     * connection, and the daemon may lose what it has not read yet: tcp(7).
     */
    void Finish(const CDeadline& deadline);

    const std::string& szPeer() const { return m_stream.szPeer(); } ///< As messages call it.

    /// @return The failure that tells of a deadline: whether anything came, and how much.
    CTimeOut NoAnswer(const CDeadline& deadline) const;

private:
    bool bReadSome(const CDeadline& deadline);

    int m_iWakeFd;
    CFrameStream m_stream;
};
} // namespace QuorCtl
