#include "libQuorCore/CCoreApp.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CTestApp.h"
#include "support/CWatchedProcess.h"
#include "support/CallFilter.h"
#include "support/Files.h"
#include "support/Sanitized.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr long kSigtimedwaitTime64 = 421;         // of 32-bit machines, the same on all
constexpr int kSeriesLimitMs = 4 * kAwaitLimitMs; // for programs by the hundred

class ACoreApp : public CAppTest
{
};

// Signals.

class AWaitingApp : public ACoreApp
{
protected:
    void SetUp() override
    {
        ACoreApp::SetUp();
        ASSERT_EQ(0, m_App.iInitInstance());
        m_App.SetRun(true);
    }

    /// Waits until the main thread is in the wait for signals itself.
    void AwaitWait() const
    {
        const std::string szPath = "/proc/self/task/" + std::to_string(getpid()) + "/syscall";
        EXPECT_TRUE(bAwait([&] {
            const std::string szCall = szReadFile(szPath); // "running", or number and arguments
            const long iCall = std::strtol(szCall.c_str(), nullptr, 10);
            return iCall == SYS_rt_sigtimedwait || iCall == kSigtimedwaitTime64;
        }));
    }

    /// Runs a function beside the main thread's wait for signals.
    void ProcessSignalWhile(const std::function<void()>& function)
    {
        std::thread other([&] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            function();
        });
        m_App.ProcessSignal();
        other.join();
    }

    CTestApp m_App{{}, m_szConfig};
};

TEST_F(AWaitingApp, EndsAtOnce)
{
    for (const int iSignal : {SIGTERM, SIGQUIT}) {
        ProcessSignalWhile([=] {
            AwaitWait();
            kill(getpid(), iSignal);
        });
    }
    EXPECT_EQ(0, m_App.nMonitorings());
}

TEST_F(AWaitingApp, EndsWhenTheSignalWasBlocked)
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    raise(SIGTERM);
    m_App.ProcessSignal(); // unblocks what it waits for
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    for (const int iSignal : {SIGQUIT, SIGTERM, SIGCHLD, SIGRTMIN + 6}) {
        EXPECT_EQ(0, sigismember(&now, iSignal));
    }
    EXPECT_EQ(1, sigismember(&now, SIGUSR1));
    sigemptyset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
}

TEST_F(AWaitingApp, EndsForASignalThatCameBefore)
{
    for (const int iSignal : {SIGTERM, SIGQUIT}) {
        raise(iSignal);
        m_App.ProcessSignal();
    }
    EXPECT_EQ(0, m_App.nMonitorings());
}

TEST_F(AWaitingApp, EndsForASignalAtAnyMoment)
{
    for (int i = 0; i < 200; ++i) {
        m_App.SetRun(true);
        ProcessSignalWhile([=] {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 3));
            kill(getpid(), i % 2 == 0 ? SIGTERM : SIGQUIT);
        });
    }
    EXPECT_EQ(0, m_App.nMonitorings());
}

TEST_F(AWaitingApp, EndsForASignalDuringItsSupervision)
{
    m_App.m_monitoring = [] {
        raise(SIGTERM);
        return 0;
    };
    raise(SIGRTMIN + 6);
    m_App.ProcessSignal();
    EXPECT_EQ(1, m_App.nMonitorings());
}

TEST_F(AWaitingApp, EndsForASignalInThePauseAfterItsSupervision)
{
    for (int i = 0; i < 10; ++i) {
        std::atomic<bool> bPausing{false};
        m_App.SetRun(true);
        m_App.m_monitoring = [&] {
            bPausing = true;
            return 0;
        };
        raise(SIGRTMIN + 6);
        ProcessSignalWhile([&] {
            EXPECT_TRUE(bAwait([&] { return bPausing.load(); }));
            std::this_thread::sleep_for(std::chrono::milliseconds(i));
            kill(getpid(), SIGTERM);
        });
        raise(SIGTERM); // takes the record along that a wait has not seen
        m_App.ProcessSignal();
    }
}

