#include "libQuorCore/CSlotCallbackManager.h"

#include "libQuorCore/CSlotCallback.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/CSyslogReceiver.h"
#include "support/CTestThread.h"
#include "support/CUntakeableLock.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <random>
#include <semaphore.h>
#include <stdexcept>
#include <string>
#include <syslog.h>
#include <thread>
#include <utility>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uint32_t kEvent = 200;
constexpr uint32_t kOther = 201;

/// Shows what is protected.
class COpenDispatcher : public CSlotCallbackManager
{
public:
    COpenDispatcher() : CSlotCallbackManager(nullptr, "dispatcher") {}
    ~COpenDispatcher() override { StopAndAwaitEnd(); } // its own virtual functions go first
    size_t nQueued()
    {
        iLock();
        const size_t nMessages = m_listMsg.size();
        UnLock();
        return nMessages;
    }
    using CSlotCallbackManager::m_bRun;
    using CSlotCallbackManager::m_CallbackMap;
    using CSlotCallbackManager::m_listMsg;
    using CSlotCallbackManager::m_newMsgEvent;
    using CSlotCallbackManager::m_RecursiveLock;
};

/// Its own thread and the main one both look at the count.
class CCountedMsg : public CMsg
{
public:
    explicit CCountedMsg(uint32_t iEventId, uint32_t iParam1 = 0, bool bDoDelete = true,
                         CObject* pOrigin = nullptr)
        : CMsg(pOrigin, bDoDelete, iEventId, iParam1, 0, nullptr, 0, 0)
    {
        ++s_nAlive;
    }
    ~CCountedMsg() override { --s_nAlive; }
    static std::atomic<int> s_nAlive;
};

std::atomic<int> CCountedMsg::s_nAlive{0};

CCountedMsg* pUrgent(uint32_t iParam1)
{
    auto* const pMsg = new CCountedMsg(kEvent, iParam1);
    pMsg->m_iPriority = 1;
    return pMsg;
}

/// A slot that calls a function.
class CFunctionSlot : public CInvokeCallback
{
public:
    explicit CFunctionSlot(std::function<void(CMsg*)> function) : m_function(std::move(function)) {}
    void invoke(void* pData) const override { m_function(static_cast<CMsg*>(pData)); }

private:
    std::function<void(CMsg*)> m_function;
};

/// What a slot has seen, in its order.
class CRecord
{
public:
    void Add(int32_t iParam1)
    {
        const std::lock_guard<std::mutex> held(m_lock);
        m_seen.push_back(iParam1);
    }
    std::vector<int32_t> Seen()
    {
        const std::lock_guard<std::mutex> held(m_lock);
        return m_seen;
    }
    bool bAwaitCount(size_t nExpected)
    {
        return bAwait([=] { return Seen().size() >= nExpected; });
    }

private:
    std::mutex m_lock;
    std::vector<int32_t> m_seen;
};

class ADispatcher : public ::testing::Test
{
protected:
    ADispatcher()
    {
        CSyslogReceiver::Get().Clear();
        m_pDispatcher->SetEventManager(m_pDispatcher.get(), nullptr);
        On(kEvent, [this](CMsg* pMsg) { m_record.Add(pMsg->m_iParam1); });
    }

    ~ADispatcher() override
    {
        m_pDispatcher.reset();
        EXPECT_EQ(0, CCountedMsg::s_nAlive);
        EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
    }

    /// What shall happen with an event, at every start anew: a thread's end empties its map.
    void On(uint32_t iEventId, std::function<void(CMsg*)> function)
    {
        m_pDispatcher->pAddCallback(iEventId, new CFunctionSlot(function));
        m_slots.emplace_back(iEventId, std::move(function));
    }

    void Start()
    {
        m_pDispatcher->RemoveAllCallback();
        for (const auto& slot : m_slots) {
            m_pDispatcher->pAddCallback(slot.first, new CFunctionSlot(slot.second));
        }
        ASSERT_EQ(0, m_pDispatcher->iCreateThread(true, kAwaitLimitMs));
    }

    /// Dispatches all that was posted so far, then ends.
    void Drain()
    {
        Start();
        DrainStarted();
    }

    void DrainStarted()
    {
        ASSERT_TRUE(bAwait([this] { return m_pDispatcher->nQueued() == 0; }));
        m_pDispatcher->iStop(true, false);
    }

    long lPost(uint32_t iParam1, uint32_t iEventId = kEvent)
    {
        return m_object.iPostMessage(new CCountedMsg(iEventId, iParam1));
    }

    const size_t m_nThreads = nThreadsAtRest();
    const CLogLevel m_logLevel;
    CRecord m_record;
    std::vector<std::pair<uint32_t, std::function<void(CMsg*)>>> m_slots;
    std::unique_ptr<COpenDispatcher> m_pDispatcher = std::make_unique<COpenDispatcher>();
    CObject m_object{nullptr, "poster"};
};

