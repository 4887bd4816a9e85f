#include "support/CPty.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace TestSupport
{
namespace
{
constexpr int kSliceMs = 50; // a far end without a device has no event for its coming
} // namespace

CPty::CPty() : m_Far(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    std::array<char, 64> aName{};
    if (!m_Far || grantpt(m_Far.iGet()) != 0 || unlockpt(m_Far.iGet()) != 0 ||
        ptsname_r(m_Far.iGet(), aName.data(), aName.size()) != 0 ||
        fcntl(m_Far.iGet(), F_SETFL, O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "no pseudo-terminal");
    }
    m_szPath = aName.data();
}

bool CPty::bSend(const std::string& szBytes, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    size_t nSent = 0;
    while (nSent < szBytes.size()) {
        const ssize_t lSent = write(m_Far.iGet(), szBytes.data() + nSent, szBytes.size() - nSent);
        if (lSent > 0) {
            nSent += static_cast<size_t>(lSent);
        } else if (deadline.bPassed() || (lSent == -1 && errno != EAGAIN)) {
            return false;
        } else {
            pollfd room{m_Far.iGet(), POLLOUT, 0};
            poll(&room, 1, std::min(deadline.iRemainingMs(), kSliceMs));
        }
    }
    return true;
}

bool CPty::bReadSome(std::string& szText, size_t nMax, const CDeadline& deadline)
{
    std::array<char, 4096> aBytes;
    for (;;) {
        const ssize_t lRead = read(m_Far.iGet(), aBytes.data(), std::min(nMax, aBytes.size()));
        if (lRead > 0) {
            szText.append(aBytes.data(), static_cast<size_t>(lRead));
            return true;
        }
        if (deadline.bPassed()) {
            return false;
        }
        const bool bNobody =
            lRead == -1 && errno == EIO; // the device is not open; poll never waits
        pollfd input{bNobody ? -1 : m_Far.iGet(), POLLIN, 0};
        poll(&input, 1, std::min(deadline.iRemainingMs(), bNobody ? 1 : kSliceMs));
    }
}

std::string CPty::szReceive(size_t size, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    std::string szText;
    while (szText.size() < size && bReadSome(szText, size - szText.size(), deadline)) {
    }
    return szText;
}

std::string CPty::szReceiveUntil(const std::string& szEnd, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    std::string szText;
    const auto bEnded = [&] {
        return szText.size() >= szEnd.size() &&
               szText.compare(szText.size() - szEnd.size(), szEnd.size(), szEnd) == 0;
    };
    while (!bEnded() && bReadSome(szText, 1, deadline)) {
    }
    return szText;
}
} // namespace TestSupport
