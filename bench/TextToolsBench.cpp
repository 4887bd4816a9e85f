// What hexadecimal text and a CRC cost: the CRC against the table that takes one byte after the
// other, the texts against the time that 1500 MB/s leave for them.

#include "libQuorCore/crc-16.h"
#include "libQuorCore/string_tools.h"

#include "support/Bench.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

using namespace Bench;

namespace
{
constexpr unsigned int kLargest = 65535; // what a CRC takes
constexpr unsigned int kText = 16384;    // bytes of a text
constexpr double kNsPerByte = 1000.0 / 1500;

std::vector<unsigned char> MakeBytes(unsigned int nBytes)
{
    std::vector<unsigned char> bytes(nBytes);
    uint32_t iRandom = 1;
    for (unsigned char& cByte : bytes) {
        iRandom = iRandom * 1103515245 + 12345;
        cByte = static_cast<unsigned char>(iRandom >> 16);
    }
    return bytes;
}

class CByteWiseCrc
{
public:
    CByteWiseCrc()
    {
        for (unsigned int iByte = 0; iByte < m_table.size(); ++iByte) {
            unsigned int iCrc = iByte << 8;
            for (int iBit = 0; iBit < 8; ++iBit) {
                iCrc = (iCrc & 0x8000) != 0 ? (iCrc << 1) ^ 0x1021 : iCrc << 1;
            }
            m_table[iByte] = static_cast<uint16_t>(iCrc);
        }
    }
    uint16_t iOf(const std::vector<unsigned char>& bytes) const
    {
        uint16_t iCrc = 0;
        for (const unsigned char cByte : bytes) {
            iCrc = static_cast<uint16_t>((iCrc << 8) ^ m_table[(iCrc >> 8) ^ cByte]);
        }
        return iCrc;
    }

private:
    std::array<uint16_t, 256> m_table{};
};

template <unsigned int nBytes>
void Crc(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = MakeBytes(nBytes);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Crc16(bytes.data(), nBytes));
    }
}

template <unsigned int nBytes>
void ByteWiseCrc(benchmark::State& state)
{
    const CByteWiseCrc crc;
    const std::vector<unsigned char> bytes = MakeBytes(nBytes);
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc.iOf(bytes));
    }
}

template <char cSep>
void ToText(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = MakeBytes(kText);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Hexlify(bytes.data(), kText, cSep));
    }
}

void FromText(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = MakeBytes(kText / 2);
    const std::string szText = Hexlify(bytes.data(), kText / 2, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(UnHexlify(szText.data(), kText));
    }
}

const bool kRegistered =
    bCompare({"crc of 1 KiB", Crc<1024>, ByteWiseCrc<1024>, AtMostTimes(0.1), PROCESSOR_TIME}) &&
    bCompare({"crc of 4 KiB", Crc<4096>, ByteWiseCrc<4096>, AtMostTimes(0.1), PROCESSOR_TIME}) &&
    bCompare({"crc of 65535 bytes", Crc<kLargest>, ByteWiseCrc<kLargest>, AtMostTimes(0.1),
              PROCESSOR_TIME}) &&
    bCompare({"16 KiB to hex", ToText<0>, nullptr, AtMostNs(kText* kNsPerByte), PROCESSOR_TIME}) &&
    bCompare({"16 KiB to hex with blanks", ToText<' '>, nullptr, AtMostNs(kText* kNsPerByte),
              PROCESSOR_TIME}) &&
    bCompare({"16 KiB from hex", FromText, nullptr, AtMostNs(kText* kNsPerByte), PROCESSOR_TIME});
} // namespace