// --- Order ---

TEST_F(ADispatcher, DispatchesInTheOrderOfPosting)
{
    for (uint32_t i = 0; i < 1000; ++i) { // more than it keeps list nodes for
        ASSERT_EQ(0, lPost(i));
    }
    Drain();
    const std::vector<int32_t> seen = m_record.Seen();
    ASSERT_EQ(1000U, seen.size());
    for (int32_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(i, seen[static_cast<size_t>(i)]);
    }
}

TEST_F(ADispatcher, KeepsTheOrderOverReusedListNodes)
{
    int32_t iNext = 0;
    for (const int nMessages : {1, 2, 300, 255, 256, 257, 3, 600}) {
        for (int i = 0; i < nMessages; ++i) {
            ASSERT_EQ(0, lPost(static_cast<uint32_t>(iNext++)));
        }
        ASSERT_EQ(static_cast<size_t>(nMessages), m_pDispatcher->nQueued());
        Drain();
    }
    const std::vector<int32_t> seen = m_record.Seen();
    ASSERT_EQ(static_cast<size_t>(iNext), seen.size());
    for (int32_t i = 0; i < iNext; ++i) {
        ASSERT_EQ(i, seen[static_cast<size_t>(i)]);
    }
}

TEST_F(ADispatcher, LetsAnUrgentMessageOvertake)
{
    for (uint32_t i = 1; i <= 3; ++i) {
        lPost(i);
    }
    m_object.iPostMessage(pUrgent(9));
    Drain();
    EXPECT_EQ((std::vector<int32_t>{9, 1, 2, 3}), m_record.Seen());
}

TEST_F(ADispatcher, DispatchesTheLatestUrgentMessageFirst)
{
    lPost(3);
    m_object.iPostMessage(pUrgent(1));
    m_object.iPostMessage(pUrgent(2));
    Drain();
    EXPECT_EQ((std::vector<int32_t>{2, 1, 3}), m_record.Seen());
}

TEST_F(ADispatcher, TakesAnyPriorityButZeroAsUrgent)
{
    lPost(1);
    CMsg* const pMsg = new CCountedMsg(kEvent, 2);
    pMsg->m_iPriority = 0x80000000U;
    m_object.iPostMessage(pMsg);
    Drain();
    EXPECT_EQ((std::vector<int32_t>{2, 1}), m_record.Seen());
}

TEST_F(ADispatcher, QueuesAPostOfValuesAtTheBackWhateverItsPriority)
{
    lPost(1);
    EXPECT_EQ(0, m_object.iPostMessage(kEvent, 2, 0, nullptr, 0, 5));
    Drain();
    EXPECT_EQ((std::vector<int32_t>{1, 2}), m_record.Seen());
}

TEST_F(ADispatcher, DispatchesWhatASlotPostsAfterTheCurrentMessage)
{
    On(kOther, [this](CMsg*) {
        EXPECT_EQ(0, lPost(1));
        EXPECT_EQ(0, m_object.iPostMessage(pUrgent(2))); // comes to the front while this is current
        m_record.Add(0);
    });
    lPost(0, kOther);
    lPost(3);
    Start();
    EXPECT_TRUE(m_record.bAwaitCount(4)); // before a stop, from which on nothing overtakes
    DrainStarted();
    EXPECT_EQ((std::vector<int32_t>{0, 2, 3, 1}), m_record.Seen());
}

TEST_F(ADispatcher, DispatchesWhatIsPostedWhileItRuns)
{
    Start();
    for (uint32_t i = 0; i < 10; ++i) {
        ASSERT_EQ(0, lPost(i));
        ASSERT_TRUE(m_record.bAwaitCount(i + 1)); // at once, not with the next look after a stop
    }
}

// --- Messages ---

TEST_F(ADispatcher, DropsAMessageThatNoCallbackWants)
{
    lPost(1, 12345);
    EXPECT_EQ(1, CCountedMsg::s_nAlive);
    Drain();
    EXPECT_EQ(0, CCountedMsg::s_nAlive);
    EXPECT_TRUE(m_record.Seen().empty());
}

TEST_F(ADispatcher, DeletesItsMessageAfterTheLastCallback)
{
    int nSeenBySecond = -1;
    On(kEvent, [&](CMsg*) { nSeenBySecond = CCountedMsg::s_nAlive; });
    lPost(1);
    Drain();
    EXPECT_EQ(1, nSeenBySecond);
    EXPECT_EQ(0, CCountedMsg::s_nAlive);
}

