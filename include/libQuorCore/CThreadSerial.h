/// @file
/// @brief A thread that drives one serial port.
#pragma once

#include "libQuorCore/CThreadCom.h"
#include "libQuorCore/Export.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct termios;

namespace QuorCore
{
class CFdGate;

/**
 * @brief Opens a serial device, hands what arrives to lDispatchTrame() in chunks, and opens the
 *        device anew when it fails, goes away, or its name has become that of another one.
 *
 * The connection name of Configure() is the path of the device, its capacity the largest chunk; the
 * port number is not used. A chunk is what arrives until the line has been silent for the
 * inter-character time-out, or the capacity is full. A subclass overrides lDispatchTrame() to make
 * sense of the chunks; one that exchanges texts hands them on to CThreadCom::lDispatchTrame(),
 * which keeps an answer together that comes in several chunks.
 *
 * A connection is announced by EVT_COM_CONNECTED. Its end is not announced by anything, other than
 * a socket's: a modem that is reset comes and goes while the daemon initialises it. Intended; held
 * by AThreadSerial.TellsNobodyThatItsPortIsClosed.
 *
 * Threads: any may write, flush, change the speed or the signals, close and stop. What changes or
 * writes the port takes m_RecursiveLock; reading does not, and the serial thread only for a moment
 * between two chunks. Close() and iStop() throw away what the line has not taken yet, so that a
 * modem that takes nothing holds nobody up; the descriptor itself is closed when its last user has
 * left it, a read of another thread at the latest 200 ms later. A port is not opened anew before
 * OnLinkLost() has returned for the one that was closed.
 * Ownership: owns the descriptor. A class derived from this one calls EndThread() in its own
 * destructor. Errors: by return value; nothing throws. Rests on termios(3) and ioctl_tty(2).
 */
class QUORCORE_API CThreadSerial : public CThreadCom
{
public:
    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CThreadSerial(CObject* pParent, const char* pszLabel);
    ~CThreadSerial() override; ///< Stops the thread and closes the port.

    /**
     * @brief Sets how long a port that was just opened is left alone; before the thread is created.
     * @param iSeconds  2 unless set: many modems swallow what comes earlier. Below 1: no wait.
     */
    void SetSettleDelay(int iSeconds) { m_iSettleDelaySec = iSeconds; }

    /// Sets the pause between two attempts to open the port; before the thread is created.
    /// @param iSeconds  5 unless set; below 1 it is 1.
    void SetReopenDelay(int iSeconds) { m_iReopenDelaySec = iSeconds; }

    /// Lowers m_bRun, closes, and stops the thread as CThread::iStop() does. By force it is
    /// cancelled if it has not ended two seconds after its port was closed: a handler keeps it.
    /// @return 0.
    long iStop(bool bWait, bool bForce) override;

    long iRunThread() override;    ///< Opens and reads until it is stopped. @return 0.
    long iInitInstance() override; ///< That of CThread. @return 0.
    long iExitInstance() override; ///< That of CThread. @return 0.

    /**
     * @brief Opens the device for itself alone and sets the line: raw, 8 data bits, no parity, one
     *        stop bit, no flow control.
     *
     * A failure is logged at level 7 and closes what was opened. A port that is open is closed
     * first.
     *
     * @return 0; -1 the device cannot be opened or set, or the lock was not to be had.
     */
    long iConnect() override;

    /// Closes the port, safe from any thread and at any time. A pending exchange ends with -1.
    /// Nothing is posted.
    virtual void Close();

    /**
     * @brief Sends bytes while the thread runs, traced at level 7.
     *
     * The lock is held for a piece at a time and never while the line has no room: what two
     * threads write at once may mix when it is more than the driver takes in one go.
     *
     * @param pFrame  Borrowed; @p lSizeTotal bytes, negative as 0.
     * @return 0 all was written; -1 the thread does not run (any more), or writing failed, which is
     *         logged at level 3 and closes the port.
     */
    long iWrite(uint8_t* pFrame, long lSizeTotal) override;

    /**
     * @brief Receives until the line is silent or @p lSizeToRead bytes are there.
     *
     * Called by the thread itself; another one would take part of its bytes.
     *
     * @param pFrame    The caller's; room for @p lSizeToRead bytes.
     * @param plNbrRcv  Receives the number of bytes. May be null.
     * @return 0 the line fell silent, or the thread does not run; above 0 the buffer is full, or
     * the port was closed meanwhile; negative an error, which is logged at level 3, a device that
     * has gone, or no open port.
     */
    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override;

    /**
     * @brief Takes a chunk; runs on the serial thread. This one traces it at level 7.
     *
     * @param pFrame      The chunk, @p lSizeTotal bytes, those before it that nobody has taken
     *                    included; 16 bytes behind them may be written.
     * @param plUsed      Receives how many bytes were taken; the rest is given again, with the next
     *                    chunk behind it. What would fill the whole capacity is dropped. May be
     *                    null.
     * @return 0.
     */
    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override;

