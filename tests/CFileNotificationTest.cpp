#include "libQuorCore/CFileNotification.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using TestSupport::bAwait;
using TestSupport::CTempDirectory;
using TestSupport::kAwaitLimitMs;
using TestSupport::WriteFile;

namespace fs = std::filesystem;

namespace
{
constexpr int kNotServedMs = 300; // thirty passes of the loop without the event

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// The one sees no locks of a thread any more that was cancelled in poll(2), the other takes the
// stack that was unwound for one in use.
constexpr bool kFollowsCancellation = false;
#else
constexpr bool kFollowsCancellation = true;
#endif

/// What a derived class sees of the watcher.
class COpenWatcher : public CFileNotification
{
public:
    COpenWatcher() : CFileNotification(nullptr, "CFileNotification") {}
    using CFileNotification::m_mapWaitNotification;
    using CObject::m_pFileNotification;
    using CThread::m_bRunDynWait;
};

struct Event {
    uint32_t iMask;
    uint32_t iDataSize;
    bool bData;
    std::string szName;
};

/// What callbacks tell, which outlives them.
class CJournal
{
public:
    void Enter(const Event& event)
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        m_events.push_back(event);
    }
    void EnterDeletion()
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        ++m_nDeleted;
    }
    std::vector<Event> Events() const
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        return m_events;
    }
    size_t nEvents() const { return Events().size(); }
    int nDeleted() const
    {
        const std::lock_guard<std::mutex> held(m_Lock);
        return m_nDeleted;
    }
    bool bAwaitEvents(size_t nEvents, int iLimitMs = kAwaitLimitMs) const
    {
        return bAwait([this, nEvents] { return this->nEvents() >= nEvents; }, iLimitMs);
    }

private:
    mutable std::mutex m_Lock;
    std::vector<Event> m_events;
    int m_nDeleted = 0;
};

/// Writes each event to a journal, then does what the test wants.
class CReporter : public CInvokeCallback
{
public:
    using action_t = std::function<void(CMsg&)>;

    explicit CReporter(CJournal& journal, action_t action = {})
        : m_journal(journal), m_action(std::move(action))
    {
    }
    ~CReporter() override { m_journal.EnterDeletion(); }

    void invoke(void* pData) const override
    {
        CMsg& msg = *static_cast<CMsg*>(pData);
        const bool bData = msg.m_pData != nullptr;
        m_journal.Enter({msg.m_iEventId, msg.m_iDataSize, bData,
                         bData ? static_cast<const char*>(msg.m_pData) : ""});
        if (m_action) {
            m_action(msg);
        }
    }

private:
    CJournal& m_journal;
    action_t m_action;
};

/// Does something in its destructor.
class CLastWord : public CReporter
{
public:
    CLastWord(CJournal& journal, std::function<void()> onEnd)
        : CReporter(journal), m_onEnd(std::move(onEnd))
    {
    }
    ~CLastWord() override { m_onEnd(); }

private:
    std::function<void()> m_onEnd;
};

/// One at a time, always at the same address.
class CTenant : public CReporter
{
public:
    using CReporter::CReporter;
    static void* operator new(size_t /*iSize*/);
    static void operator delete(void* /*pPlace*/) {}
};

void* CTenant::operator new(size_t /*iSize*/)
{
    alignas(CTenant) static unsigned char aPlace[sizeof(CTenant)];
    return aPlace;
}

class AFileNotification : public ::testing::Test
{
protected:
    void Start() { ASSERT_EQ(0, m_Watcher.iCreateThread(true, kAwaitLimitMs)); }

    /// Makes a directory and watches what is created in it.
    CReporter* pWatch(const std::string& szName, CJournal& journal, CReporter::action_t action = {})
    {
        fs::create_directory(szPath(szName));
        auto* const pReporter = new CReporter(journal, std::move(action));
        EXPECT_EQ(0, m_Watcher.iAddFileNotification(pReporter, szPath(szName).c_str(), IN_CREATE));
        return pReporter;
    }

    void CreateFile(const std::string& szName) { WriteFile(szPath(szName), ""); }
    std::string szPath(const std::string& szName) const { return m_Directory.szPath(szName); }

    CTempDirectory m_Directory;
    CJournal m_A; // journals of callbacks live longer than the watcher that owns these
    CJournal m_B;
    CJournal m_C;
    COpenWatcher m_Watcher;
};
} // namespace

TEST_F(AFileNotification, StartsWithoutWatches)
{
    EXPECT_TRUE(m_Watcher.m_mapWaitNotification.empty());
    EXPECT_EQ("CFileNotification", m_Watcher.szGetLabel());
}

