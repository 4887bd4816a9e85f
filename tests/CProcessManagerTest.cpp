#include "libQuorCore/CProcessManager.h"

#include "support/CDeadline.h"
#include "support/CWatchedProcess.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr const char* kForEver = "exec sleep 1000";
constexpr pid_t kPid = 5000000; // and above are nobody's: the kernel's numbers end at 4194304
constexpr int kNotYetMs = 50;   // for what must not happen: it costs every run

/// Lets a test look at the list.
class CShownManager : public CProcessManager
{
public:
    CShownManager() : CProcessManager(nullptr, "manager") {}
    std::vector<CProcess*> Listed()
    {
        m_Lock.iLock();
        const std::vector<CProcess*> listed(m_listProcess.begin(), m_listProcess.end());
        m_Lock.UnLock();
        return listed;
    }
    void ListNull() { m_listProcess.push_back(nullptr); }
    bool bFree() ///< Whether another thread could take the lock.
    {
        bool bTaken = false;
        std::thread([&] {
            bTaken = m_Lock.iTryLock(0) == 0;
            if (bTaken) {
                m_Lock.UnLock();
            }
        }).join();
        return bTaken;
    }
};

using list_t = std::vector<CProcess*>;

class AProcessManager : public ::testing::Test
{
protected:
    AProcessManager()
    {
        m_First.SetPid(kPid + 1); // no children: nobody may stop or poll them
        m_Second.SetPid(kPid + 2);
    }
    void TearDown() override
    {
        m_First.SetPid(-1);
        m_Second.SetPid(-1);
    }
    CShownManager m_Manager;
    CWatchedProcess m_First;
    CWatchedProcess m_Second;
};

TEST_F(AProcessManager, ListsProcessesAndBecomesTheirParent)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(nullptr);
    m_Manager.AddNewProcess(&m_Second);
    EXPECT_EQ((list_t{&m_First, &m_Second}), m_Manager.Listed());
    EXPECT_EQ(&m_Manager, m_First.pGetParent());
    EXPECT_EQ("/manager/watched", m_First.szGetFullName());
}

TEST_F(AProcessManager, FindsTheFirstProcessWithAPid)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    EXPECT_EQ(&m_First, m_Manager.pGetProcess(kPid + 1));
    EXPECT_EQ(&m_Second, m_Manager.pGetProcess(kPid + 2));
    EXPECT_EQ(nullptr, m_Manager.pGetProcess(kPid + 3));
    m_Second.SetPid(kPid + 1);
    EXPECT_EQ(&m_First, m_Manager.pGetProcess(kPid + 1));
}

TEST_F(AProcessManager, RemovesAProcessByItsPid)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    m_Manager.AddNewProcess(&m_First); // listed twice: both entries go
    m_Manager.RemoveProcess(kPid + 1);
    EXPECT_EQ((list_t{&m_Second}), m_Manager.Listed());
    m_Manager.RemoveProcess(kPid + 3);
    EXPECT_EQ((list_t{&m_Second}), m_Manager.Listed());
}

TEST_F(AProcessManager, RemovesTheFirstOfProcessesWithOnePid)
{
    m_Second.SetPid(kPid + 1);
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    m_Manager.RemoveProcess(kPid + 1);
    EXPECT_EQ((list_t{&m_Second}), m_Manager.Listed());
}

TEST_F(AProcessManager, RemovesAProcess)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    m_Manager.RemoveProcess(&m_First);
    m_Manager.RemoveProcess(&m_First);
    m_Manager.RemoveProcess(static_cast<CProcess*>(nullptr));
    EXPECT_EQ((list_t{&m_Second}), m_Manager.Listed());
}

TEST_F(AProcessManager, EmptiesItsListAndDeletesNothing)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    m_Manager.RemoveAll();
    EXPECT_TRUE(m_Manager.Listed().empty());
    EXPECT_EQ(kPid + 1, m_First.iGetPID());
    EXPECT_EQ(0, m_First.nStops() + m_First.nLosts());
}

TEST_F(AProcessManager, TellsAProcessOfItsEnd)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_Second);
    m_Manager.LostProcess(kPid + 2, 3 << 8);
    m_Manager.LostProcess(kPid + 3, 4 << 8);
    EXPECT_EQ(0, m_First.nLosts());
    EXPECT_EQ(1, m_Second.nLosts());
    EXPECT_EQ(3, m_Second.iGetLastExitCode());
    EXPECT_EQ(-1, m_Second.iGetPID());
    EXPECT_TRUE(m_Manager.bLoseProcess(kPid + 1, 0));
    EXPECT_FALSE(m_Manager.bLoseProcess(kPid + 1, 0));
}

