// What differs from machine to machine: the width of long and time_t, the sign of a plain char, the
// places that a word may be read from. On 32-bit ARM as on 64 bits.
#include "libQuorCore/CDMDateTime.h"
#include "libQuorCore/CFileConfig.h"
#include "libQuorCore/date_time.h"
#include "libQuorCore/socketFrame.h"
#include "libQuorCore/string_tools.h"
#include "libQuorCore/synchro.h"

#include "support/CLogLevel.h"
#include "support/CTempDirectory.h"
#include "support/DataTrees.h"
#include "support/Files.h"
#include "support/LogLines.h"

#include <climits>
#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <thread>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr time_t kLast = INT32_MAX; // of a time_t of 32 bits: 2038-01-19T03:14:07Z
constexpr bool kNarrowTime = sizeof(time_t) == 4;

class ATimeAfter2038 : public ::testing::Test
{
protected:
    const CLogLevel m_Level;
    CDMDateTime m_Time{nullptr, "t"};
};
} // namespace

TEST_F(ATimeAfter2038, IsReadWhereATimeHasTheWidth)
{
    EXPECT_EQ(kLast, iConvertCurrentDateTime("2038-01-19T03:14:07Z", false));
    const int64_t iNext = iConvertCurrentDateTime("2038-01-19T03:14:08Z", false);
    EXPECT_EQ(kNarrowTime ? -1 : int64_t{kLast} + 1, iNext);
    const int64_t iFar = iConvertCurrentDateTime("2099-12-31T23:59:59Z", false);
    EXPECT_EQ(kNarrowTime ? -1 : 4102444799, iFar);
}

TEST_F(ATimeAfter2038, IsJudgedByItsDistanceToUtc)
{
    EXPECT_EQ(kLast, iConvertCurrentDateTime("2038-01-19T04:14:07+0100", true))
        << "its fields alone are past the end of 32 bits";
    const int64_t iNext = iConvertCurrentDateTime("2038-01-19T02:14:08-0100", true);
    EXPECT_EQ(kNarrowTime ? -1 : int64_t{kLast} + 1, iNext);
}

TEST_F(ATimeAfter2038, LeavesATimeAsItWasWhereItHasNotTheWidth)
{
    m_Time.SetVal(1);
    EXPECT_TRUE(bApply(m_Time, "{\"t\":\"2040-01-01T00:00:00Z\"}"));
    EXPECT_EQ(kNarrowTime ? 1 : 2208988800, int64_t{m_Time.tmGetVal()});
    if (kNarrowTime) {
        EXPECT_TRUE(bAwaitLogged(LOG_ERR, "strptime() failed"));
    }
}

TEST_F(ATimeAfter2038, TravelsWithItsLow32Bits)
{
    if (kNarrowTime) {
        GTEST_SKIP() << "there is none";
    }
    m_Time.SetVal(static_cast<time_t>(int64_t{kLast} + 2));
    CDMDateTime copy(nullptr, "t");
    ASSERT_EQ(0, lDecode(copy, Encoded(m_Time)));
    EXPECT_EQ(int64_t{INT32_MIN} + 1, int64_t{copy.tmGetVal()});
}

TEST(ATimeBefore1970, KeepsItsSignInSixtyFourBits)
{
    CDMDateTime time(nullptr, "t");
    time.SetVal(-2);
    const ustring bytes = Encoded(time);
    EXPECT_EQ(ustring(7, 0xFF), bytes.substr(2)) << "all but the attribute byte and the lowest";
    CDMDateTime copy(nullptr, "t");
    ASSERT_EQ(0, lDecode(copy, bytes));
    EXPECT_EQ(-2, int64_t{copy.tmGetVal()});
}

TEST(AFrameAtAnOddAddress, IsWrittenAndReadFieldByField)
{
    alignas(8) unsigned char aBuffer[64] = {};
    for (size_t offset = 0; offset < 8; ++offset) {
        auto* const pFrame = reinterpret_cast<socketFrame_t*>(aBuffer + offset);
        pFrame->magicNumber = kFrameMagic;
        pFrame->command = CMD_COMMUN_PID;
        pFrame->user2 = -3;
        unsigned char aNumber[] = {0x78, 0x56, 0x34, 0x12};
        pFrame->SetData(aNumber, sizeof(aNumber));
        EXPECT_EQ(0xAA, aBuffer[offset]);
        EXPECT_EQ(4, aBuffer[offset + 2]);
        EXPECT_EQ(CMD_COMMUN_PID, pFrame->command);
        EXPECT_EQ(-3, pFrame->user2);
        EXPECT_EQ(4U, static_cast<uint32_t>(pFrame->size));
        EXPECT_EQ(24, pFrame->GetFrameSize());
        long lNumber = 0;
        EXPECT_EQ(0, pFrame->iGetData(&lNumber));
        EXPECT_EQ(0x12345678, lNumber);
    }
}

TEST(ALong, TakesNoMoreThanFourBytesOfAFrame)
{
    std::vector<unsigned char> bytes(kFrameHeaderSize + 8);
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(bytes.data());
    unsigned char aData[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x11, 0x11, 0x11, 0x11};
    pFrame->SetData(aData, sizeof(aData));
    long lNumber = 0;
    EXPECT_EQ(0, pFrame->iGetData(&lNumber));
    EXPECT_EQ(-1, lNumber);
}

TEST(ALong, MayBeAWaitOfItsWholeRange)
{
    for (const long lMs : {LONG_MAX, static_cast<long>(INT32_MAX)}) {
        CEvent event;
        std::thread setter([&event] { event.iSetEvent(); });
        EXPECT_EQ(0, event.iWaitForEvent(lMs)) << lMs;
        setter.join();
    }
}

TEST(ALong, MayBeATimeInTheOctetForm)
{
    unsigned char aOctets[12] = {};
    const long lTime = INT32_MAX;
    ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lTime, aOctets, sizeof(aOctets)));
    long lBack = 0;
    EXPECT_EQ(1, iOctetStringTimeToCompressedTime(aOctets, &lBack));
    EXPECT_EQ(lTime, lBack);
}

TEST(APlainChar, IsTwoHexDigitsWhateverItsSign)
{
    const char aBytes[] = {'\x00', '\x7F', '\x80', '\xFF'};
    EXPECT_EQ("00 7F 80 FF ", Hexlify(aBytes, 4, ' '));
    EXPECT_EQ("007F80FF", Hexlify(std::string(aBytes, 4), '\0'));
    EXPECT_EQ(std::string(aBytes, 4), UnHexlify("007F80FF", 8));
}

TEST(APlainChar, OfAllOnesEndsNoFile)
{
    const CTempDirectory directory;
    const std::string szFile = directory.szPath("bytes.conf");
    WriteFile(szFile, "first=\xFF\xFE\nsecond=2\n");
    CFileConfig config;
    config.iLoad(szFile.c_str());
    EXPECT_EQ("\xFF\xFE", config.szGetParameter("first", ""));
    EXPECT_EQ(2, config.iGetParameter("second", 0));
}