TEST_F(AFileNotification, TellsOfAFileMadeInAWatchedDirectory)
{
    pWatch("a", m_A);
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    const Event event = m_A.Events().front();
    EXPECT_EQ(uint32_t{IN_CREATE}, event.iMask);
    EXPECT_EQ("new", event.szName);
    EXPECT_EQ(16U, event.iDataSize) << "the kernel pads names to 16 bytes";
}

TEST_F(AFileNotification, SendsAMessageOfItsOwnWithNothingElseInIt)
{
    bool bAsExpected = false;
    pWatch("a", m_A, [this, &bAsExpected](CMsg& msg) {
        bAsExpected = msg.m_pOrigin == &m_Watcher && msg.m_iParam1 == 0 && msg.m_iParam2 == 0 &&
                      msg.m_iPriority == 0 && !msg.m_bDoDelete;
    });
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    m_Watcher.iStop(true, false);
    EXPECT_TRUE(bAsExpected);
}

TEST_F(AFileNotification, TellsOfAnEventWithoutANameByANullPointer)
{
    CreateFile("file");
    m_Watcher.iAddFileNotification(new CReporter(m_A), szPath("file").c_str(), IN_MODIFY);
    Start();
    WriteFile(szPath("file"), "changed");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    const Event event = m_A.Events().front();
    EXPECT_EQ(uint32_t{IN_MODIFY}, event.iMask);
    EXPECT_EQ(0U, event.iDataSize);
    EXPECT_FALSE(event.bData);
}

TEST_F(AFileNotification, PassesOnWhatTheKernelAddsToTheMask)
{
    CreateFile("file");
    m_Watcher.iAddFileNotification(new CReporter(m_A), szPath("file").c_str(), IN_DELETE_SELF);
    Start();
    fs::remove(szPath("file"));
    ASSERT_TRUE(m_A.bAwaitEvents(2));
    EXPECT_EQ(uint32_t{IN_DELETE_SELF}, m_A.Events().at(0).iMask);
    EXPECT_EQ(uint32_t{IN_IGNORED}, m_A.Events().at(1).iMask);
}

TEST_F(AFileNotification, TellsOnlyWhatTheMaskAsksFor)
{
    pWatch("a", m_A);
    CreateFile("a/first");
    fs::remove(szPath("a/first"));
    CreateFile("a/second");
    Start();
    ASSERT_TRUE(m_A.bAwaitEvents(2));
    EXPECT_EQ("first", m_A.Events().at(0).szName);
    EXPECT_EQ("second", m_A.Events().at(1).szName);
}

TEST_F(AFileNotification, TellsOfMoreEventsThanOneReadHolds)
{
    constexpr size_t kFiles = 1000; // 32 bytes each: eight reads
    pWatch("a", m_A);
    for (size_t i = 0; i < kFiles; ++i) {
        CreateFile("a/" + std::to_string(i));
    }
    Start();
    ASSERT_TRUE(m_A.bAwaitEvents(kFiles));
    const std::vector<Event> events = m_A.Events();
    for (size_t i = 0; i < kFiles; ++i) {
        EXPECT_EQ(std::to_string(i), events.at(i).szName);
    }
}

TEST_F(AFileNotification, TellsTheLongestName)
{
    const std::string szLongest(255, 'n');
    pWatch("a", m_A);
    CreateFile("a/" + szLongest);
    CreateFile("a/next");
    Start();
    ASSERT_TRUE(m_A.bAwaitEvents(2));
    EXPECT_EQ(szLongest, m_A.Events().at(0).szName);
    EXPECT_EQ(256U, m_A.Events().at(0).iDataSize);
    EXPECT_EQ("next", m_A.Events().at(1).szName);
}

TEST_F(AFileNotification, ServesAFirstWatchThatIsAddedWhileItIdles)
{
    Start();
    pWatch("a", m_A);
    CreateFile("a/new");
    EXPECT_TRUE(m_A.bAwaitEvents(1));
}

TEST_F(AFileNotification, EndsItsIdleWaitWhenAWatchIsAdded)
{
    Start();
    ASSERT_TRUE(bAwait([this] { return m_Watcher.m_bRunDynWait.load(); }));
    pWatch("a", m_A);
    EXPECT_FALSE(m_Watcher.m_bRunDynWait) << "and no other wait begins, as there is a watch";
}

