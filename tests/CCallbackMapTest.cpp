#include "libQuorCore/CCallbackMap.h"

#include "libQuorCore/CThread.h"

#include "support/CDeadline.h"
#include "support/CUntakeableLock.h"
#include "support/Sanitized.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
/// Shows what is protected.
class COpenMap : public CCallbackMap
{
public:
    using CCallbackMap::CCallbackMap;
    using CCallbackMap::m_MapCallBackLock;
    using CCallbackMap::m_mmapCallback;
    using CCallbackMap::m_szLabel;
};

/// Calls a function, and counts its own kind.
class CFunctionCallback : public CInvokeCallback
{
public:
    explicit CFunctionCallback(std::function<void(void*)> function)
        : m_function(std::move(function))
    {
        ++s_nAlive;
    }
    CFunctionCallback(const CFunctionCallback&) = delete;
    CFunctionCallback& operator=(const CFunctionCallback&) = delete;
    ~CFunctionCallback() override
    {
        --s_nAlive;
        if (m_atEnd) {
            m_atEnd();
        }
    }
    void invoke(void* pData) const override { m_function(pData); }

    std::function<void()> m_atEnd;
    static std::atomic<int> s_nAlive;

private:
    std::function<void(void*)> m_function;
};

std::atomic<int> CFunctionCallback::s_nAlive{0};

class ACallbackMap : public ::testing::Test
{
protected:
    void TearDown() override
    {
        m_Map.RemoveAllCallback();
        EXPECT_EQ(0, CFunctionCallback::s_nAlive);
    }

    /// Registers a callback that notes its name.
    CFunctionCallback* pAddNamed(uint32_t iEventId, const std::string& szName)
    {
        return pAdd(iEventId, [this, szName](void*) { m_szCalled += szName; });
    }

    CFunctionCallback* pAdd(uint32_t iEventId, std::function<void(void*)> function)
    {
        auto* const pCallback = new CFunctionCallback(std::move(function));
        EXPECT_EQ(pCallback, m_Map.pAddCallback(iEventId, pCallback));
        return pCallback;
    }

    std::string szDispatch(uint32_t iEventId)
    {
        m_szCalled.clear();
        m_Map.iDispatchMessage(iEventId, nullptr);
        return m_szCalled;
    }

    COpenMap m_Map{"map"};
    std::string m_szCalled;
};

TEST_F(ACallbackMap, StartsEmptyWithItsLabel)
{
    EXPECT_TRUE(m_Map.m_mmapCallback.empty());
    EXPECT_EQ("map", m_Map.m_szLabel);
    EXPECT_EQ("", COpenMap(nullptr).m_szLabel);
}

TEST_F(ACallbackMap, CallsBothCallbacksOfAnIdInTheirOrder)
{
    pAddNamed(6, "a");
    pAddNamed(7, "x");
    pAddNamed(6, "b");
    pAddNamed(5, "y");
    pAddNamed(6, "c");
    EXPECT_EQ("abc", szDispatch(6));
    EXPECT_EQ(0, m_Map.iDispatchMessage(6, nullptr));
}

TEST_F(ACallbackMap, PassesTheDataOn)
{
    int iData = 0;
    void* pTaken = nullptr;
    pAdd(0xffffffffU, [&pTaken](void* pData) { pTaken = pData; });
    EXPECT_EQ(0, m_Map.iDispatchMessage(0xffffffffU, &iData));
    EXPECT_EQ(&iData, pTaken);
}

TEST_F(ACallbackMap, CallsNothingForAnIdWithoutRegistration)
{
    EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
    pAddNamed(5, "a");
    pAddNamed(7, "b");
    EXPECT_EQ("", szDispatch(6));
    EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
}

TEST_F(ACallbackMap, CountsANullEntryAsARegistration)
{
    m_Map.m_mmapCallback.emplace(6, nullptr);
    EXPECT_EQ(0, m_Map.iDispatchMessage(6, nullptr));
    m_Map.RemoveEvent(6);
    EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
}

TEST_F(ACallbackMap, IgnoresANullCallback)
{
    EXPECT_EQ(nullptr, m_Map.pAddCallback(6, nullptr));
    EXPECT_TRUE(m_Map.m_mmapCallback.empty());
    m_Map.RemoveCallback(nullptr);
}

