#include "libQuorCore/string_tools.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace
{
using bytes_t = std::basic_string<unsigned char>;
using texts_t = std::vector<std::string>;

/// The local time zone of a test; the process has no other while it runs.
class ALocalTime : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }

    std::array<unsigned char, 12> m_aOctets{};
};
} // namespace

TEST(AHexText, HasTheSeparatorBehindEveryByte)
{
    EXPECT_EQ("01:AB:", Hexlify(std::string("\x01\xAB"), ':'));
    EXPECT_EQ("01AB", Hexlify(std::string("\x01\xAB"), 0));
}

TEST(AHexText, IsMadeOfAnyKindOfBytes)
{
    const unsigned char aBytes[] = {0x00, 0x7F, 0x80, 0xFF};
    EXPECT_EQ("007F80FF", Hexlify(aBytes, 4, 0));
    EXPECT_EQ("007F80FF", Hexlify(reinterpret_cast<const char*>(aBytes), 4, 0));
    EXPECT_EQ("007F80FF", Hexlify(bytes_t(aBytes, 4), 0));
    EXPECT_EQ("00 7F ", Hexlify(aBytes, 2, ' '));
    EXPECT_EQ("", Hexlify(std::string(), ':'));
    EXPECT_EQ("", Hexlify(static_cast<const char*>(nullptr), 3, 0));
}

TEST(AHexText, IsReadPastAllThatIsNoDigit)
{
    EXPECT_EQ("\x0A\x1B", UnHexlify("0a:1B:c", 7));
    EXPECT_EQ("\x0A", UnHexlify("0a:1B:c", 4)) << "no further than its length";
    EXPECT_EQ(std::string(2, '\0'), UnHexlify("00 00", 5));
    EXPECT_EQ("", UnHexlify("\xE9\xFFg!", 4));
    EXPECT_EQ("", UnHexlify("", 0));
    EXPECT_EQ("", UnHexlify(nullptr, 5));
}

TEST(AHexText, ComesBackAsItWas)
{
    std::string szBytes;
    for (int i = 0; i < 256; ++i) {
        szBytes += static_cast<char>(i);
    }
    const std::string szText = Hexlify(szBytes, '-');
    EXPECT_EQ(szBytes, UnHexlify(szText.data(), static_cast<unsigned int>(szText.size())));
}

TEST(AHexText, MayHaveAnythingBetweenItsDigits)
{
    EXPECT_EQ("\xAB\xCD", UnHexlify("a--bc d", 7));
    EXPECT_EQ("\xAB", UnHexlify(":AB:C:", 6)) << "an odd digit";
    EXPECT_EQ("", UnHexlify("A", 1));
    EXPECT_EQ("", UnHexlify("A---", 4));
    EXPECT_EQ("", UnHexlify("-A", 2));
    EXPECT_EQ("\xAB", UnHexlify("-AB", 3));
}

TEST(AHexText, IsMadeInTheRoomThatItTakes)
{
    const std::string szBytes(1000, 'x');
    EXPECT_EQ(2000u, Hexlify(szBytes, 0).capacity());
    EXPECT_EQ(3000u, Hexlify(szBytes, ':').capacity());
    EXPECT_EQ(1000u, UnHexlify(std::string(2000, '7').data(), 2000).capacity());
}

TEST(AHexDigit, IsANumberAndAnyOtherCharacterIsItsCodeLess87)
{
    EXPECT_EQ(0, iHexCharToUint8('0'));
    EXPECT_EQ(9, iHexCharToUint8('9'));
    EXPECT_EQ(10, iHexCharToUint8('A'));
    EXPECT_EQ(15, iHexCharToUint8('F'));
    EXPECT_EQ(10, iHexCharToUint8('a'));
    EXPECT_EQ(15, iHexCharToUint8('f'));
    EXPECT_EQ('z' - 87, iHexCharToUint8('z'));
    EXPECT_EQ(256 + ' ' - 87, iHexCharToUint8(' '));
    EXPECT_EQ(0xE9 - 87, iHexCharToUint8('\xE9')) << "the same where char has no sign";
}

