/// @file
/// @brief A listening stream socket, at an address or at a path.
#pragma once

#include "internal/CUniqueFd.h"

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace QuorCore
{
/// Owns a non-blocking, close-on-exec listening socket and, at a path, the file that names it.
class CListener
{
public:
    CListener() = default;
    CListener(const CListener&) = delete;
    CListener& operator=(const CListener&) = delete;
    ~CListener() { Close(); }

    /**
     * @brief Listens for TCP; "::" for IPv4 peers, too. bind(2) with SO_REUSEADDR.
     * @param szAddress  Numeric IPv4 or IPv6 address.
     * @param iPort      0 to 65535.
     * @return 0 or an error number; EINVAL for what is no address or no port.
     */
    int iOpenTcp(const std::string& szAddress, int iPort);

    /**
     * @brief Listens at a path; a socket there on which nobody listens is replaced.
     * @param mode  Permissions of the file.
     * @return 0 or an error number; ENAMETOOLONG for more than 107 bytes, EADDRINUSE when the path
     *         is a file or somebody's.
     */
    int iOpenUnix(const std::string& szPath, mode_t mode);

    void Close(); ///< Also removes the file, if it still is this socket's.

    explicit operator bool() const { return static_cast<bool>(m_socket); } ///< It listens.
    int iGet() const { return m_socket.iGet(); }
    int iPort() const; ///< @return The port of TCP; -1 when there is none.

private:
    int iKeep(CUniqueFd socket);

    CUniqueFd m_socket;
    std::string m_szPath; ///< Of the file to remove; empty: none.
    struct stat m_file = {};
};
} // namespace QuorCore