TEST_F(AWaitingApp, EndsForASignalThatAnotherThreadTakes)
{
    for (int i = 0; i < 50; ++i) {
        m_App.SetRun(true);
        std::thread other([=] { // with open signals
            std::this_thread::sleep_for(std::chrono::microseconds(i * 20));
            raise(SIGTERM);
        });
        m_App.ProcessSignal();
        other.join();
    }
    EXPECT_EQ(0, m_App.nMonitorings());
}

TEST_F(AWaitingApp, SupervisesOnceForARequestAndEndsWithItsRunFlag)
{
    m_App.SetRun(false);
    const auto start = std::chrono::steady_clock::now();
    ProcessSignalWhile([=] {
        AwaitWait();
        kill(getpid(), SIGRTMIN + 6);
    });
    EXPECT_EQ(1, m_App.nMonitorings());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

TEST_F(AWaitingApp, DoesNotSuperviseWithoutASignal)
{
    ProcessSignalWhile([=] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2200)); // two slices of the wait
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(0, m_App.nMonitorings());
}

TEST_F(AWaitingApp, LearnsOfAChildThatEndsMeanwhileAndSupervises)
{
    CWatchedProcess process;
    CPipe in;
    CCoreApp::m_ProcessManager.AddNewProcess(&process);
    process.Start("read line; exit 5", &in);
    std::atomic<int> nLostBefore{-1};
    m_App.m_monitoring = [&] {
        nLostBefore = process.nLosts();
        return 0;
    };
    ProcessSignalWhile([&] {
        AwaitWait();
        in.CloseWrite();
        EXPECT_TRUE(bAwait([&] { return nLostBefore != -1; }));
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(5, process.iGetLastExitCode());
    EXPECT_EQ(-1, process.iGetPID());
    EXPECT_EQ(1, process.nLosts());
    EXPECT_EQ(1, m_App.nMonitorings());
}

TEST_F(AWaitingApp, LearnsOfManyChildren)
{
    std::array<CWatchedProcess, 20> processes;
    for (CWatchedProcess& process : processes) {
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
    }
    ProcessSignalWhile([&] {
        for (CWatchedProcess& process : processes) {
            process.Start("exit 6");
        }
        for (const CWatchedProcess& process : processes) {
            EXPECT_TRUE(bAwait([&] { return process.iGetPID() == -1; }));
        }
        kill(getpid(), SIGTERM);
    });
    for (const CWatchedProcess& process : processes) {
        EXPECT_EQ(6, process.iGetLastExitCode());
        EXPECT_EQ(1, process.nLosts());
    }
}

// Children with the reaper at work.

class AReapedProcess : public ACoreApp
{
protected:
    void SetUp() override
    {
        ACoreApp::SetUp();
        ASSERT_EQ(0, m_App.iInitInstance());
    }

    CTestApp m_App{{}, m_szConfig};
    CWatchedProcess m_Process;
};

TEST_F(AReapedProcess, LearnsOfItsEndByItselfInTheManager)
{
    CCoreApp::m_ProcessManager.AddNewProcess(&m_Process);
    for (int i = 0; i < 50; ++i) {
        m_Process.Start("exit " + std::to_string(i));
        ASSERT_TRUE(bAwait([&] { return m_Process.iGetPID() == -1; }));
        EXPECT_EQ(i, m_Process.iGetLastExitCode());
        EXPECT_EQ(i + 1, m_Process.nLosts());
    }
}

TEST_F(AReapedProcess, LearnsOfItsEndWhenItIsAskedOutsideOfTheManager)
{
    for (int i = 0; i < 50; ++i) {
        m_Process.Start("exit " + std::to_string(i));
        if (i % 2 == 0) {
            EXPECT_EQ(0, m_Process.iWaitForExit(20));
        } else {
            EXPECT_TRUE(bAwait([&] { return !m_Process.bIsRunning(nullptr, 0); }));
        }
        EXPECT_EQ(i, m_Process.iGetLastExitCode());
        EXPECT_EQ(i + 1, m_Process.nLosts());
    }
}

TEST_F(AReapedProcess, LearnsOfItsEndOnceHoweverOftenItIsAsked)
{
    CCoreApp::m_ProcessManager.AddNewProcess(&m_Process);
    for (int i = 0; i < 100; ++i) {
        m_Process.Start("exit 7");
        while (m_Process.bIsRunning(nullptr, 0)) {
        }
        EXPECT_EQ(7, m_Process.iGetLastExitCode());
        EXPECT_TRUE(bAwait([&] { return m_Process.iGetPID() == -1; }));
        EXPECT_EQ(i + 1, m_Process.nLosts());
    }
}

TEST_F(AReapedProcess, IsStoppedWithItsTrueStatus)
{
    for (const bool bListed : {false, true}) {
        if (bListed) {
            CCoreApp::m_ProcessManager.AddNewProcess(&m_Process);
        }
        CPipe out;
        m_Process.Start("trap 'exit 8' TERM; echo ready; while :; do sleep 0.01; done", nullptr,
                        &out);
        char aReady[6] = {};
        ASSERT_EQ(6, out.iReadBytes(aReady, sizeof(aReady)));
        EXPECT_EQ(0, m_Process.iStop(true));
        EXPECT_EQ(8, m_Process.iGetLastExitCode());
    }
    EXPECT_EQ(2, m_Process.nLosts());
    EXPECT_EQ(2, m_Process.nStops());
}

TEST_F(AReapedProcess, LearnsOfAnEndBeforeItCameToTheManager)
{
    for (int i = 0; i < 30; ++i) {
        CWatchedProcess process;
        process.Start("exit 9");
        const pid_t pid = process.iGetPID();
        if (pid > 0) {
            ASSERT_TRUE(bAwait([=] { return kill(pid, 0) == -1; })); // collected
        }
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
        EXPECT_EQ(1, process.nLosts());
        EXPECT_EQ(9, process.iGetLastExitCode());
        EXPECT_EQ(-1, process.iGetPID());
    }
}

TEST_F(AReapedProcess, LearnsOfAnEndWhileItComesToTheManager)
{
    for (int i = 0; i < 200; ++i) {
        CWatchedProcess process;
        process.Start("exit 9");
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
        ASSERT_TRUE(bAwait([&] { return process.iGetPID() == -1; }));
        EXPECT_EQ(1, process.nLosts());
        EXPECT_EQ(9, process.iGetLastExitCode());
    }
}

TEST_F(AReapedProcess, KeepsItsStatusWhenItFindsItselfByName)
{
    const CTempDirectory directory;
    const std::string szProgram = directory.szPath("quorfound");
    WriteFile(szProgram, "#!/bin/sh\nread -r line\nexit 0\n");
    std::filesystem::permissions(szProgram, std::filesystem::perms::owner_all);
    CPipe in;
    CPipe out;
    m_Process.iCreateProcess(false, nullptr, szProgram.c_str(), nullptr, nullptr, &in, &out,
                             nullptr);
    const pid_t pid = m_Process.iGetPID();
    ASSERT_TRUE(bAwait([&] { return m_Process.iFindProcessId("quorfound", true) == pid; }));
    in.CloseWrite();
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(0U, m_Receiver.Count("waitpid error"));
    EXPECT_EQ(0, m_Process.iStatus());
}

TEST_F(AReapedProcess, SignalsNobodyAfterItsEnd)
{
    CPipe in;
    m_Process.Start("read line; exit 1", &in);
    const pid_t pid = m_Process.iGetPID();
    ASSERT_GT(pid, 0);
    in.CloseWrite();
    ASSERT_TRUE(bAwait([=] { return kill(pid, 0) == -1; })); // collected, the number is free
    errno = 0;
    EXPECT_EQ(-1, m_Process.iStop(false));
    EXPECT_EQ(ESRCH, errno);
    EXPECT_EQ(1, m_Process.nStops());
}

TEST_F(ACoreApp, NeverSignalsGroupsForAProcessThatEnds)
{
    if (!bCanFilterCalls()) {
        GTEST_SKIP() << "no filters for system calls here";
    }
    const ChildResult result = RunInChild(
        [] {
            ForbidCall(SYS_kill, 0, 0);
            ForbidCall(SYS_kill, 0x80000000U, 0xffffffffU);
            CTestApp app;
            app.iInitInstance();
            CWatchedProcess process;
            CCoreApp::m_ProcessManager.AddNewProcess(&process);
            for (int i = 0; i < 200; ++i) {
                process.Start("exit 0");
                process.iStop(i % 2 == 0);
            }
            return 42;
        },
        kSeriesLimitMs);
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(42, result.iExitCode);
}

TEST_F(AReapedProcess, MayBeDestroyedWhileItEnds)
{
    for (int i = 0; i < 100; ++i) {
        CWatchedProcess process;
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
        process.Start("exit 0");
        std::this_thread::sleep_for(std::chrono::microseconds(i * 20));
    }
}

TEST_F(AReapedProcess, GivesCommandsTheirTrueStatusInManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kRuns = nRounds(150);
    std::atomic<int> nRight{0};
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < kThreads; ++iThread) {
        threads.emplace_back([&, iThread] {
            for (int i = 0; i < kRuns; ++i) {
                const int iCode = (iThread + i) % 200;
                const std::string szCommand = "exit " + std::to_string(iCode);
                nRight += CProcess::iCmdSystem(szCommand.c_str(), 0, true) == iCode ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(kThreads * kRuns, nRight);
}

TEST_F(AReapedProcess, GivesCommandsTheirTrueStatusWhileTheMainThreadWaits)
{
    std::atomic<int> nRight{0};
    m_App.SetRun(true);
    std::thread other([&] {
        for (int i = 0; i < 50; ++i) {
            nRight += CProcess::iCmdSystem("exit 5", 0, true) == 5 ? 1 : 0;
        }
        kill(getpid(), SIGTERM);
    });
    m_App.ProcessSignal();
    other.join();
    EXPECT_EQ(50, nRight);
}

TEST_F(AReapedProcess, CollectsCommandsThatNobodyWaitsFor)
{
    EXPECT_EQ(0, CProcess::iCmdSystem("exit 5", 0, false));
    EXPECT_TRUE(bAwait([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }));
}

TEST_F(AReapedProcess, StaysUsableAfterThreadsWereCancelled)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "functions of a sanitizer have something to clean up at every instruction";
#endif
    class CBusy : public CThread
    {
    public:
        CBusy() : CThread(nullptr, "busy") {}
        ~CBusy() override { iStop(true, true); }
        long iRunThread() override
        {
            m_bRun = true;
            while (m_bRun) {
                CProcess::iCmdSystem("true", 0, true);
                m_Inner.bIsRunning(nullptr, 0);
                m_Inner.iFindProcessId("no such name", false);
                CCoreApp::m_ProcessManager.pGetProcess(1);
            }
            return 0;
        }
        CWatchedProcess m_Inner;
    };
    for (int i = 0; i < 20; ++i) {
        CBusy busy;
        CCoreApp::m_ProcessManager.AddNewProcess(&busy.m_Inner);
        ASSERT_EQ(0, busy.iCreateThread(true, kAwaitLimitMs));
        std::this_thread::sleep_for(std::chrono::microseconds(i * 211));
        busy.iStop(true, true);
    }
    EXPECT_EQ(3, CProcess::iCmdSystem("exit 3", 0, true));
    m_Process.Start("exit 4");
    EXPECT_EQ(0, m_Process.iWaitForExit(20));
    EXPECT_EQ(4, m_Process.iGetLastExitCode());
}
} // namespace
