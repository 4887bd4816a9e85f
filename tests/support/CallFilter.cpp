#include "support/CallFilter.h"

#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace TestSupport
{
namespace
{
// Where a filter finds the number of the call and the low half of its first argument.
constexpr uint32_t kCallOffset = offsetof(seccomp_data, nr);
constexpr uint32_t kArgumentOffset = offsetof(seccomp_data, args);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the low half comes first");

sock_filter Load(uint32_t uOffset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uOffset);
}

/// @param iIfNot  Statements to skip when the comparison fails.
sock_filter SkipUnless(int iComparison, uint32_t uValue, int iIfNot)
{
    return BPF_JUMP(static_cast<uint16_t>(BPF_JMP | iComparison | BPF_K), uValue, 0,
                    static_cast<uint8_t>(iIfNot));
}

sock_filter Return(uint32_t uAction)
{
    return BPF_STMT(BPF_RET | BPF_K, uAction);
}

void Install(std::vector<sock_filter> filter)
{
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program) != 0) {
        throw std::system_error(errno, std::generic_category(), "seccomp");
    }
}
} // namespace

bool bCanFilterCalls()
{
    const uint32_t uAction = SECCOMP_RET_KILL_PROCESS;
    return syscall(SYS_seccomp, SECCOMP_GET_ACTION_AVAIL, 0, &uAction) == 0;
}

void RefuseCall(long iCall, int iError)
{
    Install({Load(kCallOffset), SkipUnless(BPF_JEQ, static_cast<uint32_t>(iCall), 1),
             Return(SECCOMP_RET_ERRNO | static_cast<uint32_t>(iError)), Return(SECCOMP_RET_ALLOW)});
}

void ForbidCall(long iCall, uint32_t uFirst, uint32_t uLast)
{
    constexpr int kToAllow[] = {4, 2}; // statements up to the last one
    Install({Load(kCallOffset), SkipUnless(BPF_JEQ, static_cast<uint32_t>(iCall), kToAllow[0]),
             Load(kArgumentOffset), SkipUnless(BPF_JGE, uFirst, kToAllow[1]),
             BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, uLast, 1, 0), Return(SECCOMP_RET_KILL_PROCESS),
             Return(SECCOMP_RET_ALLOW)});
}
} // namespace TestSupport
