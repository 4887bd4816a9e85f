#include "libQuorCore/CThreadSerial.h"

#include "internal/CCounted.h"
#include "internal/CFdGate.h"
#include "internal/CHeldLock.h"
#include "internal/CUniqueFd.h"
#include "internal/Clock.h"

#include "libQuorCore/string_tools.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace QuorCore
{
namespace
{
constexpr int kSettleDelaySec = 2; // from opening a port to its use
constexpr int kReopenDelaySec = 5; // between two attempts to open it
constexpr uint32_t kVtimeUnitMs = 100;
constexpr uint32_t kVtimeMax = 255;          // VTIME is a byte
constexpr uint32_t kBlockingReadMaxMs = 200; // a longer one would hold up Close() and iStop()
constexpr int kWaitSliceMs = 100;            // until a wait looks whether the port is still open
constexpr int kRetryPauseMs = 5;
constexpr long kPieceBytesMax = 4096; // of one write(2) and its trace

static_assert(TIOCM_DTR == 2 && TIOCM_RTS == 4 && TIOCM_CTS == 32 && TIOCM_CAR == 64 &&
                  TIOCM_RNG == 128 && TIOCM_DSR == 256,
              "callers pass these numbers");

void SetReadTimeout(termios& settings, uint32_t iMs)
{
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = static_cast<cc_t>(std::min(iMs / kVtimeUnitMs, kVtimeMax));
}

/// Raw bytes, 8 of them data, one stop bit, and no flow control of any kind.
void SetRaw(termios& settings)
{
    settings.c_cflag |= CLOCAL | CREAD;
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS | CSIZE | PARENB | PARODD);
    settings.c_cflag |= CS8;
    settings.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | IGNPAR | PARMRK | ISTRIP | INLCR |
                                               IGNCR | ICRNL | IXON);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    settings.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHONL | IEXTEN);
}

bool bSetSpeed(termios& settings, uint32_t iSpeed)
{
    return cfsetospeed(&settings, iSpeed) == 0 && cfsetispeed(&settings, iSpeed) == 0;
}

/// Asks for the modem signals, which nobody wants to know here: a port that has none refuses with
/// another error, and one that has gone with this one. A read of that gives 0, as if the line were
/// merely silent.
bool bHasGone(int iFd)
{
    int iSignals = 0;
    return ioctl(iFd, TIOCMGET, &iSignals) == -1 && errno == EIO;
}

bool bAgain(int iError)
{
    return iError == EAGAIN || iError == EINTR;
}

/// Lets calls on a descriptor return at once instead of waiting, for a scope.
class CNonBlocking
{
public:
    explicit CNonBlocking(int iFd) : m_iFd(iFd) { fcntl(m_iFd, F_SETFL, O_NONBLOCK); }
    CNonBlocking(const CNonBlocking&) = delete;
    CNonBlocking& operator=(const CNonBlocking&) = delete;
    ~CNonBlocking()
    {
        const int iSavedErrno = errno;
        fcntl(m_iFd, F_SETFL, 0);
        errno = iSavedErrno;
    }

private:
    const int m_iFd;
};
} // namespace

CThreadSerial::CThreadSerial(CObject* pParent, const char* pszLabel)
    : CThreadCom(pParent, pszLabel), m_pFdGate(std::make_unique<CFdGate>()),
      m_iSettleDelaySec(kSettleDelaySec), m_iReopenDelaySec(kReopenDelaySec)
{
}

CThreadSerial::~CThreadSerial()
{
    EndThread();
    CThreadSerial::Close();
}

