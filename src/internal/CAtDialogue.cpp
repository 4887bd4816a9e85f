#include "internal/CAtDialogue.h"

#include "internal/CCancelGuard.h"
#include "internal/Clock.h"

#include <algorithm>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr long kLateAnswerMs = 500; // for an answer that was given up, before it is asked for
constexpr long kQuietMs = 200;      // between the answers to two commands that the modem has got
constexpr size_t kAnswerBytesMax = 1024 * 1024; // of a modem that never ends
constexpr char kEscape[] = "\x1b";              // leaves the prompt, 3GPP TS 27.005, 3.5.1
constexpr char kCtrlZ[] = "\x1a";

bool bBeginsWith(const std::string& szText, const std::string& szPrefix)
{
    return szText.compare(0, szPrefix.size(), szPrefix) == 0;
}

/// The time that a command has, without end for a negative one.
class CTimeLeft
{
public:
    explicit CTimeLeft(long lMs) : m_bEndless(lMs < 0), m_deadline(std::max(lMs, 0L)) {}

    long lLeftMs() const { return m_bEndless ? -1 : static_cast<long>(m_deadline.iLeftMs()); }

    /// @return The lesser of that and @p lMs.
    long lAtMost(long lMs) const { return m_bEndless ? lMs : std::min(lMs, lLeftMs()); }

private:
    const bool m_bEndless;
    const CDeadline m_deadline;
};
} // namespace

/// A command's place in the queue, for a scope.
class CAtDialogue::CTurn
{
public:
    CTurn(CAtDialogue& dialogue, CAtCall& call) : m_dialogue(dialogue), m_call(call)
    {
        const std::lock_guard<std::mutex> held(m_dialogue.m_lock);
        m_dialogue.m_queue.Enter(m_call);
    }
    CTurn(const CTurn&) = delete;
    CTurn& operator=(const CTurn&) = delete;
    ~CTurn()
    {
        const std::lock_guard<std::mutex> held(m_dialogue.m_lock);
        if (m_dialogue.m_pSent == &m_call) { // the thread is being cancelled
            m_dialogue.m_pSent = nullptr;
        }
        if (m_dialogue.m_pSettling == &m_call) {
            m_dialogue.m_pSettling = nullptr;
        }
        m_dialogue.m_queue.Leave(m_call);
    }

private:
    CDeferredCancel m_deferred;
    CAtDialogue& m_dialogue;
    CAtCall& m_call;
};

void CAtDialogue::Converse(CAtCall& call, const write_t& write)
{
    const CTurn turn(*this, call);
    // Those before it have time-outs of their own.
    if (bAwait(call, -1, [&call] { return call.m_eState == eAtCall::ITS_TURN; })) {
        ConverseInTurn(call, write);
    }
}

/// Waits until the predicate, which is asked under the lock, is true. @return False: it is not in
/// time, or the command has ended.
template <class Predicate>
bool CAtDialogue::bAwait(CAtCall& call, long lLimitMs, Predicate predicate)
{
    const CTimeLeft time(lLimitMs);
    for (bool bLast = false;;) {
        {
            const std::lock_guard<std::mutex> held(m_lock);
            if (predicate()) {
                return true;
            }
            if (bLast || call.m_eState == eAtCall::ENDED) {
                return false;
            }
        }
        bLast = call.m_Changed.iWaitForEvent(time.lLeftMs()) == kTimedOut;
    }
}

void CAtDialogue::ConverseInTurn(CAtCall& call, const write_t& write)
{
    const CTimeLeft time(call.m_command.iTimeOut);
    if (!bSettle(call, call.m_command.iTimeOut, write)) {
        Finish(call, kTimedOut);
        return;
    }
    if (!bMarkSent(call)) {
        return;
    }
    if (!write(call.m_command.szText + '\r')) {
        Finish(call, -1);
        return;
    }
    const bool bAskedForText = call.m_command.bPrompt && bAwait(call, time.lLeftMs(), [&call] {
                                   return call.m_bPrompted && call.m_eState == eAtCall::SENT;
                               });
    if (bAskedForText) {
        SendPayload(call, write);
    }
    bAwait(call, time.lLeftMs(), [&call] { return call.m_eState == eAtCall::ENDED; });
    Finish(call, kTimedOut);
}

/**
 * A modem that was given up may answer yet, and its answer looks like that to any other command. It
 * answers one after the other, though: when it has answered "AT" and goes on to say nothing, it has
 * either answered or forgotten all that came before.
 *
 * @return False: it does not answer, or the command has ended.
 */
