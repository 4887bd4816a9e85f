/// @file
/// @brief The base of every communication thread, with its request and answer exchange.
#pragma once

#include "libQuorCore/CThread.h"
#include "libQuorCore/Export.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace QuorCore
{
/// m_ExchangeResult of an exchange whose answer is awaited.
constexpr long kExchangePending = -6;

/**
 * @brief A thread with a link: receive buffer, connection state and one exchange at a time.
 *
 * An exchange writes a request and sleeps until the reading thread hands over the answer or the
 * time is over. Here the answer is text that holds a tag, as modems answer; socket endpoints await
 * a command number in the same way (CSocketBase).
 *
 * Threads: any thread may exchange; callers take turns, each waiting for the one before, its
 * time-out included. The reading thread itself cannot: it would wait for itself. No lock is held
 * while OnConnect() or OnDeconnect() runs.
 * Ownership: owns its receive buffer. Errors: by return value; nothing throws.
 */
class QUORCORE_API CThreadCom : public CThread
{
public:
    /// @param pParent   Parent in the object tree or null; not owned.
    /// @param pszLabel  Name of the thread in the log; copied.
    CThreadCom(CObject* pParent, const char* pszLabel);
    ~CThreadCom() override; ///< Frees the receive buffer.

    /**
     * @brief Sets port, receive capacity and connection name; called before the thread is created.
     *
     * While the thread runs its buffer stays as it is: port and name count from the next connection
     * on, and the capacity is taken only when it fits into the buffer that is there.
     *
     * @param iNumPort         Port number; below 1 the present one stays.
     * @param lSizeDataMax     Largest data of a frame or chunk in bytes, negative as 0. The buffer
     *                         has at least 16 bytes more. 0 keeps the size of a buffer that exists.
     * @param szConnexionName  Device path, host, or a mere label; copied, null is an empty one.
     */
    virtual void Configure(long iNumPort, long lSizeDataMax, const char* szConnexionName);

    /// Sends bytes; a transport overrides it. @return 0 here. For iExchange() 0 means: all written.
    virtual long iWrite(uint8_t* pFrame, long lSizeTotal);

    virtual bool bGetConnected(); ///< @return Whether the link is up.

    virtual long iConnect(); ///< Brings the link up; a transport overrides it. @return 0 here.

    virtual void OnConnect();   ///< The link came up: posts EVT_COM_CONNECTED of this object.
    virtual void OnDeconnect(); ///< The link went down: posts EVT_COM_DISCONNECTED.

    /// Receives bytes; a transport overrides it. @return 0 here.
    virtual long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv);

    /**
     * @brief Offers received text to the pending exchange; called by the reading thread.
     *
     * The text completes the exchange when it holds the awaited tag anywhere, or, without a tag, as
     * soon as there is any. It is searched up to its first 0 byte. Its first bytes go to the
     * caller's buffer, with no 0 added, while the length that is told is always the whole one.
     *
     * @param pFrame      Received data, @p lSizeTotal bytes; borrowed.
     * @param plUsed      Receives @p lSizeTotal when the text was taken; else it is left alone, so
     *                    that the reader offers the text again when more has come. May be null.
     * @return 1 when it completed the exchange, else 0.
     */
    virtual long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed);

    int iMonitoring() override; ///< @return 0 while the thread runs and is connected, else -1.

    /**
     * @brief iExchange() of a request that is a text, as for a modem.
     *
     * A failure is logged at level 3 together with the request.
     *
     * @return As iExchange().
     */
    long iExchangeAT(const char* pBufferWrite, const char* pTagToWait, char* pBufferRead,
                     long iSizeToReadMax, long* piSizeRead, long iTimeOut);

    /**
     * @brief Writes a request and waits for the answer that holds a tag.
     *
     * For transports whose iWrite() returns 0 when all was written. A socket's returns a count, so
     * there this returns that count at once, without an answer: sockets have iExchangeCmd().
     *
     * @param pBufferWrite    Request, borrowed; null only waits, as for an unsolicited report.
     * @param iSizeToWrite    Its length in bytes; below 1 it ends at its first 0 byte.
     * @param pTagToWait      Zero-terminated text to wait for, borrowed; null takes any answer.
     * @param pBufferRead     Receives the answer, @p iSizeToReadMax bytes at most; may be null.
     * @param piSizeRead      Receives 0 at first, then the length of the whole answer, be it more
     *                        than @p pBufferRead took. Not touched by an answer when there is no
     *                        @p pBufferRead. May be null.
     * @param iTimeOut        ms; 0 polls, negative waits for ever.
     * @return 0 answered; -1 not connected, no lock, the link lost meanwhile, or called by the
     *         reading thread; -7 no answer in time; another value: that of iWrite().
     */
    long iExchange(uint8_t* pBufferWrite, long iSizeToWrite, uint8_t* pTagToWait,
                   uint8_t* pBufferRead, long iSizeToReadMax, long* piSizeRead, long iTimeOut);

    /// Asks the reading thread to discard what it has accumulated.
    void RestartBuffer() { m_bRestartBuffer = true; }

    /// @return The connection name; the object's, and valid until Configure() is called.
    const char* pszGetConnexionName() { return m_szConnexionName.c_str(); }

    void SetConnected(bool bOn); ///< Sets the connection state under m_RecursiveLock.

