#include "libQuorCore/CSerialize.h"

#include "support/CChild.h"

#include <climits>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <vector>

using namespace QuorCore;

namespace
{
/// What a walk and a derived stream see of a stream.
class COpenStream : public CSerialize
{
public:
    using CSerialize::CSerialize;
    using CSerialize::m_iFormat;
    using CSerialize::m_pPayload;
    using CSerialize::m_szLabel;
};

/// Passes every block on to a record of widths and labels instead of bytes.
class CRecordingStream : public CSerialize
{
public:
    CRecordingStream() : CSerialize(nullptr, true, false, false) {}

    int iPushBuffer(void* /*pData*/, int iSize, std::string szLabel) override
    {
        m_steps.push_back("push " + std::to_string(iSize) + " " + szLabel);
        return 7;
    }
    int iPopBuffer(void* pData, int iSize, std::string szLabel) override
    {
        m_steps.push_back("pop " + std::to_string(iSize) + " " + szLabel);
        return pData == nullptr ? 9 : 8;
    }

    std::vector<std::string> m_steps;
};

/// @return A virtual function's place in the table that callers compiled against the header use.
///         A pointer to it holds the offset, plus 1 on some machines (Itanium C++ ABI, 2.3).
template <class Function>
size_t iSlotOf(Function function)
{
    ptrdiff_t iOffset = 0;
    static_assert(sizeof(function) >= sizeof(iOffset), "a pointer to a member begins with it");
    std::memcpy(&iOffset, &function, sizeof(iOffset));
    return static_cast<size_t>(iOffset) / sizeof(void*);
}

class ASerialize : public ::testing::Test
{
protected:
    /// The values' bytes as a stream that reads them.
    CSerialize& ReaderOf(const ustring& bytes)
    {
        m_bytes = bytes;
        return m_Reader;
    }

    ustring m_bytes;
    COpenStream m_Writer{&m_bytes, true, true, true};
    COpenStream m_Reader{&m_bytes, false, false, false};
};
} // namespace

TEST_F(ASerialize, StartsAtPositionZeroAndNotReady)
{
    EXPECT_EQ(0, m_Writer.iGetPos());
    EXPECT_FALSE(m_Writer.bIsReady());
    EXPECT_EQ(SERIALIZE_STREAM, m_Writer.m_iFormat);
    EXPECT_EQ("CSerialize", m_Writer.m_szLabel);
    EXPECT_EQ(&m_bytes, m_Writer.m_pPayload);
    EXPECT_EQ(nullptr, m_Writer.pGetBuffer());
}

TEST_F(ASerialize, KeepsTheFlagsItIsBuiltWith)
{
    EXPECT_TRUE(m_Writer.m_bSave);
    EXPECT_TRUE(m_Writer.m_bLog);
    EXPECT_NE(0, m_Writer.m_bOnlyPublic);
    EXPECT_FALSE(m_Reader.m_bSave);
    EXPECT_FALSE(m_Reader.m_bLog);
    EXPECT_EQ(0, m_Reader.m_bOnlyPublic);
}

TEST_F(ASerialize, HasFormatsOfFixedValues)
{
    EXPECT_EQ(4U, sizeof(eSerializeFormat));
    EXPECT_EQ(0, SERIALIZE_STREAM);
    EXPECT_EQ(1, SERIALIZE_BUFFER);
    EXPECT_EQ(2, SERIALIZE_FILE);
    EXPECT_EQ(3, SERIALIZE_JSON_STREAM);
    EXPECT_EQ(4, SERIALIZE_JSON_FILE);
}

TEST_F(ASerialize, WritesIntegersLittleEndianInTheirOwnWidthWithoutPadding)
{
    EXPECT_EQ(0, m_Writer.iPushU8(0xF1, ""));
    EXPECT_EQ(0, m_Writer.iPushU16(0x1234, ""));
    EXPECT_EQ(0, m_Writer.iPushU32(0x89ABCDEF, ""));
    EXPECT_EQ(0, m_Writer.iPushI8(-2, ""));
    EXPECT_EQ(0, m_Writer.iPushI16(-2, ""));
    EXPECT_EQ(0, m_Writer.iPushI32(INT32_MIN, ""));
    const ustring expected = {0xF1, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89,
                              0xFE, 0xFE, 0xFF, 0x00, 0x00, 0x00, 0x80};
    EXPECT_EQ(expected, m_bytes);
    EXPECT_EQ(14, m_Writer.iGetPos());
}