TEST(PairsOfCharacters, BecomeBytes)
{
    std::string szHex = "01aBfF";
    EXPECT_EQ((bytes_t{0x01, 0xAB, 0xFF}), uszStringToUString(szHex));
    EXPECT_EQ("\x01\xAB\xFF", uszStringToBytes(szHex));
    std::string szOdd = "123";
    EXPECT_EQ((bytes_t{0x12}), uszStringToUString(szOdd));
    EXPECT_EQ("\x12", uszStringToBytes(szOdd));
    std::string szNone;
    EXPECT_EQ("", uszStringToBytes(szNone));
}

TEST(Bytes, BecomeUpperCaseDigits)
{
    bytes_t bytes = {0x00, 0xA5};
    EXPECT_EQ("00A5", szUStringToString(bytes));
    EXPECT_EQ("0F", szUint8ToHexChar(0x0F));
}

TEST(Bytes, AreReversed)
{
    unsigned char aBytes[] = {1, 2, 3, 4, 5};
    RevertBytesArray(aBytes, 5);
    EXPECT_EQ(5, aBytes[0]);
    EXPECT_EQ(3, aBytes[2]);
    EXPECT_EQ(1, aBytes[4]);
    RevertBytesArray(aBytes, 2);
    EXPECT_EQ(4, aBytes[0]);
    RevertBytesArray(aBytes, 1);
    RevertBytesArray(aBytes, 0);
    RevertBytesArray(aBytes, -3);
    RevertBytesArray(nullptr, 5);
    EXPECT_EQ(4, aBytes[0]);
    EXPECT_EQ((bytes_t{3, 2, 1}), uszRevertUString({1, 2, 3}));
}

TEST(AText, IsSplitIntoItsNonEmptyPieces)
{
    EXPECT_EQ((texts_t{"a", "b"}), SplitString(",", ",a,,b,"));
    EXPECT_EQ((texts_t{"a", "b", "c"}), SplitString(",;", "a;b,c"));
    EXPECT_EQ((texts_t{"abc"}), SplitString(",", "abc"));
    EXPECT_EQ((texts_t{"abc"}), SplitString("", "abc"));
    EXPECT_EQ((texts_t{"abc"}), SplitString(nullptr, "abc"));
    EXPECT_EQ(texts_t{}, SplitString(",", ",,,"));
    EXPECT_EQ(texts_t{}, SplitString(",", ""));
}

TEST(AText, LosesTheBlanksAtItsEnds)
{
    EXPECT_STREQ(" \t\r\n", GetBlanks());
    EXPECT_EQ("a b \r\n", StripHead(" \t\r\na b \r\n", nullptr));
    EXPECT_EQ(" \ta b", StripTail(" \ta b \r\n", nullptr));
    EXPECT_EQ("a b", Strip(" \t\r\na b \r\n", nullptr));
    EXPECT_EQ("", StripHead(" \t", nullptr));
    EXPECT_EQ("", StripTail(" \t", nullptr));
    EXPECT_EQ("", Strip(" \t", nullptr));
    EXPECT_EQ("", Strip("", nullptr));
}

TEST(AText, LosesTheCharactersOfASet)
{
    EXPECT_EQ("a--", StripHead("--+a--", "+-"));
    EXPECT_EQ("--+a", StripTail("--+a--", "+-"));
    EXPECT_EQ("a", Strip("--+a--", "+-"));
    EXPECT_EQ(" a ", Strip(" a ", ""));
}

TEST(ABlank, IsOneOfFour)
{
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        EXPECT_EQ(c == ' ' || c == '\t' || c == '\r' || c == '\n', IsBlank(c)) << i;
    }
}

