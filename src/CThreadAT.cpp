#include "libQuorCore/CThreadAT.h"

#include "internal/CAtDialogue.h"
#include "internal/CAtQueue.h"
#include "internal/CCancelGuard.h"
#include "internal/CLineFramer.h"
#include "internal/CReportPost.h"

#include "libQuorCore/string_tools.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

namespace QuorCore
{
namespace
{
/// @param pszAllowed  Control characters that it may hold.
bool bIsPrintable(const std::string& szText, const char* pszAllowed)
{
    return std::all_of(szText.begin(), szText.end(), [pszAllowed](char c) {
        const auto uByte = static_cast<unsigned char>(c);
        return (uByte >= ' ' && uByte != 0x7F) ||
               (c != 0 && std::string(pszAllowed).find(c) != std::string::npos);
    });
}

/// Control characters would end it, or begin another one.
bool bIsOneCommand(const atCommand_t& command)
{
    return !command.szText.empty() && bIsPrintable(command.szText, "") &&
           (!command.bPrompt || bIsPrintable(command.szPayload, "\r\n"));
}

std::string szJoin(const std::vector<std::string>& lines)
{
    std::string szText;
    for (const std::string& szLine : lines) {
        szText += szText.empty() ? "" : "\n";
        szText += szLine;
    }
    return szText;
}
} // namespace

CThreadAT::CThreadAT(CObject* pParent, const char* pszLabel)
    : CThreadSerial(pParent, pszLabel), m_pFramer(std::make_unique<CLineFramer>()),
      m_pDialogue(std::make_unique<CAtDialogue>(*m_pFramer)),
      m_pReportPost(std::make_unique<CReportPost>())
{
}

CThreadAT::~CThreadAT()
{
    EndThread();
}

long CThreadAT::lCommand(const atCommand_t& command, atResult_t& result)
{
    const CDeferredCancel deferred;
    result = atResult_t{};
    if (!m_bConnected || bIsReadingThread() || !bIsOneCommand(command)) {
        return -1;
    }
    CAtCall call(command, result);
    m_pDialogue->Converse(call,
                          [this](const std::string& szText, const std::function<bool()>& bGoOn) {
                              return bWrite(szText, bGoOn);
                          });
    if (result.lResult == kTimedOut) {
        QUORCORE_LOG(LOG_ERR, "no answer to %s",
                     szMaskSecret(command.szText, command.bSecret).c_str());
        LogFlightRecord(LOG_ERR);
    }
    return result.lResult;
}

long CThreadAT::lCommand(const std::string& szText, const std::string& szPrefix, atResult_t& result,
                         long iTimeOut)
{
    atCommand_t command;
    command.szText = szText;
    command.szPrefix = szPrefix;
    command.iTimeOut = iTimeOut;
    return lCommand(command, result);
}

bool CThreadAT::bWrite(std::string szText, const std::function<bool()>& bGoOn)
{
    return m_bConnected && lWriteWhile(reinterpret_cast<uint8_t*>(szText.data()),
                                       static_cast<long>(szText.size()), bGoOn) == 0;
}

size_t CThreadAT::Cancel(uint32_t iTag)
{
    const CDeferredCancel deferred;
    return m_pDialogue->Cancel(iTag);
}

size_t CThreadAT::nQueued() const
{
    const CDeferredCancel deferred;
    return m_pDialogue->nQueued();
}

void CThreadAT::SetUnsolicited(const std::string& szPrefix, int iFollowing, handler_t handler)
{
    const CDeferredCancel deferred;
    m_pDialogue->SetHandler(szPrefix, iFollowing, std::move(handler));
}

void CThreadAT::SetUnsolicited(const std::string& szPrefix, int iFollowing, uint32_t iEventId)
{
    SetUnsolicited(szPrefix, iFollowing, [this, iEventId](const std::vector<std::string>& lines) {
        Post(iEventId, lines);
    });
}

void CThreadAT::Post(uint32_t iEventId, const std::vector<std::string>& lines)
{
    const unsigned nDroppedBefore = m_pReportPost->nDropped();
    if (!m_pReportPost->bPost(*this, iEventId, szJoin(lines))) {
        if (nDroppedBefore == 0) {
            QUORCORE_LOG(LOG_WARNING, "too many reports wait, dropping more");
        }
    } else if (nDroppedBefore > 0) {
        QUORCORE_LOG(LOG_WARNING, "%u reports were dropped", nDroppedBefore);
    }
}

void CThreadAT::RemoveUnsolicited(const std::string& szPrefix)
{
    const CDeferredCancel deferred;
    m_pDialogue->RemoveHandler(szPrefix);
}

void CThreadAT::OnUnsolicited(const std::string& szLine)
{
    QUORCORE_LOG(LOG_DEBUG, "unasked: %s", szLine.c_str());
}

std::string CThreadAT::szFlightRecord() const
{
    const CDeferredCancel deferred;
    return m_pDialogue->szRecord();
}

void CThreadAT::LogFlightRecord(int iLevel)
{
    const CDeferredCancel deferred;
    for (const std::string& szLine : m_pDialogue->TakeNewRecord()) {
        QUORCORE_LOG(iLevel, "%s", szLine.c_str());
    }
}

long CThreadAT::iConnect()
{
    m_bRestartBuffer = true; // again: what was at hand when the link was lost has come in since
    return CThreadSerial::iConnect();
}

long CThreadAT::lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed)
{
    if (lSizeTotal < 1) {
        return 0;
    }
    CThreadSerial::lDispatchTrame(pFrame, lSizeTotal, plUsed); // the trace
    if (m_bRestartBuffer.exchange(false)) {
        m_pFramer->Reset();
    }
    OfferToExchange(pFrame, lSizeTotal);
    m_pFramer->SetLimit(static_cast<size_t>(m_lSizeDataMax));
    m_pFramer->Feed(pFrame, static_cast<size_t>(lSizeTotal),
                    [this](const CLineFramer::line_t& line) {
                        if (line.bCut) {
                            QUORCORE_LOG(LOG_ERR, "a line of more than %ld bytes was cut",
                                         m_lSizeDataMax.load());
                        }
                        const CAtDialogue::report_t report = m_pDialogue->Take(line);
                        if (!report.lines.empty()) {
                            HandOn(report.pHandler.get(), report.lines);
                        }
                    });
    return 0;
}

