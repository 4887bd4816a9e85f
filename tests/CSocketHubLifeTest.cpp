// The endpoint with many peers: its starts, ends and hard times.
#include "libQuorCore/CSocketHub.h"

#include "support/CChild.h"
#include "support/CLogLevel.h"
#include "support/COpenHub.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/CTestEndpoint.h"
#include "support/CTestThread.h"
#include "support/Frames.h"
#include "support/LogLines.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
using eGone = CSocketHub::eGone;
using peer_t = CSocketHub::peer_t;
using peerId_t = CSocketHub::peerId_t;

constexpr long kDataMax = 1000;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kNeedsDescriptors = true;
#else
constexpr bool kNeedsDescriptors = false;
#endif
constexpr const char* kNeedsDescriptorsReason =
    "the sanitizer looks at an object by a pipe of its own, and takes none for a bad object";

/// @param iPort  One of iFreePort(), where it is to be bound again: while nobody listens the kernel
///               may give one of its own choice to others, or to who tries to connect.
bool bStart(CSocketHub& hub, int iPort = 0)
{
    hub.Configure(iPort, kDataMax, "tools");
    return hub.iCreateThread(true, kStartLimitMs) == 0 &&
           bAwait([&] { return hub.bGetConnected(); });
}

bool bAnswersAPing(CTcpPeer& peer)
{
    return peer.bSend(FrameBytes(CMD_COMMUN_PING, "are you there?")) &&
           ReceiveFrame(peer).szData == "are you there?";
}

bool bServes(CSocketHub& hub)
{
    CTcpPeer peer;
    return peer.bConnect(hub.iListeningPort()) && bAnswersAPing(peer);
}

/// Lets this process have so many more descriptors than it has.
void AllowDescriptors(int nMore)
{
    int iLimit = 0; // numbers below it are given, and some of them are taken
    while (nMore > 0 || fcntl(iLimit, F_GETFD) != -1) {
        nMore -= fcntl(iLimit, F_GETFD) == -1 ? 1 : 0;
        ++iLimit;
    }
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(iLimit);
    setrlimit(RLIMIT_NOFILE, &limit);
}

void AllowAllDescriptors()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// @return CPU time that a thread has used, in ms.
long lCpuMs(pthread_t thread)
{
    clockid_t clock = 0;
    timespec used = {};
    pthread_getcpuclockid(thread, &clock);
    clock_gettime(clock, &used);
    return used.tv_sec * 1000L + used.tv_nsec / 1000000L;
}

/// Ends what it is told of, from outside, while a test goes on.
class CBackground
{
public:
    template <class Function>
    void Add(Function function)
    {
        m_threads.emplace_back([this, function] {
            while (!m_bEnd) {
                function();
            }
        });
    }
    ~CBackground()
    {
        m_bEnd = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

private:
    std::atomic<bool> m_bEnd{false};
    std::vector<std::thread> m_threads;
};
} // namespace

TEST(ASocketHubsLife, DoesNotBeginUnconfigured)
{
    const CLogLevel level;
    COpenHub hub;
    hub.SetLogLevel(LOG_DEBUG);
    EXPECT_EQ(-1, hub.iCreateThread(true, kStartLimitMs));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "hub has not been configured"));
    EXPECT_TRUE(bStart(hub));
}

TEST(ASocketHubsLife, EndsInAnyOrder)
{
    COpenHub hub;
    EXPECT_EQ(0, hub.iStop(true, false)) << "before it has begun";
    ASSERT_TRUE(bStart(hub));
    EXPECT_EQ(0, hub.iStop(false, false));
    EXPECT_EQ(0, hub.iStop(true, false));
    EXPECT_EQ(0, hub.iStop(true, true));
    EXPECT_EQ(-1, hub.iListeningPort());
    EXPECT_FALSE(hub.bGetConnected());
    ASSERT_TRUE(bStart(hub));
    EXPECT_TRUE(bServes(hub));
}

