/// @file
/// @brief Owns one file descriptor.
#pragma once

#include "internal/CCancelGuard.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
/// Owns one descriptor; moves, never copies.
class CUniqueFd
{
public:
    explicit CUniqueFd(int iFd = -1) noexcept : m_iFd(iFd) {}
    CUniqueFd(CUniqueFd&& other) noexcept : m_iFd(other.iRelease()) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept
    {
        Reset(other.iRelease());
        return *this;
    }
    ~CUniqueFd() { Reset(); }

    int iGet() const noexcept { return m_iFd; }
    explicit operator bool() const noexcept { return m_iFd != -1; }
    int iRelease() noexcept { return std::exchange(m_iFd, -1); } ///< The caller closes it now.

    void Reset(int iFd = -1) noexcept
    {
        if (m_iFd != -1) {
            CloseFd(m_iFd);
        }
        m_iFd = iFd;
    }

    /// Closes a descriptor; errno stays, so that a failure path reports the true cause.
    static void CloseFd(int iFd) noexcept
    {
        const int iSavedErrno = errno;
        const CNoCancel noCancel; // close() is a cancellation point, and this runs in destructors
        ::close(iFd); // never retried: after EINTR the number may be another thread's already
        errno = iSavedErrno;
    }

private:
    int m_iFd;
};
} // namespace QuorCore
