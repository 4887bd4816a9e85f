/// @file
/// @brief The commands of eITFCmdModem as AT commands, and what the modem says as answers.
#pragma once

#include "../common/ModemProtocol.h"
#include "CModemPort.h"

#include <functional>
#include <string>

/// What goes back to whoever asked.
struct answer_t {
    uint16_t iError = MODEM_OK;
    std::string szData; ///< Of an error: what it is, for people.
};

/// How long the modem may take, in ms.
struct timeLimits_t {
    int iCommandMs = 10000;
    int iNetworkMs = 60000; ///< For what the network has to do, such as taking a message.
};

answer_t
RefusalOf(const QuorCore::atResult_t& result); ///< @param result  Of a command that failed.

/**
 * @brief Asks the modem; knows nothing of its state.
 *
 * Threads: any but the port's own; each call waits for the modem.
 */
class CModemCommands
{
public:
    explicit CModemCommands(CModemPort& port) : m_port(port) {}

    /// Before the first command.
    void SetTimeLimits(const timeLimits_t& limits) { m_limits = limits; }

    /// @return Whether a request is answered by asking the modem here.
    static bool bKnows(uint16_t iCommand);

    /// @param iCommand  One that bKnows().
    /// @param szData    Of the request.
    answer_t Answer(uint16_t iCommand, const std::string& szData);

    /**
     * @brief Fetches a message from the modem's store, and leaves the modem with messages as PDUs.
     *
     * @param szDone   Number of a message that is deleted before; empty: none.
     * @param bWanted  Told the number of a sender, "" of one who has none.
     * @return The number of the first message that came and is wanted, a line feed, and its PDU in
     *         hexadecimal digits; an empty text: there is none.
     */
    answer_t NextSms(const std::string& szDone,
                     const std::function<bool(const std::string& szSender)>& bWanted);

    /// Sets whether the SIM asks for its PIN; a wrong one costs one of the attempts.
    answer_t SetPinActive(const std::string& szPin, bool bActive);

    /// Sends a command that nobody has thought of. @return Its lines, the final one left out.
    answer_t Raw(const std::string& szCommand);

    /// One command, within the usual time. @param szPrefix  As atCommand_t has it.
    /// @return As CThreadAT::lCommand().
    long lAsk(const std::string& szText, const std::string& szPrefix, QuorCore::atResult_t& result);

    long lSwitchOn(QuorCore::atResult_t& result); ///< The radio. @return As lAsk().

    /// Sets the PIN. The flight record does not show it. @return As lAsk().
    long lEnterPin(const std::string& szPin, QuorCore::atResult_t& result);

private:
    answer_t SendSms(const std::string& szData);
    answer_t SetApn(const std::string& szApn);

    CModemPort& m_port;
    timeLimits_t m_limits;
};
