/// @file
/// @brief The command line of quorctl: what all commands share, and the commands.
#pragma once

#include "CCommand.h"

#include <memory>
#include <vector>

namespace CLI
{
class App;
}

namespace QuorCtl
{
/// @brief Reads the command line and runs the command that it names.
class CCommandLine
{
public:
    CCommandLine();
    CCommandLine(const CCommandLine&) = delete;
    CCommandLine& operator=(const CCommandLine&) = delete;
    ~CCommandLine();

    /**
     * @brief Does what the command line says; --help and --version print and that is all.
     * @throw CUsageError  It says nothing that there is.
     * @throw CFailure     The command failed.
     */
    eExitStatus Run(int argc, const char* const* argv);

private:
    template <class Command, class... Args>
    void AddCommand(Args&&... args);
    void AddTargetOptions();
    void AddCommands();
    bool bParse(int argc, const char* const* argv);

    std::unique_ptr<CLI::App> m_pApp;
    Settings m_settings;
    int64_t m_iPort = 5555;
    int64_t m_iTimeOutMs = 3000;
    std::vector<std::unique_ptr<CCommand>> m_commands;
};
} // namespace QuorCtl
