#include "libQuorCore/CCoreApp.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTempDirectory.h"
#include "support/CTestApp.h"
#include "support/CWatchedProcess.h"
#include "support/CallFilter.h"
#include "support/Files.h"
#include "support/LogLines.h"
#include "support/Signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr uid_t kNobody = 65534;  // its group, "nogroup", has the same number
constexpr gid_t kDaemonGroup = 1; // "daemon"
constexpr const char* kKillAndNetAdmin = "0000000000001020"; // capabilities 5 and 12

/// A field of a thread's or process's status file, without the blanks around it.
std::string szStatusField(const std::string& szName, const std::string& szTask = "self")
{
    const std::string szStatus = szReadFile("/proc/" + szTask + "/status");
    const size_t iBegin =
        szStatus.find_first_not_of(" \t", szStatus.find("\n" + szName + ":") + szName.size() + 2);
    const std::string szLine = szStatus.substr(iBegin, szStatus.find('\n', iBegin) - iBegin);
    return szLine.substr(0, szLine.find_last_not_of(" \t") + 1);
}

class ACoreApp : public CAppTest
{
};

// Privileges.

class AnUnprivilegedApp : public ACoreApp
{
protected:
    void SetUp() override
    {
        ACoreApp::SetUp();
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root to become another user";
        }
        chmod(m_Directory.szPath().c_str(), 0755);
    }

    /// What identities and capabilities a started application has, in a child.
    std::string szIdentity(const std::string& szUser, const std::string& szGroup)
    {
        const ChildResult result = RunInChild([&] {
            syslog(LOG_DEBUG, "connected");
            CTestApp app;
            app.RunAs(szUser, szGroup);
            const long lResult = app.iInitInstance();
            std::printf("%ld|%s|%s|%s|%s|%s|%s", lResult, szStatusField("Uid").c_str(),
                        szStatusField("Gid").c_str(), szStatusField("Groups").c_str(),
                        szStatusField("CapEff").c_str(), szStatusField("CapPrm").c_str(),
                        szStatusField("CapInh").c_str());
            return 0;
        });
        return result.szOutput;
    }

    static std::string szExpected(int iResult, uid_t uid, gid_t gid, const std::string& szGroups,
                                  const std::string& szCapabilities)
    {
        const std::string szUid = std::to_string(uid);
        const std::string szGid = std::to_string(gid);
        return std::to_string(iResult) + "|" + szUid + "\t" + szUid + "\t" + szUid + "\t" + szUid +
               "|" + szGid + "\t" + szGid + "\t" + szGid + "\t" + szGid + "|" + szGroups + "|" +
               szCapabilities + "|" + szCapabilities + "|" + szCapabilities;
    }
};

TEST_F(AnUnprivilegedApp, HasTheIdsOfItsUserAndTwoCapabilities)
{
    EXPECT_EQ(szExpected(0, kNobody, kNobody, "65534", kKillAndNetAdmin),
              szIdentity("nobody", "nogroup"));
}

TEST_F(AnUnprivilegedApp, HasTheGroupThatItNamesInPlaceOfItsUsersOwn)
{
    EXPECT_EQ(szExpected(0, kNobody, kDaemonGroup, "1", kKillAndNetAdmin),
              szIdentity("nobody", "daemon"));
}

TEST_F(AnUnprivilegedApp, HasItsUsersGroupWithoutAnother)
{
    EXPECT_EQ(szExpected(0, kNobody, kNobody, "65534", kKillAndNetAdmin), szIdentity("nobody", ""));
}

TEST_F(AnUnprivilegedApp, IsWhatItWasForRootAndForNobodyNamed)
{
    const auto szAll = [] {
        std::string szFields;
        for (const char* pszField : {"Uid", "Gid", "Groups", "CapEff", "CapPrm", "CapInh"}) {
            szFields += "|" + szStatusField(pszField);
        }
        return szFields;
    };
    const std::string szBefore = "0" + szAll();
    EXPECT_EQ(szBefore, szIdentity("root", "daemon"));
    EXPECT_EQ(szBefore, szIdentity("", "daemon"));
}

TEST_F(ACoreApp, KeepsItsIdentityForAnUnknownUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give capabilities up";
    }
    const ChildResult result = RunInChild([&] {
        int iLevel = LOG_DEBUG;
        CTestApp app;
        CThread::m_Logger.SetLogConfigForThread("test", &iLevel);
        const capability_t aKeep[] = {5, 12, -1};
        errno = ENOMEM; // of some earlier call: does not count
        const long lResult = app.iDropPermissions("no-such-user", nullptr, aKeep);
        std::printf("%ld|%s|%s", lResult, szStatusField("Uid").c_str(),
                    szStatusField("CapPrm").c_str());
        return 0;
    });
    EXPECT_EQ(std::string("0|0\t0\t0\t0|") + kKillAndNetAdmin, result.szOutput);
    EXPECT_TRUE(bAwaitLogged(LOG_WARNING, "unknown user no-such-user, going on as uid 0"));
}