TEST_F(ADispatcher, NeverDeletesAMessageThatIsThePosters)
{
    CCountedMsg msg(kEvent, 1, false);
    m_object.iPostMessage(&msg);
    Drain();
    EXPECT_EQ(1, CCountedMsg::s_nAlive);
    m_object.iPostMessage(&msg);
    m_pDispatcher->RemoveAllMsg();
    EXPECT_EQ(1, CCountedMsg::s_nAlive);
    EXPECT_EQ(0U, m_pDispatcher->nQueued());
    EXPECT_EQ((std::vector<int32_t>{1}), m_record.Seen());
}

TEST_F(ADispatcher, LeavesAMessageAloneThatItsPosterFreesOnArrival)
{
    On(kOther, [](CMsg* pMsg) { delete pMsg; }); // the address sanitizer looks on
    Start();
    for (int i = 0; i < 100; ++i) {
        m_object.iPostMessage(new CCountedMsg(kOther, 0, false, &m_object));
    }
    EXPECT_TRUE(bAwait([] { return CCountedMsg::s_nAlive == 0; }));
}

TEST_F(ADispatcher, LetsASlotTakeAMessageOver)
{
    std::unique_ptr<CMsg> pTaken;
    On(kOther, [&](CMsg* pMsg) {
        pMsg->m_bDoDelete = false;
        pTaken.reset(pMsg);
    });
    lPost(7, kOther);
    Drain();
    ASSERT_NE(nullptr, pTaken);
    EXPECT_EQ(7, pTaken->m_iParam1);
}

TEST_F(ADispatcher, DispatchesAMessageAsOftenAsItIsQueued)
{
    CCountedMsg msg(kEvent, 4, false);
    m_object.iPostMessage(&msg);
    m_object.iPostMessage(&msg);
    Drain();
    EXPECT_EQ((std::vector<int32_t>{4, 4}), m_record.Seen());
}

TEST_F(ADispatcher, PostsValuesWithACopyOfTheirPayload)
{
    std::string szBytes = "payload";
    std::string szSeen;
    CMsg seen;
    On(kOther, [&](CMsg* pMsg) {
        seen.m_pOrigin = pMsg->m_pOrigin;
        seen.m_iParam1 = pMsg->m_iParam1;
        seen.m_iParam2 = pMsg->m_iParam2;
        EXPECT_TRUE(pMsg->m_bDoDelete);
        szSeen.assign(static_cast<const char*>(pMsg->m_pData), pMsg->m_iDataSize);
    });
    m_object.iPostMessage(kOther, 1, 0xfffffffeU, szBytes.data(),
                          static_cast<uint32_t>(szBytes.size()), 0);
    szBytes = "changed";
    Drain();
    EXPECT_EQ(&m_object, seen.m_pOrigin);
    EXPECT_EQ(1, seen.m_iParam1);
    EXPECT_EQ(-2, seen.m_iParam2);
    EXPECT_EQ("payload", szSeen);
}

TEST_F(ADispatcher, RefusesNoMessageAtAll)
{
    EXPECT_EQ(-1, m_object.iPostMessage(nullptr));
    EXPECT_EQ(0U, m_pDispatcher->nQueued());
}

TEST_F(ADispatcher, PostsValuesToTheDispatcherOfTheProcess)
{
    COpenDispatcher other;
    EXPECT_EQ(0, other.iPost(&m_object, kEvent, 5, 0, nullptr, 0, 0));
    EXPECT_EQ(0U, other.nQueued());
    EXPECT_EQ(1U, m_pDispatcher->nQueued());
    other.iPost(new CCountedMsg(kEvent, 6)); // a message goes where it is put
    EXPECT_EQ(1U, other.nQueued());
}

TEST_F(ADispatcher, PostsValuesThroughItsOwnVirtualFunction)
{
    struct CIntercepting : CSlotCallbackManager {
        using CSlotCallbackManager::CSlotCallbackManager;
        using CSlotCallbackManager::iPostMessage;
        long iPostMessage(CMsg* pMsg) override
        {
            m_pTaken.reset(pMsg);
            return 17;
        }
        std::unique_ptr<CMsg> m_pTaken;
    } intercepting(nullptr, "intercepting");
    EXPECT_EQ(17, intercepting.iPost(nullptr, kEvent, 5, 0, nullptr, 0, 1));
    ASSERT_NE(nullptr, intercepting.m_pTaken);
    EXPECT_EQ(5, intercepting.m_pTaken->m_iParam1);
    EXPECT_EQ(0U, intercepting.m_pTaken->m_iPriority);
}

TEST_F(ADispatcher, LeavesNothingOverOfAPostOfValuesWithoutAnyOfTheProcess)
{
    m_object.SetEventManager(nullptr, nullptr); // the leak sanitizer looks on
    std::string szBytes(100, 'x');
    EXPECT_EQ(-5, m_pDispatcher->iPost(&m_object, kEvent, 0, 0, szBytes.data(), 100, 0));
    EXPECT_EQ(-5, m_object.iPostMessage(kEvent, 0, 0, szBytes.data(), 100, 0));
    EXPECT_EQ(0U, m_pDispatcher->nQueued());
}