TEST_F(AFileNotification, ServesAWatchThatIsAddedWhileItWaitsForOthers)
{
    pWatch("a", m_A);
    Start();
    pWatch("b", m_B);
    CreateFile("b/new");
    EXPECT_TRUE(m_B.bAwaitEvents(1));
    EXPECT_EQ(0U, m_A.nEvents());
}

TEST_F(AFileNotification, KeepsTheWatchesApart)
{
    pWatch("a", m_A);
    pWatch("b", m_B);
    Start();
    CreateFile("b/for-b");
    ASSERT_TRUE(m_B.bAwaitEvents(1));
    CreateFile("a/for-a");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    EXPECT_EQ("for-a", m_A.Events().front().szName);
    EXPECT_EQ("for-b", m_B.Events().front().szName);
    EXPECT_EQ(1U, m_B.nEvents());
}

TEST_F(AFileNotification, LeavesAWatchBeyondTheNumberOfReadyOnesToALaterPass)
{
    pWatch("a", m_A);
    pWatch("b", m_B);
    pWatch("c", m_C);
    CreateFile("c/one ready: the first two are read");
    Start();
    EXPECT_FALSE(m_C.bAwaitEvents(1, kNotServedMs));
    int nFiles = 0;
    EXPECT_TRUE(bAwait([&] { // a pass that has counted already may read the first ones
        CreateFile("a/two ready: all three are read " + std::to_string(++nFiles));
        return m_C.nEvents() == 1;
    }));
    EXPECT_TRUE(m_A.bAwaitEvents(1));
}

TEST_F(AFileNotification, ReadsTheWatchBehindAsManyAsAreReady)
{
    pWatch("a", m_A);
    pWatch("b", m_B);
    CreateFile("b/one ready: the first two are read");
    Start();
    EXPECT_TRUE(m_B.bAwaitEvents(1));
}

