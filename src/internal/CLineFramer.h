/// @file
/// @brief Cuts what a modem says into lines.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace QuorCore
{
/**
 * @brief Gives lines, blank ones too, and the prompt "> ", which nothing follows.
 *
 * A line ends with a carriage return, a line feed, or the pair of them. 0 bytes are passed over. Of
 * a line that is too long its beginning is kept.
 *
 * Threads: one; AwaitPrompt() any.
 */
class CLineFramer
{
public:
    struct line_t {
        std::string szText;
        bool bPrompt = false;      ///< It is the prompt.
        bool bAfterPrompt = false; ///< Begins behind the prompt: the echo of what was typed there.
        bool bCut = false;         ///< It was too long.
    };

    void SetLimit(size_t nMax) { m_nMax = nMax; } ///< Longest line in bytes.

    /// Whether "> " at the beginning of a line is the prompt. Answers may begin like that, too.
    void AwaitPrompt(bool bOn) { m_bAwaitPrompt = bOn; }

    void Reset() ///< Forgets the line that was begun.
    {
        m_line = {};
        m_bAfterCr = false;
    }

    /// @param onLine  Called with each line_t that is complete.
    template <class OnLine>
    void Feed(const uint8_t* pBytes, size_t nBytes, OnLine onLine)
    {
        for (const uint8_t* const pEnd = pBytes + nBytes; pBytes != pEnd; ++pBytes) {
            const char c = static_cast<char>(*pBytes);
            if (c == 0) {
                continue;
            }
            const bool bPair = c == '\n' && m_bAfterCr;
            m_bAfterCr = c == '\r';
            if (bPair) {
                continue;
            }
            if (c == '\r' || c == '\n') {
                onLine(std::exchange(m_line, {}));
            } else if (m_line.szText.size() < m_nMax) {
                m_line.szText.push_back(c);
                GivePrompt(onLine);
            } else {
                m_line.bCut = true;
            }
        }
    }

private:
    template <class OnLine>
    void GivePrompt(OnLine& onLine)
    {
        if (m_line.szText.size() == 2 && m_line.szText == "> " && m_bAwaitPrompt) {
            m_line.bPrompt = true;
            onLine(std::exchange(m_line, {}));
            m_line.bAfterPrompt = true;
        }
    }

    std::atomic<bool> m_bAwaitPrompt{false};
    size_t m_nMax = 0;
    line_t m_line;           ///< What was received of the line that is being read.
    bool m_bAfterCr = false; ///< The last byte was a carriage return.
};
} // namespace QuorCore
