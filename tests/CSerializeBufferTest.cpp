#include "libQuorCore/CSerializeBuffer.h"

#include <algorithm>
#include <array>
#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace QuorCore;

namespace
{
class COpenBuffer : public CSerializeBuffer
{
public:
    using CSerializeBuffer::CSerializeBuffer;
    using CSerializeBuffer::m_iFormat;
    using CSerializeBuffer::m_pBuffer;
    using CSerializeBuffer::m_pPayload;
    using CSerializeBuffer::m_Size;
    using CSerializeBuffer::m_szLabel;
};

class ASerializeBuffer : public ::testing::Test
{
protected:
    void SetUp() override { m_aBuffer.fill(0xEE); } // what no push has touched

    std::vector<int> First(size_t nBytes) const
    {
        return {m_aBuffer.begin(), m_aBuffer.begin() + static_cast<std::ptrdiff_t>(nBytes)};
    }

    std::array<uint8_t, 32> m_aBuffer{};
    COpenBuffer m_Stream{m_aBuffer.data(), 32, true, true, 1};
    COpenBuffer m_Small{m_aBuffer.data(), 4, true, false, 0};
};
} // namespace

TEST_F(ASerializeBuffer, StartsReadyAtPositionZero)
{
    EXPECT_EQ(0, m_Stream.iGetPos());
    EXPECT_TRUE(m_Stream.bIsReady());
    EXPECT_EQ(SERIALIZE_BUFFER, m_Stream.m_iFormat);
    EXPECT_EQ("CSerializeBuffer", m_Stream.m_szLabel);
    EXPECT_EQ(nullptr, m_Stream.m_pPayload);
    EXPECT_EQ(m_aBuffer.data(), m_Stream.m_pBuffer);
    EXPECT_EQ(32, m_Stream.m_Size);
}

TEST_F(ASerializeBuffer, TellsNobodyWhereItsBufferIs)
{
    EXPECT_EQ(nullptr, m_Stream.pGetBuffer());
}

TEST_F(ASerializeBuffer, KeepsTheFlagsItIsBuiltWith)
{
    EXPECT_TRUE(m_Stream.m_bSave);
    EXPECT_TRUE(m_Stream.m_bLog);
    EXPECT_NE(0, m_Stream.m_bOnlyPublic);
    EXPECT_EQ(0, m_Small.m_bOnlyPublic);
    const CSerializeBuffer highBit(m_aBuffer.data(), 4, false, false, 0x0100);
    EXPECT_FALSE(highBit.m_bSave);
    EXPECT_FALSE(highBit.m_bLog);
    EXPECT_NE(0, highBit.m_bOnlyPublic);
}

TEST_F(ASerializeBuffer, WritesAtThePosition)
{
    EXPECT_EQ(0, m_Stream.iPushU16(0x1234, ""));
    EXPECT_EQ(0, m_Stream.iSetPos(3));
    EXPECT_EQ(0, m_Stream.iPushI16(-2, ""));
    EXPECT_EQ((std::vector<int>{0x34, 0x12, 0xEE, 0xFE, 0xFF, 0xEE}), First(6));
    EXPECT_EQ(5, m_Stream.iGetPos());
}

TEST_F(ASerializeBuffer, ReadsBackWhatItWrote)
{
    m_Stream.iPushU32(0x89ABCDEF, "");
    m_Stream.iPushTime(0x5F5E1000, "");
    m_Stream.iSetPos(0);
    uint32_t iInt = 0;
    time_t value = 0;
    EXPECT_EQ(0, m_Stream.iPopU32(iInt, ""));
    EXPECT_EQ(0, m_Stream.iPopTime(value, ""));
    EXPECT_EQ(0x89ABCDEFU, iInt);
    EXPECT_EQ(0x5F5E1000, value);
}

TEST_F(ASerializeBuffer, OfFourBytesTakesFourAndNoMore)
{
    EXPECT_EQ(0, m_Small.iPushU32(0x04030201, ""));
    EXPECT_EQ(-1, m_Small.iPushU8(5, ""));
    EXPECT_EQ(4, m_Small.iGetPos());
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 0xEE}), First(5));
}