TEST_F(AFileNotification, LoadsNoProcessorWithAWatchItDoesNotReach)
{
    pWatch("a", m_A);
    pWatch("b", m_B);
    pWatch("c", m_C);
    CreateFile("c/new");
    Start();
    timespec before{};
    timespec after{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    EXPECT_FALSE(bAwait([] { return false; }, kNotServedMs));
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    const int64_t iUsedMs = (int64_t{after.tv_sec} - before.tv_sec) * 1000 +
                            (int64_t{after.tv_nsec} - before.tv_nsec) / 1000000;
    EXPECT_LT(iUsedMs, kNotServedMs / 2);
    EXPECT_EQ(0U, m_C.nEvents());
}

TEST_F(AFileNotification, RefusesAPathThatIsMissing)
{
    const std::string szMissing = szPath("missing");
    const auto result = TestSupport::RunInChild([this, &szMissing] {
        CReporter reporter(m_A); // it stays ours
        const size_t nBefore = TestSupport::nOpenDescriptors();
        const long iRet = m_Watcher.iAddFileNotification(&reporter, szMissing.c_str(), IN_CREATE);
        const bool bKept = m_Watcher.m_mapWaitNotification.empty() && m_A.nDeleted() == 0 &&
                           TestSupport::nOpenDescriptors() == nBefore;
        return iRet == -1 && bKept ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Cannot watch '" + szMissing + "'\ninotify_add_watch: No such file or directory\n",
              result.szErrors);
}

TEST_F(AFileNotification, RefusesNoPath)
{
    const auto result = TestSupport::RunInChild([this] {
        return m_Watcher.iAddFileNotification(nullptr, nullptr, IN_CREATE) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Cannot watch ''\ninotify_add_watch: No such file or directory\n", result.szErrors);
}

TEST_F(AFileNotification, HandsTheMaskToTheKernelAsItIs)
{
    CreateFile("file");
    const auto result = TestSupport::RunInChild([this] {
        const std::string szFile = szPath("file");
        const bool bRefused =
            m_Watcher.iAddFileNotification(nullptr, szFile.c_str(), 0) == -1 &&
            m_Watcher.iAddFileNotification(nullptr, szFile.c_str(), IN_MODIFY | IN_ONLYDIR) == -1;
        return bRefused ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Cannot watch '" + szPath("file") + "'\ninotify_add_watch: Invalid argument\n" +
                  "Cannot watch '" + szPath("file") + "'\ninotify_add_watch: Not a directory\n",
              result.szErrors);
}

TEST_F(AFileNotification, RefusesAWatchWithoutADescriptor)
{
    const auto result = TestSupport::RunInChild([this] {
        const rlimit none{0, 0};
        m_Watcher.RemoveAllNotification(); // sanitizers need a descriptor for the first call
        ::setrlimit(RLIMIT_NOFILE, &none);
        return m_Watcher.iAddFileNotification(nullptr, "/", IN_CREATE) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("inotify_init1: Too many open files\n", result.szErrors);
}

TEST_F(AFileNotification, ReportsNoRegistrationInTheLog)
{
    CThread::m_Logger.Init("CFileNotificationTest");
    TestSupport::CSyslogReceiver::Get().Clear();
    EXPECT_EQ(-1, m_Watcher.iAddFileNotification(nullptr, szPath("missing").c_str(), IN_CREATE));
    EXPECT_TRUE(TestSupport::CSyslogReceiver::Get().Records().empty());
}

TEST_F(AFileNotification, KeepsItsDescriptorsFromPrograms)
{
    pWatch("a", m_A);
    ASSERT_EQ(1U, m_Watcher.m_mapWaitNotification.size());
    const int iFd = m_Watcher.m_mapWaitNotification.begin()->first;
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(iFd, F_GETFD));
    EXPECT_NE(0, ::fcntl(iFd, F_GETFL) & O_NONBLOCK);
}

TEST_F(AFileNotification, DeletesTheCallbackOfAWatchItRemoves)
{
    const size_t nBefore = TestSupport::nOpenDescriptors();
    CReporter* const pReporter = pWatch("a", m_A);
    m_Watcher.RemoveNotification(pReporter);
    EXPECT_EQ(1, m_A.nDeleted());
    EXPECT_TRUE(m_Watcher.m_mapWaitNotification.empty());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
    m_Watcher.RemoveNotification(pReporter);
    EXPECT_EQ(1, m_A.nDeleted());
}

TEST_F(AFileNotification, RemovesNothingForACallbackItDoesNotKnow)
{
    pWatch("a", m_A);
    const CReporter stranger(m_B);
    m_Watcher.RemoveNotification(const_cast<CReporter*>(&stranger));
    m_Watcher.RemoveNotification(nullptr);
    EXPECT_EQ(0, m_A.nDeleted());
    EXPECT_EQ(0, m_B.nDeleted());
    EXPECT_EQ(1U, m_Watcher.m_mapWaitNotification.size());
}

TEST_F(AFileNotification, RemovesTheFirstOfTwoWatchesWithOneCallback)
{
    CReporter* const pReporter = pWatch("a", m_A);
    fs::create_directory(szPath("b"));
    m_Watcher.iAddFileNotification(pReporter, szPath("b").c_str(), IN_CREATE);
    const int iSecond = m_Watcher.m_mapWaitNotification.rbegin()->first;
    m_Watcher.RemoveNotification(pReporter);
    ASSERT_EQ(1U, m_Watcher.m_mapWaitNotification.size());
    EXPECT_EQ(iSecond, m_Watcher.m_mapWaitNotification.begin()->first);
    EXPECT_EQ(nullptr, m_Watcher.m_mapWaitNotification.begin()->second) << "it was deleted";
    CreateFile("b/new");
    pWatch("c", m_C);
    Start();
    CreateFile("c/new");
    EXPECT_TRUE(m_C.bAwaitEvents(1));
    EXPECT_EQ(0U, m_A.nEvents()) << "the callback is gone";
}

TEST_F(AFileNotification, DeletesACallbackOfTwoWatchesOnce)
{
    CReporter* const pReporter = pWatch("a", m_A);
    m_Watcher.iAddFileNotification(pReporter, szPath("a").c_str(), IN_CREATE);
    m_Watcher.RemoveAllNotification();
    EXPECT_EQ(1, m_A.nDeleted());
}

TEST_F(AFileNotification, RemovesEveryWatch)
{
    const size_t nBefore = TestSupport::nOpenDescriptors();
    pWatch("a", m_A);
    pWatch("b", m_B);
    m_Watcher.RemoveAllNotification();
    EXPECT_EQ(1, m_A.nDeleted());
    EXPECT_EQ(1, m_B.nDeleted());
    EXPECT_TRUE(m_Watcher.m_mapWaitNotification.empty());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileNotification, ServesNoWatchThatWasRemovedWhileItRuns)
{
    CReporter* const pReporter = pWatch("a", m_A);
    pWatch("b", m_B);
    Start();
    m_Watcher.RemoveNotification(pReporter);
    CreateFile("a/new");
    CreateFile("b/new");
    EXPECT_TRUE(m_B.bAwaitEvents(1));
    EXPECT_EQ(0U, m_A.nEvents());
}

TEST_F(AFileNotification, DeletesItsCallbacksWhenItGoes)
{
    const size_t nBefore = TestSupport::nOpenDescriptors();
    {
        COpenWatcher watcher;
        ASSERT_EQ(0, watcher.iAddFileNotification(new CReporter(m_A), "/", IN_CREATE));
        ASSERT_EQ(0, watcher.iCreateThread(true, kAwaitLimitMs));
    }
    EXPECT_EQ(1, m_A.nDeleted());
    EXPECT_EQ(nBefore, TestSupport::nOpenDescriptors());
}

TEST_F(AFileNotification, StopsItsThreadBeforeItDeletesTheCallbacks)
{
    bool bRunning = true;
    {
        COpenWatcher watcher;
        auto* const pReporter =
            new CLastWord(m_A, [&watcher, &bRunning] { bRunning = watcher.bIsRunning(); });
        ASSERT_EQ(0, watcher.iAddFileNotification(pReporter, "/", IN_CREATE));
        ASSERT_EQ(0, watcher.iCreateThread(true, kAwaitLimitMs));
    }
    EXPECT_FALSE(bRunning);
}

TEST_F(AFileNotification, LetsACallbackRemoveItself)
{
    CReporter* pReporter = nullptr;
    int nDeletedInside = -1;
    pReporter = pWatch("a", m_A, [this, &pReporter, &nDeletedInside](CMsg&) {
        m_Watcher.RemoveNotification(pReporter);
        nDeletedInside = m_A.nDeleted();
    });
    pWatch("b", m_B);
    CreateFile("a/first");
    CreateFile("a/second, which is read together with the first");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_A.nDeleted() == 1; }));
    CreateFile("b/new");
    ASSERT_TRUE(m_B.bAwaitEvents(1));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(1U, m_A.nEvents());
    EXPECT_EQ(0, nDeletedInside) << "it lives until it returns";
}

TEST_F(AFileNotification, LetsACallbackRemoveTheWatchThatWouldBeServedNext)
{
    CReporter* pSecond = nullptr;
    pWatch("a", m_A, [this, &pSecond](CMsg&) { m_Watcher.RemoveNotification(pSecond); });
    pSecond = pWatch("b", m_B);
    CreateFile("a/new");
    CreateFile("b/new");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_B.nDeleted() == 1; }));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(0U, m_B.nEvents());
}

