#include "CModemEndpoint.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr std::array<uint16_t, 24> kQueued = {CMD_MODEM_GET_IMEI,
                                              CMD_MODEM_GET_IMSI,
                                              CMD_MODEM_GET_CID,
                                              CMD_MODEM_GET_CSQ,
                                              CMD_MODEM_GET_CGREG,
                                              CMD_MODEM_GET_RSSI,
                                              CMD_MODEM_GET_CODE_PIN_STATE,
                                              CMD_MODEM_SET_CODE_PIN,
                                              CMD_MODEM_GET_REGISTRATION_STATE,
                                              CMD_MODEM_GET_ACCESS_TECHNO,
                                              CMD_MODEM_SEND_SMS,
                                              CMD_MODEM_DELETE_OLD_SMS,
                                              CMD_MODEM_SHUTDOWN_,
                                              CMD_MODEM_SET_INIT,
                                              CMD_MODEM_SET_REGISTER,
                                              CMD_MODEM_SET_DEREGISTER,
                                              CMD_MODEM_GET_EXTENDED_ERROR_REPORT,
                                              CMD_MODEM_GET_SIGNAL_QUALITY,
                                              CMD_MODEM_TEST_CONNECTIVITY,
                                              CMD_MODEM_SET_CODE_PIN_ACTIVE,
                                              CMD_MODEM_GET_INCOMING_SMS_PDU,
                                              CMD_MODEM_GET_KCELL,
                                              CMD_MODEM_GET_NETWORK_SCAN,
                                              CMD_MODEM_SET_CONFIG_APN};

// Refused, so that nobody waits for an answer: modemd makes no connections, keeps no statistics,
// has one LED and not those of a front panel, and no time server; and the page is known to nobody.
constexpr std::array<uint16_t, 11> kRefused = {
    CMD_MODEM_GET_CELLS_STATS,     CMD_MODEM_GET_XCGED_PAGE,   CMD_MODEM_SET_CONFIG_PPP,
    CMD_MODEM_SET_LED_GPRS_LOW,    CMD_MODEM_SET_LED_GPRS_MED, CMD_MODEM_SET_LED_GPRS_HIGH,
    CMD_MODEM_SET_LED_UMTS_LOW,    CMD_MODEM_SET_LED_UMTS_MED, CMD_MODEM_SET_LED_UMTS_HIGH,
    CMD_MODEM_SET_CONFIG_FLOW_NTP, CMD_MODEM_RESET_PPP};

// A frame of more wraps the 16 bits in which peers compute its size.
constexpr size_t kAnswerBytesMax = static_cast<size_t>(kFrameDataBytesMax) - kFrameHeaderSize;

std::string szDataOf(socketFrame_t& frame)
{
    return {reinterpret_cast<const char*>(frame.pGetData()), frame.GetDataSize()};
}

// C programs send texts with their 0 byte.
std::string szTextOf(socketFrame_t& frame)
{
    std::string szText = szDataOf(frame);
    while (!szText.empty() && szText.back() == 0) {
        szText.pop_back();
    }
    return szText;
}

answer_t AnswerOf(const ustring& bytes)
{
    return {MODEM_OK, std::string(bytes.begin(), bytes.end())};
}

// The end of it that fits into a frame, from the beginning of a line on.
std::string szNewest(std::string szRecord)
{
    if (szRecord.size() > kAnswerBytesMax) {
        szRecord.erase(0, szRecord.size() - kAnswerBytesMax);
        szRecord.erase(0, szRecord.find('\n') + 1);
    }
    return szRecord;
}
} // namespace

CModemEndpoint::CModemEndpoint(CObject* pParent, const char* szLabel, CModemPort& port,
                               CModemTree& tree)
    : CSocketHub(pParent, szLabel), m_port(port), m_tree(tree), m_TreeCommands(tree)
{
}

CModemEndpoint::~CModemEndpoint()
{
    EndThread();
}

