#include "libQuorCore/CObject.h"

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CThread.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/Sanitized.h"
#include "support/VirtualSlot.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>
#include <sys/resource.h>
#include <syslog.h>
#include <type_traits>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
class AMessage : public ::testing::Test
{
protected:
    static std::string szPayload(const CMsg& msg)
    {
        return std::string(static_cast<const char*>(msg.m_pData), msg.m_iDataSize);
    }

    CObject m_Origin{nullptr, "origin"};
    char m_aBytes[4] = {'a', 'b', '\0', 'd'};
};

TEST_F(AMessage, IsAllZeroByDefault)
{
    alignas(CMsg) unsigned char aMemory[sizeof(CMsg)];
    std::memset(aMemory, 0xff, sizeof(aMemory));
    auto* const pMsg = new (aMemory) CMsg;
    EXPECT_EQ(nullptr, pMsg->m_pOrigin);
    EXPECT_EQ(0U, pMsg->m_iEventId);
    EXPECT_EQ(0, pMsg->m_iParam1);
    EXPECT_EQ(0, pMsg->m_iParam2);
    EXPECT_EQ(0U, pMsg->m_iPriority);
    EXPECT_FALSE(pMsg->m_bDoDelete);
    EXPECT_EQ(0U, pMsg->m_iDataSize);
    EXPECT_EQ(nullptr, pMsg->m_pData);
    pMsg->~CMsg();
}

TEST_F(AMessage, KeepsOriginEventAndParameters)
{
    const CMsg msg(&m_Origin, true, 0xfffffffeU, 7, 0xffffffffU, nullptr, 0, 0);
    EXPECT_EQ(&m_Origin, msg.m_pOrigin);
    EXPECT_EQ(0xfffffffeU, msg.m_iEventId);
    EXPECT_EQ(7, msg.m_iParam1);
    EXPECT_EQ(-1, msg.m_iParam2); // signed in the message
    EXPECT_TRUE(msg.m_bDoDelete);
}

TEST_F(AMessage, IsNotUrgentWhateverPriorityItIsBuiltWith)
{
    EXPECT_EQ(0U, CMsg(nullptr, true, 1, 0, 0, nullptr, 0, 5).m_iPriority);
    EXPECT_EQ(0U, CMsg(nullptr, false, 1, 0, 0, nullptr, 0, -1).m_iPriority);
}

TEST_F(AMessage, CopiesItsPayload)
{
    const CMsg msg(nullptr, true, 1, 0, 0, m_aBytes, sizeof(m_aBytes), 0);
    m_aBytes[0] = 'x';
    EXPECT_EQ(std::string("ab\0d", 4), szPayload(msg));
}

TEST_F(AMessage, CopiesPayloadsOfEverySize)
{
    for (const size_t size : {1U, 39U, 40U, 41U, 100000U}) {
        std::string szBytes(size, 'p');
        szBytes.back() = 'q';
        const CMsg msg(nullptr, true, 1, 0, 0, szBytes.data(), static_cast<uint32_t>(size), 0);
        EXPECT_NE(static_cast<void*>(szBytes.data()), msg.m_pData);
        EXPECT_EQ(szBytes, szPayload(msg));
        EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(msg.m_pData) % alignof(std::max_align_t)) << size;
    }
}

TEST_F(AMessage, CarriesNoPayloadThatItDoesNotOwn)
{
    const CMsg msg(nullptr, false, 1, 0, 0, m_aBytes, sizeof(m_aBytes), 0);
    EXPECT_EQ(nullptr, msg.m_pData);
    EXPECT_EQ(0U, msg.m_iDataSize);
    EXPECT_FALSE(msg.m_bDoDelete);
}

TEST_F(AMessage, CarriesNoPayloadWithoutDataOrSize)
{
    const CMsg noData(nullptr, true, 1, 0, 0, nullptr, 4, 0);
    EXPECT_EQ(nullptr, noData.m_pData);
    EXPECT_EQ(0U, noData.m_iDataSize);
    const CMsg noSize(nullptr, true, 1, 0, 0, m_aBytes, 0, 0);
    EXPECT_EQ(nullptr, noSize.m_pData);
    EXPECT_EQ(0U, noSize.m_iDataSize);
}