TEST_F(AProcessManager, PassesOverEmptyEntries)
{
    m_Manager.ListNull();
    m_Manager.AddNewProcess(&m_First);
    EXPECT_EQ(&m_First, m_Manager.pGetProcess(kPid + 1));
    m_Manager.LostProcess(kPid + 1, 0);
    EXPECT_EQ(1, m_First.nLosts());
    m_Manager.StopAll(true);
    m_Manager.RemoveAll();
}

TEST_F(AProcessManager, TakesAProcessOverFromAnother)
{
    CShownManager other;
    other.AddNewProcess(&m_First);
    m_Manager.AddNewProcess(&m_First);
    EXPECT_TRUE(other.Listed().empty());
    EXPECT_EQ((list_t{&m_First}), m_Manager.Listed());
}

TEST_F(AProcessManager, ForgetsAProcessThatIsDestroyed)
{
    {
        CWatchedProcess watched;
        CProcess plain(nullptr, "plain");
        m_Manager.AddNewProcess(&watched);
        m_Manager.AddNewProcess(&plain);
        m_Manager.AddNewProcess(&m_First);
    }
    EXPECT_EQ((list_t{&m_First}), m_Manager.Listed());
}

TEST_F(AProcessManager, MayGoBeforeItsProcesses)
{
    CProcess outliving(nullptr, "outliving");
    auto pManager = std::make_unique<CShownManager>();
    pManager->AddNewProcess(&outliving);
    pManager.reset(); // the sanitizers watch what the process does with it at its end
    EXPECT_EQ(-1, outliving.iGetPID());
}

TEST_F(AProcessManager, StopsEveryProcessInTheOrderOfTheList)
{
    static std::vector<CProcess*> s_stopped;
    class CStopped : public CWatchedProcess
    {
    public:
        void OnStop() override
        {
            s_stopped.push_back(this);
            CWatchedProcess::OnStop();
        }
    };
    CStopped first;
    CStopped idle;
    CStopped last;
    m_Manager.AddNewProcess(&last);
    m_Manager.AddNewProcess(&idle);
    m_Manager.AddNewProcess(&first);
    first.Start(kForEver);
    last.Start(kForEver);
    m_Manager.StopAll(true);
    EXPECT_EQ((list_t{&last, &first}), s_stopped);
    EXPECT_EQ(-1, first.iGetPID());
    EXPECT_EQ(1, first.nLosts());
    EXPECT_EQ(0, idle.nStops());
    EXPECT_EQ(3U, m_Manager.Listed().size());
}

TEST_F(AProcessManager, DoesNotWaitForTheStopsUnlessTold)
{
    CWatchedProcess process;
    m_Manager.AddNewProcess(&process);
    process.Start("trap '' TERM; while :; do sleep 1; done");
    const pid_t pid = process.iGetPID();
    ASSERT_GT(pid, 0);
    m_Manager.StopAll(false);
    EXPECT_EQ(1, process.nStops());
    EXPECT_EQ(0, process.nLosts());
    kill(pid, SIGKILL);
    EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
}

/// Holds the calls into it until the test lets them go on.
class CHeldProcess : public CWatchedProcess
{
public:
    ~CHeldProcess() override { Leave(); }
    void OnLost(int iStatus) override
    {
        Hold();
        CWatchedProcess::OnLost(iStatus);
    }
    void OnStop() override
    {
        Hold();
        CWatchedProcess::OnStop();
    }
    bool bAwaitInside()
    {
        return bAwait([this] { return m_bInside.load(); });
    }
    static void LetGo(bool bOn = true) { s_bLetGo = bOn; }

private:
    void Hold()
    {
        m_bInside = true;
        EXPECT_TRUE(bAwait([] { return s_bLetGo.load(); }));
    }
    std::atomic<bool> m_bInside{false};
    static std::atomic<bool> s_bLetGo;
};
std::atomic<bool> CHeldProcess::s_bLetGo{false};

class AManagerInUse : public AProcessManager
{
protected:
    AManagerInUse()
    {
        CHeldProcess::LetGo(false);
        m_pHeld->SetPid(kPid + 20);
        m_Manager.AddNewProcess(m_pHeld.get());
        m_User = std::thread([this] { m_Manager.LostProcess(kPid + 20, 0); });
        EXPECT_TRUE(m_pHeld->bAwaitInside());
    }
    ~AManagerInUse() override { m_User.join(); }

