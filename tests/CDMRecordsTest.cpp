#include "libQuorCore/CDMSrvCallback.h"
#include "libQuorCore/CDMStatCellServing.h"

#include "support/DataTrees.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class ACallbackService : public ::testing::Test
{
protected:
    CDMSrvCallback m_Service{nullptr, "callback"};
};

class AServingCell : public ::testing::Test
{
protected:
    CDMStatCellServing m_Cell{nullptr, "cell"};
};
} // namespace

TEST_F(ACallbackService, StartsWithEverythingAllowedAndNobodyListed)
{
    std::string szOut;
    EXPECT_EQ(200, m_Service.iMoRead(&szOut, "", 0));
    EXPECT_EQ("{\"authMtc\":true,\"authSms\":true,\"mtcCallback\":1,\"smsCallback\":1,"
              "\"whiteList\":[]}\n",
              szOut);
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized("+33123"));
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized(""));
}

TEST_F(ACallbackService, HasBoundsAndInitialValues)
{
    EXPECT_EQ(-1, lCheck(m_Service.m_WhiteList, {0xFF, 0xFF, 0x00})) << "not too many";
    for (const char* szLabel : {"smsCallback", "mtcCallback"}) {
        const std::string szMember = std::string("{\"") + szLabel + "\":";
        EXPECT_EQ(0, lCheckText(m_Service, szMember + "0}"));
        EXPECT_EQ(0, lCheckText(m_Service, szMember + "2147483647}"));
        EXPECT_EQ(403, lCheckText(m_Service, szMember + "2147483648}"));
    }
    for (CDMUInt* const pSetting : {&m_Service.m_SmsCallback, &m_Service.m_MtcCallback}) {
        *pSetting = 9;
        pSetting->Reset();
        EXPECT_EQ(1U, pSetting->iGetVal());
    }
    for (CDMBoolean* const pService : {&m_Service.m_AuthSms, &m_Service.m_AuthMtc}) {
        *pService = false;
        pService->Reset();
        EXPECT_TRUE(pService->iGetVal());
    }
}

TEST_F(ACallbackService, IsWrittenInTheOrderOfItsAttributes)
{
    m_Service.AddPhoneNumberToWhitelist("+33");
    m_Service.m_SmsCallback = 2;
    m_Service.m_MtcCallback = 3;
    m_Service.m_AuthMtc = false;
    const ustring bytes = {0x00,                                              // the record
                           0x02, 0,    0,    0,    0,    0,    0,   0,   0,   // modified, null
                           0x01, 0x00, 0x00, 0x00, 0x03, 0x00, '+', '3', '3', // whiteList
                           0x00, 0x02, 0x00, 0x00, 0x00,                      // smsCallback
                           0x00, 0x03, 0x00, 0x00, 0x00,                      // mtcCallback
                           0x00, 0x01,                                        // authSms
                           0x00, 0x00};                                       // authMtc
    EXPECT_EQ(bytes, Encoded(m_Service));
    CDMSrvCallback copy(nullptr, "copy");
    copy.AddPhoneNumberToWhitelist("x");
    EXPECT_EQ(0, lDecode(copy, bytes));
    EXPECT_TRUE(copy.bPhoneNumberAuthorized("+33"));
    EXPECT_TRUE(copy.m_AuthMtc == false);
}

TEST_F(ACallbackService, AuthorizesExactlyTheNumbersOfItsList)
{
    m_Service.AddPhoneNumberToWhitelist("+33123");
    m_Service.AddPhoneNumberToWhitelist("0456");
    EXPECT_TRUE(m_Service.bPhoneNumberAuthorized("+33123"));
    EXPECT_TRUE(m_Service.bPhoneNumberAuthorized("0456"));
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized("+3312"));
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized(" 33123"));
    EXPECT_EQ("2", m_Service.m_WhiteList.pGetAt(1)->szGetLabel());
}

TEST_F(ACallbackService, TakesABlankAtTheFrontForThePlusThatItWas)
{
    m_Service.AddPhoneNumberToWhitelist(" 33123");
    EXPECT_TRUE(m_Service.bPhoneNumberAuthorized("+33123"));
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized("33123"));
    EXPECT_FALSE(m_Service.bPhoneNumberAuthorized(" 33123"));
    EXPECT_EQ(" 33123", static_cast<CDMString*>(m_Service.m_WhiteList.pGetAt(0))->szGetVal());
}

TEST_F(ACallbackService, IsWrittenByARequestAndNotesIt)
{
    m_Service.m_WhiteList.SetAttributeCanDelete(true);
    CContextJson put = Context(CContextJson::ePut);
    std::string szIn = "{\"whiteList\":[\"+331\",\"+332\"],\"authSms\":false}";
    std::string szOut;
    EXPECT_EQ(200, m_Service.iMoWrite(put, &szIn, &szOut, "me"));
    EXPECT_TRUE(m_Service.bPhoneNumberAuthorized("+332"));
    EXPECT_TRUE(m_Service.m_AuthSms == false);
    EXPECT_LE(m_Service.m_Modified.dGetDiffTimeS(), 5.0);
    EXPECT_FALSE(m_Service.m_Modified.bIsNull());
}

