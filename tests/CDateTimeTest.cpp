#include "libQuorCore/CDateTime.h"

#include "libQuorCore/CDMDateTime.h"
#include "libQuorCore/CThread.h"
#include "libQuorCore/CTime.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/DataTrees.h"
#include "support/LogLines.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kWriteRefused =
    "Tentative de modification d’un attribut non WRITE (ni W ni WR)";
constexpr time_t kNoon = 1794745800; // 2026-11-15T12:30:00Z

/// The process in a zone east of UTC, without summer time.
class ZoneTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ::setenv("TZ", "EAST-5:30", 1);
        ::tzset();
    }
};

class ADateTime : public ZoneTest
{
protected:
    CDateTime m_Time{nullptr, "t", 0x5F5E1000};
    CContextJson m_Put = Context(CContextJson::ePut);
};

class ATime : public ZoneTest
{
};

class ADateText : public ZoneTest
{
};

bool bIsNow(time_t time)
{
    const time_t now = std::time(nullptr);
    return time <= now && time >= now - 5;
}
} // namespace

TEST_F(ADateText, HasAFormOfUtcAndALocalOne)
{
    EXPECT_EQ("1970-01-01T00:00:00Z", GetDateTimeString(0, false));
    EXPECT_EQ("1970-01-01T05:30:00+0530", GetDateTimeString(0, true));
    EXPECT_EQ("2026-11-15T12:30:00Z", GetDateTimeString(kNoon, false));
    EXPECT_EQ("1970", GetDateTimeString(0, "%Y"));
    EXPECT_EQ("05:30", GetDateTimeString(0, std::string("%H:%M")));
    EXPECT_EQ("2026-11-15T12:30:00Z", CTime::szGetTimeString(kNoon, false));
}

TEST_F(ADateText, IsEmptyWhenItDoesNotFitOrHasNoDate)
{
    EXPECT_EQ("", GetDateTimeString(0, std::string(80, 'x')));
    EXPECT_EQ(79U, GetDateTimeString(0, std::string(79, 'x')).size());
    EXPECT_EQ("", GetDateTimeString(0, static_cast<const char*>(nullptr)));
    EXPECT_EQ("", GetDateTimeString(0, std::string()));
    if (sizeof(time_t) > 4) {
        EXPECT_EQ("", GetDateTimeString(std::numeric_limits<time_t>::max(), false));
        EXPECT_EQ("", GetDateTimeString(std::numeric_limits<time_t>::max(), true));
    }
}

TEST_F(ADateText, TellsTheCurrentTime)
{
    EXPECT_TRUE(bIsNow(iConvertCurrentDateTime(GetCurrentDateTime(false).c_str(), false)));
    EXPECT_TRUE(bIsNow(iConvertCurrentDateTime(GetCurrentDateTime(true).c_str(), true)));
    EXPECT_EQ(4U, GetCurrentDateTime("%Y").size());
    EXPECT_EQ(4U, GetCurrentDateTime(std::string("%Y")).size());
    EXPECT_EQ(8U, szGetCurrentContainerDateTime(true).size());
    EXPECT_EQ(8U, szGetCurrentContainerDateTime(false).size());
    EXPECT_EQ(15U, FileGetCurrentDateTime().size());
    EXPECT_EQ('-', FileGetCurrentDateTime()[8]);
}

TEST_F(ADateText, IsReadInTheFormThatWasAskedFor)
{
    EXPECT_EQ(kNoon, iConvertCurrentDateTime("2026-11-15T12:30:00Z", false));
    EXPECT_EQ(kNoon, iConvertCurrentDateTime("2026-11-15T13:30:00+0100", true));
    EXPECT_EQ(kNoon, iConvertCurrentDateTime("2026-11-15T18:00:00+0530", true));
    EXPECT_EQ(kNoon, iConvertCurrentTime("2026-11-15T12:30:00.UTC"));
}