TEST_F(ASerialize, ReadsUnsignedIntegersInOrder)
{
    CSerialize& reader = ReaderOf({0xF1, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89});
    uint8_t iByte = 0;
    uint16_t iShort = 0;
    uint32_t iInt = 0;
    EXPECT_EQ(0, reader.iPopU8(iByte, ""));
    EXPECT_EQ(0, reader.iPopU16(iShort, ""));
    EXPECT_EQ(0, reader.iPopU32(iInt, ""));
    EXPECT_EQ(0xF1, iByte);
    EXPECT_EQ(0x1234, iShort);
    EXPECT_EQ(0x89ABCDEFU, iInt);
    EXPECT_EQ(7, reader.iGetPos());
}

TEST_F(ASerialize, ReadsSignedIntegersInOrder)
{
    CSerialize& reader = ReaderOf({0xFE, 0xFE, 0xFF, 0x00, 0x00, 0x00, 0x80});
    int8_t iByte = 0;
    int16_t iShort = 0;
    int32_t iInt = 0;
    EXPECT_EQ(0, reader.iPopI8(iByte, ""));
    EXPECT_EQ(0, reader.iPopI16(iShort, ""));
    EXPECT_EQ(0, reader.iPopI32(iInt, ""));
    EXPECT_EQ(-2, iByte);
    EXPECT_EQ(-2, iShort);
    EXPECT_EQ(INT32_MIN, iInt);
    EXPECT_EQ(7, reader.iGetPos());
}

