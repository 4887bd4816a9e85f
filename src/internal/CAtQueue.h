/// @file
/// @brief The commands of all threads, in the order in which they go to the modem.
#pragma once

#include "libQuorCore/CThreadAT.h"
#include "libQuorCore/synchro.h"

#include <cstddef>
#include <list>

namespace QuorCore
{
enum class eAtCall {
    WAITING,  ///< For its turn.
    ITS_TURN, ///< The line is its own; it was not sent yet.
    SENT,     ///< The modem has it, and lines may be its answer.
    ENDED,    ///< Its result stands.
};

/// A command on its way, and its answer; lives in the thread that called. Guarded, but for the
/// event, by the lock of the dialogue.
class CAtCall
{
public:
    CAtCall(const atCommand_t& command, atResult_t& result) : m_command(command), m_result(result)
    {
    }
    CAtCall(const CAtCall&) = delete;
    CAtCall& operator=(const CAtCall&) = delete;

    void SetState(eAtCall eState); ///< Wakes the thread that called.
    void End(long lResult);        ///< Nothing happens when it has ended already.

    const atCommand_t& m_command;
    atResult_t& m_result;
    CEvent m_Changed; ///< Something is new.
    eAtCall m_eState = eAtCall::WAITING;
    bool m_bEchoed = false;    ///< The modem has repeated the command.
    bool m_bPrompted = false;  ///< The modem has asked for the payload.
    bool m_bOpenEnded = false; ///< All lines up to the final one belong to it.
    int m_iFollowing = 0;      ///< So many lines, whatever they look like, are its own.
    size_t m_nAnswerBytes = 0;
};

/**
 * @brief Who has the line, and who waits for it.
 *
 * Threads: the lock of the dialogue. Owns nothing.
 */
class CAtQueue
{
public:
    void Enter(CAtCall& call); ///< Behind the others, urgent ones behind other urgent ones.
    void Leave(CAtCall& call); ///< Gives the turn on.

    size_t nCalls() const { return m_calls.size(); }

    /// Ends those that @p wanted accepts. @return Their number.
    template <class Wanted>
    size_t End(long lResult, Wanted wanted)
    {
        size_t nEnded = 0;
        for (CAtCall* const pCall : m_calls) {
            if (pCall->m_eState != eAtCall::ENDED && wanted(*pCall)) {
                pCall->End(lResult);
                ++nEnded;
            }
        }
        return nEnded;
    }

private:
    void GiveTurn();

    std::list<CAtCall*> m_calls; ///< Who has the turn, then those that wait.
    bool m_bTaken = false;       ///< The first of them has it.
};
} // namespace QuorCore
