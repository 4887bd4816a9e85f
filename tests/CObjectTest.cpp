#include "libQuorCore/CObject.h"

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSerializeBuffer.h"
#include "libQuorCore/CSlotCallbackManager.h"

#include "support/VirtualSlot.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <memory>
#include <type_traits>
#include <vector>

using namespace QuorCore;
using TestSupport::lVirtualSlot;

namespace
{
/// Shows what is protected.
class COpenObject : public CObject
{
public:
    using CObject::bIsPostQueued;
    using CObject::CObject;
    using CObject::m_iAttribut;
    using CObject::m_pCallbackManager;
    using CObject::m_pFileNotification;
};

class AnObject : public ::testing::Test
{
protected:
    COpenObject m_Object{nullptr, "x"};
};

struct flag_t {
    const char* szName;
    uint8_t iBit;
    bool (CObject::*bIs)() const;
    void (CObject::*Set)(bool);
};

constexpr std::array<flag_t, 7> kFlags{{
    {"read-only", 0x01, &CObject::bIsReadOnly, &CObject::SetReadOnly},
    {"null", 0x02, &CObject::bIsNull, &CObject::SetNull},
    {"none", 0x04, &CObject::bIsAttributeNone, &CObject::SetAttributeNone},
    {"can-delete", 0x08, &CObject::bIsAttributeCanDelete, &CObject::SetAttributeCanDelete},
    {"dynamic", 0x10, &CObject::bIsAttributeDynamic, &CObject::SetAttributeDynamic},
    {"optional", 0x20, &CObject::bIsAttributeOptional, &CObject::SetAttributeOptional},
    {"masked", 0x40, &CObject::bIsAttributeMasked, &CObject::SetAttributeMasked},
}};

TEST_F(AnObject, StartsNullWithEveryOtherFlagCleared)
{
    const COpenObject unlabelled(nullptr, nullptr);
    for (const COpenObject* pObject : std::array<const COpenObject*, 2>{&m_Object, &unlabelled}) {
        EXPECT_EQ(0x02, pObject->m_iAttribut);
        for (const flag_t& flag : kFlags) {
            EXPECT_EQ(flag.iBit == 0x02, (pObject->*flag.bIs)()) << flag.szName;
        }
    }
}

TEST_F(AnObject, SetsAndClearsExactlyOneBitPerFlag)
{
    for (const flag_t& flag : kFlags) {
        SCOPED_TRACE(flag.szName);
        for (const int iBefore : {0x00, 0xff}) { // 0x80 is nobody's and stays, too
            m_Object.m_iAttribut = static_cast<uint8_t>(iBefore);
            (m_Object.*flag.Set)(true);
            EXPECT_EQ(iBefore | flag.iBit, m_Object.m_iAttribut);
            EXPECT_TRUE((m_Object.*flag.bIs)());
            (m_Object.*flag.Set)(false);
            EXPECT_EQ(iBefore & ~flag.iBit, m_Object.m_iAttribut);
            EXPECT_FALSE((m_Object.*flag.bIs)());
        }
    }
}

TEST_F(AnObject, KeepsWhatItIsGiven)
{
    COpenObject parent(nullptr, "parent");
    int iExtra = 0;
    COpenObject object(&parent, "child");
    EXPECT_EQ("child", object.szGetLabel());
    EXPECT_EQ(&parent, object.pGetParent());
    EXPECT_EQ(nullptr, object.pGetExtraData());

    object.SetLabel("renamed");
    object.SetParent(nullptr);
    object.SetExtraData(&iExtra);
    EXPECT_EQ("renamed", object.szGetLabel());
    EXPECT_EQ(nullptr, object.pGetParent());
    EXPECT_EQ(&iExtra, object.pGetExtraData());
}

TEST_F(AnObject, CopiesItsLabel)
{
    std::string szLabel = "first";
    COpenObject object(nullptr, szLabel.c_str());
    szLabel = "other";
    EXPECT_EQ("first", object.szGetLabel());
    object.SetLabel(szLabel.c_str());
    szLabel = "third";
    EXPECT_EQ("other", object.szGetLabel());
}

TEST_F(AnObject, TakesANullLabelAsAnEmptyOne)
{
    EXPECT_EQ("", COpenObject(nullptr, nullptr).szGetLabel());
    m_Object.SetLabel(nullptr);
    EXPECT_EQ("", m_Object.szGetLabel());
}

TEST_F(AnObject, IsNamedAfterItselfAloneAtTheRoot)
{
    EXPECT_EQ("/x", m_Object.szGetFullName());
    m_Object.SetLabel("");
    EXPECT_EQ("/", m_Object.szGetFullName());
}

TEST_F(AnObject, IsNamedAfterItsAncestorsDownFromTheNearestDb)
{
    COpenObject root(nullptr, "root");
    COpenObject upper(&root, "db");
    COpenObject middle(&upper, "a");
    COpenObject lower(&middle, "db");
    COpenObject nearest(&lower, "b");
    m_Object.SetParent(&middle);
    EXPECT_EQ("/db/a/x", m_Object.szGetFullName());
    m_Object.SetParent(&nearest);
    EXPECT_EQ("/db/b/x", m_Object.szGetFullName());
    upper.SetLabel("dbx");
    m_Object.SetParent(&middle);
    EXPECT_EQ("/root/dbx/a/x", m_Object.szGetFullName());
}

TEST_F(AnObject, ClimbsOnWhenItIsItselfLabelledDb)
{
    COpenObject root(nullptr, "root");
    m_Object.SetParent(&root);
    m_Object.SetLabel("db");
    EXPECT_EQ("/root/db", m_Object.szGetFullName());
}

TEST_F(AnObject, NamesADeepTreeInNoTime)
{
    std::vector<std::unique_ptr<COpenObject>> chain;
    CObject* pParent = nullptr;
    for (int i = 0; i < 5000; ++i) {
        chain.push_back(std::make_unique<COpenObject>(pParent, "n"));
        pParent = chain.back().get();
    }
    EXPECT_EQ(10000U, pParent->szGetFullName().size());
}

TEST_F(AnObject, PushesItsAttributeByte)
{
    ustring bytes;
    CSerialize stream(&bytes, true, false, false);
    m_Object.SetAttributeMasked(true);
    EXPECT_EQ(0, m_Object.iSerialize(stream));
    EXPECT_EQ(ustring({0x42}), bytes);
}

TEST_F(AnObject, PopsItsAttributeByte)
{
    ustring bytes{0x29};
    CSerialize stream(&bytes, false, false, false);
    EXPECT_EQ(0, m_Object.iSerialize(stream));
    EXPECT_EQ(0x29, m_Object.m_iAttribut);
}

TEST_F(AnObject, KeepsItsAttributeByteWhenThereIsNoneToPop)
{
    ustring bytes;
    CSerialize stream(&bytes, false, false, false);
    EXPECT_EQ(-1, m_Object.iSerialize(stream));
    EXPECT_EQ(0x02, m_Object.m_iAttribut);
}

TEST_F(AnObject, TakesNoPartInSerialisationWithTheNoneFlag)
{
    ustring bytes{0x29};
    CSerialize in(&bytes, false, false, false);
    CSerialize out(&bytes, true, false, false);
    m_Object.SetAttributeNone(true);
    EXPECT_EQ(0, m_Object.iSerialize(in));
    EXPECT_EQ(0, m_Object.iSerialize(out));
    EXPECT_EQ(ustring({0x29}), bytes);
    EXPECT_EQ(0, in.iGetPos());
    EXPECT_EQ(0x06, m_Object.m_iAttribut);
}

TEST_F(AnObject, SkipsOneByteOfAReadyStreamInACheck)
{
    std::array<uint8_t, 2> bytes{0x29, 0x2a};
    CSerializeBuffer stream(bytes.data(), 2, false, false, 0);
    ASSERT_TRUE(stream.bIsReady());
    EXPECT_EQ(0, m_Object.iCheckStatus(stream, false));
    EXPECT_EQ(1, stream.iGetPos());
    EXPECT_EQ(0, m_Object.iCheckStatus(stream, true));
    EXPECT_NE(0, m_Object.iCheckStatus(stream, true)); // at the end
    EXPECT_EQ(0x02, m_Object.m_iAttribut);
}

TEST_F(AnObject, LeavesAStreamThatIsNotReadyAloneInACheck)
{
    ustring bytes{0x29};
    CSerialize stream(&bytes, false, false, false);
    ASSERT_FALSE(stream.bIsReady());
    EXPECT_EQ(0, m_Object.iCheckStatus(stream, false));
    EXPECT_EQ(0, stream.iGetPos());
}

TEST_F(AnObject, RefusesToPostWithoutADispatcher)
{
    auto* const pMsg = new CMsg(&m_Object, true, 6, 0, 0, nullptr, 0, 0);
    EXPECT_EQ(-5, m_Object.iPostMessage(pMsg));
    delete pMsg; // still the caller's
    uint32_t iPayload = 1;
    EXPECT_EQ(-5, m_Object.iPostMessage(6, 0, 0, &iPayload, sizeof(iPayload), 0));
    EXPECT_FALSE(m_Object.bIsPostQueued(6));
}

TEST_F(AnObject, SetsTheDispatcherAndTheWatcherOfEveryObject)
{
    CSlotCallbackManager dispatcher(nullptr, "dispatcher");
    auto* const pWatcher = reinterpret_cast<CFileNotification*>(&dispatcher); // only compared
    COpenObject other(nullptr, "other");
    m_Object.SetEventManager(&dispatcher, pWatcher);
    EXPECT_EQ(&dispatcher, other.m_pCallbackManager);
    EXPECT_EQ(pWatcher, other.m_pFileNotification);
    m_Object.SetEventManager(nullptr, nullptr);
    EXPECT_EQ(nullptr, other.m_pCallbackManager);
    EXPECT_EQ(nullptr, other.m_pFileNotification);
}

TEST_F(AnObject, HasItsVirtualFunctionsWhereBinariesExpectThem)
{
    using PostMsg = long (CObject::*)(CMsg*);
    using PostValues = long (CObject::*)(uint32_t, uint32_t, uint32_t, void*, uint32_t, int);
    EXPECT_EQ(2, lVirtualSlot(&CObject::Reset)); // the destructor takes 0 and 1
    EXPECT_EQ(3, lVirtualSlot(static_cast<PostMsg>(&CObject::iPostMessage)));
    EXPECT_EQ(4, lVirtualSlot(static_cast<PostValues>(&CObject::iPostMessage)));
    EXPECT_EQ(5, lVirtualSlot(&CObject::iSerialize));
    EXPECT_EQ(6, lVirtualSlot(&CObject::iCheckStatus));
    EXPECT_EQ(7, lVirtualSlot(&CObject::bIsNull));
    EXPECT_EQ(8, lVirtualSlot(&CObject::SetNull));
}

TEST_F(AnObject, IsNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<CObject>);
    EXPECT_FALSE(std::is_copy_assignable_v<CObject>);
}

