#include "libQuorCore/CPipe.h"

#include "internal/CUniqueFd.h"
#include "internal/Sigpipe.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
void CloseEnd(int& iFd)
{
    if (iFd != -1) {
        CUniqueFd::CloseFd(iFd);
        iFd = -1;
    }
}

/// @return Whether a transfer makes sense; if not, errno tells why.
bool bUsable(int iFd, const char* pData, int iSize)
{
    if (iFd == -1) {
        errno = EBADF;
    } else if (iSize < 0 || (pData == nullptr && iSize > 0)) {
        errno = EINVAL;
    } else {
        return true;
    }
    return false;
}
} // namespace

CPipe::CPipe() : m_readfd(-1), m_writefd(-1)
{
    EnsureSigpipeHandled();
    int aEnds[2];
    if (pipe2(aEnds, O_CLOEXEC) == 0) {
        m_readfd = aEnds[0];
        m_writefd = aEnds[1];
    }
}

CPipe::~CPipe()
{
    CPipe::Close();
}

void CPipe::CloseRead()
{
    CloseEnd(m_readfd);
}

void CPipe::CloseWrite()
{
    CloseEnd(m_writefd);
}

void CPipe::Close()
{
    CloseRead();
    CloseWrite();
}

int CPipe::iWriteBytes(const char* pData, int iSize)
{
    if (!bUsable(m_writefd, pData, iSize)) {
        return -1;
    }
    int iWritten = 0;
    while (iWritten < iSize) {
        const ssize_t iPart =
            write(m_writefd, pData + iWritten, static_cast<size_t>(iSize - iWritten));
        if (iPart >= 0) {
            iWritten += static_cast<int>(iPart);
        } else if (errno != EINTR) {
            return iWritten > 0 ? iWritten : -1;
        }
    }
    return iWritten;
}

int CPipe::iReadBytes(char* pData, int iSize)
{
    if (!bUsable(m_readfd, pData, iSize)) {
        return -1;
    }
    ssize_t iRead = 0;
    do {
        iRead = read(m_readfd, pData, static_cast<size_t>(iSize));
    } while (iRead < 0 && errno == EINTR);
    return static_cast<int>(iRead);
}
} // namespace QuorCore