protected:
    /// Marks the calling thread as the one that reads, for a scope: the loop of a transport.
    class QUORCORE_API CReading
    {
    public:
        explicit CReading(CThreadCom& com);
        CReading(const CReading&) = delete;
        CReading& operator=(const CReading&) = delete;
        ~CReading();

    private:
        CThreadCom& m_com;
    };

    /// What an exchange waits for and where its answer goes, registered for a scope.
    class QUORCORE_API CAwaitedAnswer
    {
    public:
        /// @param pTag  The awaited tag; all pointers are borrowed for the scope and may be null.
        CAwaitedAnswer(CThreadCom& com, uint8_t* pTag, uint8_t* pBuffer, long lSizeMax,
                       long* plSize);
        CAwaitedAnswer(const CAwaitedAnswer&) = delete;
        CAwaitedAnswer& operator=(const CAwaitedAnswer&) = delete;
        ~CAwaitedAnswer() noexcept(false);

        explicit operator bool() const { return m_bRegistered; } ///< False: no lock, no answer.

        /// @param iTimeOut  ms; negative waits for ever.
        /// @return The outcome, 0 or -1; -7 when there is none in time.
        long lAwait(long iTimeOut);

    private:
        CThreadCom& m_com;
        bool m_bRegistered = false;
    };

    /// @return Whether the caller is the thread that reads, for which an exchange would never end.
    bool bIsReadingThread() const;

    /// Ends a pending exchange with -1: its answer cannot come any more.
    void AbortExchange();

    /// First step of a destructor: StopAndAwaitEnd() without a further EVT_COM_DISCONNECTED for who
    /// was stopped already.
    void EndThread();

    /// Posts an event without payload, unless one of this object waits already or it is 0: a peer
    /// that sets the pace of it would else fill the memory while the dispatcher is busy.
    void PostOnce(uint32_t iEventId);

    std::string szCopyConnexionName(); ///< @return The connection name, safe beside Configure().

    std::atomic<bool> m_bConnected{false};     ///< The link is up. Set under m_RecursiveLock.
    std::atomic<bool> m_bRestartBuffer{false}; ///< The reading thread is to drop what it has.
    std::atomic<long> m_lSizeDataMax{0};       ///< Largest received data in bytes.
    uint8_t* m_pRxBuffer = nullptr;            ///< The reading thread's while it runs; malloc(3).
    std::atomic<int> m_iNumPort{0};
    std::string m_szConnexionName;         ///< Changed by Configure() only.
    CRecursiveLock m_LockExchange;         ///< One exchange at a time.
    CRecursiveLock m_LockDataExchange;     ///< Guards the five fields of the exchange.
    CEvent m_EventRead;                    ///< The awaited answer has come.
    uint8_t* m_pTagToWait = nullptr;       ///< Borrowed; null for any answer, and when idle.
    uint8_t* m_pLastRead = nullptr;        ///< Borrowed; where the answer goes.
    long m_iSizeMaxRead = 0;               ///< Bytes at m_pLastRead.
    long* m_piSizeLastRead = nullptr;      ///< Borrowed; where its length goes.
    std::atomic<long> m_ExchangeResult{0}; ///< -6 pending, then 0 or -1; 0 when idle.

private:
    void ResizeRxBuffer(long lSizeDataMax);
    bool bSettleExchange(const uint8_t* pFrame, long lSizeTotal);

    size_t m_sizeRxBuffer = 0;
    std::mutex m_nameLock;                     ///< Guards changes of m_szConnexionName.
    std::atomic<pthread_t> m_readingThread{0}; ///< 0 while no loop runs.
};
} // namespace QuorCore