TEST_F(ADispatcher, TellsWhetherAPostIsStillQueued)
{
    struct CAsking : CObject {
        using CObject::bIsPostQueued;
        using CObject::CObject;
    } asking(nullptr, "asking");
    EXPECT_FALSE(asking.bIsPostQueued(kEvent));
    asking.iPostMessage(kEvent, 0, 0, nullptr, 0, 0);
    EXPECT_TRUE(asking.bIsPostQueued(kEvent));
    EXPECT_FALSE(asking.bIsPostQueued(kOther));
    EXPECT_FALSE(m_pDispatcher->bIsQueued(&m_object, kEvent));
    uint32_t iPayload = 0;
    m_object.iPostMessage(kEvent, 0, 0, &iPayload, sizeof(iPayload), 0);
    EXPECT_FALSE(m_pDispatcher->bIsQueued(&m_object, kEvent)); // carries something
    Drain();
    EXPECT_FALSE(asking.bIsPostQueued(kEvent));
}

// --- Removal ---

TEST_F(ADispatcher, RemovesAllMessages)
{
    for (uint32_t i = 0; i < 5; ++i) {
        lPost(i);
    }
    m_pDispatcher->RemoveAllMsg();
    EXPECT_EQ(0, CCountedMsg::s_nAlive);
    lPost(5);
    Drain();
    EXPECT_EQ((std::vector<int32_t>{5}), m_record.Seen());
}

TEST_F(ADispatcher, SurvivesASlotThatRemovesAllMessages)
{
    On(kOther, [this](CMsg* pMsg) {
        m_pDispatcher->RemoveAllMsg();
        EXPECT_EQ(1, CCountedMsg::s_nAlive);
        m_record.Add(pMsg->m_iParam1); // the current one is still there
        lPost(9);
    });
    lPost(1, kOther);
    lPost(2);
    lPost(3);
    Drain();
    EXPECT_EQ((std::vector<int32_t>{1, 9}), m_record.Seen());
}

TEST_F(ADispatcher, DeletesItsQueuedMessagesWithItself)
{
    CCountedMsg posters(kEvent, 0, false);
    lPost(1);
    m_object.iPostMessage(&posters);
    m_pDispatcher.reset();
    EXPECT_EQ(1, CCountedMsg::s_nAlive);
}

TEST_F(ADispatcher, WithdrawsItselfWithItsEnd)
{
    m_pDispatcher.reset();
    EXPECT_EQ(-5, m_object.iPostMessage(kEvent, 0, 0, nullptr, 0, 0));
    CCountedMsg msg(kEvent);
    EXPECT_EQ(-5, m_object.iPostMessage(&msg));
}

TEST_F(ADispatcher, LeavesAnotherOneInPlaceWithItsEnd)
{
    auto pOther = std::make_unique<COpenDispatcher>();
    pOther.reset();
    EXPECT_EQ(0, lPost(1));
}

TEST_F(ADispatcher, SurvivesASlotThatRemovesItsCallbacks)
{
    On(kOther, [this](CMsg*) { m_pDispatcher->RemoveAllCallback(); });
    On(kOther, [this](CMsg*) { m_record.Add(-1); });
    lPost(1, kOther);
    lPost(2);
    Drain();
    EXPECT_TRUE(m_record.Seen().empty());
}

// --- Failures ---

