#include "CFrame.h"

#include <utility>

namespace QuorCtl
{
CFrame::CFrame(uint16_t iCommand, std::string szBytes) : szData(std::move(szBytes))
{
    header.command = iCommand;
}

std::string CFrame::szBytes() const
{
    QuorCore::socketFrameHdr_t wire = header;
    wire.magicNumber = QuorCore::kFrameMagic;
    wire.size = static_cast<uint32_t>(szData.size());
    return std::string(reinterpret_cast<const char*>(&wire), sizeof(wire)) + szData;
}

CFrame PongFor(CFrame ping)
{
    ping.header.command = QuorCore::CMD_COMMUN_PONG;
    ping.header.error = 0;
    return ping;
}
} // namespace QuorCtl
