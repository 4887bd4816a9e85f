// The bytes of a frame and its accessors.
#include "libQuorCore/socketFrame.h"

#include "libQuorCore/CObject.h"
#include "libQuorCore/CThread.h"

#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/Frames.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// An object whose stream is the number itself.
class CNumberObject : public CObject
{
public:
    CNumberObject() : CObject(nullptr, "number") {}

    long iSerialize(CSerialize& stream) override
    {
        return stream.m_bSave ? stream.iPushU32(m_iNumber, "") : stream.iPopU32(m_iNumber, "");
    }

    uint32_t m_iNumber = 0;
};

class ASocketFrame : public ::testing::Test
{
protected:
    socketFrame_t* pFrame() { return reinterpret_cast<socketFrame_t*>(m_bytes.data()); }

    std::string szBytes(size_t size) const
    {
        return std::string(reinterpret_cast<const char*>(m_bytes.data()), size);
    }

    void Put(const std::string& szData)
    {
        std::vector<uint8_t> data(szData.begin(), szData.end());
        pFrame()->SetData(data.data(), static_cast<int>(data.size()));
    }

    std::vector<uint8_t> m_bytes = std::vector<uint8_t>(100000);
};
} // namespace

TEST_F(ASocketFrame, IsLaidOutAsOnTheWire)
{
    socketFrame_t& frame = *pFrame();
    frame.magicNumber = kFrameMagic;
    frame.size = 0x04030201;
    frame.typeITF = 0x0605;
    frame.command = 0x0807;
    frame.error = 0x0A09;
    frame.protocol = 0x0C0B;
    frame.msgCounter = 0x0E0D;
    frame.user1 = 0x100F;
    frame.user2 = -2;
    EXPECT_EQ(std::string("\xAA\xAA\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10"
                          "\xFE\xFF"),
              szBytes(20));
    EXPECT_EQ(static_cast<void*>(m_bytes.data() + 20), frame.pGetData());
    EXPECT_EQ(20u, sizeof(socketFrame_t));
    EXPECT_EQ(130u, sizeof(versionFW_t));
}

TEST_F(ASocketFrame, KeepsOnly16BitsOfADataSize)
{
    pFrame()->size = 0xFFFFFFFF;
    pFrame()->SetDataSize(static_cast<uint16_t>(70000));
    EXPECT_EQ(4464u, static_cast<uint32_t>(pFrame()->size));
    EXPECT_EQ(4464, pFrame()->GetDataSize());
    EXPECT_EQ(4484, pFrame()->GetFrameSize());
}

TEST_F(ASocketFrame, TellsTheLow16BitsOfAReceivedSize)
{
    pFrame()->size = 0x00010005;
    EXPECT_EQ(5, pFrame()->GetDataSize());
    EXPECT_EQ(25, pFrame()->GetFrameSize());
}

TEST_F(ASocketFrame, WrapsItsFrameSizeIn16Bits)
{
    pFrame()->SetDataSize(65515);
    EXPECT_EQ(65535, pFrame()->GetFrameSize());
    pFrame()->SetDataSize(65516);
    EXPECT_EQ(0, pFrame()->GetFrameSize());
    pFrame()->SetDataSize(65535);
    EXPECT_EQ(19, pFrame()->GetFrameSize());
}

TEST_F(ASocketFrame, TakesData)
{
    Put("abc");
    EXPECT_EQ(3u, static_cast<uint32_t>(pFrame()->size));
    EXPECT_EQ("abc", szBytes(23).substr(20));
}

TEST_F(ASocketFrame, IsEmptiedByNoData)
{
    Put("abc");
    pFrame()->SetData(nullptr, 0);
    EXPECT_EQ(0u, static_cast<uint32_t>(pFrame()->size));
    EXPECT_EQ("abc", szBytes(23).substr(20)); // the bytes themselves stay
}

TEST_F(ASocketFrame, StoresASizeWithoutData)
{
    pFrame()->SetData(nullptr, 7);
    EXPECT_EQ(7, pFrame()->GetDataSize());
}

TEST_F(ASocketFrame, MovesDataThatLiesWithinIt)
{
    Put("0123456789");
    pFrame()->SetData(pFrame()->pGetData() + 2, 8);
    EXPECT_EQ("23456789", szBytes(28).substr(20));
}

TEST_F(ASocketFrame, ReadsAnObject)
{
    Put(std::string("\x78\x56\x34\x12", 4));
    CNumberObject object;
    EXPECT_EQ(0, pFrame()->iReadObject(object));
    EXPECT_EQ(0x12345678u, object.m_iNumber);
}

TEST_F(ASocketFrame, LogsAnObjectThatCannotBeRead)
{
    const CLogLevel level;
    Put("abc"); // one byte less than the object wants
    CNumberObject object;
    EXPECT_EQ(-1, pFrame()->iReadObject(object));
    const auto isIt = [](const CSyslogReceiver::Record& record) {
        return record.iLevel == LOG_ERR &&
               record.szText.find("socketFrame_t::iReadObject") != std::string::npos &&
               record.szText.find("ECHEC") != std::string::npos;
    };
    EXPECT_TRUE(CSyslogReceiver::Get().bAwait(isIt));
}