long CThreadSerial::iStop(bool bWait, bool bForce)
{
    const CDeferredCancel deferred;
    const bool bAutoDelete = bIsAutoDelete();
    {
        const CCounted stopping(m_iStopping);
        AskStop(); // before the port is closed: the loop must not open it again in between
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

long CThreadSerial::iInitInstance()
{
    return CThreadCom::iInitInstance();
}

long CThreadSerial::iExitInstance()
{
    return CThreadCom::iExitInstance();
}

long CThreadSerial::iRunThread()
{
    const CDeferredCancel deferred; // a cancellation unwinds at a system call, not with a lock held
    const CReading reading(*this);
    m_bRun = true;
    long lKept = 0; // bytes of m_pRxBuffer that no consumer has taken yet
    while (m_bRun) {
        if (m_hTTY == -1 || !m_bConnected) {
            Reopen();
            lKept = 0;
        } else if (lKept < m_lSizeDataMax) {
            lKept = lServeChunk(lKept);
        } else if (m_bRun) {
            Close(); // the capacity was lowered, or there is none
        }
    }
    Close();
    while (m_iStopping > 0) { // an auto-delete object must not go while a stop is using it
        Sleep(1);
    }
    return 0;
}

void CThreadSerial::Reopen()
{
    ClosePort(); // SetConnected(false) leaves it open
    while (m_iClosing > 0 && m_bRun) {
        Sleep(1); // else whoever closed it would tell of the loss of the next connection
    }
    if (!m_bRun) {
        return;
    }
    const bool bOpen = iConnect() != -1;
    {
        const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
        m_bConnected = bOpen && m_hTTY != -1; // another thread may have closed it already
    }
    if (!bOpen) {
        bDynWait(m_iReopenDelaySec);
        return;
    }
    // A port without a buffer is closed right away again, and not at full speed.
    const int iDelaySec = m_lSizeDataMax > 0 ? m_iSettleDelaySec.load() : kSettleDelaySec;
    if (iDelaySec > 0) {
        bDynWait(iDelaySec);
    }
    if (m_bRun && m_bConnected) {
        OnConnect();
    }
}

/// Reads a chunk behind what was kept and hands both on. @return The bytes that are kept now.
long CThreadSerial::lServeChunk(long lKept)
{
    m_bServing = true;
    const long lRoom = m_lSizeDataMax - lKept;
    long lNew = 0;
    long lResult = iRead(m_pRxBuffer + lKept, lRoom, &lNew);
    if (!bNodeIsThere()) {
        lResult = -1; // a USB modem that was unplugged; its reads may go on to give nothing
    }
    if (lResult < 0 && m_bRun) {
        Close();
    }
    if (lNew > 0) {
        HandOn(lKept, std::min(lNew, lRoom));
    }
    m_bServing = false;
    if (std::exchange(m_bLostMeanwhile, false)) {
        OnLinkLost(); // now that what came before the loss may have been the awaited answer
    }
    return lKept;
}

void CThreadSerial::HandOn(long& lKept, long lNew)
{
    if (m_bRestartBuffer && lKept > 0) {
        std::memmove(m_pRxBuffer, m_pRxBuffer + lKept, static_cast<size_t>(lNew));
        m_bRestartBuffer = false;
        lKept = 0;
    }
    const long lTotal = lKept + lNew;
    long lUsed = 0;
    lDispatchTrame(m_pRxBuffer, lTotal, &lUsed);
    lUsed = std::clamp(lUsed, 0L, lTotal);
    lKept = lTotal - lUsed;
    if (lKept >= m_lSizeDataMax) {
        lKept = 0; // nobody makes sense of it, and there is no room for more
    }
    if (lUsed > 0 && lKept > 0) {
        std::memmove(m_pRxBuffer, m_pRxBuffer + lUsed, static_cast<size_t>(lKept));
    }
}

/// @return False: it has gone, or another device has got its name since it was opened, as when a
///         second modem is plugged in and udev(7) moves a link to it.
bool CThreadSerial::bNodeIsThere()
{
    const std::string szDevice = szCopyConnexionName();
    struct stat status {
    };
    if (stat(szDevice.c_str(), &status) != 0) {
        return false;
    }
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    return !held || m_hTTY == -1 || m_szOpened != szDevice || m_iOpenedDevice == status.st_rdev;
}

long CThreadSerial::iConnect()
{
    const CDeferredCancel deferred;
    const std::string szDevice = szCopyConnexionName();
    const long lResult = lOpenPort(szDevice);
    if (lResult != 0) {
        QUORCORE_LOG(LOG_DEBUG, "Failed to open serial connection %s", szDevice.c_str());
        Close();
    }
    return lResult;
}

long CThreadSerial::lOpenPort(const std::string& szDevice)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held) {
        return -1;
    }
    ClosePort();
    // Without O_NONBLOCK this waits for a carrier, which no modem has before it was dialled.
    CUniqueFd tty(open(szDevice.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    termios settings{};
    if (!tty || fcntl(tty.iGet(), F_SETFL, 0) == -1 || tcgetattr(tty.iGet(), &settings) == -1 ||
        ioctl(tty.iGet(), TIOCEXCL) == -1 || !bSetSpeed(settings, m_iSpeed)) {
        return -1;
    }
    SetRaw(settings);
    SetReadTimeout(settings, m_iInterCharTimeout_ms);
    if (tcsetattr(tty.iGet(), TCSANOW, &settings) == -1 || tcflush(tty.iGet(), TCIOFLUSH) == -1) {
        ioctl(tty.iGet(), TIOCNXCL);
        return -1;
    }
    struct stat status {
    };
    m_szOpened = fstat(tty.iGet(), &status) == 0 ? szDevice : "";
    m_iOpenedDevice = status.st_rdev;
    m_hTTY = tty.iRelease();
    m_bConnected = true;
    return 0;
}

void CThreadSerial::Close()
{
    const CDeferredCancel deferred;
    const CCounted closing(m_iClosing);
    ClosePort();
    if (bIsReadingThread() && m_bServing) {
        m_bLostMeanwhile = true;
    } else {
        OnLinkLost();
    }
}

void CThreadSerial::ClosePort()
{
    CFdPin tty(*m_pFdGate); // outlives the lock: closing may take a while
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    m_bConnected = false;
    if (tty.iEnter(m_hTTY) != -1) {
        tcflush(tty.iGet(), TCOFLUSH); // else closing waits, 30 s perhaps, for the line to take it
        ioctl(tty.iGet(), TIOCNXCL);   // would last as long as anybody has the port open
        m_pFdGate->Retire(m_hTTY);
        m_szOpened.clear();
    }
}

void CThreadSerial::OnLinkLost()
{
    AbortExchange();
}

long CThreadSerial::iWrite(uint8_t* pFrame, long lSizeTotal)
{
    return lWriteWhile(pFrame, lSizeTotal, [] { return true; });
}

long CThreadSerial::lWriteWhile(uint8_t* pFrame, long lSizeTotal,
                                const std::function<bool()>& bGoOn)
{
    const CDeferredCancel deferred;
    if (pFrame == nullptr && lSizeTotal > 0) {
        return -1;
    }
    long lLeft = std::max(lSizeTotal, 0L);
    for (bool bGo = true; m_bRun && bGo && lLeft > 0;) {
        AwaitRoom();
        int iError = 0;
        const long lPiece = lWritePiece(pFrame, std::min(lLeft, kPieceBytesMax), iError);
        if (lPiece > 0) {
            QUORCORE_LOG(LOG_DEBUG, "%s",
                         Hexlify(pFrame, static_cast<unsigned>(lPiece), ' ').c_str());
            pFrame += lPiece;
            lLeft -= lPiece;
        } else if (!bAgain(iError)) {
            QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(iError).c_str());
            if (m_bRun) {
                Close();
            }
            return -1;
        }
        bGo = lLeft == 0 || bGoOn();
    }
    return m_bRun && lLeft == 0 ? 0 : -1;
}

/// Waits a while for the line to take something, without the lock, which Close() wants.
void CThreadSerial::AwaitRoom()
{
    const CFdPin tty(*m_pFdGate, m_hTTY);
    if (tty.iGet() != -1) {
        pollfd room{tty.iGet(), POLLOUT, 0};
        poll(&room, 1, kWaitSliceMs);
    }
}

/// Writes as much as the line takes right now. @return Bytes; below 1 with @p iError.
long CThreadSerial::lWritePiece(const uint8_t* pPiece, long lSize, int& iError)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held) {
        iError = EDEADLK;
        return -1;
    }
    // The thread may be reading meanwhile: at worst it is told to try again.
    const CNonBlocking nonBlocking(m_hTTY);
    errno = 0;
    const ssize_t lWritten = write(m_hTTY, pPiece, static_cast<size_t>(lSize));
    iError = errno;
    return lWritten;
}

