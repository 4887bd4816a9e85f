#include "Number.h"

#include <charconv>

namespace QuorCtl
{
std::optional<int64_t> ParseNumber(const std::string& szText, int64_t iMin, int64_t iMax)
{
    const bool bMinus = !szText.empty() && szText[0] == '-';
    const char* pFirst = szText.data() + (bMinus ? 1 : 0);
    const char* const pEnd = szText.data() + szText.size();
    int iBase = 10; // never 8: "010" from a form with leading zeros means ten
    if (pEnd - pFirst > 2 && pFirst[0] == '0' && (pFirst[1] | 0x20) == 'x') {
        iBase = 16;
        pFirst += 2;
    }
    int64_t iValue = 0;
    const std::from_chars_result result = std::from_chars(pFirst, pEnd, iValue, iBase);
    if (result.ec != std::errc() || result.ptr != pEnd || iValue < 0) { // "--5"
        return std::nullopt;
    }
    iValue = bMinus ? -iValue : iValue;
    return iValue >= iMin && iValue <= iMax ? std::optional<int64_t>(iValue) : std::nullopt;
}
} // namespace QuorCtl
