// The logger in the life of a process: its first and last line, forks and cancelled threads.
#include "libQuorCore/CLogger.h"
#include "libQuorCore/CThread.h"

#include "support/CChild.h"
#include "support/CSyslogReceiver.h"
#include "support/Sanitized.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kSeriesLimitMs = 4 * kAwaitLimitMs; // for processes or threads by the hundred

/// @return Path of one of tests/programs/.
std::string szProgram(const std::string& szName)
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "programs" / szName;
}

/// What follows the head of a line.
std::string szMessage(const std::string& szText)
{
    const size_t iColon = szText.find(" : ");
    return iColon == std::string::npos ? szText : szText.substr(iColon + 3);
}

class ALogger : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CThread::m_Logger.Init("life-test");
        m_Syslog.Clear();
    }
    std::vector<std::string> Messages()
    {
        std::vector<std::string> messages;
        for (const CSyslogReceiver::Record& record : m_Syslog.Records()) {
            messages.push_back(szMessage(record.szText));
        }
        return messages;
    }

    CSyslogReceiver& m_Syslog = CSyslogReceiver::Get();
};

TEST_F(ALogger, WritesFromTheFirstStaticConstructorToTheLastDestructor)
{
    EXPECT_EQ(0, RunProgram({szProgram("LogAroundMain")}).iExitCode);
    const std::vector<std::string> expected = {"in a static constructor", "in main",
                                               "in a static destructor", "in an exit handler",
                                               "after the static objects of the program"};
    EXPECT_EQ(expected, Messages());
}

/// What static objects and threads do that outlive the logger. A sanitizer would object.
__attribute__((no_sanitize("vptr"), noinline)) void LogAfterTheEnd(CLogger& logger)
{
    logger.Log(LOG_EMERG, "F.cpp", 12, "void f()", "after");
    logger.LogHexDump("F.cpp", 12, "void f()", "after", nullptr, 0);
}