TEST_F(ACallbackMap, RemovesAllCallbacksOfAnEventAndLeavesTheOthers)
{
    pAddNamed(6, "a");
    pAddNamed(6, "b");
    pAddNamed(7, "c");
    m_Map.RemoveEvent(6);
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
    EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
    EXPECT_EQ("c", szDispatch(7));
    m_Map.RemoveEvent(6);
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, DeletesACallbackOnceThatIsTwiceUnderOneId)
{
    CFunctionCallback* const pCallback = pAddNamed(6, "a");
    m_Map.pAddCallback(6, pCallback);
    EXPECT_EQ("aa", szDispatch(6));
    m_Map.RemoveEvent(6);
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, RemovesASingleCallback)
{
    CFunctionCallback* const pFirst = pAddNamed(6, "a");
    pAddNamed(6, "b");
    m_Map.RemoveCallback(pFirst);
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
    EXPECT_EQ("b", szDispatch(6));
}

TEST_F(ACallbackMap, IgnoresTheRemovalOfAStranger)
{
    pAddNamed(6, "a");
    CFunctionCallback stranger([](void*) {});
    m_Map.RemoveCallback(&stranger);
    EXPECT_EQ("a", szDispatch(6));
}

TEST_F(ACallbackMap, RemovesOnlyTheLowerOfTwoRegistrationsOfACallback)
{
    CFunctionCallback* const pCallback = pAddNamed(9, "a");
    m_Map.pAddCallback(4, pCallback);
    m_Map.RemoveCallback(pCallback);
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
    ASSERT_EQ(1U, m_Map.m_mmapCallback.size());
    EXPECT_EQ(9U, m_Map.m_mmapCallback.begin()->first); // names an object that is gone
    m_Map.m_mmapCallback.clear();
}

TEST_F(ACallbackMap, RemovesEverything)
{
    pAddNamed(6, "a");
    pAddNamed(7, "b");
    m_Map.RemoveAllCallback();
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
    EXPECT_TRUE(m_Map.m_mmapCallback.empty());
}

TEST_F(ACallbackMap, DeletesItsCallbacksWithItself)
{
    {
        CCallbackMap map("other");
        map.pAddCallback(6, new CFunctionCallback([](void*) {}));
        map.pAddCallback(7, new CFunctionCallback([](void*) {}));
    }
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, LetsAnExceptionPassAndStaysUsable)
{
    pAdd(6, [](void*) { throw std::runtime_error("slot"); });
    pAddNamed(7, "a");
    EXPECT_THROW(m_Map.iDispatchMessage(6, nullptr), std::runtime_error);
    std::thread([this] { EXPECT_EQ("a", szDispatch(7)); }).join(); // the lock was given back
}

TEST_F(ACallbackMap, SurvivesACallbackThatRemovesItself)
{
    CFunctionCallback* pSelf = nullptr;
    pSelf = pAdd(6, [this, &pSelf](void*) {
        m_szCalled += "s";
        m_Map.RemoveCallback(pSelf);
        m_Map.RemoveCallback(pSelf);               // is no entry any more
        EXPECT_EQ(2, CFunctionCallback::s_nAlive); // it still runs
    });
    pAddNamed(6, "b");
    EXPECT_EQ("sb", szDispatch(6));
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
    EXPECT_EQ("b", szDispatch(6));
}