TEST_F(AnUnprivilegedApp, ChangesItsGroupAloneAndLosesTheOthers)
{
    const ChildResult result = RunInChild([] {
        const gid_t aGroups[] = {0, 4, 27};
        if (setgroups(3, aGroups) != 0) {
            return 2;
        }
        CTestApp app;
        const capability_t aKeep[] = {5, -1};
        const long lResult = app.iDropPermissions(nullptr, "daemon", aKeep);
        std::printf("%ld|%s|%s|%s", lResult, szStatusField("Uid").c_str(),
                    szStatusField("Gid").c_str(), szStatusField("Groups").c_str());
        return 0;
    });
    EXPECT_EQ("0|0\t0\t0\t0|1\t1\t1\t1|1", result.szOutput);
}

TEST_F(AnUnprivilegedApp, ChangesNothingWithoutAListOfCapabilities)
{
    const ChildResult result = RunInChild([] {
        CTestApp app;
        const capability_t aEmpty[] = {-1};
        const capability_t aWrong[] = {5, 64, -1};
        const long lNone = app.iDropPermissions("nobody", "daemon", nullptr);
        const long lEmpty = app.iDropPermissions("nobody", "daemon", aEmpty);
        const long lWrong = app.iDropPermissions("nobody", "daemon", aWrong);
        std::printf("%ld|%ld|%ld|%s|%s", lNone, lEmpty, lWrong, szStatusField("Uid").c_str(),
                    szStatusField("Gid").c_str());
        return 0;
    });
    EXPECT_EQ("0|22|22|0\t0\t0\t0|0\t0\t0\t0", result.szOutput);
    EXPECT_EQ(2U, m_Receiver.Count("final failed (22)"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "final failed (22)"));
}

TEST_F(AnUnprivilegedApp, DoesNotStartWithoutTheRightToBecomeAnother)
{
    const ChildResult result = RunInChild([] {
        syslog(LOG_DEBUG, "connected");
        if (setresuid(kNobody, kNobody, kNobody) != 0) {
            return 2;
        }
        CTestApp app({"--daemon"});
        app.RunAs("daemon", "daemon");
        const long lResult = app.iInitInstance();
        const bool bNothingDone = app.iPostMessage(7, 0, 0, nullptr, 0, 0) == -5 &&
                                  Disposition(SIGCHLD) == SIG_DFL && getsid(0) != getpid();
        return lResult == 1 && bNothingDone ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "final failed (-1)"));
    EXPECT_TRUE(bAwaitLogged(LOG_ERR, "process_drop_permission failed (-1)"));
}

TEST_F(AnUnprivilegedApp, HasNoThreadWithMoreRights)
{
    const ChildResult result = RunInChild([] {
        CTestApp app;
        app.RunAs("nobody", "nogroup");
        app.iInitInstance();
        app.m_callbackManager.iCreateThread(true, kAwaitLimitMs);
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const std::string szTask = "self/task/" + task.path().filename().string();
            std::printf("%s ", szStatusField("CapPrm", szTask).c_str());
        }
        app.m_callbackManager.iStop(true, false);
        return 0;
    });
    std::string szOnly = result.szOutput;
    for (size_t iPos = 0; (iPos = szOnly.find(kKillAndNetAdmin)) != std::string::npos;) {
        szOnly.erase(iPos, std::strlen(kKillAndNetAdmin) + 1);
    }
    // A thread of a sanitizer's own is older than the start of the application.
    EXPECT_LE(szOnly.size(), std::strlen("000001ffffffffff ")) << result.szOutput;
    EXPECT_GE(result.szOutput.size(), 3 * std::strlen("0000000000001020 "));
}

// Becoming a daemon.

/// Facts that a daemon, which has no streams, writes into a pipe.
class ADaemon : public ACoreApp
{
protected:
    /// Runs a function with the writing end of the pipe in a process that may become a daemon.
    std::string szFacts(const std::function<void(CPipe&)>& function, int iExpectedExitCode = 0)
    {
        CPipe facts;
        const ChildResult result = RunInChild([&] {
            alarm(60); // cleared by no one: the daemon outlives the test's child
            function(facts);
            _exit(0);
            return 0;
        });
        facts.CloseWrite();
        EXPECT_EQ(iExpectedExitCode, result.iExitCode);
        m_szOutput = result.szOutput;
        return szReadAll(facts);
    }
    static void Tell(CPipe& pipe, const std::string& szFact)
    {
        pipe.iWriteBytes(szFact.c_str(), static_cast<int>(szFact.size()));
    }
    static std::string szTarget(const std::string& szPath)
    {
        return std::filesystem::read_symlink(szPath).string();
    }

    std::string m_szOutput; ///< Of the process that was started.
};