bool CAtDialogue::bSettle(CAtCall& call, long lLimitMs, const write_t& write)
{
    const CTimeLeft time(lLimitMs);
    bool bEscape = false;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_nOwed == 0) {
            return true;
        }
        m_pSettling = &call;
        bEscape = m_bOwedPrompt;
    }
    bool bSettled = bAwait(call, time.lAtMost(kLateAnswerMs), [this] { return m_nOwed == 0; });
    if (!bSettled && time.lLeftMs() != 0) {
        unsigned nLate = 0;
        {
            const std::lock_guard<std::mutex> held(m_lock);
            ++m_nOwed;
            nLate = m_nLate;
            Note(eFlightMark::COMMAND, "AT");
        }
        const auto bAnother = [this, &nLate] { return std::exchange(nLate, m_nLate) != nLate; };
        bSettled = write((bEscape ? kEscape : "") + std::string("AT\r")) &&
                   bAwait(call, time.lLeftMs(), bAnother);
        while (bSettled && bAwait(call, kQuietMs, bAnother)) {
        }
    }
    const std::lock_guard<std::mutex> held(m_lock);
    m_pSettling = nullptr;
    m_nOwed = bSettled ? 0 : m_nOwed;
    return bSettled;
}

bool CAtDialogue::bMarkSent(CAtCall& call)
{
    const std::lock_guard<std::mutex> held(m_lock);
    if (call.m_eState != eAtCall::ITS_TURN) {
        return false;
    }
    call.m_eState = eAtCall::SENT; // before it is written: the answer may come at once
    m_pSent = &call;
    m_framer.AwaitPrompt(call.m_command.bPrompt);
    Note(eFlightMark::COMMAND, szMaskSecret(call.m_command.szText, call.m_command.bSecret));
    return true;
}

void CAtDialogue::SendPayload(CAtCall& call, const write_t& write)
{
    {
        const std::lock_guard<std::mutex> held(m_lock);
        Note(eFlightMark::PAYLOAD, call.m_command.bSecret ? "****" : call.m_command.szPayload);
    }
    if (!write(call.m_command.szPayload + kCtrlZ)) {
        const std::lock_guard<std::mutex> held(m_lock);
        call.End(-1);
    }
}

void CAtDialogue::Finish(CAtCall& call, long lResult)
{
    const std::lock_guard<std::mutex> held(m_lock);
    call.End(lResult);
    if (m_pSent == &call) {
        m_pSent = nullptr;
        ++m_nOwed;
        m_szOwedCommand = call.m_command.szText;
        m_szOwedPrefix = call.m_command.szPrefix;
        m_bOwedPrompt = call.m_command.bPrompt;
    }
    m_framer.AwaitPrompt(false);
    Note(eFlightMark::OUTCOME, std::to_string(call.m_result.lResult));
}

size_t CAtDialogue::Cancel(uint32_t iTag)
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_queue.End(AT_CANCELLED,
                       [iTag](const CAtCall& call) { return call.m_command.iTag == iTag; });
}

size_t CAtDialogue::nQueued() const
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_queue.nCalls();
}

void CAtDialogue::LinkLost()
{
    const std::lock_guard<std::mutex> held(m_lock);
    m_pSent = nullptr;
    m_nOwed = 0;
    m_iToCollect = 0;
    m_collected = {};
    m_queue.End(-1, [](const CAtCall&) { return true; });
    if (std::exchange(m_bSpoken, false)) {
        m_recorder.Note(eFlightMark::LINK, "lost");
    }
}

CAtDialogue::report_t CAtDialogue::Take(const CLineFramer::line_t& line)
{
    const std::lock_guard<std::mutex> held(m_lock);
    if (line.bPrompt) {
        Note(eFlightMark::PROMPT, "");
        if (m_pSent != nullptr && !m_pSent->m_bPrompted) {
            m_pSent->m_bPrompted = true;
            m_pSent->m_Changed.iSetEvent();
        }
        return {};
    }
    if (line.bAfterPrompt && !line.szText.empty()) {
        Note(eFlightMark::ECHO,
             m_pSent != nullptr && m_pSent->m_command.bSecret ? "****" : line.szText);
        return {};
    }
    if (m_iToCollect > 0) {
        Note(eFlightMark::UNSOLICITED, line.szText);
        m_collected.lines.push_back(line.szText);
        --m_iToCollect;
        return m_iToCollect == 0 ? std::exchange(m_collected, {}) : report_t{};
    }
    const bool bTaken = m_pSent != nullptr ? bTakeForAnswer(*m_pSent, line) : bTakeAsLate(line);
    return bTaken || line.szText.empty() ? report_t{} : Report(line);
}

/// @return Whether the line is nothing but part of the answer.
bool CAtDialogue::bTakeForAnswer(CAtCall& call, const CLineFramer::line_t& line)
{
    const atCommand_t& command = call.m_command;
    if (call.m_iFollowing > 0) {
        --call.m_iFollowing;
        Append(call, line);
        return true;
    }
    if (line.szText.empty()) {
        return true;
    }
    if (!call.m_bEchoed && line.szText == command.szText) {
        call.m_bEchoed = true;
        Note(eFlightMark::ECHO, szMaskSecret(line.szText, command.bSecret));
        return true;
    }
    if (bTakeAsFinal(call, line)) {
        return true;
    }
    const bool bExpected = !command.szPrefix.empty() && bBeginsWith(line.szText, command.szPrefix);
    if (bExpected) {
        call.m_iFollowing = std::max(command.iFollowing, 0);
        call.m_bOpenEnded = command.iFollowing < 0;
    }
    const bool bAnything = command.szPrefix.empty() || call.m_bOpenEnded;
    if (bExpected || (bAnything && pFindHandler(line.szText) == nullptr)) {
        Append(call, line);
        return true;
    }
    return false;
}

