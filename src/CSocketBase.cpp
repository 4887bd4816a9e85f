#include "libQuorCore/CSocketBase.h"

#include "internal/CCounted.h"
#include "internal/CFdGate.h"
#include "internal/CForScope.h"
#include "internal/CHeldLock.h"
#include "internal/CSendParts.h"
#include "internal/CSocketReader.h"
#include "internal/FrameRules.h"
#include "internal/Sigpipe.h"
#include "internal/SocketErrorText.h"

#include "libQuorCore/CSerialize.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr int kReconnectWaitSec = 5;    // between two attempts to connect
constexpr int kReadFailureWaitSec = 15; // lets a confused peer come to rest before that
constexpr int kPeerSilenceSec = 40;     // from the last frame on, then the connection is dead
constexpr int kPingLockWaitMs = 1000;   // for the write of another thread
constexpr int kRetryPauseMs = 10;
constexpr int kEmptyReadsMax = 10; // in a row, until a read gives up on its count

uint8_t* pBytes(socketFrameHdr_t* pHeader)
{
    return reinterpret_cast<uint8_t*>(pHeader);
}
} // namespace

CSocketBase::CSocketBase(CObject* pParent, const char* pszLabel)
    : CThreadCom(pParent, pszLabel), m_iNextPing(time(nullptr)),
      m_pFdGate(std::make_unique<CFdGate>()), m_iFirstConnectDelaySec(kReconnectWaitSec)
{
    EnsureSigpipeHandled();
}

CSocketBase::~CSocketBase()
{
    EndThread();
    CSocketBase::Close();
    WithdrawMessages();
}

long CSocketBase::iStop(bool bWait, bool bForce)
{
    const CDeferredCancel deferred;
    const bool bAutoDelete = bIsAutoDelete();
    {
        const CCounted stopping(m_iStopping);
        AskStop(); // before the connection is closed: the loop must not make another in between
        Close();
    }
    if (bAutoDelete) {
        return 0; // its thread may have deleted the object by now
    }
    if (bForce) {
        LetThreadEnd();
    }
    return CThreadCom::iStop(bWait, bForce);
}

int CSocketBase::iMonitoring()
{
    int iResult = CThreadCom::iMonitoring();
    if (iResult == 0) {
        // A write may hold the lock for as long as the peer takes a few bytes now and then. The
        // supervision does not wait for that but goes on to the deadline, and Close() ends the
        // write.
        const auto writePing = [this](int) {
            return iWrite(CMD_COMMUN_PING, nullptr, 0, 0, 0, 0, 0);
        };
        if (lInWriteTurn(writePing, kPingLockWaitMs) < 1) {
            iResult = -1;
        }
        bCheckPing();
    }
    if (iResult != 0) {
        QUORCORE_LOG(LOG_WARNING, " %s disconnected", szCopyConnexionName().c_str());
    }
    return iResult;
}

long CSocketBase::iRunThread()
{
    const CDeferredCancel deferred; // a cancellation unwinds at a system call, not with a lock held
    const CReading reading(*this);
    CSocketReader reader(*m_pFdGate); // keeps its pin from frame to frame
    const CForScope readingAhead(m_pReader, &reader);
    m_bRun = true;
    int iWaitSec = m_iFirstConnectDelaySec;
    long lCarried = 0; // bytes of m_pRxBuffer that no consumer has taken yet
    while (m_bRun) {
        if (bGetConnected()) {
            lCarried = lServeOneFrame(lCarried);
        } else {
            Reconnect(iWaitSec);
            lCarried = 0;
        }
        iWaitSec = kReconnectWaitSec;
    }
    if (m_iSocket != -1) {
        Close();
    }
    while (m_iStopping > 0) { // an auto-delete object must not go while a stop is using it
        Sleep(1);
    }
    return 0;
}

// Reads one frame and hands it on. Returns the bytes that its consumer left.
long CSocketBase::lServeOneFrame(long lCarried)
{
    auto* const pFrame = reinterpret_cast<socketFrame_t*>(m_pRxBuffer);
    long lSize = 0;
    const long lResult = lRead(pFrame, std::min<long>(m_lSizeDataMax, kFrameDataBytesMax), &lSize);
    if (lResult < 0 && m_bRun) {
        Close();
        m_pReader->Leave();
        bDynWait(kReadFailureWaitSec);
    }
    if (lResult <= 0) {
        return lCarried;
    }
    // What was left is counted in, though the next header overwrites it; never more is reported
    // than the buffer holds of this frame.
    const long lLength = std::min(lSize + lCarried, static_cast<long>(kFrameHeaderSize) + lSize);
    long lUsed = 0;
    lDispatchTrame(m_pRxBuffer, lLength, &lUsed);
    lUsed = std::clamp(lUsed, 0L, lLength);
    lCarried = lLength - lUsed;
    if (lUsed > 0 && lCarried > 0) {
        std::memmove(m_pRxBuffer, m_pRxBuffer + lUsed, static_cast<size_t>(lCarried));
    }
    ResetPing(); // whatever it was, the peer is alive
    return lCarried;
}