TEST_F(ADispatcher, WritesWhatACallbackThrowsAndGoesOn)
{
    const ChildResult result = RunInChild([] { // whose standard error is looked at
        COpenDispatcher dispatcher;
        CRecord record;
        dispatcher.pAddCallback(
            kOther, new CFunctionSlot([](CMsg*) { throw std::runtime_error("slot failed"); }));
        dispatcher.pAddCallback(
            kEvent, new CFunctionSlot([&](CMsg* pMsg) { record.Add(pMsg->m_iParam1); }));
        dispatcher.iPost(new CCountedMsg(kOther));
        dispatcher.iPost(new CCountedMsg(kEvent, 3));
        dispatcher.iCreateThread(true, kAwaitLimitMs);
        const bool bWentOn = record.bAwaitCount(1);
        dispatcher.iStop(true, false);
        return bWentOn && CCountedMsg::s_nAlive == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("slot failed\n", result.szErrors);
    EXPECT_EQ("", result.szOutput);
}

/// Makes every iSetEvent() fail with EOVERFLOW.
void FillToTheBrim(CEvent& event)
{
    struct CAccess : CEvent {
        static sem_t* pSemaphore(CEvent& of) { return &(of.*(&CAccess::m_hEvent)); }
    };
    sem_init(CAccess::pSemaphore(event), 0, SEM_VALUE_MAX);
}

TEST_F(ADispatcher, LogsThatItCannotBeWokenAndKeepsTheMessage)
{
    FillToTheBrim(m_pDispatcher->m_newMsgEvent);
    EXPECT_EQ(-1, lPost(1));
    EXPECT_EQ(1U, m_pDispatcher->nQueued());
    const auto records = CSyslogReceiver::Get().Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(LOG_ERR, records[0].iLevel);
    EXPECT_NE(std::string::npos, records[0].szText.find("-- CCallbackManager / "));
    EXPECT_NE(std::string::npos, records[0].szText.find(" :  Value too large for"));
}

TEST_F(ADispatcher, NeitherQueuesNorDeletesWhenItsLockCannotBeTaken)
{
    CCountedMsg msg(kEvent);
    {
        const CUntakeableLock failing(m_pDispatcher->m_RecursiveLock);
        EXPECT_EQ(0, m_object.iPostMessage(&msg));
        m_pDispatcher->RemoveAllMsg();
        EXPECT_EQ(1, CCountedMsg::s_nAlive);
    }
    EXPECT_EQ(0U, m_pDispatcher->nQueued());
    EXPECT_NE(0, m_pDispatcher->m_newMsgEvent.iWaitForEvent(0)); // not woken either
    lPost(1);
    {
        const CUntakeableLock failing(m_pDispatcher->m_RecursiveLock);
        m_pDispatcher->RemoveAllMsg();
    }
    EXPECT_EQ(1U, m_pDispatcher->nQueued());
}

// --- The loop ---

TEST_F(ADispatcher, LeavesItsLoopWithinAboutASecond)
{
    Start();
    const CStopwatch time;
    EXPECT_EQ(0, m_pDispatcher->iStop(true, false));
    EXPECT_LT(time.iElapsedMs(), 3000);
    EXPECT_FALSE(m_pDispatcher->bIsRunning());
    EXPECT_FALSE(m_pDispatcher->m_bRun);
}

/// Runs the loop on a thread of the test's own. @return Its result.
long lRunUntilDrained(COpenDispatcher& dispatcher)
{
    long lResult = -99;
    std::thread loop([&] { lResult = dispatcher.iRunThread(); });
    bAwait([&] { return dispatcher.m_bRun && dispatcher.nQueued() == 0; });
    dispatcher.iStop(false, false);
    loop.join();
    return lResult;
}

TEST_F(ADispatcher, ReturnsTheResultOfItsLastDispatch)
{
    EXPECT_EQ(0, lRunUntilDrained(*m_pDispatcher)); // of none
    lPost(1, 999);
    lPost(1);
    EXPECT_EQ(0, lRunUntilDrained(*m_pDispatcher));
    lPost(1);
    lPost(1, 999);
    EXPECT_EQ(-1, lRunUntilDrained(*m_pDispatcher));
    EXPECT_FALSE(m_pDispatcher->m_bRun);
}

TEST_F(ADispatcher, DispatchesWhatWasQueuedWhenItWasStopped)
{
    CDoor inSlot;
    CDoor mayGoOn;
    On(kOther, [&](CMsg*) {
        inSlot.Open();
        EXPECT_TRUE(mayGoOn.bPass());
    });
    lPost(0, kOther);
    lPost(1);
    lPost(2);
    Start();
    ASSERT_TRUE(inSlot.bPass());
    m_pDispatcher->iStop(false, false);
    mayGoOn.Open();
    m_pDispatcher->iStop(true, false);
    EXPECT_EQ((std::vector<int32_t>{1, 2}), m_record.Seen());
}

TEST_F(ADispatcher, EndsThoughItsSlotsGoOnPosting)
{
    CDoor inSlot;
    On(kOther, [&](CMsg*) {
        inSlot.Open();
        lPost(0, kOther);
    });
    lPost(0, kOther);
    Start();
    ASSERT_TRUE(inSlot.bPass());
    const CStopwatch time;
    m_pDispatcher->iStop(true, false);
    EXPECT_LT(time.iElapsedMs(), 5000);
    EXPECT_EQ(1U, m_pDispatcher->nQueued()); // waits for the next start
}

TEST_F(ADispatcher, StartsANewLoopWhenTheOneBeforeHasEnded)
{
    CDoor inSlot;
    CDoor mayGoOn;
    std::atomic<bool> bLooked{false};
    On(kOther, [&](CMsg* pMsg) {
        inSlot.Open();
        EXPECT_TRUE(mayGoOn.bPass());
        EXPECT_EQ(7, pMsg->m_iParam1); // nobody else has ended its dispatch
        bLooked = true;
    });
    lPost(7, kOther);
    Start();
    ASSERT_TRUE(inSlot.bPass());
    m_pDispatcher->iStop(false, false);
    lPost(1);
    EXPECT_EQ(0, m_pDispatcher->iCreateThread(false, 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to do wrong
    EXPECT_FALSE(m_pDispatcher->m_bRun);
    mayGoOn.Open();
    EXPECT_TRUE(bAwait([this]() -> bool { return m_pDispatcher->m_bRun; }));
    m_pDispatcher->iStop(true, false);
    EXPECT_TRUE(bLooked);
}

TEST_F(ADispatcher, DispatchesAfterACancellationWhatWasLeftBehind)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    std::atomic<int> nEntered{0};
    On(kOther, [&](CMsg*) {
        if (++nEntered == 1) {
            pause();
        }
    });
    lPost(0, kOther);
    lPost(1);
    Start();
    ASSERT_TRUE(bAwait([&] { return nEntered == 1; }));
    m_pDispatcher->iStop(true, true);
    EXPECT_EQ(1, CCountedMsg::s_nAlive); // the current one was ended with its thread
    Start();
    EXPECT_TRUE(m_record.bAwaitCount(1));
}

TEST_F(ADispatcher, IsUsableAfterItsThreadWasCancelledInASlot)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    std::atomic<bool> bEntered{false};
    On(kOther, [&](CMsg*) {
        bEntered = true;
        pause();
    });
    for (int i = 0; i < nRounds(100); ++i) {
        bEntered = false;
        lPost(0, kOther);
        Start();
        ASSERT_TRUE(bAwait([&] { return bEntered.load(); }));
        m_pDispatcher->iStop(true, true);
        // Neither the queue nor the map was left locked.
        std::thread([this] {
            EXPECT_EQ(0, m_pDispatcher->m_RecursiveLock.iTryLock(1000));
            m_pDispatcher->UnLock();
            CMsg msg;
            EXPECT_EQ(0, m_pDispatcher->m_CallbackMap.iDispatchMessage(kEvent, &msg));
        }).join();
    }
}

TEST_F(ADispatcher, MayBeStoppedByASlot)
{
    COpenDispatcher* const pDispatcher = m_pDispatcher.get(); // nobody joins the thread
    On(kOther, [pDispatcher](CMsg*) { EXPECT_EQ(0, pDispatcher->iStop(true, false)); });
    lPost(0, kOther);
    ASSERT_EQ(0, m_pDispatcher->iCreateThread(false, 0));
    EXPECT_TRUE(bAwait([this] { return nThreads() == m_nThreads; }));
}

TEST_F(ADispatcher, MayBeDestroyedRightAfterAStopThatDidNotJoin)
{
    Start();
    lPost(1);
    m_pDispatcher->iStop(false, false);
    m_pDispatcher.reset();
}

// --- Origins ---

TEST_F(ADispatcher, TakesADestroyedOriginOutOfItsQueue)
{
    std::vector<CObject*> origins;
    On(kOther, [&](CMsg* pMsg) { origins.push_back(pMsg->m_pOrigin); });
    {
        CObject mortal(nullptr, "mortal");
        mortal.iPostMessage(kOther, 0, 0, nullptr, 0, 0);
        m_object.iPostMessage(kOther, 0, 0, nullptr, 0, 0);
        mortal.iPostMessage(kOther, 0, 0, nullptr, 0, 0);
        // Posted by another on its behalf.
        m_object.iPostMessage(new CCountedMsg(kOther, 0, true, &mortal));
    }
    Drain();
    EXPECT_EQ((std::vector<CObject*>{nullptr, &m_object, nullptr, nullptr}), origins);
}

TEST_F(ADispatcher, KeepsAnOriginAliveWhileASlotLooksAtIt)
{
    CDoor inSlot;
    CDoor mayGoOn;
    std::atomic<bool> bDone{false};
    std::string szSeen;
    auto* const pMortal = new CObject(nullptr, "mortal");
    On(kOther, [&](CMsg* pMsg) {
        inSlot.Open();
        EXPECT_TRUE(mayGoOn.bPass());
        szSeen = pMsg->m_pOrigin->szGetLabel();
        bDone = true;
    });
    pMortal->iPostMessage(kOther, 0, 0, nullptr, 0, 0);
    Start();
    ASSERT_TRUE(inSlot.bPass());
    std::thread opener([&] { mayGoOn.Open(); });
    delete pMortal;
    EXPECT_TRUE(bDone);
    EXPECT_EQ("mortal", szSeen);
    opener.join();
    m_pDispatcher->iStop(true, false);
}

TEST_F(ADispatcher, KeepsAnOriginAliveWhoseMessageIsQueuedTwice)
{
    CDoor inSlot;
    CDoor mayGoOn;
    std::vector<std::string> seen;
    auto* const pMortal = new CObject(nullptr, "mortal");
    CCountedMsg msg(kOther, 0, false, pMortal);
    On(kOther, [&](CMsg* pMsg) {
        inSlot.Open();
        EXPECT_TRUE(mayGoOn.bPass());
        seen.push_back(pMsg->m_pOrigin != nullptr ? pMsg->m_pOrigin->szGetLabel() : "none");
    });
    m_object.iPostMessage(&msg);
    lPost(1);
    m_object.iPostMessage(&msg);
    Start();
    ASSERT_TRUE(inSlot.bPass());
    std::thread opener([&] { mayGoOn.Open(); });
    delete pMortal;
    opener.join();
    DrainStarted();
    ASSERT_EQ(2U, seen.size());
    EXPECT_EQ("mortal", seen[0]);
}

TEST_F(ADispatcher, LetsASlotDestroyTheOrigin)
{
    auto* const pMortal = new CObject(nullptr, "mortal");
    CObject* pSeenByNext = pMortal;
    On(kOther, [](CMsg* pMsg) {
        delete pMsg->m_pOrigin; // does not wait for itself
        EXPECT_EQ(nullptr, pMsg->m_pOrigin);
    });
    On(kOther, [&](CMsg* pMsg) { pSeenByNext = pMsg->m_pOrigin; });
    pMortal->iPostMessage(kOther, 0, 0, nullptr, 0, 0);
    Drain();
    EXPECT_EQ(nullptr, pSeenByNext);
}

TEST_F(ADispatcher, TakesADestroyedThreadOutOfItsQueue)
{
    std::atomic<int> nSeen{0};
    On(EVT_THREAD_STARTED, [&](CMsg* pMsg) {
        if (pMsg->m_pOrigin != m_pDispatcher.get()) {
            EXPECT_EQ(nullptr, pMsg->m_pOrigin);
            ++nSeen;
        }
    });
    for (int i = 0; i < 10; ++i) {
        CTestThread thread;
        ASSERT_EQ(0, thread.iCreateThread(true, kAwaitLimitMs));
    }
    Drain();
    EXPECT_EQ(10, nSeen);
}

TEST_F(ADispatcher, LetsAnOriginGoWhoseDestroyerIsBeingCancelled)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    CDoor inSlot;
    CDoor mayGoOn;
    std::atomic<bool> bDestroyed{false};
    On(kOther, [&](CMsg*) {
        inSlot.Open();
        EXPECT_TRUE(mayGoOn.bPass());
    });
    Start();
    std::thread destroyer([&] {
        {
            CObject mortal(nullptr, "mortal");
            mortal.iPostMessage(kOther, 0, 0, nullptr, 0, 0);
            EXPECT_TRUE(inSlot.bPass());
            pthread_cancel(pthread_self()); // its destructor waits, which is a cancellation point
            mayGoOn.Open();
        }
        bDestroyed = true;
        pthread_testcancel();
    });
    destroyer.join();
    EXPECT_TRUE(bDestroyed);
}

// --- Under load ---

TEST_F(ADispatcher, NeitherLosesNorDoublesAMessageOfSeveralPosters)
{
    constexpr uint32_t kPosters = 4;
    const int nMessages = nRounds(20000);
    std::vector<int> lastOf(kPosters, -1);
    std::atomic<int> nNormal{0};
    std::atomic<int> nUrgent{0};
    On(kOther, [&](CMsg* pMsg) {
        if (pMsg->m_iPriority != 0) {
            ++nUrgent;
            return;
        }
        int& iLast = lastOf[static_cast<size_t>(pMsg->m_iParam1)];
        EXPECT_EQ(iLast + 1, pMsg->m_iParam2); // each poster's own order holds
        iLast = pMsg->m_iParam2;
        ++nNormal;
    });
    std::vector<std::thread> posters;
    for (uint32_t iPoster = 0; iPoster < kPosters; ++iPoster) {
        posters.emplace_back([&, iPoster] {
            CObject poster(nullptr, "poster");
            for (int i = 0; i < nMessages; ++i) {
                poster.iPostMessage(kOther, iPoster, static_cast<uint32_t>(i), &i, sizeof(i), 0);
                if (i % 10 == 0) {
                    auto* const pMsg = new CCountedMsg(kOther, iPoster, true, &poster);
                    pMsg->m_iPriority = 1;
                    poster.iPostMessage(pMsg);
                }
            }
        });
    }
    for (int i = 0; i < 3; ++i) { // started and stopped all the while; what is queued waits
        Start();
        m_pDispatcher->iStop(true, false);
    }
    Start();
    for (std::thread& poster : posters) {
        poster.join();
    }
    DrainStarted();
    EXPECT_EQ(static_cast<int>(kPosters) * nMessages, nNormal);
    EXPECT_EQ(static_cast<int>(kPosters) * ((nMessages + 9) / 10), nUrgent);
}

TEST_F(ADispatcher, IsDestroyedAndMadeAnewUnderPostingThreads)
{
    const size_t nDescriptors = nOpenDescriptors();
    m_pDispatcher.reset();
    std::unique_ptr<CSlotCallbackManager> pDispatcher;
    std::atomic<bool> bGoOn{true};
    std::atomic<long> lAccepted{0};
    std::atomic<long> lRefused{0};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
        posters.emplace_back([&] {
            while (bGoOn) {
                auto pPoster = std::make_unique<CObject>(nullptr, "poster"); // dies with messages
                for (uint32_t n = 0; n < 5; ++n) {
                    auto* const pMsg = new CCountedMsg(kEvent, n, true, pPoster.get());
                    const long lResult = pPoster->iPostMessage(pMsg);
                    if (lResult == -5) {
                        delete pMsg;
                        ++lRefused;
                    } else {
                        EXPECT_EQ(0, lResult);
                        ++lAccepted;
                    }
                    pPoster->iPostMessage(kEvent, n, 0, &n, sizeof(n), 0);
                }
            }
        });
    }
    std::minstd_rand random(1);
    for (int i = 0; i < nRounds(100); ++i) {
        pDispatcher = std::make_unique<CSlotCallbackManager>(nullptr, "dispatcher");
        pDispatcher->pAddCallback(kEvent, new CFunctionSlot([](CMsg* pMsg) {
                                      if (pMsg->m_pOrigin != nullptr) {
                                          EXPECT_EQ("poster", pMsg->m_pOrigin->szGetLabel());
                                      }
                                  }));
        pDispatcher->SetEventManager(pDispatcher.get(), nullptr);
        if (random() % 2 == 0) {
            EXPECT_EQ(0, pDispatcher->iCreateThread(true, kAwaitLimitMs));
        }
        if (random() % 2 == 0) {
            pDispatcher->iStop(random() % 2 == 0, !kSanitized && random() % 3 == 0);
        }
    }
    EXPECT_TRUE(bAwait([&] { return lAccepted > 0; })); // by the last one, if none before
    bGoOn = false;
    for (std::thread& poster : posters) {
        poster.join();
    }
    pDispatcher.reset();
    EXPECT_EQ(0, CCountedMsg::s_nAlive);
    EXPECT_EQ(nDescriptors, nOpenDescriptors());
}