TEST_F(ADateText, IsReadBackOnEveryDay)
{
    for (int64_t i = 0; i < 49700; ++i) { // to 2106
        const int64_t iSeconds = i * 86400 + i % 86400;
        if (iSeconds > std::numeric_limits<time_t>::max()) {
            break;
        }
        const auto time = static_cast<time_t>(iSeconds);
        ASSERT_EQ(time, iConvertCurrentDateTime(GetDateTimeString(time, false).c_str(), false));
    }
    EXPECT_EQ(-86400, iConvertCurrentDateTime("1969-12-31T00:00:00Z", false));
    EXPECT_EQ(5270400, iConvertCurrentDateTime("1970-02-31T00:00:00Zxyz", false)) << "strptime()";
    EXPECT_EQ(iConvertCurrentDateTime("2026-03-03T00:00:00Z", false),
              iConvertCurrentDateTime("2026-02-31T00:00:00Z", false));
}

TEST_F(ADateText, IsRefusedInAnotherFormAndLogged)
{
    const CLogLevel level;
    for (const char* szText : {"", "yesterday", "2026-11-15", "2026-13-45T99:99:99Z"}) {
        CSyslogReceiver::Get().Clear();
        EXPECT_EQ(-1, iConvertCurrentDateTime(szText, false)) << szText;
        EXPECT_TRUE(bAwaitLogged(LOG_ERR, "strptime() failed")) << szText;
    }
    EXPECT_EQ(-1, iConvertCurrentDateTime(nullptr, true));
    EXPECT_EQ(-1, iConvertCurrentTime("x"));
}

TEST_F(ADateText, LogsTheFieldsItReads)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    iConvertCurrentTime("2026-11-05T02:30:07.UTC");
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait("2026 - 11 - 05 02:30:07 "));
}

TEST_F(ADateText, IsTurnedFromUtcIntoLocalTime)
{
    std::string szText = "2026-11-15T12:30:00Z";
    EXPECT_EQ("2026-11-15T18:00:00+0530", getLocalTimeFromUTC(szText));
    EXPECT_EQ("2026-11-15T18:00:00+0530", szText);
    szText = "never";
    EXPECT_EQ("never", getLocalTimeFromUTC(szText));
}

