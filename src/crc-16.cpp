#include "libQuorCore/crc-16.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

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

constexpr size_t kBlockWords = 16;
constexpr size_t kTableBytes = 16; // that many, or fewer, go through the table

/// A piece of the data; of words of one byte 16 bytes, and so on.
template <class Word>
using block_t = std::array<Word, kBlockWords>;

template <class Word>
block_t<Word> Load(const unsigned char* data)
{
    block_t<Word> block;
    std::memcpy(block.data(), data, sizeof(block));
    return block;
}

/// Adds to a word those of its block that are taken out before it.
template <size_t i, class Word>
void AddOwn(block_t<Word>& block)
{
    if constexpr (i >= 11) {
        block[i] = static_cast<Word>(block[i] ^ block[i - 4] ^ block[i - 11]);
    } else if constexpr (i >= 4) {
        block[i] = static_cast<Word>(block[i] ^ block[i - 4]);
    }
}

/// @return A word of the next block, with those added that are taken out of the one before.
template <size_t i, class Word>
Word Added(const block_t<Word>& block, Word next)
{
    if constexpr (i < 4) {
        return static_cast<Word>(next ^ block[i] ^ block[i + 5] ^ block[i + 12]);
    } else if constexpr (i < 11) {
        return static_cast<Word>(next ^ block[i] ^ block[i + 5]);
    } else {
        return static_cast<Word>(next ^ block[i]);
    }
}

/**
 * Takes a block out, so that the next one alone has the CRC of both.
 *
 * The polynomial raised to the number of bits of a word, 8, 16, 32 or 64, has as few terms as
 * itself, those of 16, 12 and 5 words and 1, and data may be divided by that first. So a word can
 * be taken out if it is added to those that are 4, 11 and 16 further on: three operations for a
 * word, in whichever order the machine has its bytes, and none waits for a table. Spelled out word
 * by word: as a loop it takes twice as long.
 */
template <class Word, size_t... i>
block_t<Word> Fold(block_t<Word> block, const block_t<Word>& next, std::index_sequence<i...>)
{
    (AddOwn<i>(block), ...);
    return {Added<i>(block, next[i])...};
}

template <class Word>
block_t<Word> Fold(const block_t<Word>& block, const block_t<Word>& next)
{
    return Fold(block, next, std::make_index_sequence<kBlockWords>());
}

/// Folds the last two blocks before @p pEnd to one.
template <class Word>
void FoldLast(unsigned char* pEnd)
{
    constexpr size_t kBytes = sizeof(block_t<Word>);
    const block_t<Word> folded = Fold(Load<Word>(pEnd - 2 * kBytes), Load<Word>(pEnd - kBytes));
    std::memcpy(pEnd - kBytes, folded.data(), kBytes);
}
} // namespace

uint16_t Crc16(const unsigned char* data, unsigned int length)
{
    using wide_t = block_t<uint64_t>;
    constexpr size_t kBlockBytes = sizeof(wide_t);
    const size_t nAll = std::min(length, kBytesMax);
    // Zeros in front change nothing: what is no whole block comes first.
    const size_t nFirst = nAll > 0 ? (nAll - 1) % kBlockBytes + 1 : 0;
    std::array<unsigned char, kBlockBytes> last{};
    unsigned char* const pEnd = last.data() + kBlockBytes;
    if (nFirst > 0) {
        std::memcpy(pEnd - nFirst, data, nFirst);
    }
    if (nAll > kBlockBytes) {
        wide_t block = Load<uint64_t>(last.data());
        for (size_t nDone = nFirst; nDone < nAll; nDone += kBlockBytes) {
            block = Fold(block, Load<uint64_t>(data + nDone));
        }
        std::memcpy(last.data(), block.data(), kBlockBytes);
    }
    // The end of it has the CRC of all; it gets shorter by half each time.
    const size_t nLeft = std::min(nAll, kBlockBytes);
    if (nLeft > kBlockBytes / 2) {
        FoldLast<uint32_t>(pEnd);
    }
    if (nLeft > kBlockBytes / 4) {
        FoldLast<uint16_t>(pEnd);
    }
    if (nLeft > kBlockBytes / 8) {
        FoldLast<uint8_t>(pEnd);
    }
    uint16_t iCrc = 0;
    for (const unsigned char* p = pEnd - std::min(nLeft, kTableBytes); p != pEnd; ++p) {
        iCrc = static_cast<uint16_t>((iCrc << 8) ^ kTable[(iCrc >> 8) ^ *p]);
    }
    return iCrc;
}
