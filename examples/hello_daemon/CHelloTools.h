/// @file
/// @brief The endpoint of hello_daemon for the tools of people.
#pragma once

#include <libQuorCore/libQuorCore.h>

/// Serves any number of tools: the common commands, and CMD_HELLO_GREET.
class CHelloTools : public QuorCore::CSocketHub
{
public:
    CHelloTools(CObject* pParent, const char* szLabel);
    ~CHelloTools() override; ///< Stops the thread, while this object is still whole.

    /// Adds the handler of our own command to those of the library.
    long iInitInstance() override;

    void OnCmdGreet(QuorCore::socketFrame_t* pFrame);
};
