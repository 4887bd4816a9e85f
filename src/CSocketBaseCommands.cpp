// The commands that every endpoint answers by itself.
#include "libQuorCore/CSocketBase.h"

#include "libQuorCore/CSocketCallback.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr size_t kPageBytesMax = 65515; // from there on GetFrameSize() wraps, at the peer too
} // namespace

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
    if (pFrame == nullptr) {
        return;
    }
    ResetPing();
    pFrame->command = CMD_COMMUN_PONG;
    pFrame->error = 0;
    iWrite(pFrame);
    PostOnce(EVT_COM_PING);
}

void CSocketBase::OnCmdCommunPong(socketFrame_t* pFrame)
{
    if (pFrame == nullptr) {
        return;
    }
    pFrame->error = 0;
    ResetPing();
    PostOnce(EVT_COM_PONG);
}

// The three below: a request carries no data, so a frame that does is an answer whose exchange has
// given up. Answered as a request, it would go back and forth between two endpoints for ever.
void CSocketBase::OnCmdCommunVersion(socketFrame_t* pFrame)
{
    if (pFrame == nullptr || pFrame->GetDataSize() != 0) {
        return;
    }
    versionFW_t version = {}; // what follows the name's end stays in this process
    version.version = g_versionFW.version;
    std::memcpy(version.szAppName, g_versionFW.szAppName,
                strnlen(g_versionFW.szAppName, sizeof(version.szAppName)));
    Answer(pFrame, &version, sizeof(version));
}

void CSocketBase::OnCmdCommunPID(socketFrame_t* pFrame)
{
    if (pFrame == nullptr || pFrame->GetDataSize() != 0) {
        return;
    }
    int32_t iPid = getpid(); // four bytes on every machine
    Answer(pFrame, &iPid, sizeof(iPid));
}

void CSocketBase::OnCmdCommunName(socketFrame_t* pFrame)
{
    if (pFrame == nullptr || pFrame->GetDataSize() != 0) {
        return;
    }
    std::string szName(g_versionFW.szAppName,
                       strnlen(g_versionFW.szAppName, sizeof(g_versionFW.szAppName)));
    Answer(pFrame, szName.data(), szName.size() + 1);
}

void CSocketBase::OnCmdCommunGetLogConfig(socketFrame_t* pFrame)
{
    if (pFrame == nullptr) {
        return;
    }
    const std::string szAction(reinterpret_cast<char*>(pFrame->pGetData()), pFrame->GetDataSize());
    std::string szPage;
    m_Logger.iGetLogConfigHtml(szPage, szAction.c_str()); // the peer's bytes end where they end
    // An action that begins as the page does is a page whose exchange has given up: see above.
    constexpr size_t kTelltaleBytes = 15;
    if (szPage.size() > kTelltaleBytes &&
        szAction.compare(0, kTelltaleBytes, szPage, 0, kTelltaleBytes) == 0) {
        return;
    }
    szPage.resize(std::min(szPage.size(), kPageBytesMax - 1));
    Answer(pFrame, szPage.data(), szPage.size() + 1);
}

void CSocketBase::OnCmdCommunSetLogConfig(socketFrame_t* pFrame)
{
    constexpr uint16_t kPairBytes = 2;
    if (pFrame == nullptr || pFrame->GetDataSize() < kPairBytes) {
        return; // without a pair it is an answer, see above: these are empty
    }
    m_Logger.SetLogLevel(pFrame->pGetData(), pFrame->GetDataSize());
    PostOnce(EVT_CONFIG_SAVE);
    pFrame->SetData(nullptr, 0);
    pFrame->error = 0;
    iWrite(pFrame);
}

// Sends a frame back with other data; in a buffer of its own unless it surely fits where it is.
void CSocketBase::Answer(socketFrame_t* pFrame, void* pData, size_t size)
{
    std::vector<uint8_t> separate;
    const bool bFits = reinterpret_cast<uint8_t*>(pFrame) == m_pRxBuffer &&
                       kFrameHeaderSize + size <= sizeRxBuffer();
    if (!bFits) {
        separate.resize(kFrameHeaderSize + size);
        std::memcpy(separate.data(), pFrame, kFrameHeaderSize);
        pFrame = reinterpret_cast<socketFrame_t*>(separate.data());
    }
    pFrame->SetData(static_cast<uint8_t*>(pData), static_cast<int>(size));
    pFrame->error = 0;
    iWrite(pFrame);
}

// A peer sets the pace of these: one that waits says as much as a thousand, which would fill the
// memory while the dispatcher is busy.
void CSocketBase::PostOnce(uint32_t iEventId)
{
    if (!bIsPostQueued(iEventId)) {
        iPostMessage(iEventId, 0, 0, nullptr, 0, 0);
    }
}
} // namespace QuorCore
