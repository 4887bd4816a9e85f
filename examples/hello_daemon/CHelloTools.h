/// @file
/// @brief The endpoint of hello_daemon for the tools of people.
#pragma once

#include "../common/CTreeCommands.h"
#include "CHelloTree.h"

#include <libQuorCore/libQuorCore.h>

/// Serves any number of tools: the common commands, CMD_HELLO_GREET, and those that read and write
/// the tree.
class CHelloTools : public QuorCore::CSocketHub
{
public:
    /// @param tree  Not owned; outlives this object.
    CHelloTools(CObject* pParent, const char* szLabel, CHelloTree& tree);
    ~CHelloTools() override; ///< Stops the thread, while this object is still whole.

    /// Adds the handlers of our own commands to those of the library.
    long iInitInstance() override;

    void OnCmdGreet(QuorCore::socketFrame_t* pFrame);

private:
    CHelloTree& m_tree;
    CTreeCommands m_treeCommands;
};