TEST_F(AFileNotification, LetsACallbackReplaceTheWatchThatWouldBeServedNext)
{
    CReporter* pSecond = nullptr;
    pWatch("a", m_A, [this, &pSecond](CMsg&) {
        fs::create_directory(szPath("c"));
        auto* const pThird = new CReporter(m_C); // first, or it may get the address of the second
        m_Watcher.RemoveNotification(pSecond);
        m_Watcher.iAddFileNotification(pThird, szPath("c").c_str(), IN_CREATE);
        CreateFile("c/new"); // by the number of the descriptor that was just closed
    });
    pSecond = pWatch("b", m_B);
    CreateFile("a/new");
    Start();
    EXPECT_TRUE(m_C.bAwaitEvents(1));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(0U, m_B.nEvents());
    EXPECT_EQ(1, m_B.nDeleted());
}

TEST_F(AFileNotification, LetsACallbackRemoveTheWatchThatWasServedBefore)
{
    CReporter* const pFirst = pWatch("a", m_A);
    pWatch("b", m_B, [this, pFirst](CMsg&) { m_Watcher.RemoveNotification(pFirst); });
    pWatch("c", m_C);
    CreateFile("a/new");
    CreateFile("b/new");
    CreateFile("c/new");
    Start();
    ASSERT_TRUE(m_C.bAwaitEvents(1));
    EXPECT_EQ(1, m_A.nDeleted());
    EXPECT_EQ(1U, m_B.nEvents());
}

TEST_F(AFileNotification, KnowsACallbackFromAFormerOneAtItsAddress)
{
    const auto addTenant = [this](const std::string& szName, CReporter::action_t action) {
        fs::create_directory(szPath(szName));
        auto* const pTenant = new CTenant(m_A, std::move(action));
        m_Watcher.iAddFileNotification(pTenant, szPath(szName).c_str(), IN_CREATE);
        return pTenant;
    };
    CTenant* pFormer = nullptr;
    pFormer = addTenant("a", [this, &pFormer](CMsg&) { m_Watcher.RemoveNotification(pFormer); });
    CreateFile("a/new");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_A.nDeleted() == 1; }));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(pFormer, addTenant("b", {}));
    CreateFile("b/first");
    CreateFile("b/second");
    Start();
    EXPECT_TRUE(m_A.bAwaitEvents(3)) << "one of the former, two of its successor";
}

