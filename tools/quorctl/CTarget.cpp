#include "CTarget.h"

#include "CDescriptor.h"
#include "DataText.h"
#include "Failure.h"
#include "Poll.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <system_error>
#include <thread>

namespace QuorCtl
{
namespace
{
/// What the look-up thread and its caller share; the last of the two frees it.
struct Lookup {
    std::string szHost;
    std::string szPort;
    CDescriptor done{eventfd(0, EFD_CLOEXEC)}; ///< Readable once the rest is filled in.
    int iError = 0;
    int iErrno = 0; ///< Of EAI_SYSTEM.
    std::vector<Address> addresses;
};

void LookUp(Lookup& lookup, int iFlags)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | iFlags;
    addrinfo* pFirst = nullptr;
    lookup.iError = getaddrinfo(lookup.szHost.c_str(), lookup.szPort.c_str(), &hints, &pFirst);
    lookup.iErrno = errno;
    if (lookup.iError != 0) {
        return;
    }
    for (const addrinfo* pEntry = pFirst; pEntry != nullptr; pEntry = pEntry->ai_next) {
        Address address;
        std::memcpy(&address.storage, pEntry->ai_addr, pEntry->ai_addrlen);
        address.length = pEntry->ai_addrlen;
        lookup.addresses.push_back(address);
    }
    freeaddrinfo(pFirst);
}

void LookUpOnAThread(const std::shared_ptr<Lookup>& pLookup, const CDeadline& deadline, int iWakeFd)
{
    if (pLookup->done.iGet() == -1) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    std::thread([pLookup] {
        LookUp(*pLookup, 0);
        eventfd_write(pLookup->done.iGet(), 1);
    }).detach();
    if (!bAwaitFd(pLookup->done.iGet(), POLLIN, deadline, iWakeFd)) {
        throw CTimeOut("the address of " + szVisible(pLookup->szHost) + " was not found in " +
                       std::to_string(deadline.iLimitMs()) + " ms");
    }
    eventfd_t count = 0;
    eventfd_read(pLookup->done.iGet(), &count); // orders the results before what follows
}
} // namespace

void CTarget::SetUnixPath(const std::string& szPath)
{
    if (szPath.empty() || szPath.size() >= sizeof(sockaddr_un::sun_path)) {
        throw CUsageError("--unix: the path of a socket has 1 to " +
                          std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
    }
    m_szUnixPath = szPath;
}

std::string CTarget::szName() const
{
    if (!m_szUnixPath.empty()) {
        return "unix:" + szVisible(m_szUnixPath);
    }
    const bool bColons = m_szHost.find(':') != std::string::npos;
    const std::string szHost = szVisible(m_szHost);
    return (bColons ? '[' + szHost + ']' : szHost) + ':' + std::to_string(m_iPort);
}

std::vector<Address> CTarget::Addresses(const CDeadline& deadline, int iWakeFd) const
{
    if (!m_szUnixPath.empty()) {
        sockaddr_un unixAddress = {};
        unixAddress.sun_family = AF_UNIX;
        m_szUnixPath.copy(unixAddress.sun_path, sizeof(unixAddress.sun_path) - 1);
        Address address;
        std::memcpy(&address.storage, &unixAddress, sizeof(unixAddress));
        address.length = sizeof(unixAddress);
        return {address};
    }
    const auto pLookup = std::make_shared<Lookup>();
    pLookup->szHost = m_szHost;
    pLookup->szPort = std::to_string(m_iPort);
    LookUp(*pLookup, AI_NUMERICHOST); // asks nobody
    if (pLookup->iError == EAI_NONAME) {
        LookUpOnAThread(pLookup, deadline, iWakeFd);
    }
    if (pLookup->iError != 0) {
        const bool bSystem = pLookup->iError == EAI_SYSTEM;
        throw CLinkFailure("host " + szVisible(m_szHost) + ": " +
                           (bSystem ? std::generic_category().message(pLookup->iErrno)
                                    : std::string(gai_strerror(pLookup->iError))));
    }
    return pLookup->addresses;
}
} // namespace QuorCtl