    /// Runs a function on a thread and tells whether it waits until the call is over.
    bool bWaitsForTheCall(const std::function<void()>& function)
    {
        std::atomic<bool> bDone{false};
        std::thread caller([&] {
            function();
            bDone = true;
        });
        const bool bTooEarly = bAwait([&] { return bDone.load(); }, kNotYetMs);
        CHeldProcess::LetGo();
        caller.join();
        return !bTooEarly;
    }

    std::unique_ptr<CHeldProcess> m_pHeld = std::make_unique<CHeldProcess>();
    std::thread m_User;
};

TEST_F(AManagerInUse, HoldsNoLockOverACall)
{
    EXPECT_TRUE(m_Manager.bFree());
    EXPECT_EQ(m_pHeld.get(), m_Manager.pGetProcess(kPid + 20));
    CHeldProcess::LetGo();
}

TEST_F(AManagerInUse, LetsAProcessGoWhenTheCallIsOver)
{
    EXPECT_TRUE(bWaitsForTheCall([this] { m_Manager.RemoveProcess(m_pHeld.get()); }));
    EXPECT_EQ(1, m_pHeld->nLosts());
}

TEST_F(AManagerInUse, LetsAPidGoWhenTheCallIsOver)
{
    EXPECT_TRUE(bWaitsForTheCall([this] { m_Manager.RemoveProcess(kPid + 20); }));
}

TEST_F(AManagerInUse, EmptiesItsListWhenTheCallIsOver)
{
    EXPECT_TRUE(bWaitsForTheCall([this] { m_Manager.RemoveAll(); }));
}

TEST_F(AManagerInUse, LetsAProcessBeDestroyedWhenTheCallIsOver)
{
    EXPECT_TRUE(bWaitsForTheCall([this] { m_pHeld.reset(); }));
    EXPECT_TRUE(m_Manager.Listed().empty());
}

TEST_F(AManagerInUse, LetsOtherProcessesGoMeanwhile)
{
    m_Manager.AddNewProcess(&m_First);
    m_Manager.RemoveProcess(&m_First);
    EXPECT_EQ(1U, m_Manager.Listed().size());
    CHeldProcess::LetGo();
}

TEST_F(AProcessManager, MayBeLeftByAProcessThatHearsOfItsEnd)
{
    class CLeaving : public CWatchedProcess
    {
    public:
        void OnLost(int iStatus) override
        {
            CWatchedProcess::OnLost(iStatus);
            Leave();
        }
    };
    CLeaving leaving;
    leaving.SetPid(kPid + 21);
    m_Manager.AddNewProcess(&leaving);
    m_Manager.LostProcess(kPid + 21, 0);
    EXPECT_EQ(1, leaving.nLosts());
    EXPECT_TRUE(m_Manager.Listed().empty());
}

TEST_F(AProcessManager, MayHaveAProcessThatDeletesItselfAtItsEnd)
{
    static std::atomic<int> s_nDeleted{0};
    class CSelfDeleting : public CProcess
    {
    public:
        CSelfDeleting() : CProcess(nullptr, "self") { m_pid = kPid + 22; }
        ~CSelfDeleting() override { ++s_nDeleted; }
        void OnLost(int iStatus) override
        {
            CProcess::OnLost(iStatus);
            delete this;
        }
    };
    m_Manager.AddNewProcess(new CSelfDeleting);
    m_Manager.LostProcess(kPid + 22, 0);
    EXPECT_EQ(1, s_nDeleted);
    EXPECT_TRUE(m_Manager.Listed().empty());
}

TEST_F(AProcessManager, IsUsedByManyThreadsAtOnce)
{
    std::atomic<int> nLosts{0};
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < 4; ++iThread) {
        threads.emplace_back([&, iThread] {
            for (int i = 0; i < 500; ++i) {
                CWatchedProcess process;
                const pid_t pid = kPid + 100 + iThread * 1000 + i;
                process.SetPid(pid);
                m_Manager.AddNewProcess(&process);
                m_Manager.LostProcess(pid, 0);
                m_Manager.pGetProcess(pid);
                nLosts += process.nLosts();
            }
        });
    }
    m_Manager.RemoveProcess(1);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2000, nLosts);
    EXPECT_TRUE(m_Manager.Listed().empty());
}
} // namespace