TEST_F(AFileNotification, LetsACallbackRemoveEveryWatch)
{
    pWatch("a", m_A, [this](CMsg&) { m_Watcher.RemoveAllNotification(); });
    pWatch("b", m_B);
    CreateFile("a/first");
    CreateFile("a/second");
    CreateFile("b/new");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_A.nDeleted() == 1; }));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(1U, m_A.nEvents());
    EXPECT_EQ(0U, m_B.nEvents());
    EXPECT_EQ(1, m_B.nDeleted());
    EXPECT_TRUE(m_Watcher.m_mapWaitNotification.empty());
}

TEST_F(AFileNotification, LetsACallbackReadItsOwnEventsAndRemoveItselfMeanwhile)
{
    CReporter* pReporter = nullptr;
    int nDeletedInside = -1;
    pReporter = pWatch("a", m_A, [this, &pReporter, &nDeletedInside](CMsg&) {
        if (m_A.nEvents() == 1) {
            CreateFile("a/second");
            m_Watcher.HandleEvents(m_Watcher.m_mapWaitNotification.begin()->first, pReporter);
            nDeletedInside = m_A.nDeleted();
        } else {
            m_Watcher.RemoveNotification(pReporter);
        }
    });
    CreateFile("a/first");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_A.nDeleted() == 1; }));
    m_Watcher.iStop(true, false);
    EXPECT_EQ(2U, m_A.nEvents());
    EXPECT_EQ(0, nDeletedInside) << "the outer call still uses it";
}

TEST_F(AFileNotification, LetsTheDestructorOfACallbackAddAndRemoveWatches)
{
    CReporter* const pSecond = pWatch("b", m_B);
    fs::create_directory(szPath("a"));
    auto* const pFirst = new CLastWord(m_A, [this, pSecond] {
        m_Watcher.RemoveNotification(pSecond);
        pWatch("c", m_C);
    });
    EXPECT_EQ(0, m_Watcher.iAddFileNotification(pFirst, szPath("a").c_str(), IN_CREATE));
    m_Watcher.RemoveNotification(pFirst);
    EXPECT_EQ(1, m_A.nDeleted());
    EXPECT_EQ(1, m_B.nDeleted());
    Start();
    CreateFile("c/new");
    EXPECT_TRUE(m_C.bAwaitEvents(1));
}

TEST_F(AFileNotification, LetsACallbackAddAWatch)
{
    std::atomic<bool> bAdded{false};
    pWatch("a", m_A, [this, &bAdded](CMsg&) {
        pWatch("b", m_B);
        bAdded = true;
    });
    CreateFile("a/new");
    Start();
    ASSERT_TRUE(bAwait([&bAdded] { return bAdded.load(); }));
    CreateFile("b/new");
    EXPECT_TRUE(m_B.bAwaitEvents(1));
}

TEST_F(AFileNotification, LetsACallbackReplaceItsOwnWatch)
{
    CReporter* pReporter = nullptr;
    pReporter = pWatch("a", m_A, [this, &pReporter](CMsg&) {
        m_Watcher.RemoveNotification(pReporter);
        pWatch("b", m_B); // gets the number of the descriptor that was just closed
    });
    CreateFile("a/first");
    CreateFile("a/second");
    Start();
    ASSERT_TRUE(bAwait([this] { return m_A.nDeleted() == 1; }));
    CreateFile("b/new");
    EXPECT_TRUE(m_B.bAwaitEvents(1));
    EXPECT_EQ(1U, m_A.nEvents());
    EXPECT_EQ("new", m_B.Events().front().szName);
}

namespace
{
/// Lets a callback wait for the test.
class CGate
{
public:
    ~CGate() { Open(); }
    void Pass()
    {
        m_bReached = true;
        EXPECT_TRUE(bAwait([this] { return m_bOpen.load(); }));
    }
    bool bAwaitReached()
    {
        return bAwait([this] { return m_bReached.load(); });
    }
    void Open() { m_bOpen = true; }

private:
    std::atomic<bool> m_bReached{false};
    std::atomic<bool> m_bOpen{false};
};
} // namespace

TEST_F(AFileNotification, TakesAWatchWhileACallbackRuns)
{
    CGate gate;
    pWatch("a", m_A, [&gate](CMsg&) { gate.Pass(); });
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(gate.bAwaitReached());
    pWatch("b", m_B); // would wait for ever if it wanted the lock of the callbacks
    gate.Open();
    CreateFile("b/new");
    EXPECT_TRUE(m_B.bAwaitEvents(1));
    m_Watcher.iStop(true, false);
}

