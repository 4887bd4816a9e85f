/// @file
/// @brief What a modem's lines say, and what may be said to it.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// @return What follows the ":" of a line, cut at the commas that are not between quotes, without
///         blanks around and without the quotes.
std::vector<std::string> AtFields(const std::string& szLine);

/// @return Its number; none for what is not all digits, of base 10 or 16, or more than 31 bits.
std::optional<unsigned> AtNumber(const std::string& szText, int iBase = 10);

/// @brief What "+CREG:" and "+CGREG:" tell: 3GPP TS 27.007, clauses 7.2 and 10.1.20.
struct registration_t {
    std::optional<unsigned> setting; ///< Of an answer: which reports are switched on.
    unsigned iState = 4;             ///< 4: unknown.
    std::optional<unsigned> lac;
    std::optional<unsigned> cell;
    std::optional<unsigned> techno; ///< <AcT>.
};

/// @param szLine  The answer to "AT+CREG?", which has the report's own setting before the state, or
///                such a report.
/// @return None: it is neither.
std::optional<registration_t> ParseRegistration(const std::string& szLine);

const char* pszRegistration(unsigned iState); ///< @return Its state in words.

/// @return What the data tree calls an <AcT>, one of _apszTechnoType; null for an unknown one.
const char* pszTechno(unsigned iAccessTechnology);

/// @brief What "+CSQ:" tells: clause 8.5.
struct signal_t {
    unsigned iRssi = 99; ///< 0 to 31; 99 not known.
    unsigned iBer = 99;  ///< 0 to 7; 99 not known.
};
std::optional<signal_t> ParseSignal(const std::string& szLine);

constexpr int kNoLevelDbm = -999; ///< As CDMStatCellServing has it.

/// @return The level in dBm, -113 to -51; kNoLevelDbm when it is not known.
int iLevelDbm(const signal_t& signal);

/// @brief A network of those that "AT+COPS=?" has found: clause 7.3.
struct operator_t {
    unsigned iState = 0;            ///< 0 unknown, 1 available, 2 in use, 3 forbidden.
    std::string szName;             ///< The longer one.
    std::string szNumber;           ///< Country and network code.
    std::optional<unsigned> techno; ///< <AcT>.
};

/// @return Those that a line with "+COPS:" tells of; what else it has between brackets is left out.
std::vector<operator_t> OperatorsOf(const std::string& szLine);

const char* pszOperatorState(unsigned iState); ///< @return Its state in words.

bool bIsApn(const std::string& szText); ///< 1 to 100 letters, digits, "-" and ".": 3GPP TS 23.003.
bool bIsPhoneNumber(const std::string& szText); ///< 1 to 20 digits, a "+" before them or not.
bool bIsPin(const std::string& szText);         ///< 4 to 8 digits.
bool bIsPrintable(const std::string& szText);   ///< ASCII without control characters.