TEST_F(AMessage, IsBuiltWithoutItsPayloadWhenMemoryIsShort)
{
    if (kSanitized) {
        GTEST_SKIP() << "sanitizers map more memory than any limit, and end on a failed malloc()";
    }
    const ChildResult result = RunInChild([this] {
        const rlimit limit = {256U << 20U, 256U << 20U};
        setrlimit(RLIMIT_AS, &limit);
        const CMsg msg(&m_Origin, true, 3, 0, 0, m_aBytes, 512U << 20U, 0);
        return msg.m_pData == nullptr && msg.m_iDataSize == 0 && msg.m_iEventId == 3 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(AMessage, FreesAPayloadThatWasPutIntoIt)
{
    CMsg msg; // the leak sanitizer looks on
    msg.m_bDoDelete = true;
    msg.m_pData = std::malloc(100);
    msg.m_iDataSize = 100;
    ASSERT_NE(nullptr, msg.m_pData);
}

TEST_F(AMessage, LeavesAPayloadAloneThatItDoesNotOwn)
{
    {
        CMsg msg;
        msg.m_pData = m_aBytes;
        msg.m_iDataSize = sizeof(m_aBytes);
    }
    EXPECT_EQ('a', m_aBytes[0]);
}

TEST_F(AMessage, ReadsAnObjectOutOfItsPayload)
{
    const CLogLevel logLevel;
    CSyslogReceiver::Get().Clear();
    uint8_t iAttribut = 0x41;
    CMsg msg(nullptr, true, 1, 0, 0, &iAttribut, 1, 0);
    EXPECT_EQ(0, msg.iReadObject(m_Origin));
    EXPECT_TRUE(m_Origin.bIsReadOnly());
    EXPECT_TRUE(m_Origin.bIsAttributeMasked());
    EXPECT_FALSE(m_Origin.bIsNull());
    EXPECT_EQ(0U, CSyslogReceiver::Get().Count("ECHEC"));
}

TEST_F(AMessage, LogsAnObjectThatItCannotRead)
{
    const CLogLevel logLevel;
    CSyslogReceiver::Get().Clear();
    CMsg msg;
    msg.m_iDataSize = 4; // set by hand; there is nothing to read all the same
    EXPECT_EQ(-1, msg.iReadObject(m_Origin));
    EXPECT_TRUE(m_Origin.bIsNull());
    const auto records = CSyslogReceiver::Get().Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(LOG_ERR, records[0].iLevel);
    EXPECT_NE(std::string::npos, records[0].szText.find("-- socketFrame_t::iReadObject / "));
    EXPECT_NE(std::string::npos, records[0].szText.find(" : ECHEC"));
}

TEST_F(AMessage, ReadsFromItsPayloadAndNeverSaves)
{
    struct CLook : CObject {
        using CObject::CObject;
        long iSerialize(CSerialize& stream) override
        {
            m_bSave = stream.m_bSave;
            return 42;
        }
        bool m_bSave = true;
    } object(nullptr, "look");
    CMsg msg;
    EXPECT_EQ(42, msg.iReadObject(object)); // the object's own result
    EXPECT_FALSE(object.m_bSave);
}

TEST_F(AMessage, IsPolymorphicAndNotCopied)
{
    struct CDerived : CMsg {
        explicit CDerived(bool& bGone) : m_bGone(bGone) {}
        ~CDerived() override { m_bGone = true; }
        bool& m_bGone;
    };
    bool bGone = false;
    std::unique_ptr<CMsg> pMsg = std::make_unique<CDerived>(bGone);
    pMsg.reset();
    EXPECT_TRUE(bGone);
    EXPECT_FALSE(std::is_copy_constructible_v<CMsg>);
    EXPECT_FALSE(std::is_copy_assignable_v<CMsg>);
    EXPECT_EQ(-1, lVirtualSlot(&CMsg::iReadObject)); // the destructor is the only one
}
} // namespace