TEST_F(ADaemon, LeavesItsSessionItsMaskItsStreamsAndItsDirectory)
{
    const std::string szSeen = szFacts([](CPipe& facts) {
        umask(022);
        const pid_t former = getpid();
        CTestApp app({"--daemon"});
        const long lResult = app.iInitInstance();
        const mode_t mask = umask(0);
        Tell(facts, std::to_string(lResult) + (getpid() != former ? "|forked" : "|same") +
                        (getsid(0) == getpid() ? "|leader|" : "|member|") + std::to_string(mask) +
                        "|" + szTarget("/proc/self/fd/0") + szTarget("/proc/self/fd/1") +
                        szTarget("/proc/self/fd/2") + "|" + szTarget("/proc/self/cwd"));
    });
    EXPECT_EQ("0|forked|leader|0|/dev/null/dev/null/dev/null|/", szSeen);
}

TEST_F(ADaemon, ReadsAndWritesNothingThroughItsStreams)
{
    const std::string szSeen = szFacts([](CPipe& facts) {
        CTestApp app({"--daemon"});
        app.iInitInstance();
        const bool bWritten = std::puts("lost") >= 0 && std::fflush(stdout) == 0;
        Tell(facts, bWritten && std::getchar() == EOF ? "right" : "wrong");
    });
    EXPECT_EQ("right", szSeen);
    EXPECT_EQ("", m_szOutput);
}

TEST_F(ADaemon, GetsItsStandardDescriptorsWhenItHadNone)
{
    const std::string szSeen = szFacts([](CPipe& facts) {
        close(0);
        close(1);
        close(2);
        CTestApp app({"--daemon"});
        app.iInitInstance();
        Tell(facts, szTarget("/proc/self/fd/0") + szTarget("/proc/self/fd/1") +
                        szTarget("/proc/self/fd/2"));
    });
    EXPECT_EQ("/dev/null/dev/null/dev/null", szSeen);
}

TEST_F(ADaemon, WritesBufferedTextOnce)
{
    const std::string szSeen = szFacts([](CPipe& facts) {
        std::printf("buffered");
        CTestApp app;
        app.Daemonize();
        Tell(facts, "done");
    });
    EXPECT_EQ("done", szSeen);
    EXPECT_EQ("buffered", m_szOutput);
}

TEST_F(ADaemon, LearnsOfItsChildren)
{
    const std::string szSeen = szFacts([](CPipe& facts) {
        CTestApp app({"--daemon"});
        app.iInitInstance();
        CWatchedProcess process;
        CCoreApp::m_ProcessManager.AddNewProcess(&process);
        process.Start("exit 3");
        bAwait([&] { return process.iGetPID() == -1; });
        Tell(facts, std::to_string(process.iGetLastExitCode()));
    });
    EXPECT_EQ("3", szSeen);
}

TEST_F(ADaemon, IsNoneWithoutTheOption)
{
    const std::string szHere = std::filesystem::current_path();
    const std::string szSeen = szFacts([](CPipe& facts) {
        const pid_t former = getpid();
        CTestApp app;
        app.iInitInstance();
        Tell(facts, (getpid() == former ? "same|" : "forked|") + szTarget("/proc/self/cwd"));
    });
    EXPECT_EQ("same|" + szHere, szSeen);
}

/// Tells what a start throws.
void TellThrown(CPipe& facts, const std::function<void()>& start)
{
    try {
        start();
    } catch (const char* pszThrown) {
        facts.iWriteBytes(pszThrown, static_cast<int>(std::strlen(pszThrown)));
    }
}

TEST_F(ADaemon, ThrowsATextWhenItCannotFork)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    const std::string szSeen = szFacts([](CPipe& facts) {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (setresuid(kNobody, kNobody, kNobody) == 0) {
            CTestApp app({"--daemon"});
            TellThrown(facts, [&] { app.iInitInstance(); });
        }
    });
    EXPECT_EQ("cannot fork daemon process", szSeen);
}

TEST_F(ADaemon, ThrowsATextWhenThereIsNoNullDevice)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to hide /dev";
    }
    const std::string szSeen = szFacts([](CPipe& facts) {
        CTestApp app({"--daemon"});
        if (unshare(CLONE_NEWNS) == 0 && mount("none", "/dev", "tmpfs", 0, nullptr) == 0) {
            TellThrown(facts, [&] { app.iInitInstance(); });
        }
    });
    EXPECT_EQ("Cannot attach stdin to /dev/null", szSeen);
}

TEST_F(ADaemon, StartsInItsDirectoryWhenItMayNotLeaveThat)
{
    if (!bCanFilterCalls()) {
        GTEST_SKIP() << "no filters for system calls here";
    }
    const std::string szSeen = szFacts([](CPipe& facts) {
        RefuseCall(SYS_chdir, EACCES);
        CTestApp app({"--daemon"});
        const long lResult = app.iInitInstance();
        const bool bStarted =
            Disposition(SIGCHLD) != SIG_DFL && app.iPostMessage(7, 0, 0, nullptr, 0, 0) == 0;
        Tell(facts, std::to_string(lResult) + (bStarted ? "|started" : "|stopped"));
    });
    EXPECT_EQ("-4|started", szSeen);
}
} // namespace