void CSocketBase::Reconnect(int iWaitSec)
{
    // Unpins a connection that was closed, which was left to us, also one that is closed during the
    // wait: its port is bound next. One that SetConnected(false) has left open stays as it is, with
    // what was read ahead: it may be resumed.
    m_pReader->iEnter(m_iSocket);
    if (iWaitSec > 0) {
        bDynWait(iWaitSec);
        m_pReader->iEnter(m_iSocket);
    }
    if (!m_bRun) {
        return;
    }
    if (m_iSocket == -1) {
        m_bConnected = false; // left up by a Close() at the very moment of an earlier connection
    }
    iConnect();
    if (m_bConnected) {
        lSetOption();
        SetConnectionExtras();
        ResetPing();
        OnConnect();
    }
}

long CSocketBase::iExitInstance()
{
    CThreadCom::iExitInstance();
    return 0;
}

// Runs a write with m_RecursiveLock held, for which it waits lLockWaitMs at most, negative for
// ever. The function gets the descriptor, or -1. What a failed send asks for, a log line, Close()
// and its OnDeconnect(), waits until the outermost write of this thread has released the lock.
template <class Write>
long CSocketBase::lInWriteTurn(Write write, long lLockWaitMs)
{
    CFdPin socket(*m_pFdGate); // outlives the lock: a descriptor is not closed, for 5 s, under it
    long lResult = 1;
    int iError = 0;
    {
        const int iLock =
            lLockWaitMs < 0 ? m_RecursiveLock.iLock() : m_RecursiveLock.iTryLock(lLockWaitMs);
        if (iLock != 0) {
            return lResult;
        }
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock, {});
        const bool bOutermost = m_iWriteDepth == 0;
        const CCounted depth(m_iWriteDepth);
        if (bOutermost) {
            m_iSendError = 0;
            m_iTurnFd = socket.iEnter(m_iSocket);
        }
        lResult = write(m_iTurnFd);
        iError = bOutermost ? m_iSendError : 0;
    }
    if (iError != 0) {
        FinishFailedSend(iError);
    }
    return lResult;
}

void CSocketBase::FinishFailedSend(int iError)
{
    if (m_exchangingThread == pthread_self()) {
        m_iExchangeSendError = iError; // that thread holds a lock, too, and does this later
        return;
    }
    iLogError(iError);
    Close();
}

// Ends the connection without a word to anybody; Close() follows.
void CSocketBase::Abandon()
{
    m_bConnected = false;
    m_pFdGate->Retire(m_iSocket);
    AbortExchange();
}

long CSocketBase::iWrite(uint8_t* pFrame, long lSizeTotal)
{
    if (pFrame == nullptr && lSizeTotal > 0) {
        return -1;
    }
    const long lSize = std::max(lSizeTotal, 0L);
    return lInWriteTurn([&](int iFd) { return lSendAll(iFd, pFrame, lSize); });
}

long CSocketBase::lSendAll(int iFd, const uint8_t* pFrame, long lSizeTotal)
{
    const auto maySend = [&] { return iFd != -1 && m_iSocket == iFd && m_bConnected; };
    // Counts writes, not frames: a frame sent as header, then data, moves it by two. Intended:
    // peers expect no consecutive values. Held by ASocketBase.CountsWritesNotFrames.
    m_iMsgCounter = static_cast<uint16_t>(m_iMsgCounter + 1);
    if (m_bHoldHeader && lSizeTotal == static_cast<long>(m_aHeldHeader.size()) && maySend()) {
        std::memcpy(m_aHeldHeader.data(), pFrame, m_aHeldHeader.size());
        m_bHoldHeader = false;
        m_bHeaderHeld = true;
        return lSizeTotal;
    }
    long lResult = 1;
    CSendParts parts(m_aHeldHeader.data(), m_bHeaderHeld ? m_aHeldHeader.size() : 0, pFrame,
                     static_cast<size_t>(lSizeTotal));
    m_bHeaderHeld = false;
    while (parts.bLeft() && maySend()) {
        errno = 0;
        const ssize_t lChunk = parts.lSend(iFd);
        if (lChunk > 0) {
            lResult = parts.lAdvance(static_cast<size_t>(lChunk));
        } else if (errno == EINTR || errno == EINPROGRESS) {
            lResult = 1;
            Sleep(kRetryPauseMs);
        } else {
            m_iSendError = errno != 0 ? errno : EPIPE;
            Abandon();
        }
    }
    m_bHeaderLost = parts.bHeaderLeft();
    return m_iSocket == -1 ? -1 : lResult;
}

