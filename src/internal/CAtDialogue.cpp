#include "internal/CAtDialogue.h"

#include "internal/CCancelGuard.h"
#include "internal/Clock.h"

#include <algorithm>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr long kQuietMs = 200;     // between the answers to two commands that the modem has got
constexpr long kAskAgainMs = 3000; // a modem that is busy or just starts may not have heard

// What a modem is asked to learn what it still owes, ITU-T V.250, 6.2.1 and 6.2.6: to use words,
// and for S3, the character that ends a command. Its answer is like that to no other command.
constexpr char kQuestion[] = "ATV1S3?";
constexpr char kItsAnswer[] = "013";

constexpr size_t kAnswerBytesMax = 1024 * 1024; // of a modem that never ends
constexpr char kEscape[] = "\x1b";              // leaves the prompt, 3GPP TS 27.005, 3.5.1
constexpr char kCtrlZ[] = "\x1a";

bool bBeginsWith(const std::string& szText, const std::string& szPrefix)
{
    return szText.compare(0, szPrefix.size(), szPrefix) == 0;
}

/// @return Whether the line repeats a command; of one that is too long its beginning counts.
bool bIsEcho(const CLineFramer::line_t& line, const std::string& szCommand)
{
    return line.szText == szCommand || (line.bCut && bBeginsWith(szCommand, line.szText));
}
} // namespace

/// The time that a command has, without end for a negative one.
class CAtDialogue::CTimeLeft
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
        m_dialogue.GiveUp(m_call); // the thread may be being cancelled
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
    const bool bSent =
        bSend(call, time, call.m_command.szText + '\r', write) && bServePrompt(call, time, write);
    if (bSent) {
        bAwait(call, time.lLeftMs(), [&call] { return call.m_eState == eAtCall::ENDED; });
    }
    Finish(call, bSent || time.lLeftMs() == 0 ? kTimedOut : -1);
}

/// Writes for a command, which may end meanwhile: a line that takes nothing is no reason to wait.
bool CAtDialogue::bSend(CAtCall& call, const CTimeLeft& time, const std::string& szBytes,
                        const write_t& write)
{
    return write(szBytes, [this, &call, &time] {
        const std::lock_guard<std::mutex> held(m_lock);
        return time.lLeftMs() != 0 && call.m_eState != eAtCall::ENDED;
    });
}

/// @return False: the text was not written.
bool CAtDialogue::bServePrompt(CAtCall& call, const CTimeLeft& time, const write_t& write)
{
    const bool bAskedForText = call.m_command.bPrompt && bAwait(call, time.lLeftMs(), [&call] {
                                   return call.m_bPrompted && call.m_eState == eAtCall::SENT;
                               });
    if (!bAskedForText) {
        return true;
    }
    {
        const std::lock_guard<std::mutex> held(m_lock);
        Note(eFlightMark::PAYLOAD, call.m_command.bSecret ? "****" : call.m_command.szPayload);
    }
    return bSend(call, time, call.m_command.szPayload + kCtrlZ, write);
}

/**
 * A modem that was given up may answer yet, and its answer looks like that to any other command. It
 * answers one after the other, though. So it is asked at once for what only the question's own
 * answer holds: when that has come, all that was sent before is answered or forgotten. Where the
 * answer that is owed might hold the same, or the modem does not know the question, it has to
 * answer something, and then to say nothing for a while.
 *
 * Nothing is gained by waiting for the late answer before asking: it would come first all the same.
 *
 * @return False: it does not answer, or the command has ended.
 */
bool CAtDialogue::bSettle(CAtCall& call, long lLimitMs, const write_t& write)
{
    const CTimeLeft time(lLimitMs);
    unsigned nLate = 0;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (m_nOwed == 0) {
            return true;
        }
        m_pSettling = &call;
        nLate = m_nLate;
    }
    const auto bAnother = [this, &nLate] { return std::exchange(nLate, m_nLate) != nLate; };
    bool bSettled = false;
    while (!bSettled && bAskWhatIsOwed(call, time, write)) {
        bSettled = bAwait(call, time.lAtMost(kAskAgainMs), bAnother);
    }
    while (bSettled && !bKnowsAll() && bAwait(call, kQuietMs, bAnother)) {
    }
    const std::lock_guard<std::mutex> held(m_lock);
    m_pSettling = nullptr;
    bSettled = bSettled && call.m_eState != eAtCall::ENDED; // else nobody has seen it come to rest
    m_nOwed = std::max(m_nOwed, m_nAsked);
    if (bSettled) {
        OwesNothing();
    }
    return bSettled;
}

/// @return False: the command has ended, or its time, or the line does not take it.
bool CAtDialogue::bAskWhatIsOwed(CAtCall& call, const CTimeLeft& time, const write_t& write)
{
    std::string szQuestion = std::string(kQuestion) + '\r';
    {
        const std::lock_guard<std::mutex> held(m_lock);
        if (time.lLeftMs() == 0 || call.m_eState == eAtCall::ENDED) {
            return false;
        }
        szQuestion.insert(0, m_owed.bPrompt ? kEscape : "");
        ++m_nOwed;
        ++m_nAsked;
        Note(eFlightMark::COMMAND, kQuestion);
    }
    return bSend(call, time, szQuestion, write);
}

/// @return Whether each question was answered as only it is.
bool CAtDialogue::bKnowsAll() const
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_nAsked == 0;
}

void CAtDialogue::OwesNothing()
{
    m_nOwed = 0;
    m_nAsked = 0;
    m_bItsAnswer = false;
}

