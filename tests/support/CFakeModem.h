/// @file
/// @brief A modem on a pseudo-terminal that answers by itself.
#pragma once

#include "support/CPty.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace TestSupport
{
/**
 * @brief Reads commands up to their carriage return and writes what the test's function answers.
 *
 * The function runs on the modem's own thread. Whoever needs more than one answer to one command
 * plays the modem himself, on a CPty.
 */
class CFakeModem
{
public:
    /// @param answer  Gets a command without its carriage return; its result is written as it is.
    explicit CFakeModem(std::function<std::string(const std::string&)> answer)
        : m_Answer(std::move(answer)), m_Thread([this] { Run(); })
    {
    }
    CFakeModem(const CFakeModem&) = delete;
    CFakeModem& operator=(const CFakeModem&) = delete;
    ~CFakeModem()
    {
        m_bEnd = true;
        m_Thread.join();
    }

    const std::string& szPath() const { return m_Pty.szPath(); }

private:
    void Run()
    {
        constexpr int kSliceMs = 20; // until the end is noticed
        std::string szCommand;
        while (!m_bEnd) {
            szCommand += m_Pty.szReceiveUntil("\r", kSliceMs);
            if (!szCommand.empty() && szCommand.back() == '\r') {
                szCommand.pop_back();
                m_Pty.bSend(m_Answer(szCommand));
                szCommand.clear();
            }
        }
    }

    CPty m_Pty;
    const std::function<std::string(const std::string&)> m_Answer;
    std::atomic<bool> m_bEnd{false};
    std::thread m_Thread; ///< Last: it uses the others.
};
} // namespace TestSupport
