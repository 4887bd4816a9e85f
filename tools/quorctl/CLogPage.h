/// @file
/// @brief The page on which a daemon shows the log levels of its threads, read back.
#pragma once

#include <string>
#include <vector>

namespace QuorCtl
{
/// A thread of the daemon, as its log page shows it.
struct LogThread {
    int iIndex = 0;      ///< What the daemon knows it by; from 0.
    std::string szLabel; ///< Any bytes.
    int iLevel = -1;     ///< 0 to 7; -1: the page marks none.
};

/**
 * @brief Takes the page apart that CLogger::iGetLogConfigHtml() builds.
 *
 * The page comes from outside: every piece of it is looked for where it must stand, and nothing is
 * guessed. Names and labels stand in it unescaped; markup in them is theirs, as long as the piece
 * that follows can be told from it.
 */
class CLogPage
{
public:
    /// @param szData  The answer to CMD_COMMUN_GET_LOG_CONFIG, with or without its 0 byte.
    /// @throw CRefusal  The page is cut, or is no such page.
    explicit CLogPage(const std::string& szData);

    const std::string& szDaemon() const { return m_szDaemon; } ///< The title of the page.
    const std::vector<LogThread>& Threads() const { return m_threads; }

    /// @return Whether a thread's index is certain. A daemon counts threads without a level in its
    ///         indices, but does not show them.
    bool bIndicesCertain() const { return m_sources == m_threads.size(); }

private:
    std::string m_szDaemon;
    size_t m_sources = 0; ///< Threads that the daemon counts.
    std::vector<LogThread> m_threads;
};
} // namespace QuorCtl
