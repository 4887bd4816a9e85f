/// @file
/// @brief One end of a framed TCP connection between two daemons.
#pragma once

#include "libQuorCore/CThreadCom.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/socketFrame.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <netdb.h>
#include <string>
#include <sys/socket.h>

namespace QuorCore
{
class CFdGate;
class CSocketReader;
namespace CommonCommands
{
struct outcome_t;
}

/**
 * @brief Connects, reads frames and answers the common commands; subclasses supply iConnect().
 *
 * The thread of the endpoint connects, again and again, and reads. Each frame goes to the exchange
 * that awaits its command, else to the handler that is registered for it with
 * pAddCallback(command, new CSocketCallback<CSocketBase>(...)); without one it is dropped. Handlers
 * for the common commands are registered by iInitInstance(); a subclass adds its own there, after
 * calling this one. A frame and its length come from whoever reached the port: a handler checks
 * GetDataSize() before it reads, and the room of the buffer before it enlarges a frame in place.
 *
 * The connection counts as dead when nothing was received for 40 s. iMonitoring(), which somebody
 * has to call well within that time, sends a ping each time and closes a dead connection.
 *
 * A process that has an endpoint survives SIGPIPE: unless the program chose something itself, the
 * first constructor gives the signal a handler that does nothing.
 *
 * Threads: any may write, exchange, close and stop. Frames of several threads never mix. A stop or
 * Close() ends whatever another thread is doing on the connection; the descriptor itself is closed
 * by the last user, never under a lock. Handlers run on the endpoint's thread; OnConnect() and
 * OnDeconnect() on whichever thread made the change.
 * Ownership: owns its descriptor; the callback map owns the handlers given to it. A class derived
 * from the concrete endpoints calls EndThread() in its own destructor.
 * Errors: by return value; nothing throws. Rests on tcp(7), recv(2) and send(2).
 */
class QUORCORE_API CSocketBase : public CThreadCom
{
public:
    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CSocketBase(CObject* pParent, const char* pszLabel);
    ~CSocketBase() override; ///< Stops the thread, closes, and withdraws what it has posted.

    /**
     * @brief Sets the wait before the first attempt to connect; to be called before the thread is
     *        created.
     *
     * For daemons that are to answer as soon as they are up. Every later attempt comes 5 s after
     * the connection was lost or the attempt before it failed.
     *
     * @param iSeconds  5 unless set; below 1 the thread connects as it starts.
     */
    void SetFirstConnectDelay(int iSeconds) { m_iFirstConnectDelaySec = iSeconds; }

    /// Lowers m_bRun, closes, and stops the thread as CThread::iStop() does. By force it is
    /// cancelled if it has not ended two seconds after its connection was closed: a handler keeps
    /// it, or the look-up of a name. @return 0.
    long iStop(bool bWait, bool bForce) override;

    /**
     * @brief Pings the peer and looks whether the connection is still alive.
     *
     * A send to a peer that reads nothing may take 10 s; no ping is sent when the write of another
     * thread goes on for more than a second. A failure is logged at level 4.
     *
     * @return 0; -1 when the thread does not run, is not connected, or the ping was not sent. A
     *         connection that this very call closed for its silence does not change the result.
     */
    int iMonitoring() override;

    long iRunThread() override; ///< Connects and reads until it is stopped. @return 0.

    /// Registers the thread and the built-in handlers. @return 0, also when the former failed.
    long iInitInstance() override;

    long iExitInstance() override; ///< The clean-up of CThread. @return 0.

    /**
     * @brief Sends bytes as they are, until all are gone or the connection is.
     *
     * A failed send is logged at level 4 and closes the connection, once the lock is free. Each
     * call counts in the message counter, whatever it achieved.
     *
     * @param pFrame      Borrowed; @p lSizeTotal bytes.
     * @return -1 the connection is closed; 1 the lock was not to be had, or there was nothing to
     *         send; else the bytes of the last send(2), which may be fewer than @p lSizeTotal.
     */
    long iWrite(uint8_t* pFrame, long lSizeTotal) override;

    bool bGetConnected() override; ///< @return Whether there is a socket and it is connected.

    /**
     * @brief Receives exactly so many bytes, unless the connection ends before.
     *
     * The end of the stream does not close the connection: after ten empty reads 10 ms apart the
     * call returns what it has. An error is logged at level 4 and closes the connection.
     *
     * On the endpoint's thread it reads ahead: a handler that wants bytes of the stream takes them
     * from here, never from the descriptor.
     *
     * @param pFrame       Receives the bytes; the caller's, room for @p lSizeToRead.
     * @param plNbrRcv     Receives the number of bytes read. May be null.
     * @return That number, or -1 after an error.
     */
    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override;

    /**
     * @brief Gives a frame to the exchange that awaits its command, else to its handlers.
     *
     * @param pFrame      The frame, complete in memory; borrowed.
     * @param lSizeTotal  Length to report as consumed.
     * @param plUsed      Receives @p lSizeTotal when the frame was taken, else 0. May be null.
     * @return 1 when it was taken, else 0.
     */
    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override;