TEST_F(AFileNotification, RemovesAWatchOfARunningCallbackWhenThatIsOver)
{
    CGate gate;
    std::atomic<bool> bOver{false};
    CReporter* const pReporter = pWatch("a", m_A, [&gate, &bOver](CMsg&) {
        gate.Pass();
        bOver = true;
    });
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(gate.bAwaitReached());
    std::thread opener([&gate] { gate.Open(); });
    m_Watcher.RemoveNotification(pReporter);
    EXPECT_TRUE(bOver);
    EXPECT_EQ(1, m_A.nDeleted());
    opener.join();
}

TEST_F(AFileNotification, TakesAndRemovesWatchesOfSeveralThreadsWhileItServes)
{
    constexpr int kThreads = 3;
    constexpr int kRounds = 20;
    pWatch("a", m_A);
    fs::create_directory(szPath("b"));
    Start();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] {
            for (int iRound = 0; iRound < kRounds; ++iRound) {
                auto* const pReporter = new CReporter(m_B);
                EXPECT_EQ(
                    0, m_Watcher.iAddFileNotification(pReporter, szPath("b").c_str(), IN_CREATE));
                CreateFile("a/" + std::to_string(i) + "." + std::to_string(iRound));
                m_Watcher.RemoveNotification(pReporter);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(m_A.bAwaitEvents(size_t{kThreads} * kRounds));
    EXPECT_EQ(kThreads * kRounds, m_B.nDeleted());
    EXPECT_EQ(1U, m_Watcher.m_mapWaitNotification.size());
}

TEST_F(AFileNotification, StaysWithinItsTableWhateverTheNumberOfWatches)
{
    const rlim_t kDescriptors = 2048;
    const rlimit limit{kDescriptors, kDescriptors};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "not allowed that many descriptors";
    }
    pWatch("a", m_A);
    for (int i = 0; i < 1100; ++i) { // more inotify instances than that need another kernel setting
        m_Watcher.m_mapWaitNotification[::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)] = nullptr;
    }
    CreateFile("a/new");
    Start();
    EXPECT_TRUE(m_A.bAwaitEvents(1));
}

TEST_F(AFileNotification, ServesOthersBesideAWatchThatNobodyHearsOf)
{
    fs::create_directory(szPath("a"));
    EXPECT_EQ(0, m_Watcher.iAddFileNotification(nullptr, szPath("a").c_str(), IN_CREATE));
    pWatch("b", m_B);
    CreateFile("a/new");
    CreateFile("b/new");
    Start();
    EXPECT_TRUE(m_B.bAwaitEvents(1));
}

TEST_F(AFileNotification, HandlesNoEventsWhileItDoesNotRun)
{
    pWatch("a", m_A);
    CreateFile("a/new");
    const auto& [iFd, pCallback] = *m_Watcher.m_mapWaitNotification.begin();
    m_Watcher.HandleEvents(iFd, pCallback);
    EXPECT_EQ(0U, m_A.nEvents());
    Start();
    EXPECT_TRUE(m_A.bAwaitEvents(1)) << "nothing was taken from the descriptor";
}

TEST_F(AFileNotification, StopsWithinSecondsWithoutAnyEvent)
{
    pWatch("a", m_A);
    Start();
    const TestSupport::CDeadline deadline(4000); // below the five seconds of an idle wait
    m_Watcher.iStop(true, false);
    EXPECT_FALSE(deadline.bPassed());
    EXPECT_FALSE(m_Watcher.bIsRunning());
}

TEST_F(AFileNotification, StopsWithinSecondsWithoutAnyWatch)
{
    Start();
    const TestSupport::CDeadline deadline(4000);
    m_Watcher.iStop(true, false);
    EXPECT_FALSE(deadline.bPassed());
    EXPECT_FALSE(m_Watcher.bIsRunning());
}

TEST_F(AFileNotification, ServesItsWatchesAgainAfterAStop)
{
    pWatch("a", m_A);
    Start();
    m_Watcher.iStop(true, false);
    CreateFile("a/new");
    Start();
    EXPECT_TRUE(m_A.bAwaitEvents(1));
}

