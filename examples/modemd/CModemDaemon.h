/// @file
/// @brief The application object of modemd.
#pragma once

#include "../common/CDaemon.h"
#include "../common/CTreeStore.h"
#include "CModemEndpoint.h"
#include "CModemKeeper.h"
#include "CModemPort.h"
#include "CModemTree.h"
#include "CPinGuard.h"

#include <libQuorCore/libQuorCore.h>

#include <memory>
#include <string>

/**
 * @brief Owns a modem's port, the thread that talks to it, and the endpoint for those who ask.
 *
 * docs/modemd.md has its options, the keys of its configuration and its commands.
 */
class CModemDaemon : public CDaemon
{
public:
    CModemDaemon(int argc, char** argv);
    ~CModemDaemon() override; ///< Stops what the threads use before it goes.

    /// Registers the slots. @return 0.
    long iInitCallback() override;

    /// @name Slots; on the dispatcher's thread.
    /// @{
    void OnDatabaseSave(QuorCore::CMsg* pMsg);
    void OnLink(QuorCore::CMsg* pMsg);   ///< The modem came or went.
    void OnReport(QuorCore::CMsg* pMsg); ///< It said something unasked.
    void OnNews(QuorCore::CMsg* pMsg);   ///< The keeper has found something out.
    /// @}

private:
    bool bReadSettings() override;
    bool bWork() override;
    bool bReadPort();
    bool bReadTimes();
    bool bReadPin();
    bool bStart();
    bool bOpenStore();
    void AnnounceReady();
    void ShowState(eModem eState);
    void Stop() override;
    void Save() override;

    CModemTree m_Tree;
    CTreeStore m_Store{m_Tree};
    CPinGuard m_PinGuard{m_FileConfig};
    CModemPort m_Port;
    CModemEndpoint m_Endpoint;
    CModemKeeper m_Keeper; ///< Uses all of them, so it is destroyed before them.
    int m_iPort = 0;
    std::string m_szPath;                   ///< Of a Unix-domain socket; empty: none.
    std::unique_ptr<QuorCore::CLed> m_pLed; ///< Null: none is configured. The dispatcher's.
};