    /**
     * @brief Ends the connection; safe from any thread and at any time.
     *
     * Takes no lock before the connection is shut down. A pending exchange ends with -1. Then
     * OnDeconnect() is called, always, also when nothing was open: who follows the events need not
     * have seen the connection come.
     */
    virtual void Close();

    /// Logs the text of a socket error at level 4. @return @p lErr.
    virtual long iLogError(long lErr);

    /**
     * @brief Sends a header, and its data only if that failed.
     *
     * The test is inverted, and kept: callers of this form send headers whose data travels
     * elsewhere, and rely on none following. To send data use another form. Held by
     * ASocketBase.SendsNoDataWithACallersHeader.
     *
     * @param pHeader   The caller's; receives magic, counter, size, user1 and user2, and keeps its
     *                  family, command, error and protocol.
     * @param pPayload  Borrowed; @p size bytes, may be null.
     * @param size      Its low 16 bits become the data size.
     * @return -1 not connected or not sent; 1 no lock; else as the raw form.
     */
    virtual long iWrite(socketFrameHdr_t* pHeader, uint8_t* pPayload, long size, uint16_t user1,
                        uint16_t user2);

    /**
     * @brief Sends a frame as a header and then, if there is any, its data.
     *
     * The header's error word is not set and means nothing to the receiver; it is sent as 0. The
     * header waits for the data and leaves with it: a subclass that replaces the raw form replaces
     * it for both.
     *
     * @param pPayload  Borrowed; @p size bytes (0 to 65535); null sends none of them, but the
     *                  header still announces @p size.
     * @return The sum of both raw results: negative not sent, -1 also when not connected or for a
     *         size beyond 65535; 1 no lock.
     */
    virtual long iWrite(uint16_t command, uint8_t* pPayload, long size, uint16_t typeITF,
                        uint16_t protocol, uint16_t user1, uint16_t user2);

    /// Sends an object, serialised without its masked texts, as the data. @return As the form that
    /// takes bytes; -1 for null.
    virtual long iWriteObject(uint16_t command, CObject* pObject, uint16_t typeITF,
                              uint16_t protocol, uint16_t user1, uint16_t user2);

    /**
     * @brief iExchangeCmd() with objects for request and answer.
     *
     * The answer may have 2048 bytes of data.
     *
     * @param pObject     Request; null sends no data. Borrowed.
     * @param pObjectRet  Filled from the answer, in part if that does not fit it; may be null.
     * @param plUsed      Receives the answer's length in bytes.
     * @return As the form with bytes; -1 also without @p plUsed.
     */
    virtual long iExchangeCmd(uint16_t command, CObject* pObject, uint16_t commandToWait,
                              CObject* pObjectRet, long* plUsed, long iTimeOut,
                              bool bCloseOnTimeout);

    /**
     * @brief Sets the options of the connection: keep-alive, 8 KiB buffers, 5 s of lingering.
     *
     * Every option is tried, whatever became of those before.
     *
     * @return 0, or all results or-ed together.
     */
    virtual long lSetOption();

    /**
     * @brief Sends a whole frame, data included, with a single send(2) as a rule.
     * @param pFrame  Receives magic and counter. The caller's.
     * @return As the raw form; -1 for null.
     */
    virtual long iWrite(socketFrame_t* pFrame);

    /**
     * @brief Reads one frame.
     *
     * Data of more than @p lSizeToRead bytes is not read: the header alone is handed on, its size
     * field set to 0, and the data stays in the stream, where the next read takes it for a header
     * and fails.
     *
     * @param pFrame       The caller's; 20 + @p lSizeToRead bytes.
     * @param lSizeToRead  Largest data in bytes, negative as 0.
     * @param plNbrRcv     Receives the data size read. May be null.
     * @return Above 0: a frame is there. 0: nothing came, or the rest of a frame will not come as
     *         another connection is up already; the caller tries again. -1: a cut or bad frame,
     *         which costs the connection: there is no search for the next one.
     */
    virtual long lRead(socketFrame_t* pFrame, long lSizeToRead, long* plNbrRcv);

    virtual long iLogOption(); ///< Logs the options of the connection at level 6. @return 0.

    /**
     * @brief Sends a request and waits for the frame that answers it, one exchange at a time.
     *
     * Not from a handler: the answer is read by the very thread that would be waiting for it.
     *
     * @param pPayload       Data to send, @p size bytes (0 to 65535), or null. Borrowed.
     * @param commandToWait  Command of the answer; any number, 0 included.
     * @param pPayloadRet    Receives the answer's data, for an answer without data one 0 byte. The
     *                       caller's, @p sizeMax bytes; may be null.
     * @param sizeMax        Room at @p pPayloadRet in bytes; a longer answer is refused whole.
     * @param plUsed         Receives the answer's length in bytes; 0 until one is copied. May be
     *                       null.
     * @param iTimeOut       Time allowed for the answer in ms; 0 polls, negative waits for ever.
     * @param bCloseOnTimeout  Close the connection unless the result is 0.
     * @return 0 answered; -1 not connected, not sent, connection lost, answer refused, or called
     *         on the endpoint's thread; -7 time-out.
     */
    long iExchangeCmd(uint16_t command, uint8_t* pPayload, long size, uint16_t commandToWait,
                      uint8_t* pPayloadRet, long sizeMax, long* plUsed, long iTimeOut,
                      bool bCloseOnTimeout);

