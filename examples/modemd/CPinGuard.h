/// @file
/// @brief Sees to it that no PIN is sent twice that the SIM has not accepted.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <string>

/**
 * @brief Remembers, in the configuration file, what became of the PIN.
 *
 * A SIM locks after three wrong PINs, and then only its owner's PUK helps. So the PIN is noted as
 * tried before it is sent, and the note is removed when the SIM has accepted it or is found to
 * work. One that was refused is noted as such. Neither is sent again by the daemon itself, be it
 * restarted, killed or cut off from power, until another one is configured. What a person has it
 * send is that person's affair.
 *
 * Threads: one.
 */
class CPinGuard
{
public:
    /// @param config  Not owned.
    explicit CPinGuard(QuorCore::CFileConfig& config) : m_config(config) {}

    std::string szPin() const; ///< @return The one that is configured; may be empty.

    bool bMaySend() const; ///< @return Whether it was neither tried nor refused.

    /// Notes that it is being tried. @return Whether the note is in the file: without it the PIN
    /// must not be sent.
    bool bNote();

    void RemoveNote(); ///< The SIM has not looked at it, or works.
    void Refuse();     ///< It was refused.

    /// A PIN was accepted: it becomes the configured one, and nothing is held against it.
    void Accept(const std::string& szAccepted);

private:
    void Set(const char* szKey, const std::string& szValue);

    QuorCore::CFileConfig& m_config;
};
