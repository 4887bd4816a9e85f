#include "CFrameStream.h"

#include "Failure.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace QuorCtl
{
namespace
{
constexpr size_t kReadBytes = 65536;

bool bMayGoOn(int iError)
{
    return iError == EAGAIN || iError == EINTR;
}
} // namespace

CFrameStream::CFrameStream(std::string szPeer, CDescriptor socket)
    : m_szPeer(std::move(szPeer)), m_socket(std::move(socket)), m_decoder(m_szPeer)
{
}

size_t CFrameStream::Write(const char* pBytes, size_t size)
{
    const ssize_t lSent = send(iFd(), pBytes, size, MSG_NOSIGNAL);
    if (lSent == -1 && !bMayGoOn(errno)) {
        FailClosed();
    }
    return lSent > 0 ? static_cast<size_t>(lSent) : 0;
}

void CFrameStream::ReadSome()
{
    std::array<char, kReadBytes> bytes;
    const ssize_t lRead = recv(iFd(), bytes.data(), bytes.size(), 0);
    if (lRead == 0 || (lRead == -1 && !bMayGoOn(errno))) {
        FailClosed();
    }
    if (lRead > 0) {
        m_bHeard = true;
        m_decoder.Append(bytes.data(), static_cast<size_t>(lRead));
    }
}

void CFrameStream::FailClosed() const
{
    throw CLinkFailure(m_szPeer + " closed the connection" +
                       (bMidFrame() ? " in the middle of a frame" : ""));
}
} // namespace QuorCtl
