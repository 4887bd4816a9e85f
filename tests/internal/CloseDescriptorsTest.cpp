#include "internal/CloseDescriptors.h"

#include "support/CChild.h"
#include "support/CallFilter.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace QuorCore;
using namespace TestSupport;

namespace
{
#ifdef SYS_close_range
constexpr long kCloseRange = SYS_close_range;
#else
constexpr long kCloseRange = 436;
#endif

constexpr int kHighest = 1000; // descriptors that the tests open end here
constexpr int kFullTable = 20;

enum eResult : int { ALL_RIGHT = 0, NOT_CLOSED = 1, CLOSED_TOO_MUCH = 2, NOT_SET_UP = 3 };

void LimitDescriptors(rlim_t limit)
{
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    limits.rlim_cur = limit < limits.rlim_max ? limit : limits.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limits);
}

/// Opens descriptors with gaps from 3 up, closes those from a number on, and looks what is left.
int iCloseFrom(int iFirst)
{
    for (int iFd = 3; iFd <= kHighest; iFd += 1 + iFd % 5) {
        if (dup2(STDOUT_FILENO, iFd) != iFd) {
            return NOT_SET_UP;
        }
    }
    CloseDescriptorsFrom(iFirst);
    for (int iFd = 0; iFd <= kHighest + 10; ++iFd) {
        const bool bOpen = fcntl(iFd, F_GETFD) != -1;
        if (bOpen && iFd >= iFirst) {
            return NOT_CLOSED;
        }
        if (!bOpen && iFd <= STDERR_FILENO) {
            return CLOSED_TOO_MUCH;
        }
    }
    return iFirst > 3 && fcntl(3, F_GETFD) == -1 ? CLOSED_TOO_MUCH : ALL_RIGHT;
}

class ADescriptorTable : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!bCanFilterCalls()) {
            GTEST_SKIP() << "no filters for system calls here";
        }
    }

    /// As in a kernel before 5.9.
    static void UseOldKernel() { RefuseCall(kCloseRange, ENOSYS); }
};

TEST_F(ADescriptorTable, IsClosedFromAnyNumber)
{
    for (const int iFirst : {3, 4, 500, kHighest + 1}) {
        EXPECT_EQ(ALL_RIGHT, RunInChild([=] { return iCloseFrom(iFirst); }).iExitCode) << iFirst;
    }
}

TEST_F(ADescriptorTable, IsClosedByItsListInAnOldKernel)
{
    for (const int iFirst : {3, 4, 500, kHighest + 1}) {
        const ChildResult result = RunInChild([=] {
            UseOldKernel();
            return iCloseFrom(iFirst);
        });
        EXPECT_EQ(ALL_RIGHT, result.iExitCode) << iFirst;
    }
}

TEST_F(ADescriptorTable, IsClosedByItsListWhenItIsFull)
{
    const ChildResult result = RunInChild([] {
        const int iHigh = dup2(STDOUT_FILENO, kHighest); // out of reach for a walk to the limit
        LimitDescriptors(kFullTable);
        UseOldKernel();
        while (dup(STDOUT_FILENO) != -1) {
        }
        CloseDescriptorsFrom(3);
        const bool bLeft = fcntl(3, F_GETFD) != -1 || fcntl(kFullTable - 1, F_GETFD) != -1 ||
                           fcntl(iHigh, F_GETFD) != -1;
        return bLeft ? NOT_CLOSED : ALL_RIGHT;
    });
    EXPECT_EQ(ALL_RIGHT, result.iExitCode);
}

TEST_F(ADescriptorTable, IsClosedWholeWithoutItsList)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to hide /proc";
    }
    const ChildResult result = RunInChild([] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
            return static_cast<int>(NOT_SET_UP);
        }
        UseOldKernel();
        return iCloseFrom(3);
    });
    EXPECT_EQ(ALL_RIGHT, result.iExitCode);
}

TEST_F(ADescriptorTable, IsNotWalkedThrough)
{
    for (const bool bOldKernel : {false, true}) {
        const ChildResult result = RunInChild([=] {
            LimitDescriptors(1048576);
            ForbidCall(SYS_close, kHighest + 1, INT32_MAX);
            if (bOldKernel) {
                UseOldKernel();
            }
            return iCloseFrom(3);
        });
        EXPECT_EQ(0, result.iSignal);
        EXPECT_EQ(ALL_RIGHT, result.iExitCode);
    }
}
} // namespace