TEST_F(AnObject, ChangesNothingInABareReset)
{
    m_Object.SetAttributeMasked(true);
    m_Object.Reset();
    EXPECT_EQ(0x42, m_Object.m_iAttribut);
    EXPECT_EQ("x", m_Object.szGetLabel());
}

class TheEvents : public ::testing::Test
{
};

TEST_F(TheEvents, HaveTheNumbersThatTravelInFrames)
{
    EXPECT_EQ(0U, EVT_PROCESS_STOPPED);
    EXPECT_EQ(1U, EVT_COM_CONNECTED);
    EXPECT_EQ(2U, EVT_COM_DISCONNECTED);
    EXPECT_EQ(3U, EVT_CONFIG_SAVE);
    EXPECT_EQ(4U, EVT_DATABASE_SAVE);
    EXPECT_EQ(5U, EVT_DATABASE_READ);
    EXPECT_EQ(6U, EVT_THREAD_STARTED);
    EXPECT_EQ(7U, EVT_COM_PING);
    EXPECT_EQ(8U, EVT_COM_PONG);
    EXPECT_EQ(100U, CMD_CONFIG_ETH);
    EXPECT_EQ(4U, sizeof(eEventQuorCore));
}

class AVersionRecord : public ::testing::Test
{
};

TEST_F(AVersionRecord, IsANumberAndANameOf128Characters)
{
    EXPECT_EQ(0U, offsetof(versionFW_t, version));
    EXPECT_EQ(2U, offsetof(versionFW_t, szAppName));
    EXPECT_EQ(128U, sizeof(versionFW_t::szAppName));
    EXPECT_EQ(130U, sizeof(versionFW_t));
}

TEST_F(AVersionRecord, IsBlankUntilTheDaemonFillsItsOwn)
{
    EXPECT_EQ(0, g_versionFW.version);
    EXPECT_STREQ("", g_versionFW.szAppName);
}
} // namespace
