#include "libQuorCore/CNumber.h"

#include "libQuorCore/CRecord.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/DataTrees.h"
#include "support/LogLines.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kCause = "n : Valeur d’attribut non prévue ou incohérente";

class ANumber : public ::testing::Test
{
protected:
    CNumber<int> m_Number{nullptr, "n", 3, -10, 10, 7};
    CContextJson m_Put = Context(CContextJson::ePut);
};

/// A stream that sees every value by itself.
class CStepStream : public CSerialize
{
public:
    explicit CStepStream(bool bSave) : CSerialize(nullptr, bSave, false, false) {}
    int iPushBuffer(void*, int iSize, std::string) override
    {
        m_sizes.push_back(iSize);
        return 0;
    }
    int iPopBuffer(void* pData, int iSize, std::string) override
    {
        m_sizes.push_back(iSize);
        static_cast<uint8_t*>(pData)[0] = 5;
        return 0;
    }
    std::vector<int> m_sizes;
};

template <class T>
ustring BytesOf(T val)
{
    CNumber<T> number(nullptr, "n", 0, 0, 1, val);
    return Encoded(number);
}
} // namespace

TEST_F(ANumber, StartsNullWithZeroWhenItHasALabelOnly)
{
    CNumber<int> number(nullptr, "n");
    EXPECT_TRUE(number.bIsNull());
    EXPECT_EQ(0, number.iGetVal());
    EXPECT_EQ(0, number.iGetValInit());
}

TEST_F(ANumber, StartsNotNullWithTheValuesItIsGiven)
{
    EXPECT_FALSE(m_Number.bIsNull());
    EXPECT_FALSE(m_Number.bGetIsModified());
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_EQ(3, m_Number.iGetValInit());
}

TEST_F(ANumber, IsModifiedAndNotNullWithAnotherValue)
{
    m_Number.SetNull(true);
    m_Number.SetVal(8);
    EXPECT_TRUE(m_Number.bGetIsModified());
    EXPECT_FALSE(m_Number.bIsNull());
    EXPECT_EQ(8, m_Number.iGetVal());
}

TEST_F(ANumber, TakesNoNoticeOfItsOwnValueEvenWhenItIsNull)
{
    m_Number.SetNull(true);
    m_Number.SetVal(7);
    EXPECT_FALSE(m_Number.bGetIsModified());
    EXPECT_TRUE(m_Number.bIsNull());
}

TEST_F(ANumber, IsModifiedByAResetInAnyCase)
{
    m_Number.Reset();
    EXPECT_EQ(3, m_Number.iGetVal());
    EXPECT_TRUE(m_Number.bGetIsModified());
    m_Number.SetIsModified(false);
    m_Number.Reset();
    EXPECT_TRUE(m_Number.bGetIsModified());
}

TEST_F(ANumber, Calculates)
{
    CNumber<int> other(nullptr, "o", 0, 0, 9, 2);
    EXPECT_EQ(8, m_Number.iInc());
    EXPECT_EQ(7, m_Number.iDecr());
    EXPECT_EQ(12, m_Number.iAdd(5));
    m_Number += 8;
    m_Number -= 2;
    m_Number /= 3;
    EXPECT_TRUE(m_Number == 6);
    m_Number += other;
    m_Number /= other;
    m_Number -= other;
    EXPECT_TRUE(m_Number == 2);
    EXPECT_TRUE(m_Number != 3);
    m_Number = 9;
    other = m_Number;
    EXPECT_EQ(9, other.iGetVal());
    EXPECT_EQ("o", other.szGetLabel());
}

TEST_F(ANumber, SurvivesTheEndsOfItsRangeAndZeroes)
{
    CNumber<int> number(nullptr, "n", 0, INT_MIN, INT_MAX, INT_MAX);
    EXPECT_EQ(INT_MIN, number.iInc());
    EXPECT_EQ(INT_MAX, number.iDecr());
    number = INT_MIN;
    number /= -1;
    EXPECT_EQ(INT_MIN, number.iGetVal());
    const CLogLevel level;
    number /= 0;
    EXPECT_EQ(INT_MIN, number.iGetVal());
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "n: division by zero"));
    CNumber<short> narrow(nullptr, "s", 0, 0, 0, 32767);
    EXPECT_EQ(-32768, narrow.iInc());
    CNumber<bool> flag(nullptr, "b", false, false, true, true);
    EXPECT_TRUE(flag.iInc());
    EXPECT_TRUE(flag.iAdd(true));
}

