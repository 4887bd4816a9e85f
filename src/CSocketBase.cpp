#include "libQuorCore/CSocketBase.h"

#include "internal/CFdGate.h"
#include "internal/CHeldLock.h"
#include "internal/Sigpipe.h"
#include "internal/SocketErrorText.h"

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSocketCallback.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr int kReconnectWaitSec = 5;    // between two attempts to connect
constexpr int kReadFailureWaitSec = 15; // lets a confused peer come to rest before that
constexpr int kPeerSilenceSec = 40;     // from the last frame on, then the connection is dead
constexpr int kSendTimeoutSec = 10;     // to a peer that reads nothing
constexpr int kPingLockWaitMs = 1000;   // for the write of another thread
constexpr int kRetryPauseMs = 10;
constexpr int kEmptyReadsMax = 10;       // in a row, until a read gives up on its count
constexpr size_t kAnswerBytesMax = 2048; // data of an answer that is read as an object
constexpr size_t kPageBytesMax = 65515;  // from there on GetFrameSize() wraps, at the peer too

uint8_t* pBytes(socketFrameHdr_t* pHeader)
{
    return reinterpret_cast<uint8_t*>(pHeader);
}

template <class Value>
int iSetSocketOption(int iFd, int iLevel, int iOption, const Value& value)
{
    return setsockopt(iFd, iLevel, iOption, &value, sizeof(value));
}

void LogIntOption(int iFd, int iLevel, int iOption, const char* pszLabel)
{
    int iValue = 0;
    socklen_t length = sizeof(iValue);
    if (getsockopt(iFd, iLevel, iOption, &iValue, &length) == 0) {
        QUORCORE_LOG(LOG_INFO, "%s = %d", pszLabel, iValue);
    }
}

/// Counts one up for a scope.
template <class Count>
class CCounted
{
public:
    explicit CCounted(Count& iCount) : m_iCount(iCount) { ++m_iCount; }
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;
    ~CCounted() { --m_iCount; }

private:
    Count& m_iCount;
};