TEST(AText, HasItsPartsReplaced)
{
    std::string szText = "aXbXXc";
    replace(szText, "X", "--");
    EXPECT_EQ("a--b----c", szText);
    replace(szText, "--", "-");
    EXPECT_EQ("a-b--c", szText) << "it goes on behind what was put in";
    replace(szText, "", "x");
    EXPECT_EQ("a-b--c", szText);
    replace(szText, "-", "");
    EXPECT_EQ("abc", szText);
    replace(szText, "z", "y");
    EXPECT_EQ("abc", szText);
    replace(szText, "a", "aa");
    EXPECT_EQ("aabc", szText);
}

TEST(AText, IsReplacedByItself)
{
    std::string szText = "ab";
    replace(szText, szText, "c");
    EXPECT_EQ("c", szText);
    replace(szText, "c", szText);
    EXPECT_EQ("c", szText);
}

TEST(ALargeText, IsReplacedInLinearTime)
{
    std::string szText(1000000, 'x');
    replace(szText, "x", "yz");
    EXPECT_EQ(2000000U, szText.size());
    EXPECT_EQ("yzyz", szText.substr(0, 4));
}

TEST(AnEnvironmentVariable, IsEmptyWhenThereIsNone)
{
    setenv("QUORCORE_TEST_VARIABLE", "value", 1);
    EXPECT_EQ("value", GetEnv("QUORCORE_TEST_VARIABLE"));
    unsetenv("QUORCORE_TEST_VARIABLE");
    EXPECT_EQ("", GetEnv("QUORCORE_TEST_VARIABLE"));
    EXPECT_EQ("", GetEnv(""));
}

TEST(APath, HasALastPartAndADirectory)
{
    EXPECT_EQ("c", Basename("/a/b/c"));
    EXPECT_EQ("c", Basename("c"));
    EXPECT_EQ("", Basename("a/"));
    EXPECT_EQ("", Basename(""));
    EXPECT_EQ("/a/b", Dirname("/a/b/c"));
    EXPECT_EQ(".", Dirname("c"));
    EXPECT_EQ(".", Dirname(""));
    EXPECT_EQ("/", Dirname("/c"));
    EXPECT_EQ("/", Dirname("/"));
    EXPECT_EQ("a", Dirname("a/"));
}

TEST(ANumber, IsATextInDecimal)
{
    EXPECT_EQ("0", ToString(0));
    EXPECT_EQ("-2147483648", ToString(std::numeric_limits<int>::min()));
}

TEST(AFormattedText, IsOfAnyLength)
{
    EXPECT_EQ("7 x", string_format("%d %s", 7, "x"));
    EXPECT_EQ("", string_format("%s", ""));
    const std::string szLong(100000, 'l');
    EXPECT_EQ(szLong + "!", string_format("%s!", szLong.c_str()));
}

TEST(AFormattedText, IsAppendedAlsoToItself)
{
    std::string szText = "ab";
    string_append_format(szText, "%d", 1);
    EXPECT_EQ("ab1", szText);
    string_append_format(szText, "%s%s", szText.c_str(), szText.c_str());
    EXPECT_EQ("ab1ab1ab1", szText);
}

TEST(AFormattedText, IsEmptyForWhatCannotBePrinted)
{
    const wchar_t aUnprintable[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ("", string_format("%ls", aUnprintable)); // vsnprintf() gives -1
}

TEST(AMacAddress, BecomesBytesAndBack)
{
    char aBytes[4] = {0, 0, 0, 'x'};
    EncodeMacExtendedAddr(aBytes, "00aBfF");
    EXPECT_EQ(std::string("\x00\xAB\xFFx", 4), std::string(aBytes, 4));
    EncodeMacExtendedAddr(aBytes, "123");
    EXPECT_EQ(0x12, aBytes[0]);
    EXPECT_EQ('\xAB', aBytes[1]) << "an odd digit is no byte";
    std::string szText = "former";
    DecodeMacExtendedAddr("\x00\xAB\xFF", 3, szText);
    EXPECT_EQ("00abff", szText);
    DecodeMacExtendedAddr("", 0, szText);
    EXPECT_EQ("", szText);
    DecodeMacExtendedAddr(nullptr, 3, szText);
    EXPECT_EQ("", szText);
}

TEST(AConcentratorId, BecomesBytes)
{
    std::string szBytes = "former";
    EncodeConcentratorId(szBytes, "00A5ff");
    EXPECT_EQ(std::string("\x00\xA5\xFF", 3), szBytes);
    EncodeConcentratorId(szBytes, "");
    EXPECT_EQ("", szBytes);
    std::string szSame = "4142";
    EncodeConcentratorId(szSame, szSame);
    EXPECT_EQ("AB", szSame);
}

TEST_F(ALocalTime, BecomesTwelveOctets)
{
    const long lTime = 1794745845; // Sunday, 15 November 2026, 12:30:45 UTC
    ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 12));
    const std::array<unsigned char, 12> expected = {0x07, 0xEA, 11,   15,   7,    13,
                                                    30,   45,   0x00, 0x80, 0x00, 0xFF};
    EXPECT_EQ(expected, m_aOctets);
    const long lMonday = lTime + 86400;
    ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lMonday, m_aOctets.data(), 12));
    EXPECT_EQ(1, m_aOctets[4]);
}

