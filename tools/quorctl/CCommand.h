/// @file
/// @brief What all commands of quorctl have in common.
#pragma once

#include "CTarget.h"
#include "Failure.h"

#include <cstdint>
#include <string>

namespace CLI
{
class App;
}

namespace QuorCtl
{
/// What the command line says for every command.
struct Settings {
    CTarget target;
    int iTimeOutMs = 3000;
    bool bJson = false;
};

/**
 * @brief One command: adds itself to the command line, and runs if it was chosen.
 *
 * The command line is not owned and outlives the command.
 */
class CCommand
{
public:
    CCommand(CLI::App& parent, const std::string& szName, const std::string& szDescription);
    CCommand(const CCommand&) = delete;
    CCommand& operator=(const CCommand&) = delete;
    virtual ~CCommand() = default;

    bool bChosen() const; ///< Once the command line was parsed.

    /// @return How the program ends. @throw CFailure  It ends with an error.
    virtual eExitStatus Run(const Settings& settings) const = 0;

protected:
    CLI::App& m_app;
};

/**
 * @brief Adds an option that takes a whole number, decimal or with 0x.
 * @param szNames  As "-c,--count", or "command" for one without dashes.
 * @param iValue   Receives the number; keeps its default without the option. Must outlive @p app.
 * @throw CUsageError  While parsing: the text is no number from @p iMin to @p iMax.
 */
void AddNumber(CLI::App& app, const std::string& szNames, int64_t& iValue, int64_t iMin,
               int64_t iMax, const std::string& szDescription);

/// As AddNumber(), for a time in seconds with a fraction. @param iValueMs  Receives it in ms.
void AddSeconds(CLI::App& app, const std::string& szNames, int64_t& iValueMs, int64_t iMinMs,
                int64_t iMaxMs, const std::string& szDescription);
} // namespace QuorCtl
