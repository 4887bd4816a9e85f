#include "libQuorCore/CString.h"

#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/DataTrees.h"
#include "support/LogLines.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kCause =
    "La valeur d’un attribut fourni dans la méthode ne correspond pas au type attendu";

class AString : public ::testing::Test
{
protected:
    CString m_Text{nullptr, "s", "init", 2, 5, "abc"};
    CContextJson m_Put = Context(CContextJson::ePut);
};

/// Gives one byte at a time, and counts how often it is asked.
class CByteStream : public CSerialize
{
public:
    explicit CByteStream(ustring bytes) : CSerialize(&m_bytes, false, false, false), m_bytes(bytes)
    {
    }
    int iPopU8(uint8_t& iValue, std::string szLabel) override
    {
        ++m_iBytes;
        return CSerialize::iPopU8(iValue, szLabel);
    }
    int m_iBytes = 0;

private:
    ustring m_bytes;
};
} // namespace

TEST_F(AString, StartsWithTheTextItIsGiven)
{
    CString text(nullptr, "s", "default");
    EXPECT_EQ("default", text.szGetVal());
    EXPECT_FALSE(text.bIsNull());
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_EQ(3, m_Text.iGetSize());
    EXPECT_FALSE(m_Text.bIsNull());
}

TEST_F(AString, StartsNullAndEmptyWithoutAText)
{
    CString text(nullptr, "s", nullptr);
    EXPECT_TRUE(text.bIsNull());
    EXPECT_EQ("", text.szGetVal());
    CString bounded(nullptr, "s", nullptr, 0, 4, nullptr);
    EXPECT_TRUE(bounded.bIsNull());
}

TEST_F(AString, IsModifiedAndNotNullWithAnotherText)
{
    m_Text.SetNull(true);
    m_Text.SetVal("abc");
    EXPECT_TRUE(m_Text.bIsNull());
    EXPECT_FALSE(m_Text.bGetIsModified());
    m_Text.SetVal(std::string("abd"));
    EXPECT_FALSE(m_Text.bIsNull());
    EXPECT_TRUE(m_Text.bGetIsModified());
    m_Text.SetVal(nullptr);
    EXPECT_EQ("", m_Text.szGetVal());
}

TEST_F(AString, GoesBackToItsInitialText)
{
    m_Text.Reset();
    EXPECT_EQ("init", m_Text.szGetVal());
    EXPECT_TRUE(m_Text.bGetIsModified());
}

TEST_F(AString, IsCutAndFilledUp)
{
    m_Text.Resize(2);
    EXPECT_EQ("ab", m_Text.szGetVal());
    m_Text.Resize(3);
    EXPECT_EQ(std::string("ab\0", 3), m_Text.szGetVal());
    m_Text.Resize(-1);
    EXPECT_EQ(3, m_Text.iGetSize());
}

TEST_F(AString, IsSplitIntoPiecesEmptyOnesIncluded)
{
    m_Text.SetVal(",a,,b,");
    EXPECT_EQ((std::vector<std::string>{"", "a", "", "b", ""}), m_Text.vSplitString(','));
    EXPECT_EQ((std::vector<std::string>{",a,,b,"}), m_Text.vSplitString(';'));
    m_Text.SetVal("");
    EXPECT_EQ((std::vector<std::string>{""}), m_Text.vSplitString(','));
}

TEST_F(AString, IsWrittenWithItsLength)
{
    EXPECT_EQ((ustring{0x00, 0x03, 0x00, 0x61, 0x62, 0x63}), Encoded(m_Text));
    m_Text.SetVal("");
    EXPECT_EQ((ustring{0x00, 0x00, 0x00}), Encoded(m_Text));
}

TEST_F(AString, IsReadBack)
{
    ASSERT_EQ(0, lDecode(m_Text, {0x20, 0x04, 0x00, 0x00, 0xFF, 0x78, 0x79}));
    EXPECT_EQ(std::string("\0\xFFxy", 4), m_Text.szGetVal());
    EXPECT_TRUE(m_Text.bIsAttributeOptional());
    ASSERT_EQ(0, lDecode(m_Text, {0x00, 0x00, 0x00}));
    EXPECT_EQ("", m_Text.szGetVal());
}

TEST_F(AString, IsReadByteByByteFromADerivedStream)
{
    CByteStream stream({0x00, 0x02, 0x00, 0x68, 0x69});
    EXPECT_EQ(0, m_Text.iSerialize(stream));
    EXPECT_EQ("hi", m_Text.szGetVal());
    EXPECT_EQ(3, stream.m_iBytes) << "the attribute byte and two more";
}