TEST_F(ASerialize, WritesATimeAsThirtyTwoBits)
{
    EXPECT_EQ(0, m_Writer.iPushTime(0x5F5E1000, ""));
    EXPECT_EQ(0, m_Writer.iPushTime(-1, ""));
    const ustring expected = {0x00, 0x10, 0x5E, 0x5F, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(expected, m_bytes);
}

TEST_F(ASerialize, ReadsATimeWithItsSignOverAWiderOldValue)
{
    CSerialize& reader = ReaderOf({0x00, 0x10, 0x5E, 0x5F, 0xFF, 0xFF, 0xFF, 0xFF});
    time_t value = static_cast<time_t>(0x1122334455667788);
    EXPECT_EQ(0, reader.iPopTime(value, ""));
    EXPECT_EQ(0x5F5E1000, value);
    EXPECT_EQ(0, reader.iPopTime(value, ""));
    EXPECT_EQ(-1, value);
}

TEST_F(ASerialize, LeavesTheValueAndThePositionWhenAPopFails)
{
    CSerialize& reader = ReaderOf({0x01, 0x02, 0x03});
    uint32_t iInt = 0xCAFE;
    time_t value = 77;
    EXPECT_EQ(-1, reader.iPopU32(iInt, ""));
    EXPECT_EQ(-1, reader.iPopTime(value, ""));
    EXPECT_EQ(0xCAFEU, iInt);
    EXPECT_EQ(77, value);
    EXPECT_EQ(0, reader.iGetPos());
}

TEST_F(ASerialize, RefusesToReadPastTheEnd)
{
    CSerialize& reader = ReaderOf({0x01});
    uint8_t iByte = 0;
    EXPECT_EQ(0, reader.iPopU8(iByte, ""));
    EXPECT_EQ(-1, reader.iPopU8(iByte, ""));
    EXPECT_EQ(1, reader.iGetPos());
}

TEST_F(ASerialize, ReadsUpToTheVeryEnd)
{
    CSerialize& reader = ReaderOf({1, 2, 3, 4, 5});
    uint8_t aData[5] = {};
    EXPECT_EQ(0, reader.iPopBuffer(aData, 5, ""));
    EXPECT_EQ(5, aData[4]);
    EXPECT_EQ(0, reader.iPopBuffer(aData, 0, ""));
    EXPECT_EQ(5, reader.iGetPos());
}

TEST_F(ASerialize, AppendsWhateverThePositionIs)
{
    m_bytes = {0xAA};
    uint8_t aData[] = {1, 2};
    EXPECT_EQ(0, m_Writer.iSetPos(100));
    EXPECT_EQ(0, m_Writer.iPushBuffer(aData, 2, ""));
    EXPECT_EQ((ustring{0xAA, 1, 2}), m_bytes);
    EXPECT_EQ(102, m_Writer.iGetPos());
}

TEST_F(ASerialize, FailsWithoutAByteString)
{
    CSerialize stream(nullptr, true, false, false);
    uint8_t iByte = 5;
    EXPECT_EQ(-1, stream.iPushU8(1, ""));
    EXPECT_EQ(-1, stream.iPopU8(iByte, ""));
    EXPECT_EQ(-1, stream.iPushBuffer(&iByte, 0, ""));
    EXPECT_EQ(5, iByte);
    EXPECT_EQ(0, stream.iGetPos());
}

TEST_F(ASerialize, FailsWithoutADestination)
{
    CSerialize& reader = ReaderOf({1, 2});
    EXPECT_EQ(-1, reader.iPopBuffer(nullptr, 1, ""));
    EXPECT_EQ(-1, reader.iPopBuffer(nullptr, 0, ""));
    EXPECT_EQ(0, reader.iGetPos());
}

TEST_F(ASerialize, RefusesToPushDataThatIsNotThere)
{
    EXPECT_EQ(-1, m_Writer.iPushBuffer(nullptr, 1, ""));
    EXPECT_EQ(0, m_Writer.iPushBuffer(nullptr, 0, ""));
    EXPECT_TRUE(m_bytes.empty());
    EXPECT_EQ(0, m_Writer.iGetPos());
}

TEST_F(ASerialize, RefusesNegativeSizes)
{
    CSerialize& reader = ReaderOf({1, 2, 3, 4});
    reader.iSetPos(2);
    uint8_t aData[4] = {};
    for (const int iSize : {-1, -2, INT_MIN}) {
        EXPECT_EQ(-1, reader.iPopBuffer(aData, iSize, "")) << iSize;
        EXPECT_EQ(-1, reader.iPushBuffer(aData, iSize, "")) << iSize;
        EXPECT_EQ(-1, reader.iPushPayload(aData, iSize, "")) << iSize;
    }
    EXPECT_EQ(2, reader.iGetPos());
    EXPECT_EQ(4U, m_bytes.size());
}

TEST_F(ASerialize, RefusesToReadFromANegativePosition)
{
    CSerialize& reader = ReaderOf({1, 2, 3, 4});
    uint8_t iByte = 0;
    for (const int iPos : {-1, -4, INT_MIN}) {
        EXPECT_EQ(0, reader.iSetPos(iPos));
        EXPECT_EQ(-1, reader.iPopU8(iByte, "")) << iPos;
        EXPECT_EQ(iPos, reader.iGetPos());
    }
}

TEST_F(ASerialize, RefusesSizesThatRunOverTheRangeOfAnInt)
{
    CSerialize& reader = ReaderOf({1, 2, 3, 4});
    uint8_t aData[4] = {};
    reader.iSetPos(2);
    EXPECT_EQ(-1, reader.iPopBuffer(aData, INT_MAX, ""));
    reader.iSetPos(INT_MAX);
    EXPECT_EQ(-1, reader.iPopBuffer(aData, INT_MAX, ""));
    EXPECT_EQ(-1, reader.iPopBuffer(aData, 1, ""));
    EXPECT_EQ(INT_MAX, reader.iGetPos());
}

TEST_F(ASerialize, TakesAnyPositionWithoutABoundTest)
{
    EXPECT_EQ(0, m_Reader.iSetPos(1000));
    EXPECT_EQ(1000, m_Reader.iGetPos());
    EXPECT_EQ(0, m_Reader.iSetPos(-3));
    EXPECT_EQ(-3, m_Reader.iGetPos());
}

TEST_F(ASerialize, TakesAPositionBeyondAnIntAsTheNearestOne)
{
    if (sizeof(long) == sizeof(int)) {
        GTEST_SKIP() << "a long is an int on this machine";
    }
    EXPECT_EQ(0, m_Reader.iSetPos(LONG_MAX));
    EXPECT_EQ(INT_MAX, m_Reader.iGetPos());
    EXPECT_EQ(0, m_Reader.iSetPos(LONG_MIN));
    EXPECT_EQ(INT_MIN, m_Reader.iGetPos());
}

TEST_F(ASerialize, StopsItsPositionAtTheEndOfTheRange)
{
    m_Writer.iSetPos(INT_MAX - 1);
    EXPECT_EQ(0, m_Writer.iPushU32(1, ""));
    EXPECT_EQ(INT_MAX, m_Writer.iGetPos());
    EXPECT_EQ((ustring{1, 0, 0, 0}), m_bytes);
}

TEST_F(ASerialize, AppendsABlockWithoutGapsAndStillCountsItTwice)
{
    uint8_t aData[] = {0x0A, 0x0B, 0x0C};
    EXPECT_EQ(0, m_Writer.iPushPayload(aData, 3, ""));
    EXPECT_EQ((ustring{3, 0, 0, 0, 0x0A, 0x0B, 0x0C}), m_bytes);
    EXPECT_EQ(4 + 4 + 3 + 3, m_Writer.iGetPos());
}

TEST_F(ASerialize, StopsItsPositionAtTheEndOfTheRangeWithABlock)
{
    uint8_t aData[] = {0x0A, 0x0B, 0x0C};
    m_Writer.iSetPos(INT_MAX - 5);
    EXPECT_EQ(0, m_Writer.iPushPayload(aData, 3, ""));
    EXPECT_EQ(INT_MAX, m_Writer.iGetPos());
}

TEST_F(ASerialize, ReportsABlockWhoseDataIsMissingAsWrittenWithItsSize)
{
    EXPECT_EQ(0, m_Writer.iPushPayload(nullptr, 3, ""));
    EXPECT_EQ((ustring{3, 0, 0, 0}), m_bytes);
    EXPECT_EQ(4 + 4 + 3, m_Writer.iGetPos());
}

TEST_F(ASerialize, ReadsABlockWithItsDataEightBytesBehindItsStart)
{
    CSerialize& reader = ReaderOf({2, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE, 0x0A, 0x0B});
    uint8_t aData[2] = {};
    int iSize = 0;
    EXPECT_EQ(0, reader.iPopPayload(aData, iSize, ""));
    EXPECT_EQ(2, iSize);
    EXPECT_EQ(0x0A, aData[0]);
    EXPECT_EQ(0x0B, aData[1]);
    EXPECT_EQ(8 + 2 + 2, reader.iGetPos());
}

TEST_F(ASerialize, RefusesABlockWhoseSizeIsNotAllThere)
{
    CSerialize& reader = ReaderOf({2, 0, 0});
    uint8_t aData[2] = {};
    int iSize = 55;
    EXPECT_EQ(-1, reader.iPopPayload(aData, iSize, ""));
    EXPECT_EQ(55, iSize);
    EXPECT_EQ(0, reader.iGetPos());
}

TEST_F(ASerialize, RefusesABlockWhoseSizeLies)
{
    const ustring aSizes[] = {{0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0x7F}, {3, 0, 0, 0}};
    for (const ustring& size : aSizes) {
        CSerialize& reader = ReaderOf(size + ustring{0, 0, 0, 0, 1, 2});
        reader.iSetPos(0);
        uint8_t aData[2] = {0x5A, 0x5A};
        int iSize = 0;
        EXPECT_EQ(-1, reader.iPopPayload(aData, iSize, ""));
        EXPECT_EQ(0x5A, aData[0]);
        EXPECT_EQ(8, reader.iGetPos()) << "behind the size field, where the data step failed";
    }
}

TEST_F(ASerialize, FailsWithoutMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer ends the process when there is no memory";
#endif
    const auto result = TestSupport::RunInChild([this] {
        constexpr size_t kBytes = 256 * 1024 * 1024;
        void* const pData =
            ::mmap(nullptr, kBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        const rlimit limit{kBytes, kBytes}; // used up by the data itself
        ::setrlimit(RLIMIT_AS, &limit);
        const int iRet = m_Writer.iPushBuffer(pData, kBytes, "");
        return iRet == -1 && m_bytes.empty() && m_Writer.iGetPos() == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST(ADerivedStream, HasEachFunctionInThePlaceItWasCompiledWith)
{
    const std::vector<size_t> slots = {
        iSlotOf(&CSerialize::iGetPos),     iSlotOf(&CSerialize::iSetPos),
        iSlotOf(&CSerialize::pGetBuffer),  iSlotOf(&CSerialize::iPushU8),
        iSlotOf(&CSerialize::iPopU8),      iSlotOf(&CSerialize::iPushU16),
        iSlotOf(&CSerialize::iPopU16),     iSlotOf(&CSerialize::iPushU32),
        iSlotOf(&CSerialize::iPopU32),     iSlotOf(&CSerialize::iPushI8),
        iSlotOf(&CSerialize::iPopI8),      iSlotOf(&CSerialize::iPushI16),
        iSlotOf(&CSerialize::iPopI16),     iSlotOf(&CSerialize::iPushI32),
        iSlotOf(&CSerialize::iPopI32),     iSlotOf(&CSerialize::iPushTime),
        iSlotOf(&CSerialize::iPopTime),    iSlotOf(&CSerialize::iPushBuffer),
        iSlotOf(&CSerialize::iPopBuffer),  iSlotOf(&CSerialize::iPushPayload),
        iSlotOf(&CSerialize::iPopPayload),
    };
    std::vector<size_t> expected(slots.size());
    std::iota(expected.begin(), expected.end(), 2); // behind the two of the destructor
    EXPECT_EQ(expected, slots);
}

TEST(ADerivedStream, ChangesEveryPushByItsOwn)
{
    CRecordingStream stream;
    EXPECT_EQ(7, stream.iPushU8(0, "a"));
    EXPECT_EQ(7, stream.iPushI8(0, "b"));
    EXPECT_EQ(7, stream.iPushU16(0, "c"));
    EXPECT_EQ(7, stream.iPushI16(0, "d"));
    EXPECT_EQ(7, stream.iPushU32(0, "e"));
    EXPECT_EQ(7, stream.iPushI32(0, "f"));
    EXPECT_EQ(7, stream.iPushTime(0, "g"));
    EXPECT_EQ(7, stream.iPushPayload(nullptr, 9, "h"));
    const std::vector<std::string> expected = {"push 1 a", "push 1 b", "push 2 c", "push 2 d",
                                               "push 4 e", "push 4 f", "push 4 g", "push 4 h"};
    EXPECT_EQ(expected, stream.m_steps);
}

TEST(ADerivedStream, ChangesEveryPopByItsOwn)
{
    CRecordingStream stream;
    uint8_t iU8 = 0;
    int8_t iI8 = 0;
    uint16_t iU16 = 0;
    int16_t iI16 = 0;
    uint32_t iU32 = 0;
    int32_t iI32 = 0;
    time_t value = 0;
    int iSize = 0;
    EXPECT_EQ(8, stream.iPopU8(iU8, "a"));
    EXPECT_EQ(8, stream.iPopI8(iI8, "b"));
    EXPECT_EQ(8, stream.iPopU16(iU16, "c"));
    EXPECT_EQ(8, stream.iPopI16(iI16, "d"));
    EXPECT_EQ(8, stream.iPopU32(iU32, "e"));
    EXPECT_EQ(8, stream.iPopI32(iI32, "f"));
    EXPECT_EQ(8, stream.iPopTime(value, "g"));
    EXPECT_EQ(8, stream.iPopPayload(nullptr, iSize, "h"));
    const std::vector<std::string> expected = {"pop 1 a", "pop 1 b", "pop 2 c", "pop 2 d",
                                               "pop 4 e", "pop 4 f", "pop 4 g", "pop 4 h"};
    EXPECT_EQ(expected, stream.m_steps);
}
