#include "support/Frames.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>

namespace TestSupport
{
namespace
{
void Append(std::string& szBytes, uint32_t iValue, int iWidth)
{
    for (int i = 0; i < iWidth; ++i) {
        szBytes += static_cast<char>(iValue >> (8 * i) & 0xFF);
    }
}

uint32_t iAt(const std::string& szBytes, size_t position, int iWidth)
{
    uint32_t iValue = 0;
    for (int i = iWidth - 1; i >= 0; --i) {
        iValue = iValue << 8 | static_cast<uint8_t>(szBytes[position + static_cast<size_t>(i)]);
    }
    return iValue;
}

uint16_t iWordAt(const std::string& szBytes, size_t position)
{
    return static_cast<uint16_t>(iAt(szBytes, position, 2));
}
} // namespace

std::string HeaderBytes(const Frame& frame)
{
    std::string szBytes;
    Append(szBytes, frame.iMagic, 2);
    Append(szBytes, frame.iSize, 4);
    for (const uint16_t iWord :
         {frame.iTypeItf, frame.iCommand, frame.iError, frame.iProtocol, frame.iCounter,
          static_cast<uint16_t>(frame.iUser1), static_cast<uint16_t>(frame.iUser2)}) {
        Append(szBytes, iWord, 2);
    }
    return szBytes;
}

std::string FrameBytes(Frame frame)
{
    frame.iSize = static_cast<uint32_t>(frame.szData.size());
    return HeaderBytes(frame) + frame.szData;
}

std::string FrameBytes(uint16_t iCommand, const std::string& szData)
{
    Frame frame;
    frame.iCommand = iCommand;
    frame.szData = szData;
    return FrameBytes(frame);
}

std::string HeaderBytes(uint16_t iCommand, uint32_t iSize)
{
    Frame frame;
    frame.iCommand = iCommand;
    frame.iSize = iSize;
    return HeaderBytes(frame);
}

Frame ParseFrame(const std::string& szBytes)
{
    Frame frame;
    if (szBytes.size() < kHeaderBytes) {
        frame.iMagic = 0;
        frame.szData = szBytes;
        return frame;
    }
    frame.iMagic = iWordAt(szBytes, 0);
    frame.iSize = iAt(szBytes, 2, 4);
    frame.iTypeItf = iWordAt(szBytes, 6);
    frame.iCommand = iWordAt(szBytes, 8);
    frame.iError = iWordAt(szBytes, 10);
    frame.iProtocol = iWordAt(szBytes, 12);
    frame.iCounter = iWordAt(szBytes, 14);
    frame.iUser1 = static_cast<int16_t>(iWordAt(szBytes, 16));
    frame.iUser2 = static_cast<int16_t>(iWordAt(szBytes, 18));
    frame.szData = szBytes.substr(kHeaderBytes);
    frame.bComplete = frame.szData.size() == frame.iSize;
    return frame;
}

Frame ReceiveFrame(CTcpPeer& peer, int iLimitMs)
{
    const CDeadline deadline(iLimitMs);
    std::string szBytes = peer.szReceive(kHeaderBytes, iLimitMs);
    if (szBytes.size() == kHeaderBytes) {
        szBytes += peer.szReceive(iAt(szBytes, 2, 4), deadline.iRemainingMs());
    }
    return ParseFrame(szBytes);
}

int iConnectTo(CTcpPeer& peer)
{
    peer.Listen();
    const int iFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(peer.iPort()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (iFd == -1 ||
        connect(iFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        !peer.bAccept()) {
        throw std::system_error(errno, std::generic_category(), "connect");
    }
    peer.StopListening();
    return iFd;
}
} // namespace TestSupport