long CThreadSerial::iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv)
{
    const CDeferredCancel deferred;
    long lRead = 0;
    const CFdPin tty(*m_pFdGate, m_hTTY);
    long lResult = tty.iGet() != -1 && pFrame != nullptr ? 0 : -1;
    bool bMore = lResult == 0;
    while (bMore && lRead < lSizeToRead && bIsOpen(tty.iGet())) {
        lResult = lReadPinned(tty.iGet(), pFrame + lRead, lSizeToRead - lRead, lRead > 0);
        bMore = lResult >= 1;
        lRead += std::max(lResult, 0L);
    }
    if (plNbrRcv != nullptr) {
        *plNbrRcv = lRead;
    }
    return lResult;
}

long CThreadSerial::lReadSome(uint8_t* pFrame, long lSize)
{
    const CFdPin tty(*m_pFdGate, m_hTTY);
    return tty.iGet() != -1 ? lReadPinned(tty.iGet(), pFrame, lSize, false) : -1;
}

/// bBegun: bytes of the same chunk have come before.
long CThreadSerial::lReadPinned(int iFd, uint8_t* pFrame, long lSize, bool bBegun)
{
    for (;;) {
        if (!bAwaitInput(iFd, bBegun)) {
            return bHasGone(iFd) ? -1 : 0;
        }
        errno = 0;
        const ssize_t lRead = read(iFd, pFrame, static_cast<size_t>(lSize));
        int iError = lRead >= 0 ? 0 : errno;
        if (lRead == 0 && bHasGone(iFd)) {
            iError = EIO;
        }
        if (iError == 0) {
            return lRead;
        }
        if (!bAgain(iError) && iError != EINPROGRESS) {
            QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(iError).c_str());
            return -1;
        }
        if (!bIsOpen(iFd)) {
            return 0;
        }
        pollfd input{iFd, POLLIN, 0};
        poll(&input, 1, kRetryPauseMs);
    }
}