TEST_F(AString, KeepsTheBytesThatWereThereWhenTheStreamEndsEarly)
{
    EXPECT_EQ(-1, lDecode(m_Text, {0x00, 0xFF, 0xFF, 0x78, 0x79}));
    EXPECT_EQ("xy", m_Text.szGetVal());
    EXPECT_EQ(-1, lDecode(m_Text, {0x00, 0x01}));
    EXPECT_EQ("xy", m_Text.szGetVal()) << "emptied only after the length was read";
    EXPECT_EQ(-1, lDecode(m_Text, {0x00, 0x01, 0x00}));
    EXPECT_EQ("", m_Text.szGetVal());
}

TEST_F(AString, LeavesNoTraceInAPublicStreamWhenItIsMasked)
{
    m_Text.SetAttributeMasked(true);
    EXPECT_EQ(ustring(), Encoded(m_Text, true));
    EXPECT_EQ(0, lDecode(m_Text, {0x00, 0x01, 0x00, 0x78}, true));
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_TRUE(m_Text.bIsAttributeMasked());
    EXPECT_EQ((ustring{0x40, 0x03, 0x00, 0x61, 0x62, 0x63}), Encoded(m_Text, false));
    CSerializeBuffer stream(nullptr, 0, false, false, 1);
    EXPECT_EQ(0, m_Text.iCheckStatus(stream, false));
}

TEST_F(AString, WritesMoreThanItsLengthFieldCanTell)
{
    m_Text.SetVal(std::string(65536 + 2, 'x'));
    const ustring bytes = Encoded(m_Text);
    EXPECT_EQ(3U + 65538U, bytes.size());
    EXPECT_EQ((ustring{0x00, 0x02, 0x00, 'x'}), bytes.substr(0, 4));
    m_Text.SetVal(std::string(65536, 'x'));
    EXPECT_EQ((ustring{0x00, 0x00, 0x00}), Encoded(m_Text)) << "a length field of 0: no bytes";
}

TEST_F(AString, LogsWhatItWrites)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    CSerialize broken(nullptr, true, true, false);
    EXPECT_EQ(-1, m_Text.iSerialize(broken));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "s = abc\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "s = abc ; iRet = -1"));
}

TEST_F(AString, PassesOnlyWhenItReachesBothBounds)
{
    EXPECT_EQ(-2200, lCheckHeld(m_Text)) << "3 is within 2 and 5";
    m_Text.SetVal("abcde");
    EXPECT_EQ(0, lCheckHeld(m_Text));
    m_Text.SetVal("longer than five");
    EXPECT_EQ(0, lCheckHeld(m_Text));
    EXPECT_EQ(0, lCheck(m_Text, {0x00, 0x05, 0x00, '1', '2', '3', '4', '5'}));
    EXPECT_EQ(-2200, lCheck(m_Text, {0x00, 0x01, 0x00, '1'}));
    EXPECT_EQ(-1, lCheck(m_Text, {0x00, 0x05, 0x00, '1'}));
    EXPECT_EQ("longer than five", m_Text.szGetVal());
    CString free(nullptr, "f", nullptr);
    EXPECT_EQ(0, lCheckHeld(free));
}

TEST_F(AString, IsInitialisedByACheckThatFails)
{
    EXPECT_EQ(0, lCheckHeld(m_Text, true));
    EXPECT_EQ("init", m_Text.szGetVal());
    m_Text.SetVal("abcde");
    EXPECT_EQ(0, lCheckHeld(m_Text, true));
    EXPECT_EQ("abcde", m_Text.szGetVal()) << "not by one that passes";
}

TEST_F(AString, LogsItsCheck)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    CSerialize stream(nullptr, false, true, false);
    EXPECT_EQ(-2200, m_Text.iCheckStatus(stream, false));
    EXPECT_TRUE(bAwaitLogged(LOG_DEBUG, "s = abc | size min = 2 | size max = 5\r\n"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "s = abc | size min = 2 | size max = 5 ; iRet = -2200"));
}

TEST_F(AString, IsPublishedUnderItsLabel)
{
    EXPECT_EQ("{\"s\":\"abc\"}\n", szPublished(m_Text, Context(CContextJson::eGet)));
    m_Text.SetVal(std::string("a\0b", 3));
    EXPECT_EQ("{\"s\":\"a\\u0000b\"}\n", szPublished(m_Text, Context(CContextJson::eGet)));
    m_Text.SetNull(true);
    EXPECT_EQ("null\n", szPublished(m_Text, Context(CContextJson::eGet)));
    EXPECT_EQ("{\"s\":null}\n", szPublishedWhole(m_Text));
}

TEST_F(AString, IsNeitherPublishedNorReadWhenItIsMaskedAndTheContextPublic)
{
    m_Text.SetAttributeMasked(true);
    m_Put.m_bOnlyPublic = true;
    EXPECT_EQ("null\n", szPublished(m_Text, m_Put));
    EXPECT_EQ(200, m_Put.m_iCodeHTTP);
    std::string szIn = "{\"s\":\"stolen\"}";
    EXPECT_TRUE(m_Text.bDeserializeStreamJson(m_Put, szIn));
    EXPECT_EQ("abc", m_Text.szGetVal());
    Json::Value element("stolen");
    m_Text.DeserializeArrayJson(m_Put, element);
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_EQ("{\"s\":\"abc\"}\n", szPublished(m_Text, Context(CContextJson::eGet)));
}

