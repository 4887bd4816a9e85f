/// @file
/// @brief quorctl modem: what a modem daemon knows and does.
#pragma once

#include "CCommand.h"
#include "CFrame.h"

#include <functional>
#include <json/value.h>
#include <string>
#include <vector>

namespace QuorCtl
{
/// @brief A group of commands, each of which asks a modem daemon for one thing and prints it.
class CModemCommand : public CCommand
{
public:
    explicit CModemCommand(CLI::App& parent);

    /// @throw CRefusal  The daemon or its modem refused; its own words are in the text.
    eExitStatus Run(const Settings& settings) const override;

private:
    /// What is printed.
    struct result_t {
        std::string szText; ///< Ends with a line feed.
        Json::Value json;
    };

    /// One of the commands.
    struct action_t {
        CLI::App* pApp; ///< The command line's.
        std::function<CFrame()> request;
        std::function<result_t(const std::string& szData)> read; ///< Of the answer's data.
    };

    CLI::App& Add(CLI::App& parent, const std::string& szName, const std::string& szDescription,
                  std::function<CFrame()> request,
                  std::function<result_t(const std::string& szData)> read);
    void AddText(const std::string& szName, const std::string& szDescription, uint16_t iCommand);
    void AddWhitelist();

    static result_t ReadText(const std::string& szKey, const std::string& szData);
    static result_t ReadCell(const std::string& szData);
    static result_t ReadWhitelist(const std::string& szData);

    std::vector<action_t> m_actions;
    std::string m_szNumber;
    std::string m_szText;
    std::string m_szAt;
};
} // namespace QuorCtl