TEST(ASocketHubsLife, BindsTheSamePortAgainAtOnceAThousandTimes)
{
    COpenHub hub;
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    const size_t nBefore = nOpenDescriptors();
    for (int i = 0; i < nRounds(1000); ++i) {
        CTcpPeer peer;
        ASSERT_TRUE(peer.bConnect(iPort));
        ASSERT_TRUE(bAnswersAPing(peer));
        ASSERT_EQ(0, hub.iStop(true, false)); // closes first, which leaves TIME_WAIT behind
        ASSERT_TRUE(peer.bReceiveEof());
        ASSERT_EQ(0U, hub.nPeers());
        ASSERT_TRUE(bStart(hub, iPort));
        ASSERT_EQ(iPort, hub.iListeningPort());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST(ASocketHubsLife, LeavesNoDescriptorBehind)
{
    const CTempDirectory directory;
    const CLogLevel level;
    const size_t nBefore = nOpenDescriptors();
    for (int i = 0; i < nRounds(200); ++i) {
        COpenHub hub;
        hub.SetUnixPath(directory.szPath("hub").c_str());
        ASSERT_TRUE(bStart(hub));
        CTcpPeer local;
        CTcpPeer remote;
        ASSERT_TRUE(local.bConnectUnix(directory.szPath("hub")));
        ASSERT_TRUE(remote.bConnect(hub.iListeningPort()));
        ASSERT_TRUE(bAnswersAPing(local));
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_FALSE(std::filesystem::exists(directory.szPath("hub")));
}

TEST(ASocketHubsLife, HasDescriptorsThatNoProgramInherits)
{
    const CTempDirectory directory;
    COpenHub hub;
    hub.SetUnixPath(directory.szPath("hub").c_str());
    std::vector<int> before;
    for (int iFd = 0; iFd < 1024; ++iFd) {
        if (fcntl(iFd, F_GETFD) != -1) {
            before.push_back(iFd);
        }
    }
    ASSERT_TRUE(bStart(hub));
    CTcpPeer local;
    CTcpPeer remote;
    ASSERT_TRUE(local.bConnectUnix(directory.szPath("hub")));
    ASSERT_TRUE(remote.bConnect(hub.iListeningPort()));
    ASSERT_TRUE(bAwait([&] { return hub.nPeers() == 2; }));
    int nNew = 0;
    for (int iFd = 0; iFd < 1024; ++iFd) {
        const int iFlags = fcntl(iFd, F_GETFD);
        if (iFlags != -1 && std::find(before.begin(), before.end(), iFd) == before.end()) {
            EXPECT_NE(0, iFlags & FD_CLOEXEC) << iFd;
            ++nNew;
        }
    }
    EXPECT_GE(nNew, 2 + 2 + 1 + 2) << "listeners, peers, epoll, and the test's own ends";
}

TEST(ASocketHubsLife, GoesOnUnderLoad)
{
    COpenHub hub;
    hub.SetSendLimit(20000);
    hub.m_OnFrame = [&](socketFrame_t* pFrame) {
        hub.iAnswer(hub.pAskingPeer()->id, pFrame);
        hub.iPushAll(999, pFrame->pGetData(), pFrame->GetDataSize());
    };
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    {
        CBackground load;
        for (int i = 0; i < 2; ++i) {
            load.Add([iPort] { // comes, talks, leaves
                CTcpPeer peer;
                if (peer.bConnect(iPort, 100)) {
                    peer.bSend(FrameBytes(COpenHub::kHandled, std::string(500, 'x')), 100);
                    peer.szReceive(520, 100);
                    peer.bSend("garbage", 100);
                }
            });
        }
        load.Add([iPort] { // asks and never reads
            CTcpPeer peer;
            if (peer.bConnect(iPort, 100)) {
                while (peer.bSend(FrameBytes(COpenHub::kHandled, std::string(900, 'y')), 100)) {
                }
            }
        });
        load.Add([&hub] { // pushes, and drops whomever it finds
            for (const peer_t& peer : hub.Peers()) {
                uint8_t aData[100] = {};
                hub.iPush(peer.id, 998, aData, sizeof(aData));
            }
            hub.iPushAll(997, nullptr, 0);
            const std::vector<peer_t> peers = hub.Peers();
            if (!peers.empty()) {
                hub.bDropPeer(peers.front().id);
            }
        });
        load.Add([&hub] { // registers and removes handlers
            hub.pAddCallback(4000, new CSocketCallback<CSocketHub>(&hub, nullptr));
            hub.RemoveEvent(4000);
        });
        for (int i = 0; i < nRounds(100); ++i) {
            ASSERT_EQ(0, hub.iStop(true, false));
            ASSERT_TRUE(bStart(hub, iPort));
        }
    }
    EXPECT_TRUE(bServes(hub));
}

TEST(ASocketHubsLife, EndsWithItsObjectUnderLoad)
{
    for (int i = 0; i < nRounds(100); ++i) {
        auto pHub = std::make_unique<COpenHub>();
        ASSERT_TRUE(bStart(*pHub));
        const int iPort = pHub->iListeningPort();
        CBackground load;
        load.Add([iPort] {
            CTcpPeer peer;
            if (peer.bConnect(iPort, 100)) {
                peer.bSend(FrameBytes(CMD_COMMUN_PING, "x"), 100);
                peer.szReceive(21, 100);
            }
        });
        ASSERT_TRUE(bAwait([&] { return !pHub->Gone().empty(); }));
        pHub.reset();
    }
}

TEST(ASocketHubsLife, IsOneLoopAtATime)
{
    CDoor inHook;
    CDoor mayGoOn;
    COpenHub hub;
    hub.m_OnCame = [&](const peer_t&) {
        inHook.Open();
        EXPECT_TRUE(mayGoOn.bPass());
    };
    ASSERT_TRUE(bStart(hub));
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(hub.iListeningPort()));
    ASSERT_TRUE(inHook.bPass());
    hub.iStop(false, false);
    EXPECT_EQ(0, hub.iCreateThread(false, 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to do wrong
    EXPECT_FALSE(hub.m_bRun);
    mayGoOn.Open();
    EXPECT_TRUE(hub.bAwaitGone(eGone::STOPPED)) << "the first one did not go on";
    EXPECT_TRUE(bAwait([&] { return hub.bGetConnected(); }));
}

TEST(ASocketHubsLife, EndsBetweenTwoFramesHoweverManyHaveCome)
{
    constexpr int kFrames = 3000;
    CDoor inHandler;
    std::atomic<int> nHandled{0};
    COpenHub hub;
    hub.m_OnFrame = [&](socketFrame_t*) {
        ++nHandled;
        inHandler.Open();
        hub.Sleep(10);
    };
    ASSERT_TRUE(bStart(hub));
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(hub.iListeningPort()));
    std::string szAll;
    for (int i = 0; i < kFrames; ++i) {
        szAll += FrameBytes(COpenHub::kHandled);
    }
    ASSERT_TRUE(peer.bSend(szAll));
    ASSERT_TRUE(inHandler.bPass());
    hub.iStop(true, false);
    EXPECT_LT(nHandled, kFrames / 2);
    EXPECT_TRUE(hub.bAwaitGone(eGone::STOPPED)) << "it was not cancelled";
}

TEST(ASocketHubsLife, GoesOnAfterACancellation)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    std::atomic<bool> bNobodyAsks{true};
    CDoor inHandler;
    COpenHub hub;
    hub.m_OnFrame = [&](socketFrame_t*) {
        inHandler.Open();
        pause();
    };
    hub.m_OnCame = [&](const peer_t&) { bNobodyAsks = hub.pAskingPeer() == nullptr; };
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    const size_t nBefore = nOpenDescriptors();
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(iPort));
    ASSERT_TRUE(peer.bSend(FrameBytes(COpenHub::kHandled)));
    ASSERT_TRUE(inHandler.bPass());
    hub.iStop(true, true);
    EXPECT_TRUE(peer.bReceiveEof());
    EXPECT_EQ(0U, hub.nPeers());
    hub.RemoveAllCallback(); // a cancelled thread leaves them
    ASSERT_TRUE(bStart(hub, iPort));
    ASSERT_TRUE(peer.bConnect(iPort));
    ASSERT_TRUE(bAnswersAPing(peer));
    EXPECT_TRUE(bNobodyAsks) << "the peer that asked when it was cancelled is long gone";
    ASSERT_TRUE(peer.bSend(FrameBytes(CMD_COMMUN_PING, "again")));
    EXPECT_EQ("again", ReceiveFrame(peer).szData) << "each ping is answered once";
    peer.Close();
    EXPECT_TRUE(hub.bAwaitGone(eGone::CLOSED)); // told once its descriptor is closed
    EXPECT_EQ(0U, hub.nPeers());
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST(ASocketHubsLife, IsForcedToEndBetweenTwoFramesByItself)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    COpenHub hub;
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    CTcpPeer peer;
    ASSERT_TRUE(peer.bConnect(iPort));
    ASSERT_TRUE(bAnswersAPing(peer));
    hub.iStop(true, true);
    EXPECT_TRUE(hub.bAwaitGone(eGone::STOPPED)) << "its loop was cancelled";
    EXPECT_TRUE(peer.bReceiveEof());
    ASSERT_TRUE(bStart(hub, iPort));
    EXPECT_TRUE(bServes(hub));
}

TEST(ASocketHubsLife, SurvivesCancellationsUnderLoad)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    COpenHub hub;
    hub.m_OnFrame = [&](socketFrame_t* pFrame) { hub.iAnswer(hub.pAskingPeer()->id, pFrame); };
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    const size_t nBefore = nOpenDescriptors();
    {
        CBackground load;
        for (int i = 0; i < 2; ++i) {
            load.Add([iPort] {
                CTcpPeer peer;
                if (peer.bConnect(iPort, 100)) {
                    peer.bSend(FrameBytes(COpenHub::kHandled, "x"), 100);
                    peer.szReceive(21, 100);
                }
            });
        }
        load.Add([&hub] { hub.iPushAll(997, nullptr, 0); });
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(0, hub.iStop(true, true));
            ASSERT_TRUE(bStart(hub, iPort));
        }
    }
    EXPECT_TRUE(bServes(hub));
    EXPECT_TRUE(bAwait([&] { return nOpenDescriptors() == nBefore; }));
}