    void ResetPing(); ///< The connection counts as alive for another 40 s.

    /**
     * @brief Closes a connection from which nothing was received in time.
     * @return False when it did, which is logged at level 3. True otherwise, also without a
     *         connection, and while the deadline is 0 or less: such a one is never over.
     */
    bool bCheckPing();

    /// @name Handlers of the common commands; they run on the endpoint's thread.
    /// Each ignores null. The frame is theirs to change.
    /// @{
    void OnCmdCommunPing(socketFrame_t* pFrame);    ///< Sends it back and posts EVT_COM_PING.
    void OnCmdCommunPong(socketFrame_t* pFrame);    ///< Posts EVT_COM_PONG.
    void OnCmdCommunVersion(socketFrame_t* pFrame); ///< Answers with g_versionFW.
    void OnCmdCommunPID(socketFrame_t* pFrame);     ///< Answers with the process id.
    void OnCmdCommunName(socketFrame_t* pFrame);    ///< Answers with the application's name.
    /// Answers with the page that shows the log levels.
    void OnCmdCommunGetLogConfig(socketFrame_t* pFrame);
    /// Sets log levels, posts EVT_CONFIG_SAVE and answers with an empty frame.
    void OnCmdCommunSetLogConfig(socketFrame_t* pFrame);
    /// @}

protected:
    std::atomic<int> m_iSocket{-1};     ///< -1 when closed. Use it pinned, as iWrite() does.
    sockaddr_storage m_ClientAddress{}; ///< The peer; written by iConnect().
    addrinfo m_AddrInfo{};              ///< The address in use, without pointers; by iConnect().
    uint16_t m_iMsgCounter = 0;         ///< Guarded by m_RecursiveLock.
    std::atomic<time_t> m_iNextPing;    ///< The connection is dead after it; 0 or less: never.

    /// Takes a new connection into m_iSocket and announces it.
    /// @return False: it was closed by another thread meanwhile.
    bool bAnnounceConnected(int iFd);

    /// @return Whether the endpoint's loop was told to end while it is in iConnect(). Always false
    ///         where another thread calls iConnect() by itself.
    bool bGiveUpConnecting() const;

    CFdGate& FdGate() { return *m_pFdGate; } ///< The keeper of this object's descriptors.

private:
    template <class Write>
    long lInWriteTurn(Write write, long lLockWaitMs = -1);
    long lSendAll(int iFd, const uint8_t* pFrame, long lSizeTotal);
    void Abandon();
    void FinishFailedSend(int iError);
    bool bInLoop() const;
    long lReceive(uint8_t* pTarget, long lSize, bool bBegun, int& iError);
    long lCutFrame();
    bool bTakeAsAnswer(socketFrame_t* pFrame);
    bool bSettleExchange(socketFrame_t* pFrame);

    long lServeOneFrame(long lCarried);
    void Reconnect(int iWaitSec);
    void SetConnectionExtras();
    void Serve(socketFrame_t& frame, const CommonCommands::outcome_t& outcome);
    void Answer(const socketFrameHdr_t& header, const std::string& szData);

    const std::unique_ptr<CFdGate> m_pFdGate;
    std::atomic<int> m_iFirstConnectDelaySec;
    std::atomic<int> m_iStopping{0};    ///< Calls of iStop() that still use the object.
    CSocketReader* m_pReader = nullptr; ///< The loop's; only its thread looks.
    bool m_bOversize = false; ///< The frame last read has data that was not read; its reader's.
    bool m_bInFrame = false;  ///< The data of a frame is being read; its reader's.
    uint16_t m_iCommandToWait = 0; ///< Unchanged while m_pTagToWait points here.
    int m_iWriteDepth = 0;         ///< Guarded by m_RecursiveLock.
    int m_iTurnFd = -1;            ///< Of the write under way. Guarded by m_RecursiveLock.
    int m_iSendError = 0;          ///< Guarded by m_RecursiveLock.
    bool m_bHoldHeader = false;    ///< The next write is a header whose data follows. Same guard.
    bool m_bHeaderHeld = false;    ///< m_aHeldHeader goes out with the next write. Same guard.
    bool m_bHeaderLost = false;    ///< It did not go out. Same guard.
    std::array<uint8_t, kFrameHeaderSize> m_aHeldHeader{}; ///< Same guard.
    std::atomic<pthread_t> m_exchangingThread{0}; ///< The one that holds m_LockExchange, or 0.
    int m_iExchangeSendError = 0;                 ///< That thread's.
};
} // namespace QuorCore
