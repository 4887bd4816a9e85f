/// @file
/// @brief The endpoint of hello_daemon.
#pragma once

#include "CHelloTree.h"

#include <libQuorCore/libQuorCore.h>

/// Serves one peer at a time: the common commands, CMD_HELLO_GREET and
/// CMD_HELLO_CELL.
class CHelloServer : public QuorCore::CSocketServer
{
public:
    /// @param tree  Not owned; outlives this object.
    CHelloServer(CObject* pParent, const char* szLabel, CHelloTree& tree);
    ~CHelloServer() override; ///< Stops the thread, while this object is still whole.

    /// Adds the handlers of our own commands to those of the library.
    long iInitInstance() override;

    void OnCmdGreet(QuorCore::socketFrame_t* pFrame);
    void OnCmdCell(QuorCore::socketFrame_t* pFrame);

    /// @return The port on which peers can connect now; -1 while there is none. Any thread.
    int iListeningPort() const;

private:
    CHelloTree& m_tree;
};