void CAtDialogue::Append(CAtCall& call, const CLineFramer::line_t& line)
{
    Note(eFlightMark::ANSWER, line.szText);
    call.m_nAnswerBytes += line.szText.size() + sizeof(std::string);
    call.m_result.bCut |= line.bCut || call.m_nAnswerBytes > kAnswerBytesMax;
    if (call.m_nAnswerBytes <= kAnswerBytesMax) {
        call.m_result.lines.push_back(line.szText);
    }
}

bool CAtDialogue::bTakeAsFinal(CAtCall& call, const CLineFramer::line_t& line)
{
    const atFinal_t final = ParseFinal(line.szText);
    if (!bEnds(final, line.szText, call.m_command.szText)) {
        return false;
    }
    Note(eFlightMark::ANSWER, line.szText);
    call.m_result.szFinal = line.szText;
    call.m_result.iError = final.iError;
    call.m_result.szError = final.szError;
    call.m_result.bCut |= line.bCut;
    m_pSent = nullptr;
    call.End(final.eKind == eAtFinal::SUCCESS ? 0 : AT_MODEM_ERROR);
    return true;
}

/// The answer to a command that was given up.
bool CAtDialogue::bTakeAsLate(const CLineFramer::line_t& line)
{
    if (m_nOwed == 0) {
        return false;
    }
    if (bEnds(ParseFinal(line.szText), line.szText, m_szOwedCommand)) {
        --m_nOwed;
        ++m_nLate;
        if (m_pSettling != nullptr) {
            m_pSettling->m_Changed.iSetEvent();
        }
    } else if (line.szText != m_szOwedCommand && line.szText != "AT" &&
               (m_szOwedPrefix.empty() || !bBeginsWith(line.szText, m_szOwedPrefix))) {
        return false;
    }
    Note(eFlightMark::LATE, szMaskSecret(line.szText, false));
    return true;
}

CAtDialogue::report_t CAtDialogue::Report(const CLineFramer::line_t& line)
{
    Note(eFlightMark::UNSOLICITED, line.szText);
    const entry_t* const pEntry = pFindHandler(line.szText);
    report_t report{pEntry != nullptr ? pEntry->pHandler : nullptr, {line.szText}};
    if (pEntry == nullptr || pEntry->iFollowing < 1) {
        return report;
    }
    m_iToCollect = pEntry->iFollowing;
    m_collected = std::move(report);
    return {};
}

const CAtDialogue::entry_t* CAtDialogue::pFindHandler(const std::string& szLine) const
{
    const entry_t* pBest = nullptr;
    for (const entry_t& entry : m_handlers) {
        if (bBeginsWith(szLine, entry.szPrefix) &&
            (pBest == nullptr || pBest->szPrefix.size() < entry.szPrefix.size())) {
            pBest = &entry;
        }
    }
    return pBest;
}

bool CAtDialogue::bEnds(const atFinal_t& final, const std::string& szLine,
                        const std::string& szCommand) const
{
    if (final.eKind != eAtFinal::CALL) {
        return final.eKind != eAtFinal::NONE;
    }
    const entry_t* const pHandler = pFindHandler(szLine);
    const bool bReport = pHandler != nullptr && !pHandler->szPrefix.empty();
    return !bReport || bIsCallCommand(szCommand);
}

void CAtDialogue::SetHandler(const std::string& szPrefix, int iFollowing,
                             CThreadAT::handler_t handler)
{
    auto pHandler = std::make_shared<const CThreadAT::handler_t>(std::move(handler));
    RemoveHandler(szPrefix);
    const std::lock_guard<std::mutex> held(m_lock);
    m_handlers.push_back({szPrefix, iFollowing, std::move(pHandler)});
}

void CAtDialogue::RemoveHandler(const std::string& szPrefix)
{
    const std::lock_guard<std::mutex> held(m_lock);
    const auto isIt = [&szPrefix](const entry_t& entry) { return entry.szPrefix == szPrefix; };
    m_handlers.erase(std::remove_if(m_handlers.begin(), m_handlers.end(), isIt), m_handlers.end());
}

std::string CAtDialogue::szRecord() const
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_recorder.szText();
}

std::vector<std::string> CAtDialogue::TakeNewRecord()
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_recorder.TakeNew();
}

void CAtDialogue::Note(eFlightMark eMark, const std::string& szText)
{
    m_bSpoken = true;
    m_recorder.Note(eMark, szText);
}
} // namespace QuorCore