TEST_F(ACallbackMap, DoesNotCallWhatAnEarlierCallbackRemoved)
{
    CFunctionCallback* pLater = nullptr;
    pAdd(6, [this, &pLater](void*) { m_Map.RemoveCallback(pLater); });
    pLater = pAddNamed(6, "b");
    pAddNamed(6, "c");
    EXPECT_EQ("c", szDispatch(6));
    EXPECT_EQ(2, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, SurvivesACallbackThatRemovesItsEvent)
{
    pAdd(6, [this](void*) { m_Map.RemoveEvent(6); });
    pAddNamed(6, "b");
    pAddNamed(7, "c");
    EXPECT_EQ("", szDispatch(6));
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
    EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
    EXPECT_EQ("c", szDispatch(7));
}

TEST_F(ACallbackMap, SurvivesACallbackThatRemovesEverythingAndThrows)
{
    pAdd(6, [this](void*) {
        m_Map.RemoveAllCallback();
        throw std::runtime_error("slot");
    });
    pAddNamed(6, "b");
    EXPECT_THROW(m_Map.iDispatchMessage(6, nullptr), std::runtime_error);
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
    EXPECT_TRUE(m_Map.m_mmapCallback.empty());
}

TEST_F(ACallbackMap, SurvivesRemovalsFromADispatchWithinADispatch)
{
    pAdd(6, [this](void*) {
        m_Map.iDispatchMessage(7, nullptr);
        m_szCalled += "6";
    });
    pAddNamed(6, "b");
    pAdd(7, [this](void*) {
        m_szCalled += "7";
        m_Map.RemoveAllCallback();
    });
    EXPECT_EQ("76", szDispatch(6));
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, CallsWhatACallbackAddedFromTheNextDispatchOn)
{
    bool bAdded = false;
    pAdd(6, [this, &bAdded](void*) {
        if (!bAdded) {
            bAdded = true;
            pAddNamed(6, "n");
        }
    });
    szDispatch(6); // may call it already
    EXPECT_EQ("n", szDispatch(6));
}

TEST_F(ACallbackMap, LetsACallbackReplaceItself)
{
    CFunctionCallback* pSelf = nullptr;
    pSelf = pAdd(6, [this, &pSelf](void*) {
        m_Map.RemoveCallback(pSelf);
        pAddNamed(6, "n");
    });
    szDispatch(6);
    EXPECT_EQ(1, CFunctionCallback::s_nAlive);
    EXPECT_EQ("n", szDispatch(6));
}

TEST_F(ACallbackMap, LetsTheDestructorOfACallbackLookIntoIt)
{
    CFunctionCallback* const pOther = pAddNamed(7, "b");
    pAddNamed(6, "a")->m_atEnd = [this, pOther] {
        EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr)); // the entry went first
        m_Map.RemoveCallback(pOther);
    };
    m_Map.RemoveEvent(6);
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, DoesNothingWhenItsLockCannotBeTaken)
{
    CFunctionCallback* const pKept = pAddNamed(6, "a");
    CFunctionCallback stranger([](void*) {});
    {
        const CUntakeableLock failing(m_Map.m_MapCallBackLock);
        EXPECT_EQ(&stranger, m_Map.pAddCallback(7, &stranger));
        EXPECT_EQ(-1, m_Map.iDispatchMessage(6, nullptr));
        m_Map.RemoveEvent(6);
        m_Map.RemoveCallback(pKept);
        m_Map.RemoveAllCallback();
    }
    EXPECT_EQ(1U, m_Map.m_mmapCallback.size());
    EXPECT_EQ("a", szDispatch(6));
}

TEST_F(ACallbackMap, HoldsItsLockWhileItCalls)
{
    std::atomic<bool> bCalled{false};
    std::atomic<bool> bAdded{false};
    std::thread adder;
    pAdd(6, [&](void*) {
        adder = std::thread([&] {
            bCalled = true;
            m_Map.pAddCallback(7, new CFunctionCallback([](void*) {}));
            bAdded = true;
        });
        EXPECT_TRUE(bAwait([&] { return bCalled.load(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to do wrong
        EXPECT_FALSE(bAdded);
    });
    m_Map.iDispatchMessage(6, nullptr);
    adder.join();
    EXPECT_TRUE(bAdded);
}

TEST_F(ACallbackMap, LosesNothingUnderRegistrationRemovalAndDispatchOfSeveralThreads)
{
    constexpr int kThreads = 4;
    const int nTurns = nRounds(2000);
    std::atomic<long> lCalls{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i, nTurns, &lCalls] {
            for (int n = 0; n < nTurns; ++n) {
                auto* const pOwn = new CFunctionCallback([&lCalls](void*) { ++lCalls; });
                m_Map.pAddCallback(static_cast<uint32_t>(i), pOwn);
                EXPECT_EQ(0, m_Map.iDispatchMessage(static_cast<uint32_t>(i), nullptr));
                m_Map.iDispatchMessage(static_cast<uint32_t>((i + 1) % kThreads), nullptr);
                if (n % 2 == 0) {
                    m_Map.RemoveCallback(pOwn);
                } else {
                    m_Map.RemoveEvent(static_cast<uint32_t>(i));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(lCalls, static_cast<long>(kThreads) * nTurns);
    EXPECT_TRUE(m_Map.m_mmapCallback.empty());
    EXPECT_EQ(0, CFunctionCallback::s_nAlive);
}

TEST_F(ACallbackMap, IsNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<CCallbackMap>);
    EXPECT_FALSE(std::is_copy_assignable_v<CCallbackMap>);
}
} // namespace
