// Requests, and the frames that answer them.
#include "libQuorCore/CSocketBase.h"

#include "internal/CForScope.h"
#include "internal/CHeldLock.h"

#include "libQuorCore/CSerialize.h"

#include <array>
#include <cstring>

namespace QuorCore
{
namespace
{
constexpr size_t kAnswerBytesMax = 2048; // data of an answer that is read as an object
} // namespace

bool CSocketBase::bTakeAsAnswer(socketFrame_t* pFrame)
{
    if (m_ExchangeResult != kExchangePending) {
        return false; // a request is written after this is set, so no answer passes here
    }
    const CDeferredCancel deferred; // no end between the result and its event
    if (!bSettleExchange(pFrame)) {
        return false;
    }
    m_EventRead.iSetEvent(); // with the lock free: who is woken takes it at once
    return true;
}

bool CSocketBase::bSettleExchange(socketFrame_t* pFrame)
{
    const CHeldLock<CRecursiveLock> held(m_LockDataExchange);
    // The tag is the address of the number, so that 0 can be awaited, and a text that somebody
    // awaits through iExchange() is not taken for a number.
    const bool bAwaited = held && m_ExchangeResult == kExchangePending &&
                          m_pTagToWait == reinterpret_cast<uint8_t*>(&m_iCommandToWait) &&
                          pFrame->command == m_iCommandToWait;
    if (!bAwaited) {
        return false;
    }
    const long lSize = pFrame->GetDataSize();
    const long lRoom = m_pLastRead != nullptr ? m_iSizeMaxRead : 0;
    if ((lSize > lRoom && lSize > 0) || m_bOversize) {
        m_ExchangeResult = -1; // refused whole: half an answer is none, nor is it an empty one
        return true;
    }
    if (lSize > 0) {
        std::memcpy(m_pLastRead, pFrame->pGetData(), static_cast<size_t>(lSize));
    } else if (lRoom > 0) {
        m_pLastRead[0] = 0; // an answer that is read as a text is an empty one
    }
    if (m_piSizeLastRead != nullptr) {
        *m_piSizeLastRead = lSize;
    }
    m_ExchangeResult = 0;
    return true;
}

long CSocketBase::iExchangeCmd(uint16_t command, CObject* pObject, uint16_t commandToWait,
                               CObject* pObjectRet, long* plUsed, long iTimeOut,
                               bool bCloseOnTimeout)
{
    if (!m_bConnected || plUsed == nullptr) {
        return -1;
    }
    ustring payload;
    CSerialize stream(&payload, true, true, true);
    if (pObject != nullptr) {
        pObject->iSerialize(stream);
    }
    std::array<uint8_t, kAnswerBytesMax> answer;
    const long lResult =
        iExchangeCmd(command, payload.data(), static_cast<long>(payload.size()), commandToWait,
                     answer.data(), kAnswerBytesMax, plUsed, iTimeOut, bCloseOnTimeout);
    if (lResult == 0 && pObjectRet != nullptr) {
        payload.assign(answer.data(), static_cast<size_t>(*plUsed));
        stream.m_bSave = false;
        stream.iSetPos(0);
        pObjectRet->iSerialize(stream);
    }
    return lResult;
}

long CSocketBase::iExchangeCmd(uint16_t command, uint8_t* pPayload, long size,
                               uint16_t commandToWait, uint8_t* pPayloadRet, long sizeMax,
                               long* plUsed, long iTimeOut, bool bCloseOnTimeout)
{
    if (!m_bConnected || bIsReadingThread()) {
        return -1;
    }
    long lResult = -1;
    int iSendError = 0;
    {
        const CHeldLock<CRecursiveLock> exchange(m_LockExchange);
        if (!exchange) {
            return -1;
        }
        const CForScope exchanging(m_exchangingThread, pthread_self());
        m_iExchangeSendError = 0;
        m_iCommandToWait = commandToWait;
        CAwaitedAnswer answer(*this, reinterpret_cast<uint8_t*>(&m_iCommandToWait), pPayloadRet,
                              sizeMax, plUsed);
        if (answer && iWrite(command, pPayload, size, 0, 0, 0, 0) > 0) {
            lResult = answer.lAwait(iTimeOut);
        }
        iSendError = m_iExchangeSendError;
    }
    if (iSendError != 0) {
        FinishFailedSend(iSendError);
    }
    if (bCloseOnTimeout && lResult != 0) {
        Close();
    }
    return lResult;
}
} // namespace QuorCore