TEST_F(AFileNotification, LeavesNoThreadAndNoDescriptorHoweverOftenItIsMade)
{
    constexpr int kTimes = 6;
    Start(); // a sanitizer has its own thread from the first one on
    m_Watcher.iStop(true, false);
    const size_t nThreads = TestSupport::nThreads();
    const size_t nDescriptors = TestSupport::nOpenDescriptors();
    fs::create_directory(szPath("a"));
    for (int i = 0; i < kTimes; ++i) {
        CFileNotification watcher(nullptr, "watcher"); // as it is: derived ones stop it themselves
        watcher.iAddFileNotification(new CReporter(m_A), szPath("a").c_str(), IN_CREATE);
        EXPECT_EQ(0, watcher.iCreateThread(i % 2 == 0, kAwaitLimitMs)); // stopped at its start, too
        CreateFile("a/" + std::to_string(i));
    }
    EXPECT_EQ(kTimes, m_A.nDeleted());
    EXPECT_EQ(nDescriptors, TestSupport::nOpenDescriptors());
    EXPECT_TRUE(bAwait([nThreads] { return TestSupport::nThreads() == nThreads; }));
}

TEST_F(AFileNotification, SaysThatItStopped)
{
    const auto result = TestSupport::RunInChild([this] {
        Start();
        m_Watcher.iStop(true, false);
        return std::fflush(stdout);
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ("Listening for events stopped.\n", result.szOutput);
}

TEST_F(AFileNotification, LeavesItsLocksFreeWhenItIsCancelled)
{
    if (!kFollowsCancellation) {
        GTEST_SKIP() << "the sanitizers do not follow a cancelled thread";
    }
    pWatch("a", m_A);
    Start();
    m_Watcher.iStop(true, true);
    m_Watcher.RemoveAllNotification();
    EXPECT_EQ(1, m_A.nDeleted());
}

TEST_F(AFileNotification, LetsACallbackFinishWhenItIsCancelled)
{
    if (!kFollowsCancellation) {
        GTEST_SKIP() << "the sanitizers do not follow a cancelled thread";
    }
    std::atomic<bool> bFinished{false};
    pWatch("a", m_A, [&bFinished](CMsg&) {
        ::pthread_cancel(::pthread_self());
        bFinished = true; // unless a cancellation may come at any instruction
    });
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    m_Watcher.iStop(true, false);
    EXPECT_TRUE(bFinished);
    m_Watcher.RemoveAllNotification();
    EXPECT_EQ(1, m_A.nDeleted()) << "and no lock stays taken";
}

TEST_F(AFileNotification, EndsWithItsLocksFreeWhenACallbackThrows)
{
    pWatch("a", m_A, [](CMsg&) { throw std::runtime_error("thrown by the callback"); });
    Start();
    CreateFile("a/new");
    ASSERT_TRUE(m_A.bAwaitEvents(1));
    m_Watcher.RemoveAllNotification();
    EXPECT_EQ(1, m_A.nDeleted());
    m_Watcher.iStop(true, false);
    EXPECT_FALSE(m_Watcher.bIsRunning());
}

TEST_F(AFileNotification, LogsUnderTheNameOfNoThread)
{
    CThread::m_Logger.Init("CFileNotificationTest");
    TestSupport::CSyslogReceiver::Get().Clear();
    pWatch("a", m_A, [](CMsg&) { QUORCORE_LOG(LOG_ERR, "%s", "from a callback"); });
    Start();
    CreateFile("a/new");
    const auto isFromNoThread = [](const TestSupport::CSyslogReceiver::Record& record) {
        return record.szText.rfind("GEN(", 0) == 0 &&
               record.szText.find("from a callback") != std::string::npos;
    };
    EXPECT_TRUE(TestSupport::CSyslogReceiver::Get().bAwait(isFromNoThread));
}

TEST_F(AFileNotification, DoesNothingAtTheStartAndEndOfItsThread)
{
    EXPECT_EQ(0, m_Watcher.iInitInstance());
    EXPECT_EQ(0, m_Watcher.iExitInstance());
}

TEST_F(AFileNotification, WithdrawsItselfFromEveryObjectWhenItGoes)
{
    CObject object(nullptr, "object");
    {
        COpenWatcher watcher;
        object.SetEventManager(nullptr, &watcher);
        EXPECT_EQ(&watcher, COpenWatcher::m_pFileNotification);
    }
    EXPECT_EQ(nullptr, COpenWatcher::m_pFileNotification);
}

TEST_F(AFileNotification, LeavesAnotherWatcherInPlaceWhenItGoes)
{
    CObject object(nullptr, "object");
    {
        const COpenWatcher watcher;
        object.SetEventManager(nullptr, &m_Watcher);
    }
    EXPECT_EQ(&m_Watcher, COpenWatcher::m_pFileNotification);
}
