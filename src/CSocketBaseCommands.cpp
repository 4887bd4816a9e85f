// The commands that every endpoint answers by itself.
#include "libQuorCore/CSocketBase.h"

#include "internal/CommonCommands.h"

#include "libQuorCore/CSocketCallback.h"

#include <cstring>
#include <vector>

namespace QuorCore
{
long CSocketBase::iInitInstance()
{
    struct Builtin {
        eITFCmdCommun command;
        CSocketCallback<CSocketBase>::Callback handler;
    };
    constexpr Builtin kBuiltins[] = {
        {CMD_COMMUN_PING, &CSocketBase::OnCmdCommunPing},
        {CMD_COMMUN_PONG, &CSocketBase::OnCmdCommunPong},
        {CMD_COMMUN_VERSION, &CSocketBase::OnCmdCommunVersion},
        {CMD_COMMUN_PID, &CSocketBase::OnCmdCommunPID},
        {CMD_COMMUN_NAME, &CSocketBase::OnCmdCommunName},
        {CMD_COMMUN_GET_LOG_CONFIG, &CSocketBase::OnCmdCommunGetLogConfig},
        {CMD_COMMUN_SET_LOG_CONFIG, &CSocketBase::OnCmdCommunSetLogConfig},
    };
    if (CThreadCom::iInitInstance() == 0) {
        for (const Builtin& builtin : kBuiltins) {
            pAddCallback(builtin.command, new CSocketCallback<CSocketBase>(this, builtin.handler));
        }
    }
    return 0;
}

void CSocketBase::OnCmdCommunPing(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        ResetPing();
        Serve(*pFrame, CommonCommands::Ping(*pFrame));
    }
}

void CSocketBase::OnCmdCommunPong(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        ResetPing();
        Serve(*pFrame, CommonCommands::Pong(*pFrame));
    }
}

void CSocketBase::OnCmdCommunVersion(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Serve(*pFrame, CommonCommands::Version(*pFrame));
    }
}

void CSocketBase::OnCmdCommunPID(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Serve(*pFrame, CommonCommands::Pid(*pFrame));
    }
}

void CSocketBase::OnCmdCommunName(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Serve(*pFrame, CommonCommands::Name(*pFrame));
    }
}

void CSocketBase::OnCmdCommunGetLogConfig(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Serve(*pFrame, CommonCommands::GetLogConfig(*pFrame));
    }
}

void CSocketBase::OnCmdCommunSetLogConfig(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Serve(*pFrame, CommonCommands::SetLogConfig(*pFrame));
    }
}

void CSocketBase::Serve(socketFrame_t& frame, const CommonCommands::outcome_t& outcome)
{
    using eAnswer = CommonCommands::outcome_t::eAnswer;
    PostOnce(outcome.iEventBefore);
    if (outcome.answer == eAnswer::FRAME) {
        iWrite(&frame);
    } else if (outcome.answer == eAnswer::NEW_DATA) {
        Answer(frame, outcome.szData);
    }
    PostOnce(outcome.iEventAfter);
}

// Sends a frame's header back with other data.
void CSocketBase::Answer(const socketFrameHdr_t& header, const std::string& szData)
{
    std::vector<uint8_t> bytes(kFrameHeaderSize + szData.size());
    std::memcpy(bytes.data(), &header, kFrameHeaderSize);
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(bytes.data());
    std::memcpy(pFrame->pGetData(), szData.data(), szData.size());
    pFrame->SetDataSize(static_cast<uint16_t>(szData.size()));
    pFrame->error = 0;
    iWrite(pFrame);
}
} // namespace QuorCore