TEST_F(ANumber, IsWrittenInTheWidthOfItsType)
{
    EXPECT_EQ((ustring{0x00, 0x34, 0x12}), BytesOf<unsigned short>(0x1234));
    EXPECT_EQ((ustring{0x00, 0xFE, 0xFF}), BytesOf<short>(-2));
    EXPECT_EQ((ustring{0x00, 0xFE, 0xFF, 0xFF, 0xFF}), BytesOf<int>(-2));
    EXPECT_EQ((ustring{0x00, 0xEF, 0xCD, 0xAB, 0x89}), BytesOf<unsigned int>(0x89ABCDEF));
    EXPECT_EQ((ustring{0x00, 0x01}), BytesOf<bool>(true));
}

TEST_F(ANumber, TravelsWithItsAttributeByteWhateverItsBounds)
{
    ASSERT_EQ(0, lDecode(m_Number, {0x63, 0xFF, 0x00, 0x00, 0x00}));
    EXPECT_EQ(255, m_Number.iGetVal());
    EXPECT_TRUE(m_Number.bIsReadOnly());
    EXPECT_TRUE(m_Number.bIsNull());
    EXPECT_TRUE(m_Number.bIsAttributeOptional());
    EXPECT_TRUE(m_Number.bIsAttributeMasked());
    EXPECT_EQ((ustring{0x63, 0xFF, 0x00, 0x00, 0x00}), Encoded(m_Number));
}

TEST_F(ANumber, TakesAnyByteOtherThanZeroForTrue)
{
    CNumber<bool> flag(nullptr, "b", false, false, true, false);
    ASSERT_EQ(0, lDecode(flag, {0x00, 0xFE}));
    EXPECT_TRUE(flag.iGetVal());
    EXPECT_EQ((ustring{0x00, 0x01}), Encoded(flag));
}

TEST_F(ANumber, TravelsWithoutItsAttributeByteWhenItIsNone)
{
    m_Number.SetAttributeNone(true);
    EXPECT_EQ((ustring{0x07, 0x00, 0x00, 0x00}), Encoded(m_Number));
    EXPECT_EQ(0, lDecode(m_Number, {0x09, 0x00, 0x00, 0x00}));
    EXPECT_EQ(9, m_Number.iGetVal());
}

TEST_F(ANumber, KeepsItsValueWhenTheStreamEndsEarly)
{
    EXPECT_EQ(-1, lDecode(m_Number, {0x21, 0x01, 0x02, 0x03}));
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_TRUE(m_Number.bIsReadOnly()) << "what was read before the end stays";
    EXPECT_EQ(-1, lDecode(m_Number, {}));
}

TEST_F(ANumber, WritesWhatFitsAndReportsTheRest)
{
    uint8_t aBuffer[3] = {0xEE, 0xEE, 0xEE};
    CSerializeBuffer stream(aBuffer, 3, true, false, 0);
    EXPECT_EQ(-1, m_Number.iSerialize(stream));
    EXPECT_EQ(1, stream.iGetPos());
    EXPECT_EQ(0x00, aBuffer[0]);
    EXPECT_EQ(0xEE, aBuffer[1]);
}

TEST_F(ANumber, ShowsADerivedStreamEveryValueByItself)
{
    CStepStream writer(true);
    EXPECT_EQ(0, m_Number.iSerialize(writer));
    EXPECT_EQ((std::vector<int>{1, 4}), writer.m_sizes);
    CStepStream reader(false);
    EXPECT_EQ(0, m_Number.iSerialize(reader));
    EXPECT_EQ((std::vector<int>{1, 4}), reader.m_sizes);
    EXPECT_EQ(5, m_Number.iGetVal());
}

