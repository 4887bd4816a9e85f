#include "libQuorCore/CDMType.h"

#include "support/DataTrees.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class COpenUInt : public CDMUInt
{
public:
    using CDMUInt::CDMUInt;
    using CDMUInt::m_Max;
    using CDMUInt::m_Min;
};

class AValueType : public ::testing::Test
{
protected:
    CRecord m_Record{nullptr, "r"};
};

class AUrl : public ::testing::Test
{
protected:
    std::string szIpV4(const char* szUrl)
    {
        m_Url = szUrl;
        const in_addr address = {m_Url.iGetAddrIpV4()};
        char aText[INET_ADDRSTRLEN];
        return ::inet_ntop(AF_INET, &address, aText, sizeof(aText));
    }
    std::string szIpV6(const char* szUrl)
    {
        m_Url = szUrl;
        const in6_addr address = m_Url.iGetAddrIpV6();
        char aText[INET6_ADDRSTRLEN];
        return ::inet_ntop(AF_INET6, &address, aText, sizeof(aText));
    }

    CDMUrl m_Url{nullptr, "url", ""};
};
} // namespace

TEST_F(AValueType, IsANumberThatFitsAnIntWhenItIsUnsigned)
{
    COpenUInt number(nullptr, "u");
    EXPECT_TRUE(number.bIsNull());
    EXPECT_EQ(0U, number.iGetVal());
    EXPECT_EQ(0U, number.m_Min);
    EXPECT_EQ(2147483647U, number.m_Max);
    EXPECT_EQ(403, lCheckText(number, "{\"u\":2147483648}"));
    COpenUInt given(nullptr, "u", 1, 2, 4294967295U, 4);
    EXPECT_EQ(1U, given.iGetVal());
    EXPECT_EQ(2U, given.m_Min);
    EXPECT_EQ(4294967295U, given.m_Max);
    EXPECT_EQ(4U, given.iGetValInit());
}

TEST_F(AValueType, TakesItsFourNumbersFromTheValueToTheInitialOne)
{
    CDMInt number(nullptr, "i", -5, -10, 10, 3);
    EXPECT_TRUE(number == -5);
    EXPECT_EQ(3, number.iGetValInit());
    EXPECT_FALSE(number.bIsNull());
    EXPECT_EQ(0, lCheckText(number, "{\"i\":-10}"));
    EXPECT_EQ(403, lCheckText(number, "{\"i\":-11}"));
    EXPECT_EQ(403, lCheckText(number, "{\"i\":11}"));
    CDMNumber<int> base(nullptr, "b", 1, 0, 9, 2);
    EXPECT_EQ(1, base.iGetVal());
    EXPECT_EQ(2, base.iGetValInit());
}

TEST_F(AValueType, IsTrueForEveryNumberButZero)
{
    CDMBoolean flag(nullptr, "b", 256, 0, -1, 0);
    EXPECT_TRUE(flag == true);
    EXPECT_FALSE(flag.iGetValInit());
    flag = false;
    EXPECT_TRUE(flag == false);
    EXPECT_TRUE(flag.bGetIsModified());
    EXPECT_TRUE(CDMBoolean(nullptr, "b").bIsNull());
}

TEST_F(AValueType, IsAssignedByItsValueAlone)
{
    CDMUInt left(&m_Record, "left", 1, 0, 9, 1);
    CDMUInt right(nullptr, "right", 5, 0, 99, 7);
    right.SetReadOnly(true);
    left = right;
    EXPECT_TRUE(left == 5U);
    EXPECT_TRUE(left != 6U);
    EXPECT_EQ("left", left.szGetLabel());
    EXPECT_EQ(&m_Record, left.pGetParent());
    EXPECT_FALSE(left.bIsReadOnly());
    EXPECT_TRUE(left.bGetIsModified());
    left = 6U;
    EXPECT_TRUE(left == 6U);
    CDMInt number(nullptr, "i");
    number = -3;
    EXPECT_TRUE(number == -3);
    EXPECT_FALSE(number.bIsNull());
}