    /// Throws away what was received and not read, and what was written and not sent.
    /// @return tcflush(3)'s result; 0 when the lock was not to be had.
    long iFlush();

    /**
     * @brief Changes the speed; the running thread closes the port and opens it with the new one.
     *
     * @param baudrate  A speed code, the B... constants of termios.h, not bits per second.
     * @return 0 the open port has taken it; -1 otherwise: for an unchanged speed or 0, which leave
     *         the port alone (intended, callers tell by it that nothing was done), for a closed
     *         port, which is opened with it later, and for a failure, which is logged at level 3.
     */
    long iSetSpeed(uint32_t baudrate);

    /**
     * @brief Changes the silence that ends a chunk.
     *
     * The driver counts in tenths of a second, rounded down, up to 25.5 s. Below 100 ms the thread
     * itself measures it.
     *
     * @param timout_ms  Negative changes nothing, but sets the open port again.
     * @return 0; -1 the port has not taken it, which is logged at level 3 and closes it.
     */
    long iSetInterCharTimeout(int32_t timout_ms);

    /// @name Modem signals, as TIOCMGET and TIOCMSET have them
    /// @{

    /// Raises or lowers lines. @param line  Sum of TIOCM_... bits. @return 0, or -1 for any
    /// failure, which is logged at level 3.
    long iSetPortSignal(int line, bool level);
    long iSetRTS(bool level);
    long iSetDTR(bool level);
    long iSetRTS_DTR(bool level); ///< Both with one call.

    /// @param line  Sum of TIOCM_... bits. @return 1 when one of them is up, else 0; 1 also when
    /// nobody can tell, a failure to read them being logged at level 3: a daemon that waits for a
    /// line goes on with a port that has none. Intended; held by
    /// AThreadSerial.TakesAnUnknownSignalForARaisedOne.
    int iGetPortSignal(int line);
    int iGetRTS();
    int iGetDTR();
    int iGetRTS_DTR(); ///< Either.
    int iGetCTS();
    int iGetDCD();
    int iGetRNG();
    int iGetDSR();
    /// @}

protected:
    /// The port was closed: ends a pending exchange with -1. Runs in whichever thread closed it;
    /// for the serial thread when it has handed on what it read before.
    virtual void OnLinkLost();

    /// One read(2) of the open port, repeated when it was interrupted.
    /// @return Bytes; 0 nothing came within the inter-character time-out; -1 an error, which is
    ///         logged at level 3, or a device that has gone, or no open port.
    long lReadSome(uint8_t* pFrame, long lSize);

    /// Writes as iWrite(), as long as @p bGoOn returns true; it is asked after each piece, and ten
    /// times a second while the line has no room. @return As iWrite(); -1 also when it says no.
    long lWriteWhile(uint8_t* pFrame, long lSizeTotal, const std::function<bool()>& bGoOn);

    std::atomic<int> m_hTTY{-1};        ///< -1 when closed. Use it pinned, as lReadSome() does.
    std::atomic<uint32_t> m_iSpeed{13}; ///< A speed code; 13 is B9600.
    std::atomic<uint32_t> m_iInterCharTimeout_ms{100};

private:
    long lOpenPort(const std::string& szDevice);
    void ClosePort();
    void Reopen();
    long lServeChunk(long lKept);
    void HandOn(long& lKept, long lNew);
    bool bNodeIsThere();
    bool bIsOpen(int iFd) const { return m_bRun && m_hTTY == iFd; }
    void AwaitRoom();
    long lWritePiece(const uint8_t* pPiece, long lSize, int& iError);
    bool bAwaitInput(int iFd, bool bBegun);
    long lReadPinned(int iFd, uint8_t* pFrame, long lSize, bool bBegun);
    long lChangePort(bool (*change)(termios& settings, const CThreadSerial& port));

    const std::unique_ptr<CFdGate> m_pFdGate;
    std::atomic<int> m_iSettleDelaySec;
    std::atomic<int> m_iReopenDelaySec;
    std::atomic<int> m_iStopping{0}; ///< Calls of iStop() that still use the object.
    std::atomic<int> m_iClosing{0};  ///< Calls of Close() that have not told of the loss yet.
    std::string m_szOpened;          ///< Path of what was opened; guarded by m_RecursiveLock.
    uint64_t m_iOpenedDevice = 0;    ///< Its device number; guarded by m_RecursiveLock.
    bool m_bServing = false;         ///< A chunk is being read and handed on; the thread's own.
    bool m_bLostMeanwhile = false;   ///< The thread closed the port during that; its own.
};
} // namespace QuorCore