/// The thread goes on whatever a handler throws: others wait for their answers.
void CThreadAT::HandOn(const handler_t* pHandler, const std::vector<std::string>& lines)
{
    try {
        if (pHandler == nullptr) {
            OnUnsolicited(lines.front());
        } else if (*pHandler) {
            (*pHandler)(lines);
        }
    } catch (const std::exception& exception) {
        QUORCORE_LOG(LOG_ERR, "%s;", exception.what());
    }
}

/// Serves iExchangeAT(), which wants the answer as a whole.
void CThreadAT::OfferToExchange(const uint8_t* pFrame, long lSizeTotal)
{
    if (m_ExchangeResult != kExchangePending) {
        m_szExchange.clear();
        return;
    }
    std::copy_if(pFrame, pFrame + lSizeTotal, std::back_inserter(m_szExchange),
                 [](uint8_t iByte) { return iByte != 0; }); // the search would end there
    long lUsed = 0;
    CThreadCom::lDispatchTrame(reinterpret_cast<uint8_t*>(m_szExchange.data()),
                               static_cast<long>(m_szExchange.size()), &lUsed);
    if (lUsed > 0 || static_cast<long>(m_szExchange.size()) >= m_lSizeDataMax) {
        m_szExchange.clear();
    }
}

long CThreadAT::iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv)
{
    const long lRead = lReadSome(pFrame, lSizeToRead);
    if (plNbrRcv != nullptr) {
        *plNbrRcv = std::max(lRead, 0L);
    }
    return lRead;
}

void CThreadAT::OnLinkLost()
{
    CThreadSerial::OnLinkLost();
    m_bRestartBuffer = true;
    m_pDialogue->LinkLost();
    if (m_bRun) {
        LogFlightRecord(LOG_WARNING);
    }
}
} // namespace QuorCore