TEST_F(ANumber, LogsWhatItWritesAndTwiceWhatFails)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    ustring bytes;
    CSerialize stream(&bytes, true, true, false);
    ASSERT_EQ(0, m_Number.iSerialize(stream));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "n = 0x0007; iRet = 0; size = 4"));
    CSerialize broken(nullptr, true, true, false);
    ASSERT_EQ(-1, m_Number.iSerialize(broken));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "n = 0x0007; iRet = -1; size = 4"));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "n = 0x0007; iRet = -1; size = 4"));
}

TEST_F(ANumber, LogsNothingOfAQuietStream)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    Encoded(m_Number);
    EXPECT_EQ(0U, CSyslogReceiver::Get().Count("n = 0x"));
}

TEST_F(ANumber, ChecksTheCandidateOfAReadyStreamAndStoresNothing)
{
    EXPECT_EQ(0, lCheck(m_Number, {0x00, 0x0A, 0x00, 0x00, 0x00}));
    EXPECT_EQ(-2200, lCheck(m_Number, {0x00, 0x0B, 0x00, 0x00, 0x00}));
    EXPECT_EQ(-2200, lCheck(m_Number, {0x00, 0xF5, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(-1, lCheck(m_Number, {0x00, 0x0B}));
    EXPECT_EQ(-1, lCheck(m_Number, {}));
    EXPECT_EQ(7, m_Number.iGetVal());
    m_Number.SetAttributeNone(true); // of it, too, a check skips the byte that is not written
    EXPECT_EQ(0, lCheck(m_Number, {0xFF, 0x0A, 0x00, 0x00, 0x00}));
    EXPECT_EQ(-1, lCheck(m_Number, {0x0A, 0x00, 0x00, 0x00}));
}

TEST_F(ANumber, ChecksItsOwnValueWithoutAReadyStream)
{
    EXPECT_EQ(0, lCheckHeld(m_Number));
    m_Number.SetVal(11);
    EXPECT_EQ(-2200, lCheckHeld(m_Number));
}

TEST_F(ANumber, IsInitialisedByACheckThatPasses)
{
    EXPECT_EQ(0, lCheckHeld(m_Number, true));
    EXPECT_EQ(3, m_Number.iGetVal());
    m_Number.SetVal(11);
    EXPECT_EQ(-2200, lCheckHeld(m_Number, true));
    EXPECT_EQ(11, m_Number.iGetVal()) << "not by one that fails";
}

TEST_F(ANumber, LogsItsCheck)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    m_Number.SetVal(11);
    CSerialize stream(nullptr, false, true, false);
    EXPECT_EQ(-2200, m_Number.iCheckStatus(stream, false));
    const std::string szText =
        "n = 0x0000000b | min = 0xfffffff6 | max = 0x0000000a | init = 0x00000003, iRet = -2200";
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, szText));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, szText));
}

TEST_F(ANumber, IsPublishedUnderItsLabel)
{
    EXPECT_EQ("{\"n\":7}\n", szPublished(m_Number, Context(CContextJson::eGet)));
    CNumber<bool> flag(nullptr, "b", false, false, true, true);
    EXPECT_EQ("{\"b\":true}\n", szPublished(flag, Context(CContextJson::eGet)));
    CNumber<unsigned int> big(nullptr, "u", 0, 0, 0, 4294967295U);
    EXPECT_EQ("{\"u\":4294967295}\n", szPublished(big, Context(CContextJson::eGet)));
}

TEST_F(ANumber, IsPublishedAsNullOnlyWhenAllIs)
{
    m_Number.SetNull(true);
    EXPECT_EQ("null\n", szPublished(m_Number, Context(CContextJson::eGet)));
    EXPECT_EQ("{\"n\":null}\n", szPublishedWhole(m_Number));
}

