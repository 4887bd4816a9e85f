#include "libQuorCore/crc-16.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

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
/// A piece of the data; of words of one byte 16 bytes, and so on.
template <class Word>
using block_t = std::array<Word, 16>;

/// The words of @p data plus those that were taken out @p former, and in this very block, before.
template <class Word>
block_t<Word> Add(const block_t<Word>& former, const unsigned char* data, bool bTakeOut)
{
    block_t<Word> words;
    std::memcpy(words.data(), data, sizeof(words));
    const Word kept = bTakeOut ? static_cast<Word>(-1) : Word{0};
    for (size_t i = 0; i < words.size(); ++i) {
        const auto fourth = i >= 4 ? words[i - 4] & kept : former[i + 12];
        const auto eleventh = i >= 11 ? words[i - 11] & kept : former[i + 5];
        words[i] = static_cast<Word>(words[i] ^ former[i] ^ fourth ^ eleventh);
    }
    return words;
}

/**
 * Makes data with the same CRC that are less than two blocks long. The polynomial raised to the
 * number of bits of a word, 8, 16, 32 or 64, has as few terms as itself, those of 16, 12 and 5
 * words and 1, and data may be divided by that first. So a word can be taken out if it is added to
 * those that are 4, 11 and 16 further on: three operations for a word, and none waits for a table.
 *
 * @param rest  Receives them; may be @p data itself. @return Their length.
 */
template <class Word>
unsigned int Shorten(const unsigned char* data, unsigned int length, unsigned char* rest)
{
    constexpr unsigned int kBlockBytes = sizeof(block_t<Word>);
    block_t<Word> former{};
    for (; length >= 2 * kBlockBytes; length -= kBlockBytes) {
        former = Add(former, data, true);
        data += kBlockBytes;
    }
    if (length > 0) {
        std::memmove(rest, data, length);
    }
    if (length >= kBlockBytes) {
        const block_t<Word> added = Add(former, rest, false);
        std::memcpy(rest, added.data(), kBlockBytes);
    }
    return length;
}
} // namespace

uint16_t Crc16(const unsigned char* data, unsigned int length)
{
    std::array<unsigned char, 2 * sizeof(block_t<uint64_t>)> rest;
    unsigned int iLeft = Shorten<uint64_t>(data, std::min(length, kBytesMax), rest.data());
    iLeft = Shorten<uint32_t>(rest.data(), iLeft, rest.data());
    iLeft = Shorten<uint16_t>(rest.data(), iLeft, rest.data());
    iLeft = Shorten<uint8_t>(rest.data(), iLeft, rest.data());
    uint16_t iCrc = 0;
    for (unsigned int i = 0; i < iLeft; ++i) {
        iCrc = static_cast<uint16_t>((iCrc << 8) ^ kTable[(iCrc >> 8) ^ rest[i]]);
    }
    return iCrc;
}