TEST(ASocketHubsLife, EndsWithItsObjectDeletedByItself)
{
    class CGone : public COpenHub
    {
    public:
        explicit CGone(CDoor& gone) : m_Gone(gone) {}
        ~CGone() override
        {
            EndThread();
            m_Gone.Open();
        }

    private:
        CDoor& m_Gone;
    };
    const CLogLevel level;
    const size_t nBefore = nOpenDescriptors();
    for (int i = 0; i < nRounds(100); ++i) {
        CDoor gone;
        auto* const pHub = new CGone(gone);
        pHub->SetAutoDelete(true);
        ASSERT_TRUE(bStart(*pHub));
        CTcpPeer peer;
        ASSERT_TRUE(peer.bConnect(pHub->iListeningPort()));
        ASSERT_TRUE(bAnswersAPing(peer));
        EXPECT_EQ(0, pHub->iStop(true, false));
        ASSERT_TRUE(gone.bPass());
        EXPECT_TRUE(peer.bReceiveEof());
    }
    EXPECT_TRUE(bAwait([&] { return nOpenDescriptors() == nBefore; }));
}

TEST(ASocketHubsLife, GoesOnBesideAChildThatKeepsItsDescriptors)
{
    COpenHub hub;
    const int iPort = iFreePort();
    ASSERT_TRUE(bStart(hub, iPort));
    CTcpPeer peer;
    CTcpPeer other;
    ASSERT_TRUE(peer.bConnect(iPort));
    ASSERT_TRUE(other.bConnect(iPort));
    ASSERT_TRUE(bAnswersAPing(peer));
    ASSERT_TRUE(bAnswersAPing(other));
    CChild child([] {
        pause();
        return 0;
    });
    peer.Close(); // in this process, which is half of it
    ASSERT_TRUE(hub.bDropPeer(hub.Peers().back().id));
    EXPECT_TRUE(other.bReceiveEof()) << "though the child has the connection, too";
    EXPECT_TRUE(hub.bAwaitGone(eGone::DROPPED));
    const long lBeforeMs = lCpuMs(hub.iGetThreadId());
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // to see whether it is busy
    EXPECT_LT(lCpuMs(hub.iGetThreadId()) - lBeforeMs, 150);
    hub.iStop(true, false);
    COpenHub next;
    ASSERT_TRUE(bStart(next, iPort)) << "the port is free, though the child has the socket";
    EXPECT_TRUE(bServes(next));
}

