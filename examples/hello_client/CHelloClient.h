/// @file
/// @brief The application object of hello_client.
#pragma once

#include "../common/CDaemon.h"
#include "../common/CSupervisor.h"

#include <libQuorCore/libQuorCore.h>

#include <atomic>
#include <string>
#include <vector>

/**
 * @brief A daemon that talks to hello_daemon as its client and prints what it is answered.
 *
 * Its arguments are commands, done in turn on one connection; "-" reads further ones from the
 * standard input, one in each line. Every command prints one line, which begins with its name.
 * The line of one that failed goes on with "FAILED".
 *
 * Commands: ping, version, pid, name, greet NAME, echo BYTES, page, level LABEL LEVEL, and
 * cell TECHNO LEVEL, which reports the cell that serves this side.
 * Keys of its configuration: "host", "port", "timeout_ms", "monitoring_period_s", and "log_level_"
 * followed by the label of a thread.
 */
class CHelloClient : public CDaemon
{
public:
    /// @param commands  What is to be done.
    CHelloClient(int argc, char** argv, std::vector<std::string> commands);
    ~CHelloClient() override; ///< Stops what the threads use before it goes.

    /// Registers the slot for both events. @return 0.
    long iInitCallback() override;

    void OnLink(QuorCore::CMsg* pMsg); ///< Slot: the link came up or went down; on the
                                       ///< dispatcher's thread.

    /// The daemon has taken or refused a cell; on the link's thread.
    void OnCmdCell(QuorCore::socketFrame_t* pFrame);

private:
    /// What a command prints behind its name, and whether it succeeded.
    struct result_t {
        bool bGood = false;
        std::string szText;
    };

    /// A row of the log page.
    struct logRow_t {
        int iIndex = 0;
        std::string szLabel;
        std::string szLevel; ///< As "3-error".
    };

    bool bReadSettings() override;
    bool bWork() override;
    bool bStart();
    void Stop() override;
    bool bDoAll();
    bool bDoLines();
    bool bDo(const std::string& szCommand);
    result_t Do(const std::vector<std::string>& words);

    result_t Ping();
    result_t Version();
    result_t Pid();
    result_t Name();
    result_t Greet(const std::string& szName);
    result_t Echo(int iBytes);
    result_t Page();
    result_t Cell(const std::string& szTechno, int iLevel);
    result_t Level(const std::string& szLabel, int iLevel);

    bool bExchange(uint16_t command, std::string szRequest, uint16_t commandToWait,
                   std::string& szAnswer);
    bool bReadRows(std::vector<logRow_t>& rows, size_t& pageBytes);

    const std::vector<std::string> m_commands;
    std::string m_szHost;
    int m_iPort = 0;
    int m_iTimeoutMs = 0;
    QuorCore::CEvent m_Connected;     ///< Set by the slot.
    QuorCore::CEvent m_CellAnswered;  ///< Set by the handler.
    std::atomic<int> m_iCellError{0}; ///< What it was answered.
    QuorCore::CSocketClient m_Link;
    CSupervisor m_Supervisor; ///< Uses the link, so it is destroyed before it.
};
