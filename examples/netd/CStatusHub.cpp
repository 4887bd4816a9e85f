#include "CStatusHub.h"

#include "NetdProtocol.h"

#include <cstring>
#include <string>
#include <vector>

using namespace QuorCore;

long CStatusHub::iInitInstance()
{
    const long lResult = CSocketHub::iInitInstance();
    pAddCallback(CMD_COMMUN_GET_CONFIG,
                 new CSocketCallback<CStatusHub>(this, &CStatusHub::OnCmdGetStatus));
    return lResult;
}

// The answer is longer than the request, so it gets memory of its own.
void CStatusHub::OnCmdGetStatus(socketFrame_t* pFrame)
{
    const peer_t* const pPeer = pAskingPeer();
    if (pFrame != nullptr && pPeer != nullptr) {
        std::string szStatus = m_status.szJson();
        std::vector<uint8_t> memory(kFrameHeaderSize + szStatus.size());
        std::memcpy(memory.data(), pFrame, kFrameHeaderSize);
        auto* const pAnswer = reinterpret_cast<socketFrame_t*>(memory.data());
        pAnswer->SetData(reinterpret_cast<uint8_t*>(szStatus.data()),
                         static_cast<int>(szStatus.size()));
        pAnswer->error = 0;
        iAnswer(pPeer->id, pAnswer);
    }
}

void CStatusHub::PushStatus()
{
    const std::string szStatus = m_status.szJson();
    iPushAll(CMD_NETD_STATUS, reinterpret_cast<const uint8_t*>(szStatus.data()),
             static_cast<long>(szStatus.size()));
}