TEST_F(ACallbackService, IsNotNotedByAPost)
{
    CContextJson post = Context(CContextJson::ePost);
    std::string szIn = "{\"smsCallback\":5}";
    EXPECT_EQ(200, m_Service.iMoWrite(post, &szIn, nullptr, ""));
    EXPECT_TRUE(m_Service.m_SmsCallback == 5U);
    EXPECT_TRUE(m_Service.m_Modified.bIsNull());
}

TEST_F(AServingCell, StartsWithoutMeasurements)
{
    std::string szOut;
    EXPECT_EQ(200, m_Cell.iMoRead(&szOut, "", 0));
    EXPECT_EQ("{\"rxLevel\":-999,\"techno\":\"GPRS\"}\n", szOut);
    EXPECT_EQ("{\"arfcn\":null,\"ber\":null,\"ci\":null,\"dateMes\":null,\"ecno\":null,"
              "\"lac\":null,\"mcc\":null,\"mnc\":null,\"modified\":null,\"rscp\":null,"
              "\"rsrp\":null,\"rssi\":null,\"rxLevel\":-999,\"rxQual\":null,\"sRxLevel\":null,"
              "\"ta\":null,\"techno\":\"GPRS\"}\n",
              szPublishedWhole(m_Cell));
}

TEST_F(AServingCell, HasItsAttributesInTheirOrder)
{
    int iPlace = 0;
    for (const char* szLabel :
         {"modified", "techno", "arfcn", "rssi", "ber", "rxLevel", "rxQual", "rscp", "ecno", "rsrp",
          "sRxLevel", "ci", "lac", "mcc", "mnc", "ta", "dateMes"}) {
        ASSERT_NE(nullptr, m_Cell.pGetAt(iPlace));
        EXPECT_EQ(szLabel, m_Cell.pGetAt(iPlace)->szGetLabel());
        ++iPlace;
    }
    EXPECT_EQ(nullptr, m_Cell.pGetAt(iPlace));
}

TEST_F(AServingCell, IsNotMeasuredAgainAfterAReset)
{
    m_Cell.m_RxLevel = -85;
    m_Cell.m_RxLevel.Reset();
    EXPECT_EQ(-999, m_Cell.m_RxLevel.iGetVal());
    m_Cell.m_Techno = "LTE";
    m_Cell.m_Techno.Reset();
    EXPECT_EQ("GPRS", m_Cell.m_Techno.szGetVal());
}

TEST_F(AServingCell, IsWrittenInTheOrderOfItsAttributes)
{
    const ustring null = {0x02, 0, 0, 0, 0};
    const ustring noTime = {0x02, 0, 0, 0, 0, 0, 0, 0, 0};
    ustring bytes = ustring{0x00} + noTime + ustring{0x00, 0x04, 0x00, 'G', 'P', 'R', 'S'};
    bytes += null + null + null + ustring{0x00, 0x19, 0xFC, 0xFF, 0xFF};
    for (int i = 0; i < 10; ++i) {
        bytes += null;
    }
    bytes += noTime;
    EXPECT_EQ(bytes, Encoded(m_Cell));
    m_Cell.m_Arfcn = 77;
    EXPECT_EQ(77, Encoded(m_Cell)[1 + 9 + 7 + 1]);
}

TEST_F(AServingCell, RefusesALevelAboveZero)
{
    EXPECT_EQ(403, lCheckText(m_Cell, "{\"rxLevel\":5}"));
    EXPECT_EQ(403, lCheckText(m_Cell, "{\"rxLevel\":-1000}"));
    EXPECT_EQ(0, lCheckText(m_Cell, "{\"rxLevel\":-80}"));
    m_Cell.m_RxLevel = 5;
    EXPECT_TRUE(m_Cell.m_RxLevel == 5) << "only the checks look at the bounds";
    EXPECT_EQ(-2200, lCheckHeld(m_Cell));
}

TEST_F(AServingCell, IsSentFromOneDaemonToAnother)
{
    m_Cell.m_Techno = _apszTechnoType[7];
    m_Cell.m_RxLevel = -85;
    m_Cell.m_Ci = 4711;
    m_Cell.m_DateMes.SetVal(1794745800);
    CDMStatCellServing other(nullptr, "cell");
    EXPECT_EQ(0, lDecode(other, Encoded(m_Cell, true), true));
    EXPECT_EQ(szPublishedWhole(m_Cell), szPublishedWhole(other));
    EXPECT_TRUE(other.m_Techno == "LTE");
}

TEST_F(AServingCell, KnowsTheNamesOfItsTechnologies)
{
    const std::string aExpected[] = {"GPRS",  "EDGE",        "UMTS",  "HSDPA",
                                     "HSUPA", "HSDPA/HSUPA", "HSPA+", "LTE"};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(aExpected[i], _apszTechnoType[i]);
    }
}
