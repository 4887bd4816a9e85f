#include "libQuorCore/CPipe.h"

#include "support/CChild.h"
#include "support/CDeadline.h"
#include "support/ProcessFacts.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
constexpr int kMuchBytes = 1000000; // many times what a pipe holds

static_assert(!std::is_copy_constructible_v<CPipe> && !std::is_copy_assignable_v<CPipe>,
              "a copy would close the descriptors twice");
static_assert(std::has_virtual_destructor_v<CPipe>);

class APipe : public ::testing::Test
{
protected:
    CPipe m_Pipe;
};

TEST_F(APipe, HasTwoEndsThatNoProgramInherits)
{
    ASSERT_NE(-1, m_Pipe.hReadHandle());
    ASSERT_NE(-1, m_Pipe.hWriteHandle());
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_Pipe.hReadHandle(), F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_Pipe.hWriteHandle(), F_GETFD));
}

TEST_F(APipe, CarriesAnyBytes)
{
    const std::string szBytes("a\0\xff\n", 4);
    char aRead[16] = {};
    EXPECT_EQ(4, m_Pipe.iWriteBytes(szBytes.data(), 4));
    EXPECT_EQ(4, m_Pipe.iReadBytes(aRead, sizeof(aRead)));
    EXPECT_EQ(szBytes, std::string(aRead, 4));
}

TEST_F(APipe, GivesNoMoreThanIsAskedFor)
{
    char aRead[2] = {};
    m_Pipe.iWriteBytes("abc", 3);
    EXPECT_EQ(2, m_Pipe.iReadBytes(aRead, 2));
    EXPECT_EQ(1, m_Pipe.iReadBytes(aRead, 2));
    EXPECT_EQ('c', aRead[0]);
}

TEST_F(APipe, ClosesEachEndByItself)
{
    const size_t nBefore = nOpenDescriptors();
    m_Pipe.CloseRead();
    EXPECT_EQ(-1, m_Pipe.hReadHandle());
    EXPECT_NE(-1, m_Pipe.hWriteHandle());
    EXPECT_EQ(nBefore - 1, nOpenDescriptors());
    m_Pipe.CloseWrite();
    EXPECT_EQ(-1, m_Pipe.hWriteHandle());
    EXPECT_EQ(nBefore - 2, nOpenDescriptors());
}

TEST_F(APipe, ClosesNothingTwice)
{
    m_Pipe.Close();
    const int iOther = open("/dev/null", O_RDONLY | O_CLOEXEC); // takes a number of the pipe's
    m_Pipe.CloseRead();
    m_Pipe.CloseWrite();
    m_Pipe.Close();
    EXPECT_NE(-1, fcntl(iOther, F_GETFD));
    close(iOther);
}

TEST_F(APipe, ClosesBothEndsAtItsEnd)
{
    const size_t nBefore = nOpenDescriptors();
    {
        const CPipe pipe;
        EXPECT_EQ(nBefore + 2, nOpenDescriptors());
    }
    EXPECT_EQ(nBefore, nOpenDescriptors());
}

TEST_F(APipe, RefusesTransfersThroughAClosedEnd)
{
    char aRead[1] = {};
    m_Pipe.Close();
    errno = 0;
    EXPECT_EQ(-1, m_Pipe.iWriteBytes("a", 1));
    EXPECT_EQ(EBADF, errno);
    errno = 0;
    EXPECT_EQ(-1, m_Pipe.iReadBytes(aRead, 1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(APipe, RefusesSizesAndBuffersThatMakeNoSense)
{
    char aRead[1] = {};
    errno = 0;
    EXPECT_EQ(-1, m_Pipe.iWriteBytes("a", -1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, m_Pipe.iWriteBytes(nullptr, 1));
    EXPECT_EQ(-1, m_Pipe.iReadBytes(aRead, -1));
    EXPECT_EQ(-1, m_Pipe.iReadBytes(nullptr, 1));
    EXPECT_EQ(0, m_Pipe.iWriteBytes(nullptr, 0));
    EXPECT_EQ(0, m_Pipe.iReadBytes(nullptr, 0));
}

TEST_F(APipe, ReadsTheEndWhenEveryWriterHasLeft)
{
    char aRead[8] = {};
    m_Pipe.iWriteBytes("last", 4);
    m_Pipe.CloseWrite();
    EXPECT_EQ(4, m_Pipe.iReadBytes(aRead, sizeof(aRead)));
    EXPECT_EQ(0, m_Pipe.iReadBytes(aRead, sizeof(aRead)));
}

TEST_F(APipe, WritesAllThroughAPipeThatIsFull)
{
    const std::string szMuch(kMuchBytes, 'x');
    std::string szRead;
    std::thread reader([&] {
        char aChunk[1000];
        int iRead = 0;
        while ((iRead = m_Pipe.iReadBytes(aChunk, sizeof(aChunk))) > 0) {
            szRead.append(aChunk, static_cast<size_t>(iRead));
        }
    });
    EXPECT_EQ(kMuchBytes, m_Pipe.iWriteBytes(szMuch.data(), kMuchBytes));
    m_Pipe.CloseWrite();
    reader.join();
    EXPECT_EQ(szMuch, szRead);
}

TEST_F(APipe, SurvivesAReaderThatHasLeft)
{
    const ChildResult result = RunInChild([] {
        CPipe pipe;
        pipe.CloseRead();
        return pipe.iWriteBytes("a", 1) == -1 && errno == EPIPE ? 0 : 1;
    });
    EXPECT_EQ(0, result.iSignal);
    EXPECT_EQ(0, result.iExitCode);
}

TEST_F(APipe, TellsWhatWasWrittenBeforeTheReaderLeft)
{
    const std::string szMuch(kMuchBytes, 'x');
    std::thread reader([&] {
        char aChunk[4096];
        m_Pipe.iReadBytes(aChunk, sizeof(aChunk));
        m_Pipe.CloseRead();
    });
    const int iWritten = m_Pipe.iWriteBytes(szMuch.data(), kMuchBytes);
    EXPECT_GE(iWritten, 4096);
    EXPECT_LT(iWritten, kMuchBytes);
    reader.join();
}

std::atomic<int> g_nSignals{0};

TEST_F(APipe, WaitsOnAfterASignal)
{
    struct sigaction action = {}; // without SA_RESTART
    action.sa_handler = [](int) { ++g_nSignals; };
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> bRead{false};
    std::thread reader([&] {
        char aRead[1] = {};
        EXPECT_EQ(1, m_Pipe.iReadBytes(aRead, 1));
        bRead = true;
    });
    EXPECT_TRUE(bAwait([&] { // the thread sanitizer puts off what comes just before the wait
        pthread_kill(reader.native_handle(), SIGUSR1);
        return g_nSignals >= 20;
    }));
    EXPECT_FALSE(bRead);
    m_Pipe.iWriteBytes("a", 1);
    reader.join();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(APipe, IsClosedWhenTheSystemHasNoDescriptors)
{
    const ChildResult result = RunInChild([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        CPipe pipe;
        return pipe.hReadHandle() == -1 && pipe.hWriteHandle() == -1 &&
                       pipe.iWriteBytes("a", 1) == -1
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, result.iExitCode);
}
} // namespace