/// Keeps a value in a slot for a scope, and nothing after it.
template <class Slot, class Value>
class CForScope
{
public:
    CForScope(Slot& slot, Value value) : m_slot(slot) { m_slot = value; }
    CForScope(const CForScope&) = delete;
    CForScope& operator=(const CForScope&) = delete;
    ~CForScope() { m_slot = Value{}; }

private:
    Slot& m_slot;
};
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
    CFdPin socket(*m_pFdGate); // kept from frame to frame
    const CForScope pinned(m_pReaderPin, &socket);
    m_bRun = true;
    int iWaitSec = m_iFirstConnectDelaySec;
    long lCarried = 0; // bytes of m_pRxBuffer that no consumer has taken yet
    while (m_bRun) {
        if (bGetConnected()) {
            lCarried = lServeOneFrame(lCarried);
        } else {
            socket.Leave(); // who has closed it left that to us
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
        m_pReaderPin->Leave();
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
    if (iWaitSec > 0) {
        bDynWait(iWaitSec);
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

// What a connection needs beyond lSetOption(), which subclasses may replace.
void CSocketBase::SetConnectionExtras()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    // A header and its data are two writes: held back until the first is acknowledged, the second
    // would wait 40 ms for the peer's delayed acknowledgement.
    iSetSocketOption(socket.iGet(), IPPROTO_TCP, TCP_NODELAY, 1);
    // A peer that stops reading must not hold a writer, and with it the supervision, for ever.
    timeval timeout = {};
    timeout.tv_sec = kSendTimeoutSec;
    iSetSocketOption(socket.iGet(), SOL_SOCKET, SO_SNDTIMEO, timeout);
}

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
    return lInWriteTurn([&](int iFd) { return lSendAll(iFd, pFrame, lSizeTotal); });
}

long CSocketBase::lSendAll(int iFd, const uint8_t* pFrame, long lSizeTotal)
{
    long lResult = 1;
    long lSent = 0;
    while (lSent < lSizeTotal && iFd != -1 && m_iSocket == iFd && m_bConnected) {
        errno = 0;
        const ssize_t lChunk =
            send(iFd, pFrame + lSent, static_cast<size_t>(lSizeTotal - lSent), 0);
        if (lChunk > 0) {
            lSent += lChunk;
            lResult = lChunk;
        } else if (errno == EINTR || errno == EINPROGRESS) {
            lResult = 1;
            Sleep(kRetryPauseMs);
        } else {
            m_iSendError = errno != 0 ? errno : EPIPE;
            Abandon();
        }
    }
    // Counts writes, not frames: a frame sent as header, then data, moves it by two. Intended:
    // peers expect no consecutive values. Held by ASocketBase.CountsWritesNotFrames.
    m_iMsgCounter = static_cast<uint16_t>(m_iMsgCounter + 1);
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
        const long lChunk = lReceive(pFrame + lRead, lSizeToRead - lRead, iError);
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

long CSocketBase::lReceive(uint8_t* pTarget, long lSize, int& iError)
{
    const bool bInLoop = bIsReadingThread() && m_pReaderPin != nullptr;
    CFdPin passing(*m_pFdGate); // for who reads outside of the loop
    CFdPin& socket = bInLoop ? *m_pReaderPin : passing;
    const int iFd = socket.iEnter(m_iSocket);
    if (iFd == -1 && !m_bConnected) { // closed since the caller asked
        iError = ENOTCONN;
        return 0;
    }
    errno = 0; // the end of the stream leaves it alone, and it is looked at all the same
    const ssize_t lChunk = recv(iFd, pTarget, static_cast<size_t>(lSize), MSG_WAITALL);
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

bool CSocketBase::bTakeAsAnswer(socketFrame_t* pFrame)
{
    if (m_ExchangeResult != kExchangePending) {
        return false; // a request is written after this is set, so no answer passes here
    }
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
        CompleteExchange(-1); // refused whole: half an answer is none, nor is it an empty one
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
    CompleteExchange(0);
    return true;
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

// The caller holds m_RecursiveLock.
void CSocketBase::Stamp(socketFrameHdr_t& header)
{
    header.magicNumber = kFrameMagic;
    header.msgCounter = m_iMsgCounter;
}

long CSocketBase::iWrite(socketFrameHdr_t* pHeader, uint8_t* pPayload, long size, uint16_t user1,
                         uint16_t user2)
{
    if (!m_bConnected || pHeader == nullptr) {
        return -1;
    }
    const long lResult = lInWriteTurn([&](int) {
        Stamp(*pHeader);
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
            socketFrameHdr_t header = {};
            Stamp(header);
            header.SetDataSize(static_cast<uint16_t>(std::max(size, 0L)));
            header.typeITF = typeITF;
            header.command = command;
            header.protocol = protocol;
            header.user1 = static_cast<int16_t>(user1);
            header.user2 = static_cast<int16_t>(user2);
            // The sum of both results, whatever they are: callers only ask for its sign, and a
            // failure of one part has closed the connection for the other.
            long lSum = iWrite(pBytes(&header), static_cast<long>(kFrameHeaderSize));
            if (pPayload != nullptr && size > 0) {
                lSum += iWrite(pPayload, size);
            }
            return lSum;
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

long CSocketBase::lSetOption()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    const int iFd = socket.iGet();
    linger lingering = {};
    lingering.l_onoff = 1;
    lingering.l_linger = 5; // seconds
    long lResult = iSetSocketOption(iFd, SOL_SOCKET, SO_KEEPALIVE, 1);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_RCVBUF, 8192);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_SNDBUF, 8192);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_LINGER, lingering);
    lResult |= iSetSocketOption(iFd, SOL_SOCKET, SO_REUSEADDR, 1);
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPIDLE, 20);  // seconds
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPINTVL, 10); // seconds
    lResult |= iSetSocketOption(iFd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    return lResult;
}

long CSocketBase::iWrite(socketFrame_t* pFrame)
{
    if (pFrame == nullptr) {
        return -1;
    }
    // Not GetFrameSize(), which wraps: a frame cut there would cost the peer its connection.
    const long lSize = static_cast<long>(kFrameHeaderSize) + pFrame->GetDataSize();
    const long lResult = lInWriteTurn([&](int) {
        Stamp(*pFrame);
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
    if (lHeader < kHeader || pFrame->magicNumber != kFrameMagic) {
        return -1;
    }
    const uint32_t iSize = pFrame->size;
    if (static_cast<int64_t>(iSize) > std::max(lSizeToRead, 0L)) {
        pFrame->size = 0; // handlers go by this field, and nothing of the data is here
        m_bOversize = true;
        return lHeader;
    }
    if (iSize == 0) {
        return lHeader;
    }
    const long lData = iRead(pFrame->pGetData(), static_cast<long>(iSize), &lReceived);
    if (lData < static_cast<long>(iSize)) {
        return -1; // cut short: the rest would be what the frame before has left in the buffer
    }
    if (plNbrRcv != nullptr) {
        *plNbrRcv = static_cast<long>(iSize);
    }
    return lData;
}

long CSocketBase::iLogOption()
{
    const CFdPin socket(*m_pFdGate, m_iSocket);
    const int iFd = socket.iGet();
    LogIntOption(iFd, SOL_SOCKET, SO_KEEPALIVE, "SOL_SOCKET,SO_KEEPALIVE");
    LogIntOption(iFd, SOL_SOCKET, SO_RCVBUF, "SOL_SOCKET,SO_RCVBUF");
    LogIntOption(iFd, SOL_SOCKET, SO_SNDBUF, "SOL_SOCKET,SO_SNDBUF");
    linger lingering = {};
    socklen_t length = sizeof(lingering);
    if (getsockopt(iFd, SOL_SOCKET, SO_LINGER, &lingering, &length) == 0) {
        QUORCORE_LOG(LOG_INFO, "SOL_SOCKET,SO_LINGER onoff = %d; linger = %d", lingering.l_onoff,
                     lingering.l_linger);
    }
    // The numbers are those of SOL_SOCKET and name other options of TCP, and the first label is
    // clipped. Both are kept: the lines are compared with those of devices in the field. Held by
    // ASocketBase.LogsTheOptionsOfTheConnection.
    LogIntOption(iFd, IPPROTO_TCP, 9, "PPROTO_TCP,SO_KEEPALIVE");
    LogIntOption(iFd, IPPROTO_TCP, 8, "IPPROTO_TCP,SO_RCVBUF");
    LogIntOption(iFd, IPPROTO_TCP, 7, "IPPROTO_TCP,SO_SNDBUF");
    return 0;
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

void CSocketBase::ResetPing()
{
    m_iNextPing = time(nullptr) + kPeerSilenceSec;
}

bool CSocketBase::bCheckPing()
{
    const time_t deadline = m_iNextPing;
    if (!bGetConnected() || deadline <= 0 || difftime(deadline, time(nullptr)) >= 0) {
        return true;
    }
    Close();
    QUORCORE_LOG(LOG_ERR, "PING not received close connection");
    return false;
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
    const bool bFits = pBytes(pFrame) == m_pRxBuffer && kFrameHeaderSize + size <= sizeRxBuffer();
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

void CSocketBase::EndThread()
{
    if (bIsRunning()) {
        StopAndAwaitEnd();
    } else {
        AwaitThreadEnd();
    }
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
