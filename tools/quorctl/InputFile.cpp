#include "InputFile.h"

#include "CDescriptor.h"
#include "DataText.h"
#include "Failure.h"
#include "Poll.h"

#include <cerrno>
#include <fcntl.h>
#include <libQuorCore/socketFrame.h>
#include <system_error>
#include <unistd.h>

namespace QuorCtl
{
namespace
{
constexpr const char* kStandardInput = "-";
constexpr size_t kReadBytes = 4096;

// As read(2), but no longer than the deadline: a terminal or a pipe may have nothing for ever.
ssize_t lReadSome(int iFd, char* pBytes, size_t size, const CDeadline& deadline)
{
    ssize_t lRead = -1;
    do {
        if (!bAwaitFd(iFd, POLLIN, deadline, -1)) {
            errno = ETIMEDOUT;
            return -1;
        }
        lRead = read(iFd, pBytes, size);
    } while (lRead == -1 && (errno == EINTR || errno == EAGAIN));
    return lRead;
}

[[noreturn]] void FailFile(const std::string& szInput, int iError, const CDeadline& deadline)
{
    const std::string szWhich = szInput + ": ";
    if (iError == ETIMEDOUT) {
        throw CTimeOut(szWhich + "no end in " + std::to_string(deadline.iLimitMs()) + " ms");
    }
    throw CUsageError(szWhich + std::generic_category().message(iError));
}
} // namespace

// One byte more than a frame may have is enough to see that it is too much.
std::string szReadInput(const std::string& szFile, const std::string& szWhich,
                        const CDeadline& deadline)
{
    const bool bStandardInput = szFile == kStandardInput;
    // Without O_NONBLOCK a FIFO opens only when somebody writes to it: fifo(7).
    const CDescriptor opened(
        bStandardInput ? -1 : open(szFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const int iFd = bStandardInput ? STDIN_FILENO : opened.iGet();
    std::string szContent;
    ssize_t lRead = iFd == -1 ? -1 : 1;
    while (lRead > 0 && szContent.size() <= QuorCore::kFrameDataBytesMax) {
        const size_t before = szContent.size();
        szContent.resize(before + kReadBytes);
        lRead = lReadSome(iFd, &szContent[before], kReadBytes, deadline);
        szContent.resize(before + (lRead > 0 ? static_cast<size_t>(lRead) : 0));
    }
    if (lRead == -1) {
        FailFile(szWhich + szVisible(szFile), errno, deadline);
    }
    return szContent;
}
} // namespace QuorCtl
