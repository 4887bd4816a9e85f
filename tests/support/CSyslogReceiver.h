/// @file
/// @brief The syslog daemon of a test: a real socket at the private /dev/log.
#pragma once

#include "support/CDeadline.h"

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace TestSupport
{
/**
 * @brief Keeps what this process and its children send to the syslog.
 *
 * The socket is emptied by a process of its own, not by a thread: the tests fork, count their
 * threads and run under a thread sanitizer. It is no child of the test either, so wait(2) does not
 * meet it, and it ends with the test. What it receives goes to a file in memory that both share.
 *
 * Threads: any, but do not fork while another thread is in here.
 * Errors: std::system_error, and std::runtime_error if the receiving process is gone.
 * Rests on syslog(3), unix(7) and memfd_create(2).
 */
class CSyslogReceiver
{
public:
    /// @brief One datagram, "<PRIORITY>Mon DD HH:MM:SS tag[pid]: text" as the C library writes it.
    struct Record {
        int iPriority = -1; ///< As sent: facility and level together; -1 if there is none.
        int iFacility = -1; ///< LOG_USER, LOG_DAEMON, ... as in syslog.h, that is, shifted.
        int iLevel = -1;    ///< LOG_EMERG to LOG_DEBUG.
        std::string szTag;  ///< The ident; empty if the header could not be read.
        pid_t iPid = 0;     ///< 0 if none was sent, that is, without LOG_PID.
        std::string szText; ///< All that follows the header, newlines included.
        std::string szRaw;  ///< The datagram as it came.
    };

    /// @brief Takes /dev/log. To be called once, by the common main, before there are threads.
    static void Start();

    /// @brief The receiver of this process; there is one in every test.
    static CSyslogReceiver& Get();

    CSyslogReceiver(const CSyslogReceiver&) = delete;
    CSyslogReceiver& operator=(const CSyslogReceiver&) = delete;
    ~CSyslogReceiver() = delete; // it lives as long as the process

    /// @brief Forgets all that was sent before this call.
    void Clear();

    /// @brief All records since Clear(), in the order of their arrival. Exact: whatever was sent
    ///        before this call is in it, so a test may also state that something is not.
    std::vector<Record> Records();

    /// @brief Number of records since Clear() whose text contains @p szPart. Exact, as Records().
    size_t Count(const std::string& szPart);

    /// @brief Waits for a record since Clear() that the predicate accepts.
    /// @return False: there is none within @p iLimitMs.
    bool bAwait(const std::function<bool(const Record&)>& predicate, int iLimitMs = kAwaitLimitMs);

    /// @brief Waits for a record since Clear() whose text contains @p szPart.
    bool bAwait(const std::string& szPart, int iLimitMs = kAwaitLimitMs);

private:
    CSyslogReceiver();
    void CollectAllSent();
    void Collect();

    const int m_iStore;       ///< The file in memory: length, datagram, length, datagram, ...
    int m_iSyncSocket = -1;   ///< Connected to /dev/log; sends the marks that tell what is in.
    std::mutex m_Lock;        ///< Guards the fields below.
    off_t m_Offset = 0;       ///< How much of the store was read.
    size_t m_Marks = 0;       ///< Makes each mark another one.
    std::string m_szLastMark; ///< The last mark found in the store.
    std::vector<Record> m_Records;
};
} // namespace TestSupport