TEST_F(ADispatcher, MayBeDestroyedOnceItWasReplaced)
{
    std::atomic<bool> bGoOn{true};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
        posters.emplace_back([&] {
            while (bGoOn) {
                m_object.iPostMessage(kEvent, 0, 0, nullptr, 0, 0);
            }
        });
    }
    for (int i = 0; i < nRounds(500); ++i) {
        auto pNext = std::make_unique<COpenDispatcher>();
        m_object.SetEventManager(i % 3 == 0 ? nullptr : pNext.get(), nullptr);
        m_pDispatcher = std::move(pNext); // destroys the one that was replaced
    }
    bGoOn = false;
    for (std::thread& poster : posters) {
        poster.join();
    }
}

TEST_F(ADispatcher, OutlivesThreadsThatAnnounceThemselvesAndGo)
{
    std::atomic<int> nAnnounced{0};
    On(EVT_THREAD_STARTED, [&](CMsg* pMsg) {
        if (pMsg->m_pOrigin != nullptr) {
            EXPECT_FALSE(pMsg->m_pOrigin->szGetLabel().empty());
        }
        ++nAnnounced;
    });
    Start();
    const int nThreadsEach = nRounds(300);
    std::vector<std::thread> makers;
    for (int i = 0; i < 3; ++i) {
        makers.emplace_back([=] {
            for (int n = 0; n < nThreadsEach; ++n) {
                auto pThread = std::make_unique<CTestThread>(
                    !kSanitized && n % 3 == 0 ? CTestThread::hook_t(lPauseForEver) : nullptr);
                if (n % 3 == 1) {
                    pThread->m_body = [](CTestThread&) { return 0L; };
                    pThread->SetAutoDelete(true);
                    EXPECT_EQ(0, pThread.release()->iCreateThread(false, 0));
                    continue;
                }
                EXPECT_EQ(0, pThread->iCreateThread(n % 2 == 0, kAwaitLimitMs));
                if (n % 3 == 0) {
                    pThread->iStop(true, !kSanitized);
                }
            }
        });
    }
    for (std::thread& maker : makers) {
        maker.join();
    }
    DrainStarted();
    EXPECT_GT(nAnnounced, 0);
}
} // namespace