bool CSocketBase::bGetConnected()
{
    return m_iSocket != -1 && m_bConnected;
}

long CSocketBase::iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv)
{
    long lRead = 0;
    int iEmptyReads = 0;
    if (plNbrRcv != nullptr) {
        *plNbrRcv = 0;
    }
    if (pFrame == nullptr) {
        return -1;
    }
    while (lRead < lSizeToRead && m_bConnected) {
        int iError = 0;
        const bool bBegun = lRead > 0 || m_bInFrame;
        const long lChunk = lReceive(pFrame + lRead, lSizeToRead - lRead, bBegun, iError);
        if (lChunk > 0) {
            lRead += lChunk;
            iEmptyReads = 0;
            if (plNbrRcv != nullptr) {
                *plNbrRcv = lRead;
            }
        } else if (lChunk == 0) {
            if (++iEmptyReads >= kEmptyReadsMax || iError == ENOTCONN) {
                break;
            }
            Sleep(kRetryPauseMs);
        } else if (iError != EINTR) {
            iLogError(iError);
            Close();
            return -1;
        }
    }
    return lRead;
}

bool CSocketBase::bInLoop() const
{
    return bIsReadingThread() && m_pReader != nullptr;
}

// bBegun: the bytes before these were received already. In the loop they come from the connection
// that those came from, or not at all: another thread may have connected anew meanwhile.
long CSocketBase::lReceive(uint8_t* pTarget, long lSize, bool bBegun, int& iError)
{
    const bool bAhead = bInLoop();
    CFdPin passing(*m_pFdGate); // for who reads outside of the loop
    int iFd = -1;
    if (bAhead) {
        iFd = bBegun ? m_pReader->iStay(m_iSocket) : m_pReader->iEnter(m_iSocket);
    } else {
        iFd = passing.iEnter(m_iSocket);
    }
    if (iFd == -1 && (!m_bConnected || (bAhead && bBegun))) { // closed since the caller asked
        iError = ENOTCONN;
        return 0;
    }
    const auto nWanted = static_cast<size_t>(lSize);
    errno = 0; // the end of the stream leaves it alone, and it is looked at all the same
    const ssize_t lChunk =
        bAhead ? m_pReader->lReceive(pTarget, nWanted) : recv(iFd, pTarget, nWanted, MSG_WAITALL);
    iError = errno;
    return lChunk;
}

long CSocketBase::lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed)
{
    if (plUsed != nullptr) {
        *plUsed = 0;
    }
    auto* const pReceived = reinterpret_cast<socketFrame_t*>(pFrame);
    const bool bTaken =
        pReceived != nullptr && (bTakeAsAnswer(pReceived) ||
                                 m_CallbackMap.iDispatchMessage(pReceived->command, pFrame) == 0);
    if (!bTaken) {
        return 0;
    }
    if (plUsed != nullptr) {
        *plUsed = lSizeTotal;
    }
    return 1;
}

void CSocketBase::Close()
{
    const CDeferredCancel deferred;
    Abandon();
    OnDeconnect();
}

long CSocketBase::iLogError(long lErr)
{
    const char* const pszText = pszSocketErrorText(lErr);
    if (pszText != nullptr) {
        QUORCORE_LOG(LOG_WARNING, " : %s", pszText);
    } else {
        QUORCORE_LOG(LOG_WARNING, " : unknown error = %ld", lErr);
    }
    return lErr;
}

long CSocketBase::iWrite(socketFrameHdr_t* pHeader, uint8_t* pPayload, long size, uint16_t user1,
                         uint16_t user2)
{
    if (!m_bConnected || pHeader == nullptr) {
        return -1;
    }
    const long lResult = lInWriteTurn([&](int) {
        StampHeader(*pHeader, m_iMsgCounter);
        pHeader->user1 = static_cast<int16_t>(user1);
        pHeader->user2 = static_cast<int16_t>(user2);
        pHeader->SetDataSize(static_cast<uint16_t>(size));
        long lSum = iWrite(pBytes(pHeader), static_cast<long>(kFrameHeaderSize));
        // Inverted, and kept: see the header file.
        if (lSum < 0 && pPayload != nullptr && size > 0) {
            lSum += iWrite(pPayload, size);
        }
        return lSum;
    });
    if (lResult < 0) {
        QUORCORE_LOG(LOG_ERR, "size = %ld; port = %d", size, m_iNumPort.load());
    }
    return lResult;
}