TEST_F(ANumber, IsAppendedInArrayMode)
{
    CContextJson context = Context(CContextJson::eGet);
    Json::Value array;
    m_Number.SerializeJson(context, array, true, 0);
    m_Number.SetNull(true);
    m_Number.SerializeJson(context, array, true, 0);
    context.m_bPubAll = true;
    m_Number.SerializeJson(context, array, true, 0);
    EXPECT_EQ("[7,null]\n", Json::FastWriter().write(array));
}

TEST_F(ANumber, LeavesValuesOfOtherTypesAlone)
{
    CContextJson context = Context(CContextJson::eGet);
    Json::Value text("text");
    m_Number.SerializeJson(context, text, false, 0);
    m_Number.SerializeJson(context, text, true, 0);
    EXPECT_EQ("text", text.asString());
    EXPECT_EQ(0, m_Number.iDeserializeJson(context, text));
    EXPECT_EQ(7, m_Number.iGetVal());
}

TEST_F(ANumber, IsNotPublishedWhenItIsMaskedOrNone)
{
    CContextJson context = Context(CContextJson::eGet);
    context.m_bOnlyPublic = true;
    m_Number.SetAttributeMasked(true);
    EXPECT_EQ("null\n", szPublished(m_Number, context));
    EXPECT_EQ("{\"n\":7}\n", szPublished(m_Number, Context(CContextJson::eGet)));
    m_Number.SetAttributeNone(true);
    EXPECT_EQ("null\n", szPublished(m_Number, Context(CContextJson::eGet)));
}

TEST_F(ANumber, IsPublishedUnderNotifyOnlyWhenModified)
{
    EXPECT_EQ("null\n", szPublished(m_Number, Context(CContextJson::eNotify)));
    m_Number.SetVal(8);
    EXPECT_EQ("{\"n\":8}\n", szPublished(m_Number, Context(CContextJson::eNotify)));
}

TEST_F(ANumber, ReadsBooleansAndWholeNumbersAndCutsThem)
{
    EXPECT_TRUE(bApply(m_Number, "{\"n\":true}"));
    EXPECT_EQ(1, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":-5}"));
    EXPECT_EQ(-5, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":4294967301}"));
    EXPECT_EQ(5, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":18446744073709551615}"));
    EXPECT_EQ(-1, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":6.0}"));
    EXPECT_EQ(6, m_Number.iGetVal());
    EXPECT_FALSE(m_Number.bGetIsModified());
}

TEST_F(ANumber, LeavesItsValueForANumberThatIsNotWhole)
{
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":5.9}"));
    EXPECT_TRUE(bApply(m_Number, "{\"n\":5.9}"));
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":1e300}"));
    EXPECT_TRUE(bApply(m_Number, "{\"n\":\"8\"}"));
    EXPECT_TRUE(bApply(m_Number, "{\"n\":[8]}"));
    EXPECT_TRUE(bApply(m_Number, "{}"));
    EXPECT_EQ(7, m_Number.iGetVal());
}

TEST_F(ANumber, BecomesNullByJsonNullAndKeepsItsValue)
{
    EXPECT_TRUE(bApply(m_Number, "{\"n\":null}"));
    EXPECT_TRUE(m_Number.bIsNull());
    EXPECT_EQ(7, m_Number.iGetVal());
    EXPECT_TRUE(bApply(m_Number, "{\"n\":7}"));
    EXPECT_FALSE(m_Number.bIsNull());
}

TEST_F(ANumber, IsReadUnderNotifyAndNotModifiedThen)
{
    m_Number.SetIsModified(true);
    EXPECT_TRUE(bApply(m_Number, "{\"n\":4}", CContextJson::eNotify));
    EXPECT_EQ(4, m_Number.iGetVal());
    EXPECT_FALSE(m_Number.bGetIsModified());
}

