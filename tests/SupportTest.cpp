#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/CSyslogReceiver.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/ProcessFacts.h"
#include "support/Sanitized.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace TestSupport;

namespace
{
constexpr int kShortMs = 20; // for what must not happen: it costs every run

class APrivateProcessSpace : public ::testing::Test
{
};

TEST_F(APrivateProcessSpace, KeepsSignalsToAllFromTheMachine)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_EQ(1, getppid()); // the first process, which waits for this one
    CChild child([] {
        pause();
        return 0;
    });
    EXPECT_EQ(0, kill(-1, SIGUSR1)); // reaches all but the sender and the first
    EXPECT_EQ(SIGUSR1, child.Await(kAwaitLimitMs).iSignal);
}

class APrivateDev : public ::testing::Test
{
};

TEST_F(APrivateDev, IsNotThatOfTheMachine)
{
    struct stat own = {};
    struct stat machines = {};
    ASSERT_EQ(0, stat("/dev", &own));
    const std::string szParentsRoot = "/proc/" + std::to_string(getppid()) + "/root";
    if (stat((szParentsRoot + "/dev").c_str(), &machines) == -1) {
        GTEST_SKIP() << "only root may look out of the namespace";
    }
    EXPECT_NE(machines.st_dev, own.st_dev);
    ASSERT_EQ(0, stat("/dev/pts", &own));
    if (stat((szParentsRoot + "/dev/pts").c_str(), &machines) == 0) {
        EXPECT_NE(machines.st_dev, own.st_dev) << "tests get each other's terminals";
    }
}

TEST_F(APrivateDev, HasTheDevicesThatProgramsExpect)
{
    EXPECT_EQ(std::string(3, '\0'), RunProgram({"head", "-c3", "/dev/zero"}).szOutput);
    EXPECT_EQ("", szReadFile("/dev/null"));
    EXPECT_TRUE(std::filesystem::is_directory("/dev/fd/"));
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm"));
}