long CModemEndpoint::iInitInstance()
{
    const long lResult = CSocketHub::iInitInstance();
    const auto connect = [this](uint16_t iCommand,
                                void (CModemEndpoint::*handler)(socketFrame_t*)) {
        pAddCallback(iCommand, new CSocketCallback<CModemEndpoint>(this, handler));
    };
    for (const uint16_t iCommand : kQueued) {
        connect(iCommand, &CModemEndpoint::OnCmdQueued);
    }
    for (const uint16_t iCommand : kRefused) {
        connect(iCommand, &CModemEndpoint::OnCmdRefused);
    }
    connect(CMD_MODEMD_AT, &CModemEndpoint::OnCmdRaw);
    connect(CMD_MODEM_GET_CELL_SERVING, &CModemEndpoint::OnCmdCellServing);
    connect(CMD_MODEM_SET_WHITELIST, &CModemEndpoint::OnCmdWhitelist);
    connect(CMD_MODEMD_RECORD, &CModemEndpoint::OnCmdRecord);
    m_TreeCommands.Register(*this);
    return lResult;
}

request_t CModemEndpoint::RequestOf(socketFrame_t& frame) const
{
    const peer_t* const pPeer = pAskingPeer();
    return {pPeer != nullptr ? pPeer->id : 0, frame, szTextOf(frame)};
}

// The words of the request's header that are the peer's go back as they came.
void CModemEndpoint::Answer(const request_t& request, const answer_t& answer)
{
    const size_t nBytes = std::min(answer.szData.size(), kAnswerBytesMax);
    std::vector<uint8_t> memory(kFrameHeaderSize + nBytes);
    std::memcpy(memory.data(), &request.header, kFrameHeaderSize);
    std::memcpy(memory.data() + kFrameHeaderSize, answer.szData.data(), nBytes);
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(memory.data());
    pFrame->SetDataSize(static_cast<uint16_t>(nBytes));
    pFrame->error = answer.iError;
    iAnswer(request.peer, pFrame);
}

void CModemEndpoint::TellAll(const std::string& szNews)
{
    iPushAll(CMD_MODEMD_NEWS, reinterpret_cast<const uint8_t*>(szNews.data()),
             static_cast<long>(std::min(szNews.size(), kAnswerBytesMax)));
}

void CModemEndpoint::OnCmdQueued(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        m_ask(RequestOf(*pFrame));
    }
}

void CModemEndpoint::OnCmdRefused(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Answer(RequestOf(*pFrame), {MODEM_NOT_SUPPORTED, "this daemon does nothing of that kind"});
    }
}

void CModemEndpoint::OnCmdRaw(socketFrame_t* pFrame)
{
    if (pFrame != nullptr && m_bRawAllowed) {
        m_ask(RequestOf(*pFrame));
    } else if (pFrame != nullptr) {
        Answer(RequestOf(*pFrame),
               {MODEM_NOT_ALLOWED, "allow_at=1 in its configuration allows it"});
    }
}

void CModemEndpoint::OnCmdCellServing(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Answer(RequestOf(*pFrame), AnswerOf(m_tree.CellBytes()));
    }
}

void CModemEndpoint::OnCmdWhitelist(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Answer(RequestOf(*pFrame), ChangeWhitelist(*pFrame));
    }
}

answer_t CModemEndpoint::ChangeWhitelist(socketFrame_t& frame)
{
    bool bGood = false;
    const bool bChange = frame.user1 != WHITELIST_REPLACE || frame.GetDataSize() != 0;
    switch (frame.user1) {
    case WHITELIST_REPLACE:
        bGood = !bChange || m_tree.bReplaceCallback(frame);
        break;
    case WHITELIST_ADD:
        bGood = m_tree.bAddNumber(szTextOf(frame));
        break;
    case WHITELIST_REMOVE:
        bGood = m_tree.bRemoveNumber(szTextOf(frame));
        break;
    default:
        break;
    }
    if (!bGood) {
        return {MODEM_BAD_REQUEST, "the white list cannot be changed like that"};
    }
    if (bChange) {
        iPostMessage(EVT_DATABASE_SAVE, 0, 0, nullptr, 0, 0);
    }
    return AnswerOf(m_tree.CallbackBytes());
}

void CModemEndpoint::OnCmdRecord(socketFrame_t* pFrame)
{
    if (pFrame != nullptr) {
        Answer(RequestOf(*pFrame), {MODEM_OK, szNewest(m_port.szFlightRecord())});
    }
}

void CModemEndpoint::OnPeerConnected(const peer_t& peer)
{
    QUORCORE_LOG(LOG_INFO, "peer %llu has come", static_cast<unsigned long long>(peer.id));
}

void CModemEndpoint::OnPeerGone(const peer_t& peer, eGone reason)
{
    QUORCORE_LOG(LOG_INFO, "peer %llu has gone: %s", static_cast<unsigned long long>(peer.id),
                 pszGone(reason));
}
