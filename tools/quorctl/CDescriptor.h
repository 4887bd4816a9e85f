/// @file
/// @brief Owns one file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace QuorCtl
{
/// Owns one descriptor; moves, never copies.
class CDescriptor
{
public:
    explicit CDescriptor(int iFd = -1) noexcept : m_iFd(iFd) {}
    CDescriptor(CDescriptor&& other) noexcept : m_iFd(std::exchange(other.m_iFd, -1)) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept
    {
        std::swap(m_iFd, other.m_iFd);
        return *this;
    }
    ~CDescriptor()
    {
        if (m_iFd != -1) {
            ::close(m_iFd);
        }
    }

    int iGet() const noexcept { return m_iFd; }

private:
    int m_iFd;
};
} // namespace QuorCtl