/**
 * Waits for input where read(2) does not: below 100 ms the driver would not wait at all, and a long
 * wait of the driver's could not be ended by Close().
 *
 * @return False: the line was silent for the inter-character time-out, or the port was closed.
 */
bool CThreadSerial::bAwaitInput(int iFd, bool bBegun)
{
    const uint32_t iTimeoutMs = m_iInterCharTimeout_ms;
    if (iTimeoutMs >= kVtimeUnitMs && iTimeoutMs <= kBlockingReadMaxMs) {
        return true;
    }
    // Without a byte there is no silence to be measured, and no hurry.
    const CDeadline deadline(bBegun ? iTimeoutMs : std::max(iTimeoutMs, kVtimeUnitMs));
    int64_t iLeftMs = deadline.iLeftMs();
    do {
        pollfd input{iFd, POLLIN, 0};
        if (poll(&input, 1, static_cast<int>(std::min<int64_t>(iLeftMs, kWaitSliceMs))) == 1) {
            return true;
        }
        iLeftMs = deadline.iLeftMs();
    } while (iLeftMs > 0 && bIsOpen(iFd));
    return false;
}

long CThreadSerial::lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed)
{
    if (lSizeTotal >= 1) {
        if (plUsed != nullptr) {
            *plUsed = lSizeTotal;
        }
        QUORCORE_LOG(LOG_DEBUG, "%s",
                     Hexlify(pFrame, static_cast<unsigned>(lSizeTotal), ' ').c_str());
    }
    return 0;
}

long CThreadSerial::iFlush()
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    return held ? tcflush(m_hTTY, TCIOFLUSH) : 0;
}