TEST(ASocketHubsLife, GoesOnWhenDescriptorsRunOut)
{
    if (kNeedsDescriptors) {
        GTEST_SKIP() << kNeedsDescriptorsReason;
    }
    const ChildResult result = RunInChild([] {
        CDoor mayAccept;
        COpenHub hub;
        CTcpPeer first;
        std::vector<std::unique_ptr<CTcpPeer>> crowd;
        hub.m_OnCame = [&](const peer_t&) { mayAccept.bPass(); };
        if (!bStart(hub) || !first.bConnect(hub.iListeningPort())) {
            return 1;
        }
        for (int i = 0; i < 5; ++i) { // the kernel takes them while the hub is busy
            crowd.push_back(std::make_unique<CTcpPeer>());
            if (!crowd.back()->bConnect(hub.iListeningPort()) ||
                !crowd.back()->bSend(FrameBytes(CMD_COMMUN_PING, "hello"))) {
                return 2;
            }
        }
        if (!bAwait([&] { return hub.nPeers() == 1; })) {
            return 3;
        }
        AllowDescriptors(2);
        mayAccept.Open();
        if (!bAwait([&] { return hub.nPeers() == 3; }) || !bAnswersAPing(first)) {
            return 4;
        }
        const long lBeforeMs = lCpuMs(hub.iGetThreadId());
        const CDeadline aWhile(600);
        while (!aWhile.bPassed()) {
            if (!bAnswersAPing(first)) { // who is there is served
                return 5;
            }
            usleep(20000);
        }
        if (lCpuMs(hub.iGetThreadId()) - lBeforeMs > 300) {
            return 6; // it is busy
        }
        AllowAllDescriptors();
        for (auto& pPeer : crowd) {
            if (ReceiveFrame(*pPeer).szData != "hello") {
                return 7;
            }
        }
        return hub.nPeers() == 6 ? 0 : 8;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

TEST(ASocketHubsLife, LogsOnceThatDescriptorsHaveRunOut)
{
    if (kNeedsDescriptors) {
        GTEST_SKIP() << kNeedsDescriptorsReason;
    }
    CSyslogReceiver::Get().Clear();
    const ChildResult result = RunInChild([] {
        const CLogLevel level;
        COpenHub hub;
        CTcpPeer peer;
        hub.SetLogLevel(LOG_DEBUG);
        if (!bStart(hub)) {
            return 1;
        }
        AllowDescriptors(1);
        if (!peer.bConnect(hub.iListeningPort()) ||
            !bAwaitLogged(LOG_ERR, "no peer is taken for now: Too many open files")) {
            return 2;
        }
        const CDeadline severalTries(1200);
        while (!severalTries.bPassed()) {
            usleep(10000);
        }
        AllowAllDescriptors();
        return bAnswersAPing(peer) ? 0 : 3;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(1U, CSyslogReceiver::Get().Count("no peer is taken for now"));
}

TEST(ASocketHubsLife, BeginsThoughItWasMadeWhenThereWereNoDescriptors)
{
    if (kNeedsDescriptors) {
        GTEST_SKIP() << kNeedsDescriptorsReason;
    }
    const ChildResult result = RunInChild([] {
        AllowDescriptors(0);
        COpenHub hub;
        AllowAllDescriptors();
        if (!bStart(hub) || !bServes(hub)) {
            return 1;
        }
        hub.iStop(true, false);
        return hub.bGetConnected() ? 2 : 0;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

TEST(ASocketHubsLife, GoesOnThroughAFloodOfConnections)
{
    COpenHub hub;
    hub.SetPeersMax(20);
    ASSERT_TRUE(bStart(hub));
    const int iPort = hub.iListeningPort();
    CTcpPeer friendly;
    ASSERT_TRUE(friendly.bConnect(iPort));
    ASSERT_TRUE(bAnswersAPing(friendly));
    CBackground flood;
    for (int i = 0; i < 3; ++i) {
        flood.Add([iPort] {
            std::vector<std::unique_ptr<CTcpPeer>> peers;
            for (int k = 0; k < 50; ++k) {
                peers.push_back(std::make_unique<CTcpPeer>());
                peers.back()->bConnect(iPort, 100);
            }
        });
    }
    for (int i = 0; i < nRounds(500); ++i) {
        ASSERT_TRUE(bAnswersAPing(friendly));
        ASSERT_LE(hub.nPeers(), 20U);
    }
}