long CSocketBase::iWrite(uint16_t command, uint8_t* pPayload, long size, uint16_t typeITF,
                         uint16_t protocol, uint16_t user1, uint16_t user2)
{
    if (!m_bConnected) {
        return -1;
    }
    long lResult = -1;
    if (size <= kFrameDataBytesMax) { // more than the header can tell would read as frames
        lResult = lInWriteTurn([&](int) {
            socketFrameHdr_t header = MakeHeader(command, size, typeITF, protocol, user1, user2);
            StampHeader(header, m_iMsgCounter);
            // The sum of both results, whatever they are: callers only ask for its sign, and a
            // failure of one part has closed the connection for the other.
            const bool bData = pPayload != nullptr && size > 0;
            m_bHoldHeader = bData; // goes out with its data: one segment, one wake-up of the peer
            long lSum = iWrite(pBytes(&header), static_cast<long>(kFrameHeaderSize));
            m_bHoldHeader = false;
            m_bHeaderLost = false;
            if (bData) {
                lSum += iWrite(pPayload, size);
            }
            m_bHeaderHeld = false;
            return m_bHeaderLost ? -2 : lSum; // neither of them has gone out
        });
    }
    if (lResult < 0) {
        QUORCORE_LOG(LOG_ERR, "size = %ld; port = %d", size, m_iNumPort.load());
    }
    return lResult;
}

long CSocketBase::iWriteObject(uint16_t command, CObject* pObject, uint16_t typeITF,
                               uint16_t protocol, uint16_t user1, uint16_t user2)
{
    if (pObject == nullptr) {
        return -1;
    }
    ustring payload;
    CSerialize stream(&payload, true, true, true);
    pObject->iSerialize(stream);
    return iWrite(command, payload.data(), static_cast<long>(payload.size()), typeITF, protocol,
                  user1, user2);
}

long CSocketBase::iWrite(socketFrame_t* pFrame)
{
    if (pFrame == nullptr) {
        return -1;
    }
    // Not GetFrameSize(), which wraps: a frame cut there would cost the peer its connection.
    const long lSize = static_cast<long>(kFrameHeaderSize) + pFrame->GetDataSize();
    const long lResult = lInWriteTurn([&](int) {
        StampHeader(*pFrame, m_iMsgCounter);
        return iWrite(pBytes(pFrame), lSize);
    });
    if (lResult < 0) {
        QUORCORE_LOG(LOG_ERR, "size = %d; port = %d", static_cast<int>(lSize), m_iNumPort.load());
    }
    return lResult;
}

long CSocketBase::lRead(socketFrame_t* pFrame, long lSizeToRead, long* plNbrRcv)
{
    if (plNbrRcv != nullptr) {
        *plNbrRcv = 0;
    }
    if (m_iSocket == -1) {
        return 0;
    }
    if (pFrame == nullptr) {
        return -1;
    }
    constexpr long kHeader = static_cast<long>(kFrameHeaderSize);
    m_bOversize = false;
    long lReceived = 0;
    const long lHeader = iRead(pBytes(pFrame), kHeader, &lReceived);
    if (lHeader < 1) {
        return lHeader;
    }
    if (lHeader < kHeader) {
        return lCutFrame();
    }
    const eHeader verdict = JudgeHeader(*pFrame, lSizeToRead);
    if (verdict == eHeader::BAD_MAGIC) {
        return -1;
    }
    const uint32_t iSize = pFrame->size;
    if (verdict == eHeader::OVERSIZE) {
        pFrame->size = 0; // handlers go by this field, and nothing of the data is here
        m_bOversize = true;
        return lHeader;
    }
    if (iSize == 0) {
        return lHeader;
    }
    const CForScope inFrame(m_bInFrame, true);
    const long lData = iRead(pFrame->pGetData(), static_cast<long>(iSize), &lReceived);
    if (lData < static_cast<long>(iSize)) {
        return lCutFrame(); // its rest would be what the frame before has left in the buffer
    }
    if (plNbrRcv != nullptr) {
        *plNbrRcv = static_cast<long>(iSize);
    }
    return lData;
}

// A frame that was cut short costs its connection, but not the one that has replaced that already.
long CSocketBase::lCutFrame()
{
    return bInLoop() && bGetConnected() && m_pReader->iStay(m_iSocket) == -1 ? 0 : -1;
}

void CSocketBase::ResetPing()
{
    m_iNextPing = time(nullptr) + kPeerSilenceSec;
}

bool CSocketBase::bCheckPing()
{
    const bool bConnected = bGetConnected(); // first: a new connection brings a new deadline
    const time_t deadline = m_iNextPing;
    if (!bConnected || deadline <= 0 || difftime(deadline, time(nullptr)) >= 0) {
        return true;
    }
    Close();
    QUORCORE_LOG(LOG_ERR, "PING not received close connection");
    return false;
}

bool CSocketBase::bAnnounceConnected(int iFd)
{
    ResetPing(); // before anybody can see the connection: the old deadline is not its own
    SetConnected(true);
    if (m_iSocket != iFd) {
        SetConnected(false);
        return false;
    }
    return true;
}

bool CSocketBase::bGiveUpConnecting() const
{
    return !m_bRun && bIsReadingThread();
}
} // namespace QuorCore
