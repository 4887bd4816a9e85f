/// @file
/// @brief What is being said between the callers of a CThreadAT and its modem.
#pragma once

#include "internal/AtResultCode.h"
#include "internal/CAtQueue.h"
#include "internal/CFlightRecorder.h"
#include "internal/CLineFramer.h"

#include "libQuorCore/CThreadAT.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace QuorCore
{
/**
 * @brief Leads the callers through their commands, and tells of each line whose it is.
 *
 * Threads: any; Take() the one that reads. Its lock is held for moments only, never during a write,
 * a wait or a call of a handler.
 */
class CAtDialogue
{
public:
    /// Sends bytes, as long as @p bGoOn says so. @return Whether all were written.
    using write_t =
        std::function<bool(const std::string& szBytes, const std::function<bool()>& bGoOn)>;

    /// A line that belongs to no answer, on its way to its handler.
    struct report_t {
        std::shared_ptr<const CThreadAT::handler_t> pHandler; ///< Null: nobody has asked for it.
        std::vector<std::string> lines;                       ///< Empty: there is none.
    };

    /// @param framer  Told whether a prompt is awaited; outlives this object.
    explicit CAtDialogue(CLineFramer& framer) : m_framer(framer) {}
    CAtDialogue(const CAtDialogue&) = delete;
    CAtDialogue& operator=(const CAtDialogue&) = delete;

    /// Waits for the turn of a command, has it sent and waits for its answer.
    void Converse(CAtCall& call, const write_t& write);

    size_t Cancel(uint32_t iTag);
    size_t nQueued() const;

    void LinkLost(); ///< Ends all commands with -1; the modem owes nothing any more.

    /// Sorts a line. @return The report that is complete with it.
    report_t Take(const CLineFramer::line_t& line);

    void SetHandler(const std::string& szPrefix, int iFollowing, CThreadAT::handler_t handler);
    void RemoveHandler(const std::string& szPrefix);

    std::string szRecord() const;
    std::vector<std::string> TakeNewRecord();

private:
    struct entry_t {
        std::string szPrefix;
        int iFollowing = 0;
        std::shared_ptr<const CThreadAT::handler_t> pHandler;
    };
    /// A command that the modem has got, and how it may be answered when nobody waits any more.
    struct owed_t {
        std::string szCommand;
        std::string szPrefix;
        int iFollowing = 0;   ///< As atCommand_t::iFollowing.
        bool bPrompt = false; ///< The modem may be waiting for its text.
        bool bSecret = false;
        int iPending = 0; ///< So many lines are its own, whatever they look like.
    };
    class CTurn;
    class CTimeLeft;

    template <class Predicate>
    bool bAwait(CAtCall& call, long lLimitMs, Predicate predicate);
    void ConverseInTurn(CAtCall& call, const write_t& write);
    bool bSettle(CAtCall& call, long lLimitMs, const write_t& write);
    bool bAskWhatIsOwed(CAtCall& call, const CTimeLeft& time, const write_t& write);
    bool bKnowsAll() const;
    void OwesNothing();
    bool bMarkSent(CAtCall& call);
    bool bSend(CAtCall& call, const CTimeLeft& time, const std::string& szBytes,
               const write_t& write);
    bool bServePrompt(CAtCall& call, const CTimeLeft& time, const write_t& write);
    void Finish(CAtCall& call, long lResult);
    void GiveUp(const CAtCall& call);

    bool bTakeForAnswer(CAtCall& call, const CLineFramer::line_t& line);
    void Append(CAtCall& call, const CLineFramer::line_t& line);
    bool bTakeAsFinal(CAtCall& call, const CLineFramer::line_t& line);
    bool bTakeAsLate(const CLineFramer::line_t& line);
    void TakeLateFinal(bool bItsAnswer);
    report_t Report(const CLineFramer::line_t& line);
    std::vector<entry_t>::iterator PlaceOf(const std::string& szPrefix);
    const entry_t* pFindHandler(const std::string& szLine) const;
    bool bEnds(const atFinal_t& final, const std::string& szLine,
               const std::string& szCommand) const;
    void Note(eFlightMark eMark, const std::string& szText);

    CLineFramer& m_framer;
    mutable std::mutex m_lock; ///< Guards all below.
    CAtQueue m_queue;
    CAtCall* m_pSent = nullptr;     ///< Whose answer the lines may be.
    CAtCall* m_pSettling = nullptr; ///< Waits for the line to come to rest.
    owed_t m_sent;             ///< Of m_pSent; made when it is sent, as giving up must not fail.
    owed_t m_owed;             ///< The last one that was given up.
    unsigned m_nOwed = 0;      ///< Final lines that the modem may still send for such ones.
    unsigned m_nLate = 0;      ///< Those that it has sent, ever.
    unsigned m_nAsked = 0;     ///< So many of m_nOwed are for the question what it owes.
    bool m_bItsAnswer = false; ///< The last line was the answer to that.
    std::vector<entry_t> m_handlers;
    report_t m_collected;   ///< A report whose further lines are awaited.
    int m_iToCollect = 0;   ///< So many.
    bool m_bSpoken = false; ///< Something was said since the link was lost last.
    CFlightRecorder m_recorder;
};
} // namespace QuorCore
