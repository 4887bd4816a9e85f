/// @file
/// @brief Percentiles of any number of times in constant memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace QuorCtl
{
/// @brief Counts times in classes whose width is at most 1/64 of the times in them.
class CLatencyHistogram
{
public:
    /// @param iNs  In ns.
    void Add(uint64_t iNs);

    uint64_t iCount() const { return m_iCount; }
    uint64_t iMaxNs() const { return m_iMaxNs; } ///< Exact; 0 without a time.

    /// @param dPercent  0 to 100.
    /// @return The upper end of the class in which that share of the times is reached, in ns, but
    ///         no more than the maximum.
    uint64_t iPercentileNs(double dPercent) const;

private:
    static constexpr size_t kStepBits = 6; ///< 64 classes for each doubling.
    static constexpr size_t kClasses = (64 - kStepBits + 1) << kStepBits;

    static size_t Class(uint64_t iNs);
    static uint64_t iUpperEnd(size_t index);

    std::array<uint64_t, kClasses> m_counts{};
    uint64_t m_iCount = 0;
    uint64_t m_iMaxNs = 0;
};
} // namespace QuorCtl
