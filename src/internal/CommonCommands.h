/// @file
/// @brief What every endpoint answers by itself, whoever its peers are.
#pragma once

#include "libQuorCore/socketFrame.h"

#include <cstdint>
#include <string>

namespace QuorCore::CommonCommands
{
/// What the endpoint is to do about a frame.
struct outcome_t {
    enum class eAnswer {
        NONE,
        FRAME,   ///< The frame goes back as it is now.
        NEW_DATA ///< Its header goes back with szData.
    };

    eAnswer answer = eAnswer::NONE;
    std::string szData;
    uint32_t iEventBefore = 0; ///< To be posted before the answer is sent; 0: nothing.
    uint32_t iEventAfter = 0;  ///< After it.
};

/// Handles a frame with all its data in memory, and changes it where the answer differs from it.
using command_t = outcome_t (*)(socketFrame_t& frame);

outcome_t Ping(socketFrame_t& frame);         ///< Sent back as a pong.
outcome_t Pong(socketFrame_t& frame);         ///< Not answered.
outcome_t Version(socketFrame_t& frame);      ///< g_versionFW.
outcome_t Pid(socketFrame_t& frame);          ///< Four bytes.
outcome_t Name(socketFrame_t& frame);         ///< Of the application, with a 0 byte behind it.
outcome_t GetLogConfig(socketFrame_t& frame); ///< The page that shows the log levels.
outcome_t SetLogConfig(socketFrame_t& frame); ///< Sets log levels; the answer is empty.

/// A command and what handles it.
struct entry_t {
    eITFCmdCommun command;
    command_t handler;
};

/// All of them, in the order in which an endpoint registers them.
constexpr entry_t kAll[] = {
    {CMD_COMMUN_PING, &Ping},
    {CMD_COMMUN_PONG, &Pong},
    {CMD_COMMUN_VERSION, &Version},
    {CMD_COMMUN_PID, &Pid},
    {CMD_COMMUN_NAME, &Name},
    {CMD_COMMUN_GET_LOG_CONFIG, &GetLogConfig},
    {CMD_COMMUN_SET_LOG_CONFIG, &SetLogConfig},
};
} // namespace QuorCore::CommonCommands
