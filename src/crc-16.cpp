#include "libQuorCore/crc-16.h"

#include <algorithm>
#include <array>

namespace
{
constexpr uint16_t kPolynomial = 0x1021;
constexpr unsigned int kBytesMax = 65535;

/// @return The CRC of each single byte.
constexpr std::array<uint16_t, 256> MakeTable()
{
    std::array<uint16_t, 256> table{};
    for (unsigned int iByte = 0; iByte < table.size(); ++iByte) {
        unsigned int iCrc = iByte << 8;
        for (int iBit = 0; iBit < 8; ++iBit) {
            iCrc = (iCrc & 0x8000) != 0 ? (iCrc << 1) ^ kPolynomial : iCrc << 1;
        }
        table[iByte] = static_cast<uint16_t>(iCrc);
    }
    return table;
}

constexpr std::array<uint16_t, 256> kTable = MakeTable();
static_assert(kTable[1] == 0x1021 && kTable[2] == 0x2042 && kTable[3] == 0x3063, "the polynomial");
} // namespace

uint16_t Crc16(const unsigned char* data, unsigned int length)
{
    uint16_t iCrc = 0;
    for (unsigned int i = 0; i < std::min(length, kBytesMax); ++i) {
        iCrc = static_cast<uint16_t>((iCrc << 8) ^ kTable[(iCrc >> 8) ^ data[i]]);
    }
    return iCrc;
}