bool CAtDialogue::bMarkSent(CAtCall& call)
{
    const std::lock_guard<std::mutex> held(m_lock);
    if (call.m_eState != eAtCall::ITS_TURN) {
        return false;
    }
    const atCommand_t& command = call.m_command;
    m_sent = {command.szText,  command.szPrefix, command.iFollowing,
              command.bPrompt, command.bSecret,  0};
    call.m_eState = eAtCall::SENT; // before it is written: the answer may come at once
    m_pSent = &call;
    m_framer.AwaitPrompt(command.bPrompt);
    Note(eFlightMark::COMMAND, szMaskSecret(command.szText, command.bSecret));
    return true;
}

void CAtDialogue::Finish(CAtCall& call, long lResult)
{
    const std::lock_guard<std::mutex> held(m_lock);
    call.End(lResult);
    if (call.m_result.lResult == -1 && m_pSent == &call) {
        m_pSent = nullptr; // there is no modem that could answer
    }
    GiveUp(call);
    m_framer.AwaitPrompt(false);
    Note(eFlightMark::OUTCOME, std::to_string(call.m_result.lResult));
}

/// Notes, under the lock, what the modem owes for a command that was sent and not answered.
void CAtDialogue::GiveUp(const CAtCall& call)
{
    if (m_pSent != &call) {
        return;
    }
    m_pSent = nullptr;
    m_framer.AwaitPrompt(false);
    ++m_nOwed;
    m_owed = std::move(m_sent);
    m_owed.iPending = call.m_iFollowing;
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
    OwesNothing();
    m_owed = {};
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
        const bool bSecret = m_pSent != nullptr ? m_pSent->m_command.bSecret : m_owed.bSecret;
        Note(eFlightMark::ECHO, bSecret ? "****" : line.szText);
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
    if (!call.m_bEchoed && bIsEcho(line, command.szText)) {
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

/// The answer to a command that was given up, or to the question that followed.
bool CAtDialogue::bTakeAsLate(const CLineFramer::line_t& line)
{
    const std::string& szText = line.szText;
    const bool bBlank = szText.empty() && m_owed.iPending == 0;
    if ((m_nOwed == 0 && m_pSettling == nullptr) || bBlank) {
        return false;
    }
    const bool bItsAnswer = std::exchange(m_bItsAnswer, false);
    if (m_owed.iPending > 0) {
        --m_owed.iPending;
    } else if (bEnds(ParseFinal(szText), szText, m_owed.szCommand)) {
        TakeLateFinal(bItsAnswer);
    } else if (m_nAsked > 0 && szText == kItsAnswer) {
        m_bItsAnswer = true;
    } else if (!m_owed.szPrefix.empty() && bBeginsWith(szText, m_owed.szPrefix)) {
        m_owed.iPending = std::max(m_owed.iFollowing, 0);
    } else if (bIsEcho(line, m_owed.szCommand)) {
        Note(eFlightMark::LATE, szMaskSecret(szText, m_owed.bSecret));
        return true;
    } else if (m_owed.bPrompt &&
               bBeginsWith(szText, "> ")) { // and the echo of what was typed there
        Note(eFlightMark::LATE, m_owed.bSecret ? "> ****" : szText);
        return true;
    } else if (szText != kQuestion) { // which may be repeated as well
        return false;
    }
    Note(eFlightMark::LATE, szText);
    return true;
}

/// @param bItsAnswer  The answer to the question stands directly before it. It may be that of the
///                    command that was given up, unless a prefix tells how lines of that begin.
void CAtDialogue::TakeLateFinal(bool bItsAnswer)
{
    m_nOwed -= m_nOwed > 0 ? 1 : 0; // a text may have looked like final lines
    ++m_nLate;
    if (bItsAnswer && m_nAsked > 0 && !m_owed.szPrefix.empty() && m_owed.iFollowing == 0) {
        --m_nAsked;
        m_nOwed = m_nAsked; // what came before the question will not come any more
    }
    if (m_pSettling != nullptr) {
        m_pSettling->m_Changed.iSetEvent();
    } else if (m_nOwed == 0) {
        OwesNothing();
    }
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

// A handler that is replaced or removed goes when the lock is free: what it holds may call back.
void CAtDialogue::SetHandler(const std::string& szPrefix, int iFollowing,
                             CThreadAT::handler_t handler)
{
    entry_t entry{szPrefix, iFollowing,
                  std::make_shared<const CThreadAT::handler_t>(std::move(handler))};
    const std::lock_guard<std::mutex> held(m_lock);
    const auto place = PlaceOf(szPrefix);
    if (place != m_handlers.end()) {
        std::swap(*place, entry);
    } else {
        m_handlers.push_back(std::move(entry));
    }
}

void CAtDialogue::RemoveHandler(const std::string& szPrefix)
{
    entry_t removed;
    const std::lock_guard<std::mutex> held(m_lock);
    const auto place = PlaceOf(szPrefix);
    if (place != m_handlers.end()) {
        removed = std::move(*place);
        m_handlers.erase(place);
    }
}

/// @return Where the handler of exactly this prefix is; the end when there is none.
std::vector<CAtDialogue::entry_t>::iterator CAtDialogue::PlaceOf(const std::string& szPrefix)
{
    return std::find_if(m_handlers.begin(), m_handlers.end(),
                        [&szPrefix](const entry_t& entry) { return entry.szPrefix == szPrefix; });
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
