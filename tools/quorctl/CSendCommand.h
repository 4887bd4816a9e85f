/// @file
/// @brief quorctl send: any command with any data.
#pragma once

#include "CCommand.h"
#include "CFrame.h"

#include <string>

namespace QuorCtl
{
/// @brief Sends one frame and prints the one that answers it.
class CSendCommand : public CCommand
{
public:
    explicit CSendCommand(CLI::App& parent);

    /// @throw CRefusal  The answer, which has been printed, has an error word other than 0.
    eExitStatus Run(const Settings& settings) const override;

private:
    CFrame Request(const CDeadline& deadline) const;

    int64_t m_iCommand = 0;
    int64_t m_iType = 0;
    int64_t m_iUser1 = 0;
    int64_t m_iUser2 = 0;
    int64_t m_iExpected = -1; ///< -1: any command but a ping.
    bool m_bNoAnswer = false;
    std::string m_szText;
    std::string m_szHexDigits;
    std::string m_szFile;
};
} // namespace QuorCtl
