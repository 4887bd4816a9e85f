/// @file
/// @brief A pipe to or from a child process.
#pragma once

#include "libQuorCore/Export.h"

namespace QuorCore
{
/**
 * @brief Owns both ends of a pipe(2), close-on-exec.
 *
 * Threads: one at a time for each end. Writing to a pipe that nobody reads any more fails and does
 * not end the process. Errors: -1 with errno.
 */
class QUORCORE_API CPipe
{
public:
    CPipe(); ///< Creates the pipe; both ends are -1 when the system has none to give.
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;
    virtual ~CPipe(); ///< Closes both ends.

    int hReadHandle() const { return m_readfd; }   ///< -1 when closed; stays the pipe's.
    int hWriteHandle() const { return m_writefd; } ///< -1 when closed; stays the pipe's.

    void CloseRead();
    void CloseWrite();
    void Close(); ///< Both ends.

    /// Writes all of @p iSize bytes, waiting while the pipe is full. @return The bytes written,
    /// fewer than asked when the reader left meanwhile; -1 when none were.
    int iWriteBytes(const char* pData, int iSize);

    /// Reads what has come, waiting while nothing has. @return The bytes read, at most @p iSize; 0
    /// when every writer has left; -1.
    int iReadBytes(char* pData, int iSize);

protected:
    int m_readfd;  ///< -1 when closed.
    int m_writefd; ///< -1 when closed.
};
} // namespace QuorCore
