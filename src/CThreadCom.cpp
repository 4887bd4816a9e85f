#include "libQuorCore/CThreadCom.h"

#include "internal/CHeldLock.h"
#include "internal/Clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace QuorCore
{
namespace
{
// A reading thread needs room beyond the data: a text matcher's 0 byte, a frame's header. Callers
// count on 16 bytes; the rest is ours, and holds every fixed answer of a socket endpoint.
constexpr long kRxSpareBytes = 64;
constexpr long kRxBytesMin = 256;
constexpr long kDataBytesMax = INT_MAX - kRxSpareBytes; // sizes stay within 31 bits everywhere
} // namespace

CThreadCom::CThreadCom(CObject* pParent, const char* pszLabel) : CThread(pParent, pszLabel) {}

CThreadCom::~CThreadCom()
{
    if (m_threadId != 0) {
        CThread::iStop(true, true); // the last moment at which the buffer still exists
    }
    AwaitThreadEnd();
    std::free(m_pRxBuffer);
}

void CThreadCom::Configure(long iNumPort, long lSizeDataMax, const char* szConnexionName)
{
    const CDeferredCancel deferred;
    {
        const std::lock_guard<std::mutex> held(m_nameLock);
        m_szConnexionName = szConnexionName != nullptr ? szConnexionName : "";
    }
    if (iNumPort > 0) {
        m_iNumPort = static_cast<int>(std::min<long>(iNumPort, INT_MAX));
    }
    const long lSize = std::clamp(lSizeDataMax, 0L, kDataBytesMax);
    // The thread may be receiving into the buffer at this moment, also one whose id is not known:
    // it deletes its object by itself, or it was stopped and nobody has waited for its end.
    if (m_threadId != 0 || m_readingThread != 0) {
        if (static_cast<size_t>(lSize + kRxSpareBytes) <= m_sizeRxBuffer) {
            m_lSizeDataMax = lSize;
        }
        return;
    }
    ResizeRxBuffer(lSize);
}

void CThreadCom::ResizeRxBuffer(long lSizeDataMax)
{
    const bool bResize =
        m_pRxBuffer == nullptr || (lSizeDataMax != 0 && lSizeDataMax != m_lSizeDataMax);
    if (bResize) {
        const auto size = static_cast<size_t>(std::max(lSizeDataMax + kRxSpareBytes, kRxBytesMin));
        void* const pResized = std::realloc(m_pRxBuffer, size);
        if (pResized == nullptr) {
            return; // what was there goes on to hold
        }
        m_pRxBuffer = static_cast<uint8_t*>(pResized);
        m_sizeRxBuffer = size;
    }
    m_lSizeDataMax = lSizeDataMax;
    m_pRxBuffer[0] = 0;
}

long CThreadCom::iWrite(uint8_t*, long)
{
    return 0;
}

bool CThreadCom::bGetConnected()
{
    return m_bConnected;
}

long CThreadCom::iConnect()
{
    return 0;
}

void CThreadCom::OnConnect()
{
    iPostMessage(EVT_COM_CONNECTED, 0, 0, nullptr, 0, 0);
}

void CThreadCom::OnDeconnect()
{
    iPostMessage(EVT_COM_DISCONNECTED, 0, 0, nullptr, 0, 0);
}

long CThreadCom::iRead(uint8_t*, long, long*)
{
    return 0;
}

long CThreadCom::lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed)
{
    const CDeferredCancel deferred; // no end between the result and its event
    if (!bSettleExchange(pFrame, lSizeTotal)) {
        return 0;
    }
    m_EventRead.iSetEvent(); // with the lock free: who is woken takes it at once
    if (plUsed != nullptr) {
        *plUsed = lSizeTotal;
    }
    return 1;
}

bool CThreadCom::bSettleExchange(const uint8_t* pFrame, long lSizeTotal)
{
    const CHeldLock<CRecursiveLock> held(m_LockDataExchange);
    const bool bAwaited = held && m_ExchangeResult == kExchangePending;
    if (!bAwaited || pFrame == nullptr || lSizeTotal < 1 || pFrame[0] == 0) {
        return false;
    }
    const char* const pszText = reinterpret_cast<const char*>(pFrame);
    const std::string_view text(pszText, strnlen(pszText, static_cast<size_t>(lSizeTotal)));
    if (m_pTagToWait != nullptr &&
        text.find(reinterpret_cast<const char*>(m_pTagToWait)) == std::string_view::npos) {
        return false;
    }
    if (m_pLastRead != nullptr) {
        const long lCopied = std::clamp(m_iSizeMaxRead, 0L, lSizeTotal);
        std::memcpy(m_pLastRead, pFrame, static_cast<size_t>(lCopied));
        if (m_piSizeLastRead != nullptr) {
            *m_piSizeLastRead = lSizeTotal;
        }
    }
    m_ExchangeResult = 0;
    return true;
}

int CThreadCom::iMonitoring()
{
    return m_bRun && bGetConnected() ? 0 : -1;
}

