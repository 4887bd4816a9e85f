#include "libQuorCore/CSlotCallback.h"

#include "support/VirtualSlot.h"

#include <gtest/gtest.h>
#include <memory>

using namespace QuorCore;
using TestSupport::lVirtualSlot;

namespace
{
struct CTarget {
    virtual ~CTarget() = default;
    void Take(CMsg* pMsg) { m_pTaken = pMsg; }
    virtual void TakeVirtually(CMsg* pMsg) { m_pTaken = pMsg; }
    CMsg* m_pTaken = nullptr;
};

struct CDerivedTarget : CTarget {
    void TakeVirtually(CMsg* pMsg) override { m_pTakenByOverride = pMsg; }
    CMsg* m_pTakenByOverride = nullptr;
};

class ASlotCallback : public ::testing::Test
{
protected:
    CMsg m_Msg;
};

TEST_F(ASlotCallback, HandsTheMessageToItsMemberFunction)
{
    CTarget target;
    const CSlotCallback<CTarget> slot(&target, &CTarget::Take);
    slot.invoke(&m_Msg);
    EXPECT_EQ(&m_Msg, target.m_pTaken);
    slot.invoke(nullptr);
    EXPECT_EQ(nullptr, target.m_pTaken);
}

TEST_F(ASlotCallback, CallsTheOverrideOfAVirtualMember)
{
    CDerivedTarget target;
    const CSlotCallback<CTarget> slot(&target, &CTarget::TakeVirtually);
    slot.invoke(&m_Msg);
    EXPECT_EQ(nullptr, target.m_pTaken);
    EXPECT_EQ(&m_Msg, target.m_pTakenByOverride);
}

TEST_F(ASlotCallback, LeavesItsObjectAliveAndIsDeletedAsACallback)
{
    CTarget target;
    std::unique_ptr<CInvokeCallback> pSlot =
        std::make_unique<CSlotCallback<CTarget>>(&target, &CTarget::Take);
    pSlot->invoke(&m_Msg);
    pSlot.reset();
    EXPECT_EQ(&m_Msg, target.m_pTaken);
}

class AnInvokeCallback : public ::testing::Test
{
};

TEST_F(AnInvokeCallback, HasItsVirtualFunctionsWhereBinariesExpectThem)
{
    EXPECT_EQ(2, lVirtualSlot(&CInvokeCallback::invoke)); // the destructor takes 0 and 1
}
} // namespace
