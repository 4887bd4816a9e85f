/// @file
/// @brief Tells the lines with which a modem ends an answer from all others.
#pragma once

#include <string>

namespace QuorCore
{
enum class eAtFinal {
    NONE,    ///< No final line.
    SUCCESS, ///< "OK", "CONNECT ...".
    FAILURE, ///< "ERROR", "+CME ERROR: ...", "+CMS ERROR: ...", "ABORTED", "COMMAND NOT SUPPORT".
    CALL,    ///< "NO CARRIER", "BUSY", "NO ANSWER", "NO DIALTONE": a failure, or a report.
};

/// A final line, taken apart.
struct atFinal_t {
    eAtFinal eKind = eAtFinal::NONE;
    int iError = -1;     ///< Number of a +CME or +CMS error; -1 when there is none to be found.
    std::string szError; ///< Its text; for a number without one the number.
};

/// @param szLine  Without its line end.
atFinal_t ParseFinal(const std::string& szLine);

/// @return Whether a command has to do with a call, so that the words of a call answer it.
bool bIsCallCommand(const std::string& szCommand);
} // namespace QuorCore