TEST_F(AValueType, IsAssignedByItsPlainFormToo)
{
    CDMNumber<int> number(&m_Record, "i", 1, 0, 9, 1);
    number = 5;
    EXPECT_TRUE(number == 5);
    EXPECT_TRUE(number.bGetIsModified());
}

TEST_F(AValueType, StandsInNoTreeAsACopy)
{
    CDMInt number(&m_Record, "i", 1, 0, 9, 2);
    number.SetAttributeMasked(true);
    const CDMInt copy(number);
    EXPECT_EQ(nullptr, copy.pGetParent());
    EXPECT_EQ("i", copy.szGetLabel());
    EXPECT_TRUE(copy.bIsAttributeMasked());
    EXPECT_EQ(2, copy.iGetValInit());
    CDMString text(&m_Record, "s", "init", 1, 9, "text");
    CDMString textCopy(text);
    EXPECT_EQ(nullptr, textCopy.pGetParent());
    EXPECT_TRUE(textCopy == "text");
    EXPECT_EQ(-1, m_Record.iGetIndex(&textCopy));
}

TEST_F(AValueType, ComparesAndTakesTexts)
{
    CDMString text(nullptr, "s", "a");
    CDMString other(nullptr, "o", "b");
    text = other;
    EXPECT_TRUE(text == "b");
    EXPECT_EQ("s", text.szGetLabel());
    text = std::string("c");
    EXPECT_TRUE(text == std::string("c"));
    EXPECT_TRUE(text != std::string("d"));
    text = "d";
    EXPECT_TRUE(text != "c");
    text = nullptr;
    EXPECT_TRUE(text == "");
    EXPECT_TRUE(text == static_cast<const char*>(nullptr));
    EXPECT_TRUE(text.bGetIsModified());
}

TEST_F(AValueType, KnowsTheAddressingModes)
{
    const std::string aExpected[] = {"DHCP", "Static", "AutoIP", "SLAAC", "SEND", "RFC4941"};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(aExpected[i], _aszAddressingType[i]);
    }
}

TEST_F(AUrl, YieldsItsAddressWhenItEndsWithThePort)
{
    EXPECT_EQ("192.168.1.10", szIpV4("http://192.168.1.10:8080"));
    m_Url = "http://1.2.3.4:80";
    EXPECT_EQ(htonl(0x01020304), m_Url.iGetAddrIpV4());
    EXPECT_EQ("0.0.0.0", szIpV4("http://192.168.1.10:8080/path"));
    EXPECT_EQ("0.0.0.0", szIpV4("http://192.168.1.10"));
    EXPECT_EQ("0.0.0.0", szIpV4("http://1.2.3.4:80/10.20.30.40"));
    EXPECT_EQ("0.0.0.0", szIpV4("http://example.org:80"));
    EXPECT_EQ("0.0.0.0", szIpV4(""));
    EXPECT_EQ("0.0.0.0", szIpV4(":/"));
}

TEST_F(AUrl, YieldsNoAddressOfFourCharacters)
{
    EXPECT_EQ("0.0.0.0", szIpV4("//1.23:80"));
    EXPECT_EQ("10.0.0.10", szIpV4("//10.10:80")) << "with five, inet_aton() is asked";
}

TEST_F(AUrl, YieldsItsAddressInBrackets)
{
    EXPECT_EQ("2001:db8::1", szIpV6("http://[2001:db8::1]:8080/path"));
    EXPECT_EQ("::", szIpV6("http://2001:db8::1:8080"));
    EXPECT_EQ("::", szIpV6("http://[::1]:80")) << "3 characters are not looked at";
    EXPECT_EQ("::", szIpV6("]2001:db8::1["));
    EXPECT_EQ("::", szIpV6("[not an address]"));
    EXPECT_EQ("::", szIpV6("[[2001:db8::1]")) << "from the first bracket";
    EXPECT_EQ("::", szIpV6("[2001:db8::1]]")) << "to the last one";
    CDMUrl bounded(nullptr, "u", "init", 0, 99, "[2001:db8::2]");
    EXPECT_EQ(2, bounded.iGetAddrIpV6().s6_addr[15]);
}
