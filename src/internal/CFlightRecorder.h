/// @file
/// @brief Keeps the last of a conversation with a modem, for who looks into a failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <string>
#include <vector>

namespace QuorCore
{
/// What a line of the record tells; the characters of its text form.
enum class eFlightMark : char {
    COMMAND = '>',     ///< Written, with a carriage return behind it.
    PROMPT = '?',      ///< The modem asks for a text.
    PAYLOAD = '^',     ///< Written, with Ctrl-Z behind it.
    ECHO = '~',        ///< The modem repeats what it was sent.
    ANSWER = '<',      ///< A line of an answer.
    UNSOLICITED = '!', ///< A line that belongs to no answer.
    LATE = '-',        ///< A line of an answer that nobody awaits any more.
    OUTCOME = '=',     ///< The result of the command.
    LINK = '*',        ///< The link was lost.
};

/**
 * @brief A bounded list of what was said, with its times.
 *
 * Threads: its owner sees to it that there is one at a time.
 */
class CFlightRecorder
{
public:
    void Note(eFlightMark eMark, const std::string& szText);

    /// @return Everything that is kept, in the form of docs/flight-record.md.
    std::string szText() const;

    /// @return The lines that were not yet taken in this way, without their line ends.
    std::vector<std::string> TakeNew();

private:
    struct event_t {
        timespec time; ///< Of the real-time clock: it is held against other logs.
        eFlightMark eMark;
        std::string szText;
    };

    static std::string szLine(const event_t& event);

    std::deque<event_t> m_events;
    size_t m_nNew = 0; ///< The last so many were not taken.
};

/// @return @p szCommand with "****" in place of what follows its first "=", if it is a secret: told
/// so, or a command that sets a PIN or a password.
std::string szMaskSecret(const std::string& szCommand, bool bSecret);
} // namespace QuorCore
