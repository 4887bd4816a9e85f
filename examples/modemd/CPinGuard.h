/// @file
/// @brief Sees to it that no PIN is sent twice that the SIM has not accepted.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <string>

/**
 * @brief Remembers, in the configuration file, which PIN is being tried.
 *
 * A SIM locks after three wrong PINs, and then only its owner's PUK helps. So a PIN is noted before
 * it is sent, and the note is removed when the SIM has accepted it. A PIN that was refused, or
 * whose fate is not known because the power or the modem went, stays noted and is not sent again by
 * the daemon itself, be it restarted, until somebody configures another one. What a person has it
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

    bool bMaySend() const; ///< @return Whether the configured one was not tried in vain.

    /// Notes the configured one. @return Whether the note is in the file: without it the PIN must
    /// not be sent.
    bool bNote();

    void RemoveNote(); ///< The SIM has not looked at it.

    /// It was accepted: it becomes the configured one, and the note is removed.
    void Accept(const std::string& szAccepted);

private:
    QuorCore::CFileConfig& m_config;
};
