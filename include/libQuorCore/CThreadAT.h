/// @file
/// @brief A serial thread that speaks with a modem: commands, their answers, and what comes
/// unasked.
#pragma once

#include "libQuorCore/CThreadSerial.h"
#include "libQuorCore/Export.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QuorCore
{
class CAtCall;
class CAtDialogue;
class CLineFramer;
class CReportPost;

/// What CThreadAT::lCommand() returns beside 0, -1 and -7.
enum eAtResult : int {
    AT_MODEM_ERROR = -8, ///< The modem has refused; szFinal, iError and szError tell.
    AT_CANCELLED = -9,   ///< CThreadAT::Cancel() was called for it.
};

/// A command for the modem, and how its answer looks.
struct atCommand_t {
    std::string szText; ///< Without the carriage return at its end, and without control characters.

    /// Lines of the answer begin with it. Others that come meanwhile go to their handlers. Empty:
    /// every line that no handler wants belongs to the answer.
    std::string szPrefix;

    /// Lines behind each line with szPrefix that belong to it, whatever they look like: 1 for a
    /// message as PDU. -1: all until the final line, which a line of a text may well look like.
    int iFollowing = 0;

    bool bPrompt = false;  ///< The modem asks with "> " for szPayload.
    std::string szPayload; ///< Sent then, with Ctrl-Z behind it. Without control characters but
                           ///< carriage return and line feed.
    long iTimeOut =
        10000; ///< ms for command and answer once it is this one's turn; negative: no end.
    bool bUrgent = false; ///< Before all that wait and are not.
    bool bSecret = false; ///< What follows its first "=" is kept out of the flight record.
    uint32_t iTag = 0;    ///< For Cancel().
};

/// The answer to a command.
struct atResult_t {
    long lResult = -1; ///< As CThreadAT::lCommand() returned it.
    std::vector<std::string>
        lines;           ///< Between command and final line, without echo and blank ones.
    std::string szFinal; ///< The final line; empty without one.
    int iError = -1;     ///< Number of a +CME or +CMS error; -1 without one.
    std::string szError; ///< Its text, by 3GPP TS 27.007 and 27.005 or as the modem had it.
    bool bCut = false;   ///< Something of it was longer than there is room for, and is missing.
};

/**
 * @brief Sends commands, one at a time, and sorts what the modem says into answers and reports.
 *
 * An answer is handed on with its final line, not after a silence. Final lines are "OK" and
 * "CONNECT ...", for which a command succeeds, and "ERROR", "+CME ERROR: ...", "+CMS ERROR: ...",
 * "NO CARRIER", "BUSY", "NO ANSWER", "NO DIALTONE", "ABORTED" and "COMMAND NOT SUPPORT". The modem
 * must use words (ATV1, its default); it may echo or not. "NO CARRIER", "BUSY", "NO ANSWER" and "NO
 * DIALTONE" also report the end of a call: with a handler for them they end only a command that
 * has to do with a call (ATD, ATA, ATO, ATH, +CGDATA).
 *
 * A line may be as long as the capacity of Configure(); what is longer is logged at level 3 and
 * cut. 0 bytes, which many modems send while they start, are passed over.
 *
 * After a time-out the modem still owes an answer, and no late answer is taken for that of another
 * command: before the next one is sent the modem is asked "ATV1S3?", to which it answers "013" when
 * it is done with all that came before; an answer that is late comes first. That takes no longer
 * than the modem does. Where the command that was given up has no prefix, or further lines, so that
 * its own answer might look the same, or where the modem does not know the question, 200 ms of
 * silence must follow. The time for it is the next command's own, which ends with -7, unsent, when
 * the modem stays mute; every 3 s it is asked again. A modem that answers in numbers is told by it
 * to use words.
 *
 * iExchangeAT() works as on any serial port, beside the queue: who uses both sees to it that they
 * do not meet.
 *
 * Threads: any may call anything, but lCommand() is not for the serial thread, and so not for
 * handlers that run there, as it would wait for itself. Commands take turns in the order of their
 * calls, urgent ones first. Ownership: handlers belong to this object; what they call has to live
 * until they are removed and the thread was stopped. A class derived from this one calls
 * EndThread() in its own destructor. Errors: by return value; what takes or makes a text throws
 * std::bad_alloc when there is no memory. Rests on ITU-T V.250, 3GPP TS 27.007 and 27.005.
 */
class QUORCORE_API CThreadAT : public CThreadSerial
{
public:
    /// Gets the line, and behind it those that were announced with it; runs on the serial thread.
    using handler_t = std::function<void(const std::vector<std::string>& lines)>;

    /// @param pParent   Parent in the object tree or null; not owned, must outlive this object.
    /// @param pszLabel  Thread label in the log; copied.
    CThreadAT(CObject* pParent, const char* pszLabel);
    ~CThreadAT() override; ///< Stops the thread. Nobody may be in lCommand().

    /**
     * @brief Sends a command and waits for its answer.
     *
     * A time-out is logged at level 3, with the flight record that was not logged yet.
     *
     * @param command  Borrowed for the call.
     * @param result   Receives the answer; what had come of it also with -7 and -9.
     * @return 0; -1 not connected, the link lost meanwhile, not written, a text that cannot be sent
     *         as one command, or called by the serial thread; -7 no answer in time; -8 the modem
     *         has refused; -9 cancelled.
     */
    long lCommand(const atCommand_t& command, atResult_t& result);

    /// The same with all else as it is by default.
    /// @param szPrefix  As atCommand_t::szPrefix.
    /// @param iTimeOut  As atCommand_t::iTimeOut.
    long lCommand(const std::string& szText, const std::string& szPrefix, atResult_t& result,
                  long iTimeOut);

    /// Ends commands with -9, be they waiting or sent. @param iTag  Their atCommand_t::iTag.
    /// @return Their number.
    size_t Cancel(uint32_t iTag);

    size_t nQueued() const; ///< @return Commands that wait or were sent.

    /**
     * @brief Sets who gets the lines that begin with @p szPrefix and belong to no answer.
     *
     * The longest prefix that fits counts; one that is set already is replaced.
     *
     * @param szPrefix    Such as "+CMTI:" or "RING"; an empty one gets every line that no other
     *                    wants, and so takes them out of the answers that have no prefix.
     * @param iFollowing  Lines behind it that come with it: 1 for "+CMT:". Blank ones count there.
     * @param handler     What it throws is logged at level 3. An empty one drops the lines.
     */
    void SetUnsolicited(const std::string& szPrefix, int iFollowing, handler_t handler);

    /// The same, posted: a message of this object for @p iEventId, its payload the lines, each but
    /// the last with a line feed behind it, and a 0 byte. While 256 of this object wait for the
    /// dispatcher more are dropped; how many is logged at level 4.
    void SetUnsolicited(const std::string& szPrefix, int iFollowing, uint32_t iEventId);

    /// A handler that is running goes on.
    void RemoveUnsolicited(const std::string& szPrefix);

    /// A line that belongs to no answer and has no handler; runs on the serial thread. This one
    /// logs it at level 7.
    virtual void OnUnsolicited(const std::string& szLine);

    /// @return The last few hundred lines of the conversation, secrets masked;
    /// docs/flight-record.md tells the form.
    std::string szFlightRecord() const;

    /// Logs what of it was not logged yet. @param iLevel  0 to 7.
    void LogFlightRecord(int iLevel);

    long iConnect() override; ///< As the base class's; half a line of before is forgotten.
    long lDispatchTrame(uint8_t* pFrame, long lSizeTotal, long* plUsed) override;
    /// As the base class's, but returns with what is there as soon as something is.
    long iRead(uint8_t* pFrame, long lSizeToRead, long* plNbrRcv) override;

protected:
    void OnLinkLost() override; ///< Ends the commands, too.

private:
    bool bWrite(std::string szText, const std::function<bool()>& bGoOn);
    void Post(uint32_t iEventId, const std::vector<std::string>& lines);
    void HandOn(const handler_t* pHandler, const std::vector<std::string>& lines);
    void OfferToExchange(const uint8_t* pFrame, long lSizeTotal);

    const std::unique_ptr<CLineFramer> m_pFramer; ///< The serial thread's.
    const std::unique_ptr<CAtDialogue> m_pDialogue;
    const std::unique_ptr<CReportPost> m_pReportPost; ///< The serial thread's.
    std::string m_szExchange; ///< What came since an exchange is pending; the serial thread's.
};
} // namespace QuorCore
