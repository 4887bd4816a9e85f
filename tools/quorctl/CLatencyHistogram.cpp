#include "CLatencyHistogram.h"

#include <algorithm>
#include <cmath>

namespace QuorCtl
{
void CLatencyHistogram::Add(uint64_t iNs)
{
    ++m_counts[Class(iNs)];
    ++m_iCount;
    m_iMaxNs = std::max(m_iMaxNs, iNs);
}

uint64_t CLatencyHistogram::iPercentileNs(double dPercent) const
{
    const double dWanted = std::ceil(static_cast<double>(m_iCount) * dPercent / 100);
    const uint64_t iWanted = std::max<uint64_t>(static_cast<uint64_t>(dWanted), 1);
    uint64_t iSeen = 0;
    for (size_t index = 0; index < kClasses; ++index) {
        iSeen += m_counts[index];
        if (iSeen >= iWanted) {
            return std::min(iUpperEnd(index), m_iMaxNs);
        }
    }
    return m_iMaxNs;
}

// Times below 128 ns have a class each; above, a class is the doubling and the six bits below the
// highest one.
size_t CLatencyHistogram::Class(uint64_t iNs)
{
    size_t shift = 0;
    while (iNs >> shift >> (kStepBits + 1) != 0) { // in two steps: never by 64 bits
        ++shift;
    }
    return (shift << kStepBits) + static_cast<size_t>(iNs >> shift);
}

uint64_t CLatencyHistogram::iUpperEnd(size_t index)
{
    constexpr size_t kSteps = size_t{1} << kStepBits;
    if (index < 2 * kSteps) {
        return index;
    }
    const size_t shift = (index >> kStepBits) - 1;
    const uint64_t iTop = index - (shift << kStepBits);
    return ((iTop + 1) << shift) - 1;
}
} // namespace QuorCtl