TEST_F(ANumber, RefusesAValueBeyondItsBounds)
{
    for (const char* szText :
         {"{\"n\":11}", "{\"n\":-11}", "{\"n\":4294967301}", "{\"n\":1e300}", "{\"n\":-1e300}",
          "{\"n\":18446744073709551615}", "{\"n\":-9223372036854775808}", "{\"n\":11.5}"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(403, lCheckText(m_Number, szText, context)) << szText;
        EXPECT_EQ(403, context.m_iCodeHTTP);
        EXPECT_EQ(kCause, context.m_szCause);
    }
    EXPECT_EQ(7, m_Number.iGetVal());
}

TEST_F(ANumber, AcceptsWhatIsWithinItsBounds)
{
    for (const char* szText : {"{\"n\":10}", "{\"n\":-10}", "{\"n\":10.9}", "{\"n\":true}", "{}",
                               "{\"other\":99}", "{\"n\":5.9}"}) {
        EXPECT_EQ(0, lCheckText(m_Number, szText)) << szText;
    }
}

TEST_F(ANumber, RefusesOtherTypes)
{
    for (const char* szText : {"{\"n\":\"5\"}", "{\"n\":[]}", "{\"n\":{}}", "{\"n\":null}"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(-1, lCheckText(m_Number, szText, context)) << szText;
        EXPECT_EQ(403, context.m_iCodeHTTP);
        EXPECT_EQ(kCause, context.m_szCause);
    }
}

TEST_F(ANumber, AcceptsNullWhenItIsOptional)
{
    m_Number.SetAttributeOptional(true);
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":null}"));
    m_Number.SetReadOnly(true);
    EXPECT_EQ(403, lCheckText(m_Number, "{\"n\":null}")) << "it would become null";
    m_Number.SetNull(true);
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":null}")) << "it is null already";
}

TEST_F(ANumber, AcceptsItsCurrentValueWhenItIsReadOnly)
{
    m_Number.SetReadOnly(true);
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":7}"));
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":7.5}"));
    EXPECT_EQ(403, lCheckText(m_Number, "{\"n\":8}", m_Put));
    EXPECT_EQ(403, m_Put.m_iCodeHTTP);
    EXPECT_EQ(kCause, m_Put.m_szCause);
}

TEST_F(ANumber, AcceptsItsCurrentValueBeyondItsBounds)
{
    m_Number.SetVal(99);
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":99}"));
}

TEST_F(ANumber, HasNoBoundsAsABoolean)
{
    CNumber<bool> flag(nullptr, "b", false, false, false, false);
    EXPECT_EQ(0, lCheckText(flag, "{\"b\":true}"));
    EXPECT_EQ(0, lCheckText(flag, "{\"b\":256}"));
    EXPECT_TRUE(bApply(flag, "{\"b\":256}"));
    EXPECT_TRUE(flag.iGetVal());
    flag.SetReadOnly(true);
    EXPECT_EQ(0, lCheckText(flag, "{\"b\":2}")) << "as true as it is now";
    EXPECT_EQ(403, lCheckText(flag, "{\"b\":false}"));
}

TEST_F(ANumber, IsInitialisedByAJsonCheckThatPassesWithAReset)
{
    EXPECT_EQ(0, lCheckText(m_Number, "{\"n\":5}", true));
    EXPECT_EQ(3, m_Number.iGetVal());
    m_Number.SetVal(7);
    EXPECT_EQ(403, lCheckText(m_Number, "{\"n\":50}", true));
    EXPECT_EQ(7, m_Number.iGetVal());
}

TEST_F(ANumber, LogsARefusal)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    EXPECT_EQ(403, lCheckText(m_Number, "{\"n\":11}"));
    EXPECT_TRUE(bAwaitLogged(
        LOG_ERR,
        "n = 0x0000000b | min = 0xfffffff6 | max = 0x0000000a | init = 0x00000003, iRet = 403"));
}

TEST_F(ANumber, TellsTheClientWhoRefused)
{
    CRecord db(nullptr, "db");
    m_Number.SetParent(&db);
    std::string szIn = "{\"n\":11}";
    std::string szError;
    EXPECT_EQ(403, m_Number.iCheckStreamJson(m_Put, &szIn, &szError, false));
    Json::Value error;
    ASSERT_TRUE(Json::Reader().parse(szError, error)) << szError;
    EXPECT_EQ("/db/n", error["object"].asString());
    EXPECT_EQ(kCause, error["cause"].asString());
    m_Number.SetParent(nullptr);
}