TEST_F(AString, IsNotModifiedByReadingJson)
{
    EXPECT_TRUE(bApply(m_Text, "{\"s\":\"new\"}", CContextJson::ePost));
    EXPECT_EQ("new", m_Text.szGetVal());
    EXPECT_FALSE(m_Text.bGetIsModified());
}

TEST_F(AString, IsNotReadUnderNotifyAndNotModifiedThen)
{
    m_Text.SetIsModified(true);
    EXPECT_TRUE(bApply(m_Text, "{\"s\":\"new\"}", CContextJson::eNotify));
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_FALSE(m_Text.bGetIsModified());
}

TEST_F(AString, TakesItsNullStateFromTheMember)
{
    EXPECT_TRUE(bApply(m_Text, "{\"s\":null}"));
    EXPECT_TRUE(m_Text.bIsNull());
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_TRUE(bApply(m_Text, "{\"s\":5}"));
    EXPECT_FALSE(m_Text.bIsNull());
    EXPECT_EQ("abc", m_Text.szGetVal());
    EXPECT_TRUE(bApply(m_Text, "{}"));
    EXPECT_TRUE(bApply(m_Text, "[\"s\"]"));
    EXPECT_EQ("abc", m_Text.szGetVal());
}

TEST_F(AString, TakesAnElementOnlyWhenItIsAString)
{
    Json::Value text("x");
    Json::Value null;
    m_Text.SetNull(true);
    m_Text.DeserializeArrayJson(m_Put, null);
    EXPECT_TRUE(m_Text.bIsNull());
    EXPECT_EQ("abc", m_Text.szGetVal());
    m_Text.DeserializeArrayJson(m_Put, text);
    EXPECT_FALSE(m_Text.bIsNull());
    EXPECT_EQ("x", m_Text.szGetVal());
    m_Text.DeserializeArrayJson(m_Put, null);
    EXPECT_EQ("x", m_Text.szGetVal());
}

TEST_F(AString, AcceptsLengthsWithinItsBounds)
{
    for (const char* szText : {"{\"s\":\"ab\"}", "{\"s\":\"abcde\"}", "{}", "{\"t\":1}"}) {
        EXPECT_EQ(0, lCheckText(m_Text, szText)) << szText;
    }
    CString free(nullptr, "s", nullptr);
    EXPECT_EQ(0, lCheckText(free, "{\"s\":\"" + std::string(70000, 'x') + "\"}"));
}

TEST_F(AString, RefusesOtherTypesAndLengths)
{
    for (const char* szText : {"{\"s\":\"a\"}", "{\"s\":\"abcdef\"}", "{\"s\":1}", "{\"s\":[]}",
                               "{\"s\":{}}", "{\"s\":true}", "{\"s\":null}"}) {
        CContextJson context = Context(CContextJson::ePut);
        EXPECT_EQ(-1, lCheckText(m_Text, szText, context)) << szText;
        EXPECT_EQ(403, context.m_iCodeHTTP);
        EXPECT_EQ(kCause, context.m_szCause);
    }
    EXPECT_EQ("abc", m_Text.szGetVal());
}

TEST_F(AString, RefusesItsCurrentTextWhenItIsReadOnly)
{
    m_Text.SetReadOnly(true);
    EXPECT_EQ(-1, lCheckText(m_Text, "{\"s\":\"abc\"}", m_Put));
    EXPECT_EQ(kCause, m_Put.m_szCause);
}

TEST_F(AString, AcceptsNullWhenItIsOptional)
{
    m_Text.SetAttributeOptional(true);
    EXPECT_EQ(0, lCheckText(m_Text, "{\"s\":null}"));
    m_Text.SetReadOnly(true);
    EXPECT_EQ(-1, lCheckText(m_Text, "{\"s\":null}"));
}

TEST_F(AString, IsInitialisedByAJsonCheckThatFailsWithAReset)
{
    EXPECT_EQ(0, lCheckText(m_Text, "{\"s\":5}", true));
    EXPECT_EQ("init", m_Text.szGetVal());
}

TEST_F(AString, LogsARefusalWhenTheContextLogs)
{
    const CLogLevel level;
    CSyslogReceiver::Get().Clear();
    const std::string szLine = "s = abcdef | size min = 2 | size max = 5\r\n";
    EXPECT_EQ(-1, lCheckText(m_Text, "{\"s\":\"abcdef\"}"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, szLine));
    CSyslogReceiver::Get().Clear();
    m_Put.m_bLog = false;
    EXPECT_EQ(-1, lCheckText(m_Text, "{\"s\":\"abcdef\"}", m_Put));
    EXPECT_EQ(0U, CSyslogReceiver::Get().Count("s = abcdef"));
}