TEST_F(ALocalTime, NeedsRoomForItsOctets)
{
    const long lTime = 0;
    EXPECT_EQ(-1, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 11));
    EXPECT_EQ(-1, iCompressedTimeToOctetStringTime(&lTime, nullptr, 12));
    EXPECT_EQ(-1, iCompressedTimeToOctetStringTime(nullptr, m_aOctets.data(), 12));
}

TEST_F(ALocalTime, MustHaveAYearThatFits)
{
    if (sizeof(long) < 8) {
        GTEST_SKIP() << "no such time in 32 bits";
    }
    const long lTime = std::numeric_limits<long>::max();
    EXPECT_EQ(-1, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 12));
}

TEST_F(ALocalTime, ComesBackFromItsOctets)
{
    for (const long lTime : {0L, 1794745845L, 1782000000L /* summer */, 2147483647L}) {
        ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 12));
        long lBack = -1;
        EXPECT_EQ(1, iOctetStringTimeToCompressedTime(m_aOctets.data(), &lBack));
        EXPECT_EQ(lTime, lBack);
    }
}

TEST_F(ALocalTime, IsReadWithoutItsLastOctetsAndItsDayOfWeek)
{
    const long lTime = 1794745845;
    ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 12));
    for (const size_t i : {4, 8, 9, 10, 11}) {
        m_aOctets[i] = 0x42;
    }
    long lBack = -1;
    EXPECT_EQ(1, iOctetStringTimeToCompressedTime(m_aOctets.data(), &lBack));
    EXPECT_EQ(lTime, lBack);
}

TEST_F(ALocalTime, IsRefusedWithAFieldThatIsNoTime)
{
    struct Bad {
        size_t iPlace;
        unsigned char cValue;
    };
    const long lTime = 1794745845;
    for (const Bad& bad : {Bad{2, 0xFD}, Bad{2, 0xFE}, Bad{2, 0xFF}, Bad{3, 0}, Bad{3, 32},
                           Bad{5, 24}, Bad{6, 60}, Bad{7, 60}, Bad{5, 0xFF}}) {
        ASSERT_EQ(0, iCompressedTimeToOctetStringTime(&lTime, m_aOctets.data(), 12));
        m_aOctets[bad.iPlace] = bad.cValue;
        long lBack = 42;
        EXPECT_EQ(-1, iOctetStringTimeToCompressedTime(m_aOctets.data(), &lBack))
            << bad.iPlace << " " << int{bad.cValue};
        EXPECT_EQ(42, lBack);
    }
    m_aOctets[0] = m_aOctets[1] = 0xFF;
    long lBack = 42;
    EXPECT_EQ(-1, iOctetStringTimeToCompressedTime(m_aOctets.data(), &lBack));
    EXPECT_EQ(-1, iOctetStringTimeToCompressedTime(nullptr, &lBack));
    EXPECT_EQ(-1, iOctetStringTimeToCompressedTime(m_aOctets.data(), nullptr));
}
