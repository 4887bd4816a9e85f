/// @file
/// @brief What modemd and those who ask it agree on beyond eITFCmdModem; docs/modemd.md has it all.
#pragma once

#include <cstddef>
#include <cstdint>

/// Commands of modemd that eITFCmdModem does not have.
enum eITFCmdModemd : uint16_t {
    CMD_MODEMD_AT = 3100, ///< Request: an AT command. Answer: its lines, line feeds between them.
    CMD_MODEMD_RECORD = 3101, ///< Answer: the newest part of the flight record.
    CMD_MODEMD_NEWS = 3102,   ///< Told to everybody who is connected, unasked: a text.
};

/// The error word of an answer. Its data is a text then that says the same for people.
enum eModemError : uint16_t {
    MODEM_OK = 0,
    MODEM_BAD_REQUEST = 1,    ///< The data of the request cannot be used.
    MODEM_AWAY = 2,           ///< There is no modem now.
    MODEM_TIME_OUT = 3,       ///< It does not answer.
    MODEM_REFUSED = 4,        ///< It refused without a number: "ERROR", "NO CARRIER", ...
    MODEM_NOT_UNDERSTOOD = 5, ///< It said something that is no answer to the command.
    MODEM_BUSY = 6,           ///< Too many requests wait for it already.
    MODEM_NOT_ALLOWED = 7,    ///< The configuration of modemd does not allow it.
    MODEM_NOT_SUPPORTED = 8,  ///< modemd knows the command, and does not do it.
    MODEM_CME = 1000,         ///< Plus the number of "+CME ERROR: n".
    MODEM_CMS = 10000,        ///< Plus the number of "+CMS ERROR: n".
};

/// What CMD_MODEM_SET_WHITELIST is to do, in user1 of the header. The answer is the record then.
enum eWhitelist : int16_t {
    WHITELIST_REPLACE = 0, ///< Data: a CDMSrvCallback that replaces all; none: only asks for it.
    WHITELIST_ADD = 1,     ///< Data: a phone number.
    WHITELIST_REMOVE = 2,  ///< Data: a phone number.
};

/// CMD_MODEM_SEND_SMS: the number, a line feed, and a text of 1 to so many printable characters.
constexpr size_t kSmsCharactersMax = 160;

constexpr size_t kWhitelistMax = 1000; ///< Most numbers of the white list.
constexpr int kModemPort = 5555;       ///< Where modemd is not told another one.
