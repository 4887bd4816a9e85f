/// @file
/// @brief The other side of a TCP connection, under the control of a test.
#pragma once

#include "internal/CUniqueFd.h"
#include "support/CDeadline.h"

#include <cstddef>
#include <string>
#include <sys/socket.h>

namespace TestSupport
{
/// @brief A port of 127.0.0.1 on which nobody listens.
/// @return At each call another one, below those that the kernel gives to who asks for any. Until
///         this process ends iFreePort() of no other process gives it to anybody. Nobody was
///         connected there lately, so a server gets it without SO_REUSEADDR, too (socket(7)).
int iFreePort();

/// @brief The same. @param iFrom  A port that was given before; the next free one is.
int iFreePort(int iFrom);

/**
 * @brief A raw stream listener or client with at most one connection at a time, on 127.0.0.1 unless
 * told otherwise.
 *
 * Bytes are strings. Owns its descriptors. Every wait has a limit. Descriptors are close-on-exec,
 * no call raises SIGPIPE. Threads: one at a time. Errors: what cannot go wrong in a working test
 * (no socket, port taken) throws std::system_error, the rest is told by the result. Rests on
 * tcp(7).
 */
class CTcpPeer
{
public:
    /// @brief Begins to listen; connections are made from here on, even before bAccept().
    /// @param iPort  Port to take, as one that was listened on before; 0 lets the kernel choose.
    void Listen(int iPort = 0);
    void StopListening(); ///< A connection that was accepted stays.

    /// @return The port listened on, or, without a listener, the own one of the connection.
    int iPort() const;

    /// @brief Takes the next connection in place of the present one, which is closed.
    /// @return False: none came within @p iLimitMs.
    bool bAccept(int iLimitMs = kAwaitLimitMs);

    /// @brief Connects to @p iPort of 127.0.0.1, in place of the present connection.
    /// @return False: refused, or not done within @p iLimitMs; errno tells.
    bool bConnect(int iPort, int iLimitMs = kAwaitLimitMs);

    /// @brief As bConnect(), to a numeric IPv4 or IPv6 address of the loopback.
    bool bConnectTo(const std::string& szAddress, int iPort, int iLimitMs = kAwaitLimitMs);

    /// @brief The same to a Unix-domain socket, which takes a connection at once or not at all.
    bool bConnectUnix(const std::string& szPath);

    /// @return True: all bytes were taken by the kernel. False: connection lost, none, or too slow.
    bool bSend(const std::string& szBytes, int iLimitMs = kAwaitLimitMs);

    /// @param size  Number of bytes to wait for.
    /// @return These bytes; fewer if the connection or the time ended before.
    std::string szReceive(size_t size, int iLimitMs = kAwaitLimitMs);

    /// @brief Waits for the end of the connection by the other side.
    /// @return True: closed or reset, with no byte before it. False: a byte (which stays to be
    ///         received), no connection, or neither within @p iLimitMs.
    bool bReceiveEof(int iLimitMs = kAwaitLimitMs);

    void EndSending(); ///< Half-closes: the other side reads the end and may still send.
    void Close();      ///< Closes the connection in order, not the listener.
    void Reset();      ///< Closes it with a reset, so that the other side fails with ECONNRESET.

    /// @return The connection's descriptor for socket options, -1 without one. Stays the peer's.
    int iSocket() const { return m_Socket.iGet(); }

private:
    bool bConnectSocket(const sockaddr* pAddress, socklen_t addressLength, int iLimitMs);

    QuorCore::CUniqueFd m_Listener;
    QuorCore::CUniqueFd m_Socket;
};
} // namespace TestSupport