TEST_F(ASocketFrame, GivesItsDataAsBytes)
{
    Put(std::string("a\0b", 3));
    ustring bytes;
    EXPECT_EQ(0, pFrame()->iGetData(&bytes));
    EXPECT_EQ(ustring({'a', 0, 'b'}), bytes);
    EXPECT_EQ(-1, pFrame()->iGetData(static_cast<ustring*>(nullptr)));
}

TEST_F(ASocketFrame, GivesItsDataAsATextUpToAZero)
{
    Put(std::string("ab\0c", 4));
    std::string szText;
    EXPECT_EQ(0, pFrame()->iGetData(&szText));
    EXPECT_EQ("ab", szText);
    Put("unterminated");
    EXPECT_EQ(0, pFrame()->iGetData(&szText));
    EXPECT_EQ("unterminated", szText);
    EXPECT_EQ(-1, pFrame()->iGetData(static_cast<std::string*>(nullptr)));
}

TEST_F(ASocketFrame, GivesItsDataAsA32BitNumber)
{
    Put("\xFE\xFF\xFF\xFF rest");
    long lNumber = 0;
    EXPECT_EQ(0, pFrame()->iGetData(&lNumber));
    EXPECT_EQ(-2, lNumber);
    EXPECT_EQ(-1, pFrame()->iGetData(static_cast<long*>(nullptr)));
    Put("abc");
    EXPECT_EQ(-1, pFrame()->iGetData(&lNumber));
    EXPECT_EQ(-2, lNumber);
}

TEST(ACommandSet, HasTheNumbersThatPeersUse)
{
    EXPECT_EQ(10, CMD_COMMUN_PING);
    EXPECT_EQ(11, CMD_COMMUN_VERSION);
    EXPECT_EQ(12, CMD_COMMUN_PID);
    EXPECT_EQ(13, CMD_COMMUN_NAME);
    EXPECT_EQ(14, CMD_COMMUN_SET_CONFIG);
    EXPECT_EQ(15, CMD_COMMUN_GET_CONFIG);
    EXPECT_EQ(16, CMD_COMMUN_SET_LOG_CONFIG);
    EXPECT_EQ(17, CMD_COMMUN_GET_LOG_CONFIG);
    EXPECT_EQ(18, CMD_COMMUN_PONG);
}

TEST(ACommandSet, NumbersTheModemCommandsWithoutAGap)
{
    const uint16_t commands[] = {CMD_MODEM_GET_IMEI,
                                 CMD_MODEM_GET_IMSI,
                                 CMD_MODEM_GET_CID,
                                 CMD_MODEM_GET_CSQ,
                                 CMD_MODEM_GET_CGREG,
                                 CMD_MODEM_GET_RSSI,
                                 CMD_MODEM_GET_CODE_PIN_STATE,
                                 CMD_MODEM_SET_CODE_PIN,
                                 CMD_MODEM_SET_CODE_PIN_ACTIVE,
                                 CMD_MODEM_GET_REGISTRATION_STATE,
                                 CMD_MODEM_GET_ACCESS_TECHNO,
                                 CMD_MODEM_GET_INCOMING_SMS_PDU,
                                 CMD_MODEM_SEND_SMS,
                                 CMD_MODEM_DELETE_OLD_SMS,
                                 CMD_MODEM_SHUTDOWN_,
                                 CMD_MODEM_SET_INIT,
                                 CMD_MODEM_SET_REGISTER,
                                 CMD_MODEM_SET_DEREGISTER,
                                 CMD_MODEM_GET_KCELL,
                                 CMD_MODEM_GET_CELLS_STATS,
                                 CMD_MODEM_GET_NETWORK_SCAN,
                                 CMD_MODEM_GET_EXTENDED_ERROR_REPORT,
                                 CMD_MODEM_GET_XCGED_PAGE,
                                 CMD_MODEM_GET_SIGNAL_QUALITY,
                                 CMD_MODEM_SET_CONFIG_PPP,
                                 CMD_MODEM_SET_LED_GPRS_LOW,
                                 CMD_MODEM_SET_LED_GPRS_MED,
                                 CMD_MODEM_SET_LED_GPRS_HIGH,
                                 CMD_MODEM_SET_LED_UMTS_LOW,
                                 CMD_MODEM_SET_LED_UMTS_MED,
                                 CMD_MODEM_SET_LED_UMTS_HIGH,
                                 CMD_MODEM_SET_CONFIG_FLOW_NTP,
                                 CMD_MODEM_TEST_CONNECTIVITY,
                                 CMD_MODEM_SET_CONFIG_APN,
                                 CMD_MODEM_GET_CELL_SERVING,
                                 CMD_MODEM_RESET_PPP,
                                 CMD_MODEM_SET_WHITELIST};
    uint16_t iExpected = 3000;
    for (const uint16_t iCommand : commands) {
        EXPECT_EQ(iExpected, iCommand);
        ++iExpected;
    }
    EXPECT_EQ(3037, iExpected);
}
