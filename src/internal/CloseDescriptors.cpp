#include "internal/CloseDescriptors.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
#ifdef SYS_close_range
constexpr long kCloseRange = SYS_close_range;
#else
constexpr long kCloseRange = 436; // the same number on every architecture
#endif

constexpr size_t kNameOffset = 8 + 8 + 2 + 1; // d_ino, d_off, d_reclen, d_type; getdents64(2)
constexpr size_t kLengthOffset = 8 + 8;

/// Closes the descriptors that one batch of directory entries names. @return Whether any was
/// closed.
bool bCloseBatch(const char* pBatch, size_t iSize, int iFirst, int iDirectory)
{
    bool bClosed = false;
    for (size_t iPos = 0; iPos < iSize;) {
        uint16_t iLength = 0;
        std::memcpy(&iLength, pBatch + iPos + kLengthOffset, sizeof(iLength));
        const char* const szName = pBatch + iPos + kNameOffset;
        const int iFd = *szName == '.' ? -1 : std::atoi(szName);
        if (iFd >= iFirst && iFd != iDirectory) {
            close(iFd);
            bClosed = true;
        }
        iPos += iLength;
    }
    return bClosed;
}

bool bCloseListed(int iFirst)
{
    close(iFirst); // a full table has no room for the list
    const int iDirectory = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (iDirectory < 0) {
        return false;
    }
    alignas(8) char aBatch[4096];
    bool bAgain = true;
    while (bAgain) { // closing while the list is read may skip some: read it until none is left
        bAgain = false;
        lseek(iDirectory, 0, SEEK_SET);
        long iSize = 0;
        while ((iSize = syscall(SYS_getdents64, iDirectory, aBatch, sizeof(aBatch))) > 0) {
            bAgain |= bCloseBatch(aBatch, static_cast<size_t>(iSize), iFirst, iDirectory);
        }
        if (iSize < 0) {
            break;
        }
    }
    if (iDirectory >= iFirst) {
        close(iDirectory);
    }
    return true;
}
} // namespace

void CloseDescriptorsFrom(int iFirst)
{
    if (syscall(kCloseRange, static_cast<unsigned>(iFirst), ~0U, 0U) == 0 || bCloseListed(iFirst)) {
        return;
    }
    const long iTableSize = sysconf(_SC_OPEN_MAX);
    for (int iFd = iFirst; iFd < iTableSize; ++iFd) {
        close(iFd);
    }
}
} // namespace QuorCore
