/// @file
/// @brief Where the daemon is: a host and a TCP port, or the path of a Unix-domain socket.
#pragma once

#include "CDeadline.h"

#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace QuorCtl
{
/// One address to connect to; what connect(2) takes.
struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
};

/**
 * @brief The daemon's address as the command line gives it.
 *
 * Rests on getaddrinfo(3), ip(7), ipv6(7), unix(7).
 */
class CTarget
{
public:
    CTarget() = default; ///< 127.0.0.1, port 5555.

    void SetHost(const std::string& szHost) { m_szHost = szHost; } ///< Name or IP address.
    void SetPort(uint16_t iPort) { m_iPort = iPort; }

    /// @throw CUsageError  The path is empty or longer than the kernel's limit of 107 bytes.
    void SetUnixPath(const std::string& szPath);

    /// @return "127.0.0.1:5555", "[::1]:5555" or "unix:/run/daemon": what messages call it,
    ///         on one line and without control characters, whatever the command line has.
    std::string szName() const;

    /**
     * @brief Looks the addresses up.
     *
     * A name server that does not answer cannot hold it up beyond the deadline: the look-up runs
     * on a thread, which is left alone then and ends with the process.
     *
     * @param iWakeFd  Readable when the command is to be given up; -1 for none.
     * @return One or more, in the order in which they are to be tried.
     * @throw CLinkFailure  There is no such host, or no answer by then.
     */
    std::vector<Address> Addresses(const CDeadline& deadline, int iWakeFd) const;

private:
    std::string m_szHost = "127.0.0.1";
    uint16_t m_iPort = 5555;
    std::string m_szUnixPath; ///< Empty: TCP.
};
} // namespace QuorCtl
