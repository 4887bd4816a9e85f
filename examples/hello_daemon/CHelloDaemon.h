/// @file
/// @brief The application object of hello_daemon.
#pragma once

#include "../common/CDaemon.h"
#include "../common/CSupervisor.h"
#include "../common/CTreeStore.h"
#include "CHelloServer.h"
#include "CHelloTools.h"
#include "CHelloTree.h"

#include <libQuorCore/libQuorCore.h>

#include <string>

/**
 * @brief The smallest complete daemon: one endpoint, its supervision, a data tree, and, where they
 * are wanted, an endpoint for tools, a directory that keeps the tree, and a child.
 *
 * Options beside those of the library: "--config FILE", "--user NAME" and "--group NAME", which
 * go before the keys of the same name, and "--version".
 * Keys: "port" (0: the kernel chooses), "tools_port" (likewise; -1: none), "tools_path" (of a
 * Unix-domain socket; empty: none), "monitoring_period_s", "child" (a program and its
 * arguments, separated by blanks; kept as a child process), "tree_directory" (absolute, made if its
 * parent is there; the tree is kept in it from one run to the next; empty: it is not), "user",
 * "group", and "log_level_" followed by the label of a thread.
 */
class CHelloDaemon : public CDaemon
{
public:
    CHelloDaemon(int argc, char** argv);
    ~CHelloDaemon() override; ///< Stops what the threads use before it goes.

    /// Registers the slots. @return 0.
    long iInitCallback() override;

    /// @name Slots; on the dispatcher's thread.
    /// @{
    void OnDatabaseSave(QuorCore::CMsg* pMsg); ///< A request has changed the tree.
    void OnLink(QuorCore::CMsg* pMsg);         ///< The peer of the endpoint came or went.
    void OnProcessStopped(QuorCore::CMsg* pMsg);
    /// @}

private:
    bool bReadSettings() override;
    bool bWork() override;
    bool bReadIdentity();
    bool bReadTreeDirectory();
    bool bStart();
    bool bStartTools();
    void AnnounceReady();
    void AnnounceTools();
    void StartChild();
    void Stop() override;
    void Save() override;

    const std::string m_szUserOption;  ///< Empty: the configuration's.
    const std::string m_szGroupOption; ///< Empty: the configuration's.
    int m_iPort = 0;
    int m_iToolsPort = -1;         ///< -1: no tools over TCP.
    std::string m_szToolsPath;     ///< Empty: none on this machine.
    bool m_bPeerThere = false;     ///< The dispatcher's thread only.
    std::string m_szTreeDirectory; ///< Empty: the tree lives as long as the daemon.
    QuorCore::CProcess m_Child;
    CHelloTree m_Tree;
    CTreeStore m_Store; ///< Uses the tree, as do the endpoints: they are destroyed before it.
    CHelloServer m_Server;
    CHelloTools m_Tools;
    CSupervisor m_Supervisor; ///< Uses the endpoint, so it is destroyed before it.
};
