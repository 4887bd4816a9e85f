#include "libQuorCore/process_cap.h"

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr uint32_t kVersion3 = 0x20080522; // _LINUX_CAPABILITY_VERSION_3
constexpr int kCapabilities = 64;
constexpr int kBitsPerWord = 32;

static_assert(sizeof(process_cap_s) == 2 * 4 + 2 * 3 * 4, "the kernel's layout");

using change_t = int (*)(process_cap_s*, int, int);

int iChangeAll(process_cap_s* pCap, int iFlags, const capability_t* pCapabilities, change_t change)
{
    if (pCapabilities == nullptr || *pCapabilities == -1) {
        return EINVAL;
    }
    int iResult = 0;
    for (; iResult == 0 && *pCapabilities != -1; ++pCapabilities) {
        iResult = change(pCap, iFlags, *pCapabilities);
    }
    return iResult;
}

void SetBit(uint32_t& iSet, uint32_t iBit, bool bOn)
{
    iSet = bOn ? iSet | iBit : iSet & ~iBit;
}

int iChange(process_cap_s* pCap, int iFlags, int iCapability, bool bOn)
{
    if (iCapability < 0 || iCapability >= kCapabilities) {
        return EINVAL;
    }
    auto& word = pCap->cap_data[iCapability / kBitsPerWord];
    const uint32_t iBit = uint32_t{1} << (iCapability % kBitsPerWord);
    if ((iFlags & PROCESS_CAP_EFFECTIVE) != 0) {
        SetBit(word.effective, iBit, bOn);
    }
    if ((iFlags & PROCESS_CAP_PERMITTED) != 0) {
        SetBit(word.permitted, iBit, bOn);
    }
    if ((iFlags & PROCESS_CAP_INHERITABLE) != 0) {
        SetBit(word.inheritable, iBit, bOn);
    }
    return 0;
}
} // namespace

void process_cap_raz(process_cap_s* pCap)
{
    *pCap = process_cap_s();
    pCap->cap_hdr.version = kVersion3;
}

void process_cap_cp(process_cap_s* pTo, const process_cap_s* pFrom)
{
    *pTo = *pFrom;
}

int process_cap_enable(process_cap_s* pCap, int iFlags, int iCapability)
{
    return iChange(pCap, iFlags, iCapability, true);
}

int process_cap_disable(process_cap_s* pCap, int iFlags, int iCapability)
{
    return iChange(pCap, iFlags, iCapability, false);
}

int process_cap_tab_enable(process_cap_s* pCap, int iFlags, const capability_t* pCapabilities)
{
    return iChangeAll(pCap, iFlags, pCapabilities, process_cap_enable);
}

int process_cap_tab_disable(process_cap_s* pCap, int iFlags, const capability_t* pCapabilities)
{
    return iChangeAll(pCap, iFlags, pCapabilities, process_cap_disable);
}

int process_cap_get(process_cap_s* pCap)
{
    pCap->cap_hdr.version = kVersion3;
    return static_cast<int>(syscall(SYS_capget, &pCap->cap_hdr, pCap->cap_data));
}

int process_cap_set(process_cap_s* pCap)
{
    pCap->cap_hdr.version = kVersion3;
    return static_cast<int>(syscall(SYS_capset, &pCap->cap_hdr, pCap->cap_data));
}
} // namespace QuorCore
