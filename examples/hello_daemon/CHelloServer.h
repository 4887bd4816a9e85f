/// @file
/// @brief The endpoint of hello_daemon.
#pragma once

#include <libQuorCore/libQuorCore.h>

/// Serves one peer at a time: the common commands, and CMD_HELLO_GREET.
class CHelloServer : public QuorCore::CSocketServer
{
public:
    CHelloServer(CObject* pParent, const char* szLabel);
    ~CHelloServer() override; ///< Stops the thread, while this object is still whole.

    /// Adds the handler of our own command to those of the library.
    long iInitInstance() override;

    void OnCmdGreet(QuorCore::socketFrame_t* pFrame);

    /// @return The port on which peers can connect now; -1 while there is none. Any thread.
    int iListeningPort() const;
};
