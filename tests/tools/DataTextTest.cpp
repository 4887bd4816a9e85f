// Bytes from outside as text, and text as bytes and numbers.
#include "DataText.h"

#include "Number.h"

#include <gtest/gtest.h>

using namespace QuorCtl;

namespace
{
TEST(Utf8, IsWhatTheStandardSays)
{
    for (const char* pszGood : {"", "plain", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                "\xED\x9F\xBF", "\xF4\x8F\xBF\xBF", "\x01"}) {
        EXPECT_TRUE(bIsUtf8(pszGood)) << szHex(pszGood);
    }
    for (const char* pszBad : {"\x80", "\xC3", "\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF",
                               "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
                               "\xF5\x80\x80\x80", "\xFF", "\xE2\x82", "\xE2\x28\xA1"}) {
        EXPECT_FALSE(bIsUtf8(pszBad)) << szHex(pszBad);
    }
}

TEST(PrintableText, HasNoControlCharactersButTabsAndLineEnds)
{
    EXPECT_TRUE(bIsPrintable("two\tlines\r\n\xC3\xA9"));
    EXPECT_FALSE(bIsPrintable("\x1b[2J"));
    EXPECT_FALSE(bIsPrintable("good\rbad")); // the second would stand in the place of the first
    EXPECT_FALSE(bIsPrintable("\r"));
    EXPECT_FALSE(bIsPrintable("\x7f"));
    EXPECT_FALSE(bIsPrintable("\xC2\x9B")); // CSI of C1
    EXPECT_FALSE(bIsPrintable(std::string(1, '\0')));
    EXPECT_FALSE(bIsPrintable("\xFF"));
}

TEST(VisibleText, MovesNoCursor)
{
    EXPECT_EQ("a\\x1b[2J\\x0a\\\\\xC3\xA9\\xff\\xc2\\x9b",
              szVisible("a\x1b[2J\n\\\xC3\xA9\xFF\xC2\x9B"));
}

TEST(HexDigits, AreReadAndWritten)
{
    EXPECT_EQ("00ff41", szHex(std::string("\0\xFF"
                                          "A",
                                          3)));
    EXPECT_EQ("Ada", FromHex("41:64 61"));
    EXPECT_EQ("\xAB\xCD", FromHex("aBCd"));
    EXPECT_EQ("", FromHex(""));
    for (const char* pszBad : {"4", "4 1", "xy", "414", "0x41", "@A"}) {
        EXPECT_FALSE(FromHex(pszBad)) << pszBad;
    }
}

TEST(AHexDump, HasSixteenBytesOnALine)
{
    EXPECT_EQ("0000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "0010  1b                                               .\n",
              szHexDump("0123456789abcdef\x1b"));
    EXPECT_EQ("", szHexDump(""));
}

TEST(ANumber, IsDecimalOrHexadecimalAndNothingElse)
{
    EXPECT_EQ(17, ParseNumber("17", 0, 100));
    EXPECT_EQ(10, ParseNumber("010", 0, 100));
    EXPECT_EQ(31, ParseNumber("0x1F", 0, 100));
    EXPECT_EQ(-3, ParseNumber("-3", -5, 5));
    for (const char* pszBad : {"", "-", "--3", "+3", " 3", "3 ", "0x", "1e3", "101", "-6",
                               "99999999999999999999", "0x-3"}) {
        EXPECT_FALSE(ParseNumber(pszBad, -5, 100)) << pszBad;
    }
}
} // namespace