/// Changes the settings of the open port. @return 0, also for a closed port; -1 with errno.
long CThreadSerial::lChangePort(bool (*change)(termios& settings, const CThreadSerial& port))
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held) {
        errno = EDEADLK;
        return -1;
    }
    if (m_hTTY == -1) {
        return 0;
    }
    termios settings{};
    const bool bChanged = tcgetattr(m_hTTY, &settings) == 0 && change(settings, *this) &&
                          tcsetattr(m_hTTY, TCSANOW, &settings) == 0;
    return bChanged ? 0 : -1;
}

long CThreadSerial::iSetSpeed(uint32_t baudrate)
{
    const CDeferredCancel deferred;
    if (baudrate == 0 || baudrate == m_iSpeed) {
        return -1;
    }
    m_iSpeed = baudrate;
    long lResult = -1;
    if (m_hTTY != -1) {
        lResult = lChangePort([](termios& settings, const CThreadSerial& port) {
            return bSetSpeed(settings, port.m_iSpeed);
        });
        if (lResult != 0) {
            QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(errno).c_str());
        }
    }
    if (m_bRun) {
        Close();
    }
    return lResult;
}

long CThreadSerial::iSetInterCharTimeout(int32_t timout_ms)
{
    const CDeferredCancel deferred;
    if (timout_ms >= 0) {
        m_iInterCharTimeout_ms = static_cast<uint32_t>(timout_ms);
    }
    const long lResult = lChangePort([](termios& settings, const CThreadSerial& port) {
        SetReadTimeout(settings, port.m_iInterCharTimeout_ms);
        return true;
    });
    if (lResult != 0) {
        const int iError = errno;
        if (m_bRun) {
            Close();
        }
        QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(iError).c_str());
    }
    return lResult;
}

long CThreadSerial::iSetPortSignal(int line, bool level)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    int iSignals = 0;
    if (held && ioctl(m_hTTY, TIOCMGET, &iSignals) == 0) {
        iSignals = level ? iSignals | line : iSignals & ~line;
        if (ioctl(m_hTTY, TIOCMSET, &iSignals) == 0) {
            return 0;
        }
    }
    QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(held ? errno : EDEADLK).c_str());
    return -1;
}

long CThreadSerial::iSetRTS(bool level)
{
    return iSetPortSignal(TIOCM_RTS, level);
}

long CThreadSerial::iSetDTR(bool level)
{
    return iSetPortSignal(TIOCM_DTR, level);
}

long CThreadSerial::iSetRTS_DTR(bool level)
{
    return iSetPortSignal(TIOCM_RTS | TIOCM_DTR, level);
}

int CThreadSerial::iGetPortSignal(int line)
{
    const CHeldLock<CRecursiveLock> held(m_RecursiveLock);
    if (!held || m_hTTY == -1) {
        return 1;
    }
    int iSignals = 0;
    if (ioctl(m_hTTY, TIOCMGET, &iSignals) == -1) {
        QUORCORE_LOG(LOG_ERR, "%s", m_Logger.strerrorT(errno).c_str());
        return 1;
    }
    return (iSignals & line) != 0 ? 1 : 0;
}

int CThreadSerial::iGetRTS()
{
    return iGetPortSignal(TIOCM_RTS);
}

int CThreadSerial::iGetDTR()
{
    return iGetPortSignal(TIOCM_DTR);
}

int CThreadSerial::iGetRTS_DTR()
{
    return iGetPortSignal(TIOCM_RTS | TIOCM_DTR);
}

int CThreadSerial::iGetCTS()
{
    return iGetPortSignal(TIOCM_CTS);
}

int CThreadSerial::iGetDCD()
{
    return iGetPortSignal(TIOCM_CAR);
}

int CThreadSerial::iGetRNG()
{
    return iGetPortSignal(TIOCM_RNG);
}

int CThreadSerial::iGetDSR()
{
    return iGetPortSignal(TIOCM_DSR);
}
} // namespace QuorCore