TEST_F(ADateTime, IsWrittenInSixtyFourBits)
{
    const ustring bytes = {0x00, 0x00, 0x10, 0x5E, 0x5F, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(bytes, Encoded(m_Time));
    m_Time.SetVal(-2);
    EXPECT_EQ((ustring{0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), Encoded(m_Time));
    EXPECT_EQ(0, lDecode(m_Time, bytes));
    EXPECT_EQ(0x5F5E1000, m_Time.tmGetVal());
}

TEST_F(ADateTime, IsWrittenAsZeroWhenItIsNull)
{
    m_Time.SetNull(true);
    EXPECT_EQ((ustring{0x02, 0, 0, 0, 0, 0, 0, 0, 0}), Encoded(m_Time));
}

TEST_F(ADateTime, KeepsItsTimeWhenItReadsZero)
{
    EXPECT_EQ(0, lDecode(m_Time, {0x02, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0x5F5E1000, m_Time.tmGetVal());
    EXPECT_TRUE(m_Time.bIsNull());
}

TEST_F(ADateTime, TakesTheLowHalfOfWhatItReads)
{
    EXPECT_EQ(0, lDecode(m_Time, {0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0x01, 0, 0, 0}));
    EXPECT_EQ(-2, m_Time.tmGetVal());
    EXPECT_EQ(0, lDecode(m_Time, {0x00, 0, 0, 0, 0, 0x01, 0, 0, 0}));
    EXPECT_EQ(0, m_Time.tmGetVal()) << "the 64 bits were not zero";
}

TEST_F(ADateTime, KeepsItsTimeWhenTheStreamEndsEarly)
{
    EXPECT_EQ(-1, lDecode(m_Time, {0x00, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(0x5F5E1000, m_Time.tmGetVal());
    EXPECT_EQ(-1, lDecode(m_Time, {}));
}

TEST_F(ADateTime, TakesTheClockWhenItIsDynamicAndWritten)
{
    m_Time.SetAttributeDynamic(true);
    m_Time.SetNull(true);
    const ustring bytes = Encoded(m_Time);
    EXPECT_TRUE(bIsNow(m_Time.tmGetVal()));
    EXPECT_EQ(0x10, bytes[0]);
    EXPECT_EQ(static_cast<uint8_t>(m_Time.tmGetVal() & 0xFF), bytes[1]);
}

TEST_F(ADateTime, TakesNoClockWhenItIsDynamicAndRead)
{
    m_Time.SetAttributeDynamic(true);
    m_Time.SetVal(0x5F5E1000);
    EXPECT_EQ(0, lDecode(m_Time, {0x10, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0x5F5E1000, m_Time.tmGetVal());
    EXPECT_EQ(0, lDecode(m_Time, {0x10, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(1, m_Time.tmGetVal());
}

TEST_F(ADateTime, SkipsItsTimeTwiceInTheCheckPass)
{
    ustring bytes(9, 0x00);
    CSerializeBuffer stream(bytes.data(), 9, false, false, 0);
    EXPECT_EQ(0, m_Time.iCheckStatus(stream, true));
    EXPECT_EQ(1 + 8 + 8, stream.iGetPos());
    EXPECT_EQ(0, lCheck(m_Time, {0x00})) << "whether the time is there is not looked at";
    EXPECT_EQ(-1, lCheck(m_Time, {}));
    EXPECT_EQ(0, lCheckHeld(m_Time, true));
    EXPECT_EQ(0x5F5E1000, m_Time.tmGetVal());
}

TEST_F(ADateTime, LogsTheRawFieldsOfLocalTime)
{
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    m_Time.SetVal(kNoon);
    ustring bytes;
    CSerialize writer(&bytes, true, true, false);
    EXPECT_EQ(0, m_Time.iSerialize(writer));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "t = 1261015123000 ; iRet = 0; size = 8"));
    CSerialize broken(nullptr, true, false, false);
    EXPECT_EQ(-1, m_Time.iSerialize(broken));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "t = 1261015123000 ; iRet = -1; size = 8"));
    CSerialize held(nullptr, false, true, false);
    EXPECT_EQ(0, m_Time.iCheckStatus(held, false));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "t = 1261015123000\r\n"));
    EXPECT_EQ(-1, lCheck(m_Time, {}));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "t = 1261015123000 ; iRet = -1"));
}

TEST_F(ADateTime, IsPublishedInUtc)
{
    m_Time.SetVal(kNoon);
    EXPECT_EQ("{\"t\":\"2026-11-15T12:30:00Z\"}\n",
              szPublished(m_Time, Context(CContextJson::eGet)));
    m_Time.SetNull(true);
    EXPECT_EQ("null\n", szPublished(m_Time, Context(CContextJson::eGet)));
    EXPECT_EQ("{\"t\":null}\n", szPublishedWhole(m_Time));
    m_Time.SetAttributeDynamic(true);
    EXPECT_NE(std::string::npos, szPublished(m_Time, Context(CContextJson::eGet)).find("T"));
    EXPECT_TRUE(bIsNow(m_Time.tmGetVal()));
}

TEST_F(ADateTime, IsReadFromUtcAndKeptWhenTheTextIsNone)
{
    EXPECT_TRUE(bApply(m_Time, "{\"t\":\"2026-11-15T12:30:00Z\"}"));
    EXPECT_EQ(kNoon, m_Time.tmGetVal());
    EXPECT_TRUE(bApply(m_Time, "{\"t\":\"nonsense\"}"));
    EXPECT_TRUE(bApply(m_Time, "{\"t\":5}"));
    EXPECT_TRUE(bApply(m_Time, "{}"));
    EXPECT_EQ(kNoon, m_Time.tmGetVal());
    EXPECT_TRUE(bApply(m_Time, "{\"t\":null}"));
    EXPECT_TRUE(m_Time.bIsNull());
    EXPECT_EQ(kNoon, m_Time.tmGetVal());
}

TEST_F(ADateTime, IsCheckedByItsAccessBitsAlone)
{
    const CLogLevel level;
    for (const char* szText : {"{\"t\":5}", "{\"t\":\"nonsense\"}", "{}", "[]", "{\"t\":null}"}) {
        m_Time.SetReadOnly(false);
        EXPECT_EQ(0, lCheckText(m_Time, szText)) << szText;
        m_Time.SetReadOnly(true);
        CSyslogReceiver::Get().Clear();
        std::string szIn = szText;
        std::string szError;
        EXPECT_EQ(-1, m_Time.iCheckStreamJson(m_Put, &szIn, &szError, true)) << szText;
        EXPECT_EQ(kWriteRefused, m_Put.m_szCause);
        EXPECT_NE(std::string::npos, szError.find("\"object\":\"/t\"")) << szError;
        EXPECT_TRUE(bAwaitLogged(LOG_ERR, "t : iRet = -1"));
    }
    Json::Value element;
    EXPECT_EQ(-1, m_Time.iCheckArrayJson(m_Put, element, nullptr, false));
}

TEST_F(ADateTime, IsSetByACallAndByTheClock)
{
    CDMDateTime time(nullptr, "t");
    EXPECT_TRUE(time.bIsNull());
    time.SetVal(0);
    EXPECT_FALSE(time.bIsNull());
    EXPECT_FALSE(time.bGetIsModified());
    time.GetCurrentDateTime();
    EXPECT_TRUE(bIsNow(time.tmGetVal()));
    EXPECT_TRUE(time.bGetIsModified());
    time.SetVal(std::time(nullptr) - 100);
    EXPECT_NEAR(100.0, time.dGetDiffTimeS(), 5.0);
}

TEST_F(ATime, StartsWithATextOfEitherForm)
{
    EXPECT_TRUE(CTime(nullptr, "t").bIsNull());
    EXPECT_TRUE(CTime(nullptr, "t", nullptr).bIsNull());
    EXPECT_TRUE(CTime(nullptr, "t", "soon").bIsNull());
    CTime time(nullptr, "t", "2026-11-15T13:30:00+0100");
    EXPECT_EQ(kNoon, time.tmGetVal());
    EXPECT_FALSE(time.bIsNull());
    EXPECT_EQ("2026-11-15T12:30:00Z", time.szGetTimeString(false));
    EXPECT_EQ("2026-11-15T18:00:00+0530", time.szGetTimeString(true));
}

TEST_F(ATime, IsReadBackFromWhatItPublishes)
{
    CTime time(nullptr, "t", "2026-11-15T12:30:00Z");
    const std::string szText = szPublished(time, Context(CContextJson::eGet));
    EXPECT_EQ("{\"t\":\"2026-11-15T12:30:00Z\"}\n", szText);
    time.SetVal(0);
    EXPECT_TRUE(bApply(time, szText));
    EXPECT_EQ(kNoon, time.tmGetVal());
    EXPECT_TRUE(bApply(time, "{\"t\":\"2026-11-15T13:30:01+0100\"}"));
    EXPECT_EQ(kNoon + 1, time.tmGetVal());
    EXPECT_TRUE(bApply(time, "{\"t\":\"\"}"));
    EXPECT_EQ(kNoon + 1, time.tmGetVal());
    EXPECT_EQ(9U, Encoded(time).size());
    time.SetReadOnly(true);
    EXPECT_EQ(-1, lCheckText(time, "{}"));
}