TEST_F(ALogger, WritesNothingOnceItIsDestroyed)
{
    const ChildResult result = RunInChild([] {
        CThread::m_Logger.Log(LOG_EMERG, "F.cpp", 12, "void f()", "before");
        CThread::m_Logger.~CLogger(); // as at the end of the process, which this child has not
        LogAfterTheEnd(CThread::m_Logger);
        return 0;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(std::vector<std::string>{"before"}, Messages());
}

TEST_F(ALogger, WritesNothingOnceItIsDestroyedBesideThatOfTheProcess)
{
    alignas(CLogger) unsigned char aMemory[sizeof(CLogger)];
    CLogger* const pLogger = new (aMemory) CLogger;
    pLogger->Init("life-test");
    pLogger->Log(LOG_EMERG, "F.cpp", 12, "void f()", "before");
    pLogger->~CLogger();
    LogAfterTheEnd(*pLogger);
    EXPECT_EQ(std::vector<std::string>{"before"}, Messages());
}

TEST_F(ALogger, ServesThreadsThatOutliveMain)
{
    const ChildResult result = RunInChild([]() -> int {
        std::atomic<int> iLogged{0};
        for (int i = 0; i < 3; ++i) {
            std::thread([&iLogged] {
                int iLevel = LOG_DEBUG;
                CThread::m_Logger.SetLogConfigForThread("outliving", &iLevel);
                for (;;) {
                    QUORCORE_LOG(LOG_DEBUG, "text");
                    ++iLogged;
                }
            }).detach();
        }
        while (iLogged < 100) {
            std::this_thread::yield();
        }
        std::exit(7); // runs the destructors while they log
    });
    EXPECT_FALSE(result.bTimedOut);
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(7, result.iExitCode) << result.szErrors;
    EXPECT_LE(100U, m_Syslog.Count("outliving("));
}

/// Threads that write through a logger for as long as the object lives.
class CLoggingThreads
{
public:
    CLoggingThreads(CLogger& logger, int nThreads)
    {
        for (int i = 0; i < nThreads; ++i) {
            m_Threads.emplace_back([this, &logger] {
                int iLevel = LOG_DEBUG;
                logger.SetLogConfigForThread("busy", &iLevel);
                while (!m_bEnd) {
                    logger.Log(LOG_DEBUG, "F.cpp", 12, "void f()", "%s",
                               logger.strerrorT(EAGAIN).c_str());
                    logger.SetAllLogLevel(LOG_DEBUG);
                    ++m_iWritten;
                }
                logger.CancelLogIdForThread();
            });
        }
    }
    ~CLoggingThreads()
    {
        m_bEnd = true;
        for (std::thread& thread : m_Threads) {
            thread.join();
        }
    }
    int iWritten() const { return m_iWritten; }

private:
    std::atomic<bool> m_bEnd{false};
    std::atomic<int> m_iWritten{0};
    std::vector<std::thread> m_Threads;
};

/// A child that uses all that a logger locks, and the process's as well.
[[noreturn]] void LogInAChild(CLogger& logger)
{
    logger.SetLogConfigForThread("child", nullptr);
    logger.Log(LOG_ERR, "F.cpp", 12, "void f()", "%s", logger.strerrorT(ENOENT).c_str());
    logger.CancelLogIdForThread();
    QUORCORE_LOG(LOG_ERR, "end of a child");
    _exit(0);
}

/// @return Whether the child ended well within the limit; if not, it is no more.
bool bEndsWell(pid_t iPid)
{
    int iStatus = -1;
    if (!bAwait([&] { return waitpid(iPid, &iStatus, WNOHANG) != 0; })) {
        kill(iPid, SIGKILL);
        waitpid(iPid, &iStatus, 0);
        return false;
    }
    return WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0;
}

/// @return 0: no child of @p nForks was left with a lock that nobody would release.
int iForkWhileOthersLog(CLogger& logger, int nForks)
{
    const CLoggingThreads threads(logger, 3);
    for (int i = 0; i < nForks; ++i) {
        const int iWritten = threads.iWritten();
        const pid_t iPid = fork();
        if (iPid == 0) {
            LogInAChild(logger);
        }
        if (!bEndsWell(iPid)) {
            return 1;
        }
        // Those that log go on as well.
        if (!bAwait([&] { return threads.iWritten() > iWritten; })) {
            return 2;
        }
    }
    return 0;
}

TEST_F(ALogger, WritesInAChildThatWasForkedWhileOthersLog)
{
    const ChildResult result =
        RunInChild([] { return iForkWhileOthersLog(CThread::m_Logger, 50); }, kSeriesLimitMs);
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(50U, m_Syslog.Count("end of a child"));
    EXPECT_EQ(50U, m_Syslog.Count("No such file or directory"));
}

TEST_F(ALogger, WritesInAChildThatWasForkedWhileOthersLogBesideThatOfTheProcess)
{
    const ChildResult result = RunInChild(
        [] {
            CLogger another;
            another.Init("life-test");
            return iForkWhileOthersLog(another, 50);
        },
        kSeriesLimitMs);
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(50U, m_Syslog.Count("end of a child"));
    EXPECT_EQ(50U, m_Syslog.Count("No such file or directory"));
}

TEST_F(ALogger, SurvivesAForkOnceItIsDestroyed)
{
    const ChildResult result = RunInChild([] {
        CThread::m_Logger.~CLogger();
        const pid_t iPid = fork();
        if (iPid == 0) {
            _exit(0);
        }
        return bEndsWell(iPid) ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
}

/// A thread that may be cancelled at any instruction, as CThread runs its bodies.
class CCancelledThread
{
public:
    explicit CCancelledThread(void (*pBody)(std::atomic<int>&)) : m_pBody(pBody)
    {
        pthread_create(&m_Thread, nullptr, &CCancelledThread::pRun, this);
    }
    bool bAwaitTurns(int nTurns)
    {
        return bAwait([&] { return m_iTurns >= nTurns; });
    }
    bool bCancelAndJoin()
    {
        pthread_cancel(m_Thread);
        timespec limit{};
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += kAwaitLimitMs / 1000;
        return pthread_timedjoin_np(m_Thread, nullptr, &limit) == 0;
    }

private:
    static void* pRun(void* pThis)
    {
        CCancelledThread& thread = *static_cast<CCancelledThread*>(pThis);
        static int iLevel = LOG_DEBUG; // not on the stack that unwinds
        CThread::m_Logger.SetLogConfigForThread("cancelled", &iLevel);
        int iFormerType = 0;
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &iFormerType);
        for (;;) {
            thread.m_pBody(thread.m_iTurns);
        }
    }

    void (*m_pBody)(std::atomic<int>&);
    std::atomic<int> m_iTurns{0};
    pthread_t m_Thread{};
};

/// @return 0: after each of @p nThreads cancellations the logger still works.
int iCancelThreadsThatLog(void (*pBody)(std::atomic<int>&), int nThreads)
{
    for (int i = 0; i < nThreads; ++i) {
        CCancelledThread thread(pBody);
        if (!thread.bAwaitTurns(1 + i % 7) || !thread.bCancelAndJoin()) {
            return 1;
        }
        CThread::m_Logger.SetAllLogLevel(LOG_DEBUG); // would wait for ever for a lock left behind
        CThread::m_Logger.strerrorT(ENOENT);
        QUORCORE_LOG(LOG_ERR, "survived %d", i);
    }
    return 0;
}

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
// The thread sanitizer gives each function something to clean up, so that a cancellation at any
// instruction ends the process: in the test's functions, too. The unwind tables of 32-bit ARM are
// exact at calls only: what is cancelled elsewhere may be unwound by whatever its registers hold.
constexpr bool bCancelsAtAnyInstruction = false;
#else
constexpr bool bCancelsAtAnyInstruction = true;
#endif

TEST_F(ALogger, SurvivesTheCancellationOfThreadsThatLog)
{
    if (!bCancelsAtAnyInstruction) {
        GTEST_SKIP() << "neither under the thread sanitizer nor on 32-bit ARM";
    }
    const ChildResult result = RunInChild(
        [] {
            return iCancelThreadsThatLog(
                [](std::atomic<int>& iTurns) {
                    QUORCORE_LOG(LOG_DEBUG, "turn %d", static_cast<int>(iTurns));
                    ++iTurns;
                },
                300);
        },
        kSeriesLimitMs);
    EXPECT_FALSE(result.bTimedOut) << "a lock was left behind";
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(300U, m_Syslog.Count("survived"));
}

TEST_F(ALogger, SurvivesTheCancellationOfThreadsThatDump)
{
    if (!bCancelsAtAnyInstruction) {
        GTEST_SKIP() << "neither under the thread sanitizer nor on 32-bit ARM";
    }
    const ChildResult result = RunInChild(
        [] {
            return iCancelThreadsThatLog(
                [](std::atomic<int>& iTurns) {
                    static const unsigned char aData[600] = {};
                    QUORCORE_LOG_HEX("dump", aData, sizeof(aData));
                    ++iTurns;
                },
                300);
        },
        kSeriesLimitMs);
    EXPECT_FALSE(result.bTimedOut) << "a lock was left behind";
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(300U, m_Syslog.Count("survived"));
}

/// A thread of the library, which is cancelled in the middle of its body.
class CBusyThread : public CThread
{
public:
    CBusyThread() : CThread(nullptr, "busy") { m_iLogLevel = LOG_DEBUG; }
    ~CBusyThread() override { iStop(true, true); }

private:
    long iRunThread() override
    {
        m_bRun = true;
        for (;;) {
            QUORCORE_LOG(LOG_DEBUG, "busy");
        }
    }
};

TEST_F(ALogger, SurvivesTheCancellationOfTheLibrarysThreads)
{
    if (kSanitized) {
        GTEST_SKIP() << kNoCancelReason;
    }
    const ChildResult result = RunInChild(
        [] {
            for (int i = 0; i < 200; ++i) {
                CBusyThread thread;
                if (thread.iCreateThread(true, kAwaitLimitMs) != 0) {
                    return 1;
                }
                thread.iStop(true, true);
                CThread::m_Logger.SetAllLogLevel(LOG_DEBUG);
                QUORCORE_LOG(LOG_ERR, "survived %d", i);
            }
            return 0;
        },
        kSeriesLimitMs);
    EXPECT_FALSE(result.bTimedOut) << "a lock was left behind";
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(0, result.iExitCode) << result.szErrors;
    EXPECT_EQ(200U, m_Syslog.Count("survived"));
    std::string szPage;
    CThread::m_Logger.iGetLogConfigHtml(szPage, "");
    EXPECT_NE(std::string::npos, szPage.find("Number of sources: 0<"));
}

TEST_F(ALogger, MayWriteInADestructorOfAThreadThatIsBeingCancelled)
{
    struct LogsInItsDestructor {
        ~LogsInItsDestructor() { QUORCORE_LOG(LOG_ERR, "not cut off"); }
    };
    const ChildResult result = RunInChild([] {
        std::thread thread([] {
            pthread_cancel(pthread_self()); // pending until a cancellation point
            {
                const LogsInItsDestructor logs;
            }
            pthread_testcancel();
            QUORCORE_LOG(LOG_ERR, "not reached");
        });
        thread.join();
        return 0;
    });
    EXPECT_EQ(0, result.iSignal) << result.szErrors;
    EXPECT_EQ(std::vector<std::string>{"not cut off"}, Messages());
}
} // namespace