TEST_F(ASerializeBuffer, WritesNothingOfWhatDoesNotFit)
{
    uint8_t aData[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(-1, m_Small.iPushBuffer(aData, 5, ""));
    EXPECT_EQ(0, m_Small.iGetPos());
    EXPECT_EQ((std::vector<int>{0xEE, 0xEE, 0xEE, 0xEE, 0xEE}), First(5));
}

TEST_F(ASerializeBuffer, RefusesToReadPastTheEnd)
{
    m_Small.iSetPos(1);
    uint32_t iInt = 0xCAFE;
    EXPECT_EQ(-1, m_Small.iPopU32(iInt, ""));
    EXPECT_EQ(0xCAFEU, iInt);
    EXPECT_EQ(1, m_Small.iGetPos());
}

TEST_F(ASerializeBuffer, FailsWithoutADestinationOrData)
{
    EXPECT_EQ(-1, m_Small.iPopBuffer(nullptr, 1, ""));
    EXPECT_EQ(-1, m_Small.iPopBuffer(nullptr, 0, ""));
    EXPECT_EQ(-1, m_Small.iPushBuffer(nullptr, 1, ""));
    EXPECT_EQ(0, m_Small.iGetPos());
}

TEST_F(ASerializeBuffer, TakesNothingAsAPushOfNothing)
{
    uint8_t iByte = 0;
    m_Small.iSetPos(4);
    EXPECT_EQ(0, m_Small.iPushBuffer(nullptr, 0, ""));
    EXPECT_EQ(0, m_Small.iPopBuffer(&iByte, 0, ""));
    EXPECT_EQ(4, m_Small.iGetPos());
}

TEST_F(ASerializeBuffer, RefusesNegativeSizesAndPositions)
{
    uint8_t aData[4] = {};
    m_Small.iSetPos(2);
    for (const int iSize : {-1, INT_MIN}) {
        EXPECT_EQ(-1, m_Small.iPushBuffer(aData, iSize, "")) << iSize;
        EXPECT_EQ(-1, m_Small.iPopBuffer(aData, iSize, "")) << iSize;
    }
    EXPECT_EQ(2, m_Small.iGetPos());
    for (const int iPos : {-1, INT_MIN}) {
        m_Small.iSetPos(iPos);
        EXPECT_EQ(-1, m_Small.iPushBuffer(aData, 1, "")) << iPos;
        EXPECT_EQ(-1, m_Small.iPopBuffer(aData, 1, "")) << iPos;
        EXPECT_EQ(iPos, m_Small.iGetPos());
    }
}

TEST_F(ASerializeBuffer, RefusesSumsThatRunOverTheRangeOfAnInt)
{
    uint8_t aData[4] = {};
    for (const int iPos : {1, INT_MAX - 1, INT_MAX}) {
        m_Small.iSetPos(iPos);
        EXPECT_EQ(-1, m_Small.iPushBuffer(aData, INT_MAX, "")) << iPos;
        EXPECT_EQ(-1, m_Small.iPopBuffer(aData, INT_MAX, "")) << iPos;
        EXPECT_EQ(iPos, m_Small.iGetPos());
    }
}

TEST_F(ASerializeBuffer, OfANegativeSizeIsEmpty)
{
    COpenBuffer stream(m_aBuffer.data(), -1, true, false, 0);
    EXPECT_EQ(0, stream.m_Size);
    EXPECT_EQ(-1, stream.iPushU8(1, ""));
    COpenBuffer lowest(m_aBuffer.data(), LONG_MIN, true, false, 0);
    EXPECT_EQ(0, lowest.m_Size);
}

TEST_F(ASerializeBuffer, WithoutMemoryIsEmpty)
{
    COpenBuffer stream(nullptr, 100, true, false, 0);
    uint8_t iByte = 0;
    EXPECT_EQ(-1, stream.iPushU8(1, ""));
    EXPECT_EQ(-1, stream.iPopU8(iByte, ""));
}

TEST_F(ASerializeBuffer, OfMoreThanAnIntCanTellIsCutToThat)
{
    if (sizeof(long) == sizeof(int)) {
        GTEST_SKIP() << "a long is an int on this machine";
    }
    COpenBuffer stream(m_aBuffer.data(), LONG_MAX, true, false, 0);
    EXPECT_EQ(INT_MAX, stream.m_Size);
}

TEST_F(ASerializeBuffer, LeavesGapsAroundTheDataOfABlock)
{
    uint8_t aData[] = {0x0A, 0x0B, 0x0C};
    EXPECT_EQ(0, m_Stream.iPushPayload(aData, 3, ""));
    EXPECT_EQ(14, m_Stream.iGetPos());
    EXPECT_EQ((std::vector<int>{3, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0x0A, 0x0B, 0x0C, 0xEE}),
              First(12));
}

TEST_F(ASerializeBuffer, ReadsBackABlockAndWhatFollowsIt)
{
    uint8_t aData[] = {0x0A, 0x0B, 0x0C};
    m_Stream.iPushPayload(aData, 3, "");
    m_Stream.iPushU8(0x77, "");
    m_Stream.iSetPos(0);
    std::array<uint8_t, 3> aRead{};
    int iSize = 0;
    uint8_t iByte = 0;
    EXPECT_EQ(0, m_Stream.iPopPayload(aRead.data(), iSize, ""));
    EXPECT_EQ(0, m_Stream.iPopU8(iByte, ""));
    EXPECT_EQ(3, iSize);
    EXPECT_TRUE(std::equal(aRead.begin(), aRead.end(), aData));
    EXPECT_EQ(0x77, iByte);
}

TEST_F(ASerializeBuffer, ReportsABlockWhoseDataFoundNoRoomAsWritten)
{
    uint8_t aData[] = {0x0A, 0x0B, 0x0C};
    EXPECT_EQ(0, m_Small.iPushPayload(aData, 3, ""));
    EXPECT_EQ((std::vector<int>{3, 0, 0, 0, 0xEE}), First(5));
    EXPECT_EQ(4 + 4 + 3, m_Small.iGetPos());
}

TEST_F(ASerializeBuffer, RefusesABlockWhoseSizeFoundNoRoom)
{
    uint8_t iByte = 1;
    m_Small.iSetPos(1);
    EXPECT_EQ(-1, m_Small.iPushPayload(&iByte, 1, ""));
    EXPECT_EQ(1, m_Small.iGetPos());
}

TEST_F(ASerializeBuffer, RefusesABlockWhoseSizeLies)
{
    for (const int32_t iClaimed : {-1, INT32_MIN, INT32_MAX, 25}) {
        m_Stream.iSetPos(0);
        m_Stream.iPushI32(iClaimed, "");
        m_Stream.iSetPos(0);
        uint8_t iByte = 0x5A;
        int iSize = 0;
        EXPECT_EQ(-1, m_Stream.iPopPayload(&iByte, iSize, "")) << iClaimed;
        EXPECT_EQ(iClaimed, iSize);
        EXPECT_EQ(8, m_Stream.iGetPos()) << iClaimed;
        EXPECT_EQ(0x5A, iByte);
    }
}