TEST_F(APrivateDev, OpensAPty)
{
    const int iMaster = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (iMaster == -1 && errno == EACCES) {
        GTEST_SKIP() << "this machine's /dev/pts/ptmx is for root alone";
    }
    ASSERT_NE(-1, iMaster);
    ASSERT_EQ(0, unlockpt(iMaster));
    const int iSlave = open(ptsname(iMaster), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_NE(-1, iSlave);
    close(iSlave);
    close(iMaster);
}

class ASyslogReceiver : public ::testing::Test
{
protected:
    void SetUp() override { m_Receiver.Clear(); }
    void TearDown() override { closelog(); }
    CSyslogReceiver& m_Receiver = CSyslogReceiver::Get();
};

TEST_F(ASyslogReceiver, TakesALineApart)
{
    openlog("a daemon", LOG_PID, LOG_DAEMON);
    syslog(LOG_WARNING, "colon: [brackets]: and\nnewline");

    const std::vector<CSyslogReceiver::Record> records = m_Receiver.Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(28, records[0].iPriority);
    EXPECT_EQ(LOG_DAEMON, records[0].iFacility);
    EXPECT_EQ(LOG_WARNING, records[0].iLevel);
    EXPECT_EQ("a daemon", records[0].szTag);
    EXPECT_EQ(getpid(), records[0].iPid);
    EXPECT_EQ("colon: [brackets]: and\nnewline", records[0].szText);
    EXPECT_EQ(0U, records[0].szRaw.find("<28>"));
}

TEST_F(ASyslogReceiver, KnowsALineWithoutPid)
{
    openlog("daemon", 0, LOG_LOCAL3);
    syslog(LOG_DEBUG, "text");

    const std::vector<CSyslogReceiver::Record> records = m_Receiver.Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ("daemon", records[0].szTag);
    EXPECT_EQ(0, records[0].iPid);
    EXPECT_EQ(LOG_LOCAL3, records[0].iFacility);
    EXPECT_EQ(LOG_DEBUG, records[0].iLevel);
    EXPECT_EQ("text", records[0].szText);
}

TEST_F(ASyslogReceiver, LosesNothingOfAFlood)
{
    const int nLines = 5000; // a socket alone holds some ten datagrams
    const std::string szLong(8000, 'x');
    for (int i = 0; i < nLines; ++i) {
        syslog(LOG_INFO, "line %d", i);
    }
    syslog(LOG_INFO, "%s", szLong.c_str());

    const std::vector<CSyslogReceiver::Record> records = m_Receiver.Records();
    ASSERT_EQ(5001U, records.size());
    EXPECT_EQ("line 0", records[0].szText);
    EXPECT_EQ("line 4999", records[4999].szText);
    EXPECT_EQ(szLong, records[5000].szText);
}

TEST_F(ASyslogReceiver, ForgetsWhatWasSentBeforeClear)
{
    syslog(LOG_INFO, "before");
    m_Receiver.Clear();
    syslog(LOG_INFO, "after");

    EXPECT_EQ(0U, m_Receiver.Count("before"));
    EXPECT_EQ(1U, m_Receiver.Count("after"));
}

TEST_F(ASyslogReceiver, AwaitsALineOfAnotherThread)
{
    std::thread sender([] { syslog(LOG_ERR, "from a thread"); });
    EXPECT_TRUE(m_Receiver.bAwait("a thread"));
    EXPECT_TRUE(m_Receiver.bAwait([](const auto& record) { return record.iLevel == LOG_ERR; }));
    EXPECT_FALSE(m_Receiver.bAwait("no such line", kShortMs));
    sender.join();
}

TEST_F(ASyslogReceiver, HearsAChildThatAsksItToo)
{
    const ChildResult result = RunInChild([this] {
        syslog(LOG_INFO, "from the child");
        return m_Receiver.Count("from the child") == 1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(1U, m_Receiver.Count("from the child"));
}

TEST_F(ASyslogReceiver, IsNoChildOfTheTest)
{
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

class ATempDirectory : public ::testing::Test
{
};

TEST_F(ATempDirectory, GoesWithAllItsContent)
{
    std::string szPath;
    {
        const CTempDirectory directory;
        szPath = directory.szPath();
        std::filesystem::create_directories(directory.szPath("a/b"));
        WriteFile(directory.szPath("a/b/file"), "content");
        EXPECT_TRUE(std::filesystem::exists(szPath + "/a/b/file"));
    }
    EXPECT_FALSE(std::filesystem::exists(szPath));
}

class AFile : public ::testing::Test
{
protected:
    CTempDirectory m_Directory;
};

TEST_F(AFile, IsReadAsItWasWritten)
{
    const std::string szContent("bytes\0\n\xff", 8);
    WriteFile(m_Directory.szPath("file"), "something longer than that");
    WriteFile(m_Directory.szPath("file"), szContent);
    EXPECT_EQ(szContent, szReadFile(m_Directory.szPath("file")));
}

TEST_F(AFile, ThrowsIfItCannotBeOpened)
{
    EXPECT_THROW(szReadFile(m_Directory.szPath("none")), std::system_error);
    EXPECT_THROW(WriteFile(m_Directory.szPath("none/file"), ""), std::system_error);
}

class AnAwait : public ::testing::Test
{
};

TEST_F(AnAwait, AsksUntilTheAnswerIsYes)
{
    int nAsked = 0;
    EXPECT_TRUE(bAwait([&nAsked] { return ++nAsked == 3; }));
    EXPECT_EQ(3, nAsked);
}

TEST_F(AnAwait, GivesUpAtTheLimit)
{
    const CDeadline deadline(kShortMs);
    EXPECT_FALSE(bAwait([] { return false; }, kShortMs));
    EXPECT_TRUE(deadline.bPassed());
    EXPECT_EQ(0, deadline.iRemainingMs());
}

class ATcpPeer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Server.Listen();
        ASSERT_TRUE(m_Client.bConnect(m_Server.iPort()));
        ASSERT_TRUE(m_Server.bAccept());
    }
    CTcpPeer m_Server;
    CTcpPeer m_Client;
};

TEST_F(ATcpPeer, CarriesBytesBothWays)
{
    EXPECT_TRUE(m_Client.bSend(std::string("a\0b", 3)));
    EXPECT_EQ(std::string("a\0b", 3), m_Server.szReceive(3));
    EXPECT_TRUE(m_Server.bSend("answer"));
    EXPECT_EQ("ans", m_Client.szReceive(3));
    EXPECT_EQ("wer", m_Client.szReceive(4, kShortMs)) << "what came until the limit";
}

TEST_F(ATcpPeer, CarriesMoreThanTheBuffersHold)
{
    const std::string szMany(20 * 1024 * 1024, 'm');
    std::thread sender([this, &szMany] { EXPECT_TRUE(m_Client.bSend(szMany)); });
    EXPECT_EQ(szMany, m_Server.szReceive(szMany.size()));
    sender.join();
    EXPECT_TRUE(bAwait([&] { return !m_Client.bSend(szMany, kShortMs); })) << "nobody receives";
}

TEST_F(ATcpPeer, ReceivesTheEndBehindTheLastByte)
{
    EXPECT_FALSE(m_Server.bReceiveEof(kShortMs));
    EXPECT_TRUE(m_Client.bSend("x"));
    m_Client.EndSending();
    EXPECT_FALSE(m_Server.bReceiveEof()) << "a byte is before it";
    EXPECT_EQ("x", m_Server.szReceive(2));
    EXPECT_TRUE(m_Server.bReceiveEof());
    EXPECT_TRUE(m_Server.bSend("y")) << "the other half is still open";
    EXPECT_EQ("y", m_Client.szReceive(1));
}

TEST_F(ATcpPeer, ResetsTheConnection)
{
    m_Client.Reset();
    char cByte = 0;
    EXPECT_TRUE(bAwait([this, &cByte] {
        return recv(m_Server.iSocket(), &cByte, 1, MSG_PEEK) == -1 && errno == ECONNRESET;
    }));
}

TEST_F(ATcpPeer, FailsToSendWithoutASignal)
{
    m_Server.Reset();
    EXPECT_TRUE(bAwait([this] { return !m_Client.bSend("x"); }));
}

TEST_F(ATcpPeer, ListensAgainOnTheSamePort)
{
    const int iPort = m_Server.iPort();
    m_Server.Close();
    m_Server.StopListening();
    EXPECT_FALSE(m_Client.bConnect(iPort));
    EXPECT_EQ(ECONNREFUSED, errno);

    m_Server.Listen(iPort);
    EXPECT_TRUE(m_Client.bConnect(iPort));
    EXPECT_TRUE(m_Server.bAccept());
}

TEST_F(ATcpPeer, SaysAtOnceThatThereIsNoConnection)
{
    m_Client.Close();
    EXPECT_FALSE(m_Client.bSend("x"));
    EXPECT_EQ("", m_Client.szReceive(1));
    EXPECT_FALSE(m_Client.bAccept());
    EXPECT_FALSE(m_Server.bAccept(kShortMs)) << "no one else connects";
}

TEST_F(ATcpPeer, LeavesNoDescriptorOpen)
{
    const int iPort = iFreePort(); // which keeps one
    const size_t nBefore = nOpenDescriptors();
    {
        CTcpPeer server;
        CTcpPeer client;
        server.Listen(iPort);
        ASSERT_TRUE(client.bConnect(server.iPort()));
        ASSERT_TRUE(server.bAccept());
        EXPECT_EQ(nBefore + 3, nOpenDescriptors());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST(AFreePort, IsGivenToOneProcessAtATime)
{
    const int iPort = iFreePort();
    EXPECT_NE(iPort, iFreePort(iPort));
    EXPECT_EQ(0, RunInChild([=] { return iFreePort(iPort) != iPort ? 0 : 1; }).iExitCode);
}

class AChild : public ::testing::Test
{
};

TEST_F(AChild, HandsBackItsExitCodeAndOutput)
{
    const ChildResult result = RunInChild([] {
        printf("to the output");
        fprintf(stderr, "to the errors");
        return 42;
    });
    EXPECT_EQ(42, result.iExitCode);
    EXPECT_EQ(0, result.iSignal);
    EXPECT_FALSE(result.bTimedOut);
    EXPECT_EQ("to the output", result.szOutput);
    EXPECT_EQ("to the errors", result.szErrors);
}

TEST_F(AChild, HandsBackMoreOutputThanAPipeHolds)
{
    const std::string szMany(1024 * 1024, 'm');
    const ChildResult result = RunInChild([&szMany] { return fputs(szMany.c_str(), stdout) < 0; });
    EXPECT_EQ(0, result.iExitCode);
    EXPECT_EQ(szMany, result.szOutput);
}

TEST_F(AChild, TellsTheSignalThatKilledIt)
{
    const ChildResult result = RunInChild([] { return raise(SIGKILL); });
    EXPECT_EQ(SIGKILL, result.iSignal);
    EXPECT_EQ(-1, result.iExitCode);
}

TEST_F(AChild, MayEndByExit)
{
    EXPECT_EQ(7, RunInChild([]() -> int { exit(7); }).iExitCode);
}

TEST_F(AChild, DoesNotReturnIntoTheTestByAnException)
{
    const ChildResult result = RunInChild([]() -> int { throw std::runtime_error("thrown"); });
    EXPECT_EQ(SIGABRT, result.iSignal);
    EXPECT_NE(std::string::npos, result.szErrors.find("thrown"));
}

TEST_F(AChild, IsKilledAtItsLimit)
{
    const ChildResult result = RunInChild([] { return pause(); }, kShortMs);
    EXPECT_TRUE(result.bTimedOut);
}

TEST_F(AChild, TakesASignalOnceItIsReady)
{
    CChild child([] {
        signal(SIGTERM, [](int) { _exit(3); });
        puts("ready");
        fflush(stdout);
        return pause();
    });
    ASSERT_TRUE(child.bAwaitOutput("ready\n"));
    EXPECT_FALSE(child.bAwaitOutput("more", kShortMs));
    child.Signal(SIGTERM);
    EXPECT_EQ(3, child.Await().iExitCode);
    EXPECT_FALSE(child.bAwaitOutput("more"));
}

TEST_F(AChild, IsAwaitedEvenIfAGrandchildKeepsItsOutput)
{
    const ChildResult result = RunProgram({"sh", "-c", "sleep 60 & echo $!"});
    EXPECT_EQ(0, result.iExitCode);
    ASSERT_EQ(0, kill(std::stoi(result.szOutput), SIGKILL));
}

TEST_F(AChild, MayBeAProgramThatIsNotThere)
{
    EXPECT_EQ(127, RunProgram({"/no/such/program"}).iExitCode);
}

TEST_F(AChild, LeavesNoDescriptorAndNoProcess)
{
    const size_t nBefore = nOpenDescriptors();
    pid_t iPid = 0;
    {
        const CChild child([] { return pause(); });
        iPid = child.iPid();
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_EQ(-1, kill(iPid, 0));
}

class AProcess : public ::testing::Test
{
};

TEST_F(AProcess, CountsItsThreads)
{
    std::thread([] {}).join(); // a sanitizer may start a thread of its own with the first one
    const size_t nBefore = nThreads();
    std::atomic<bool> bStop{false};
    std::thread second([&bStop] { bAwait([&bStop] { return bStop.load(); }); });
    EXPECT_EQ(nBefore + 1, nThreads());
    bStop = true;
    second.join();
    EXPECT_EQ(nBefore, nThreads());
    for (int i = 0; i < nRounds(1000); ++i) {
        std::thread([] {}).join();
        ASSERT_EQ(nBefore, nThreads()) << "counts a thread that was joined";
    }
}
} // namespace
