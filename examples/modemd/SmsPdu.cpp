#include "SmsPdu.h"

#include <libQuorCore/libQuorCore.h>

#include <algorithm>
#include <cstddef>

namespace
{
// 3GPP TS 23.040: the first octet of a message in 9.2.2, addresses in 9.1.2.5.
constexpr unsigned kTypeMask = 0x03;
constexpr unsigned kDeliver = 0x00;
constexpr unsigned kNumberMask = 0x70;
constexpr unsigned kInternational = 0x10;
constexpr unsigned kName = 0x50;
constexpr size_t kDigitsMax = 20;

bool bIsHexText(const std::string& szText)
{
    return szText.size() % 2 == 0 &&
           szText.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}
} // namespace

std::string szSenderOf(const std::string& szPdu)
{
    if (szPdu.empty() || !bIsHexText(szPdu)) {
        return "";
    }
    const std::string szOctets = UnHexlify(szPdu.data(), static_cast<unsigned>(szPdu.size()));
    const auto iOctet = [&szOctets](size_t n) {
        return n < szOctets.size() ? static_cast<unsigned char>(szOctets[n]) : 0U;
    };
    const size_t nMessage = 1 + iOctet(0);
    const size_t nDigits = iOctet(nMessage + 1);
    const unsigned iType = iOctet(nMessage + 2);
    const size_t nNumber = nMessage + 3;
    if ((iOctet(nMessage) & kTypeMask) != kDeliver || (iType & kNumberMask) == kName ||
        nDigits == 0 || nDigits > kDigitsMax || nNumber + (nDigits + 1) / 2 > szOctets.size()) {
        return "";
    }
    std::string szNumber;
    for (size_t i = 0; i < nDigits; ++i) { // two an octet, the first in its lower half
        const unsigned iDigit = (iOctet(nNumber + i / 2) >> (i % 2 * 4)) & 0x0F;
        if (iDigit > 9) {
            return "";
        }
        szNumber += static_cast<char>('0' + iDigit);
    }
    return ((iType & kNumberMask) == kInternational ? "+" : "") + szNumber;
}