long CThreadCom::iExchangeAT(const char* pBufferWrite, const char* pTagToWait, char* pBufferRead,
                             long iSizeToReadMax, long* piSizeRead, long iTimeOut)
{
    // iExchange() only reads the request and the tag; the transports' iWrite() takes no const.
    auto* const pRequest = reinterpret_cast<uint8_t*>(const_cast<char*>(pBufferWrite));
    auto* const pTag = reinterpret_cast<uint8_t*>(const_cast<char*>(pTagToWait));
    const long lResult = iExchange(pRequest, 0, pTag, reinterpret_cast<uint8_t*>(pBufferRead),
                                   iSizeToReadMax, piSizeRead, iTimeOut);
    if (lResult != 0 && pBufferWrite != nullptr) {
        QUORCORE_LOG(LOG_ERR, "request:%s", pBufferWrite);
    }
    return lResult;
}

long CThreadCom::iExchange(uint8_t* pBufferWrite, long iSizeToWrite, uint8_t* pTagToWait,
                           uint8_t* pBufferRead, long iSizeToReadMax, long* piSizeRead,
                           long iTimeOut)
{
    if (!m_bConnected || bIsReadingThread()) {
        return -1;
    }
    if (iSizeToWrite < 1 && pBufferWrite != nullptr) {
        iSizeToWrite = static_cast<long>(std::strlen(reinterpret_cast<char*>(pBufferWrite)));
    }
    const CHeldLock<CRecursiveLock> exchange(m_LockExchange);
    if (!exchange) {
        return -1;
    }
    CAwaitedAnswer answer(*this, pTagToWait, pBufferRead, iSizeToReadMax, piSizeRead);
    if (!answer) {
        return -1;
    }
    long lResult = 0;
    if (iSizeToWrite > 0 && pBufferWrite != nullptr) {
        lResult = iWrite(pBufferWrite, iSizeToWrite);
    }
    return lResult == 0 ? answer.lAwait(iTimeOut) : lResult;
}

void CThreadCom::SetConnected(bool bOn)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    m_bConnected = bOn;
}

CThreadCom::CReading::CReading(CThreadCom& com) : m_com(com)
{
    m_com.m_readingThread = pthread_self();
}

CThreadCom::CReading::~CReading()
{
    m_com.m_readingThread = 0;
}

// Registered before the request is written: an answer that comes at once is not lost.
CThreadCom::CAwaitedAnswer::CAwaitedAnswer(CThreadCom& com, uint8_t* pTag, uint8_t* pBuffer,
                                           long lSizeMax, long* plSize)
    : m_com(com)
{
    const CHeldLock<CRecursiveLock> held(m_com.m_LockDataExchange);
    if (!held) {
        return;
    }
    m_bRegistered = true;
    m_com.m_pTagToWait = pTag;
    m_com.m_pLastRead = pBuffer;
    m_com.m_iSizeMaxRead = lSizeMax;
    m_com.m_piSizeLastRead = plSize;
    m_com.m_ExchangeResult = kExchangePending;
    m_com.m_EventRead.iResetEvent(); // of an answer that came after its exchange had given up
    if (plSize != nullptr) {
        *plSize = 0;
    }
}

CThreadCom::CAwaitedAnswer::~CAwaitedAnswer() noexcept(false)
{
    if (!m_bRegistered) {
        return;
    }
    // The result, too, while the lock is held: a reader that saw a pending exchange without a tag
    // would swallow its data as the answer.
    const CHeldLock<CRecursiveLock> held(m_com.m_LockDataExchange);
    m_com.m_pTagToWait = nullptr;
    m_com.m_pLastRead = nullptr;
    m_com.m_iSizeMaxRead = 0;
    m_com.m_piSizeLastRead = nullptr;
    m_com.m_ExchangeResult = 0;
}

long CThreadCom::CAwaitedAnswer::lAwait(long iTimeOut)
{
    const CDeadline deadline(std::max(iTimeOut, 0L));
    long lResult = m_com.m_EventRead.iWaitForEvent(iTimeOut);
    // A signal is no answer, nor is the event of an answer that the exchange before did not await
    // any more: it is set after the result.
    while ((lResult == -1 && iTimeOut < 0 && errno == EINTR) ||
           (lResult == 0 && m_com.m_ExchangeResult == kExchangePending)) {
        lResult = m_com.m_EventRead.iWaitForEvent(
            iTimeOut < 0 ? iTimeOut : static_cast<long>(deadline.iLeftMs()));
    }
    return lResult == 0 ? m_com.m_ExchangeResult.load() : lResult;
}

bool CThreadCom::bIsReadingThread() const
{
    const pthread_t self = pthread_self();
    return m_readingThread == self || m_threadId == self;
}

void CThreadCom::AbortExchange()
{
    const CDeferredCancel deferred; // no end between the result and its event
    {
        const CHeldLock<CRecursiveLock> held(m_LockDataExchange);
        if (!held || m_ExchangeResult != kExchangePending) {
            return;
        }
        m_ExchangeResult = -1;
    }
    m_EventRead.iSetEvent();
}

void CThreadCom::EndThread()
{
    if (bIsRunning()) {
        StopAndAwaitEnd();
    } else {
        AwaitThreadEnd();
    }
}

void CThreadCom::PostOnce(uint32_t iEventId)
{
    if (iEventId != 0 && !bIsPostQueued(iEventId)) {
        iPostMessage(iEventId, 0, 0, nullptr, 0, 0);
    }
}
std::string CThreadCom::szCopyConnexionName()
{
    const CDeferredCancel deferred;
    const std::lock_guard<std::mutex> held(m_nameLock);
    return m_szConnexionName;
}
} // namespace QuorCore
