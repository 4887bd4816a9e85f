#include "internal/SocketErrorText.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace QuorCore
{
namespace
{
struct SocketErrorText {
    int iError;
    const char* pszText;
};

// Log scanners on the devices match these texts to the letter, the blanks at their ends and the
// eleven tabs at three places of one of them included. Held by ASocketBase.NamesASocketError.
#define ELEVEN_TABS "\t\t\t\t\t\t\t\t\t\t\t"
constexpr SocketErrorText kSocketErrorTexts[] = {
    {EBADF, "The socket socket is not a valid file descriptor. "},
    {ENOTSOCK, "File descriptor socket is not a socket. "},
    {EADDRNOTAVAIL, "The specified address is not available on the remote machine. "},
    {EAFNOSUPPORT, "The namespace of the addr is not supported by this socket. "},
    {EISCONN, "The socket socket is already connected. "},
    {ETIMEDOUT, "The attempt to establish the connection timed out. "},
    {ECONNREFUSED, "The server has actively refused to establish the connection. "},
    {ENETUNREACH, "The network of the given addr isn't reachable from this host. "},
    {EADDRINUSE, "The socket address of the given addr is already in use. "},
    {EINPROGRESS,
     "The socket socket is non-blocking and the connection could not be " ELEVEN_TABS
     " established immediately. You can determine when the connection is completely " ELEVEN_TABS
     " established with select; . Another connect call on the same socket, before the "
     "connection " ELEVEN_TABS " is completely established, will fail with EALREADY. "},
    {EALREADY, "The socket socket is non-blocking and already has a pending connection in progress "
               "(see EINPROGRESS above). "},
};
#undef ELEVEN_TABS
} // namespace

const char* pszSocketErrorText(long lError)
{
    const auto isIt = [lError](const SocketErrorText& known) { return known.iError == lError; };
    const auto* const pEnd = std::end(kSocketErrorTexts);
    const auto* const pKnown = std::find_if(std::begin(kSocketErrorTexts), pEnd, isIt);
    return pKnown != pEnd ? pKnown->pszText : nullptr;
}
} // namespace QuorCore
