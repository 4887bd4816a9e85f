#include "support/SocketPairs.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

using namespace QuorCore;

namespace Bench
{
namespace
{
void SetOptions(int iFd)
{
    const int iBuffer = 8192;
    const int iOn = 1;
    iChecked(setsockopt(iFd, SOL_SOCKET, SO_RCVBUF, &iBuffer, sizeof(iBuffer)), "SO_RCVBUF");
    iChecked(setsockopt(iFd, SOL_SOCKET, SO_SNDBUF, &iBuffer, sizeof(iBuffer)), "SO_SNDBUF");
    iChecked(setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn)), "TCP_NODELAY");
}

sockaddr_in LoopbackAddress(int iPort)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(iPort));
    return address;
}
} // namespace

int iChecked(int iResult, const char* szCall)
{
    if (iResult == -1) {
        throw std::system_error(errno, std::generic_category(), szCall);
    }
    return iResult;
}

COnOneProcessor::COnOneProcessor()
{
    sched_getaffinity(0, sizeof(m_former), &m_former);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

COnOneProcessor::~COnOneProcessor()
{
    sched_setaffinity(0, sizeof(m_former), &m_former);
}

connection_t Connect()
{
    const int iListener = iChecked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    iChecked(bind(iListener, pAddress, length), "bind");
    iChecked(listen(iListener, 1), "listen");
    iChecked(getsockname(iListener, pAddress, &length), "getsockname");
    connection_t ends{};
    ends.iNear = iConnectTo(ntohs(address.sin_port));
    ends.iFar = iChecked(accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    close(iListener);
    SetOptions(ends.iFar);
    return ends;
}

int iConnectTo(int iPort)
{
    const sockaddr_in address = LoopbackAddress(iPort);
    const int iFd = iChecked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    iChecked(connect(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "connect");
    SetOptions(iFd);
    return iFd;
}

std::vector<uint8_t> MakeFrame(size_t nData)
{
    socketFrameHdr_t header = {};
    header.magicNumber = kFrameMagic;
    header.command = kCommand;
    header.SetDataSize(static_cast<uint16_t>(nData));
    const auto* const pHeader = reinterpret_cast<const uint8_t*>(&header);
    std::vector<uint8_t> bytes(pHeader, pHeader + kFrameHeaderSize);
    bytes.resize(kFrameHeaderSize + nData, 0x5a);
    return bytes;
}

void SendAll(int iFd, const std::vector<uint8_t>& bytes)
{
    size_t nSent = 0;
    while (nSent < bytes.size()) {
        const ssize_t nPart = send(iFd, bytes.data() + nSent, bytes.size() - nSent, MSG_NOSIGNAL);
        if (nPart <= 0) {
            return;
        }
        nSent += static_cast<size_t>(nPart);
    }
}

bool bReceiveAll(int iFd, uint8_t* pBytes, size_t nBytes)
{
    return recv(iFd, pBytes, nBytes, MSG_WAITALL) == static_cast<ssize_t>(nBytes);
}

CRawEcho::CRawEcho(int iFd, size_t nBytes)
    : m_iFd(iFd), m_thread([iFd, nBytes] {
          std::vector<uint8_t> frame(nBytes);
          while (bReceiveAll(iFd, frame.data(), nBytes)) {
              SendAll(iFd, frame);
          }
      })
{
}

CRawEcho::~CRawEcho()
{
    shutdown(m_iFd, SHUT_RDWR);
    m_thread.join();
    close(m_iFd);
}

CEndpoint::CEndpoint(const char* szLabel, int iFd) : CSocketBase(nullptr, szLabel)
{
    sem_init(&m_done, 0, 0);
    Configure(1, kDataMax, szLabel);
    m_iSocket = iFd;
    SetConnected(true);
}

CEndpoint::~CEndpoint()
{
    iStop(true, false);
}

void CEndpoint::Start()
{
    if (iCreateThread(true, 5000) != 0) {
        throw std::runtime_error("an endpoint did not start");
    }
}

long CEndpoint::iInitInstance()
{
    const long lResult = CSocketBase::iInitInstance();
    pAddCallback(kCommand, new CSocketCallback<CSocketBase>(
                               this, static_cast<CSocketCallback<CSocketBase>::Callback>(
                                         &CEndpoint::OnFrame)));
    return lResult;
}
} // namespace Bench
