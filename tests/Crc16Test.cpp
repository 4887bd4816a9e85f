#include "libQuorCore/crc-16.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{
uint16_t CrcOf(const std::string& szBytes)
{
    return Crc16(reinterpret_cast<const unsigned char*>(szBytes.data()),
                 static_cast<unsigned int>(szBytes.size()));
}

/// Bit by bit, as the definition has it.
uint16_t CrcByDefinition(const std::vector<unsigned char>& bytes, size_t nBytes)
{
    unsigned int iCrc = 0;
    for (size_t i = 0; i < nBytes; ++i) {
        iCrc ^= static_cast<unsigned int>(bytes[i]) << 8;
        for (int iBit = 0; iBit < 8; ++iBit) {
            iCrc = (iCrc & 0x8000) != 0 ? (iCrc << 1) ^ 0x1021 : iCrc << 1;
        }
        iCrc &= 0xFFFF;
    }
    return static_cast<uint16_t>(iCrc);
}
} // namespace

TEST(ACrc16, HasTheCheckValueOfItsVariant)
{
    EXPECT_EQ(0x31C3, CrcOf("123456789"));
}

TEST(ACrc16, OfNothingIsZero)
{
    EXPECT_EQ(0, Crc16(nullptr, 0));
    EXPECT_EQ(0, CrcOf(""));
}

TEST(ACrc16, OfASingleByteIsItsTableEntry)
{
    EXPECT_EQ(0x0000, CrcOf(std::string(1, '\0')));
    EXPECT_EQ(0x1021, CrcOf("\x01"));
    EXPECT_EQ(0x2042, CrcOf("\x02"));
    EXPECT_EQ(0x3063, CrcOf("\x03"));
    for (int i = 0; i < 256; ++i) {
        const std::vector<unsigned char> one = {static_cast<unsigned char>(i)};
        EXPECT_EQ(CrcByDefinition(one, 1), Crc16(one.data(), 1)) << i;
    }
}

TEST(ACrc16, TakesNoMoreThanSixteenBitsCanCount)
{
    std::vector<unsigned char> bytes(70000);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    const uint16_t iLongest = CrcByDefinition(bytes, 65535);
    EXPECT_EQ(iLongest, Crc16(bytes.data(), 65535));
    EXPECT_EQ(iLongest, Crc16(bytes.data(), 65536));
    EXPECT_EQ(iLongest, Crc16(bytes.data(), 70000));
    EXPECT_NE(iLongest, Crc16(bytes.data(), 65534));
}

TEST(ACrc16, IsThatOfItsDefinitionForAnyLength)
{
    std::vector<unsigned char> bytes(1025); // an odd address, too
    unsigned int iRandom = 1;
    for (unsigned char& cByte : bytes) {
        iRandom = iRandom * 1103515245 + 12345;
        cByte = static_cast<unsigned char>(iRandom >> 16);
    }
    const std::vector<unsigned char> shifted(bytes.begin() + 1, bytes.end());
    for (unsigned int nBytes = 0; nBytes < bytes.size(); ++nBytes) {
        ASSERT_EQ(CrcByDefinition(shifted, nBytes), Crc16(bytes.data() + 1, nBytes)) << nBytes;
    }
}
