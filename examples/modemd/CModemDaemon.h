/// @file
/// @brief The application object of modemd.
#pragma once

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
class CModemDaemon : public QuorCore::CCoreApp
{
public:
    CModemDaemon(int argc, char** argv);
    ~CModemDaemon() override; ///< Stops what the threads use before it goes.

    /// Runs the daemon from its start to its end. @return The exit status of the process.
    int iRun();

    /// Reads the settings, then does what the library does.
    /// @return As CCoreApp::iInitInstance(); kBadSettings when a setting cannot be used.
    long iInitInstance() override;

    /// Registers the slots. @return 0.
    long iInitCallback() override;

    /// @name Slots; on the dispatcher's thread.
    /// @{
    void OnConfigSave(QuorCore::CMsg* pMsg);
    void OnDatabaseSave(QuorCore::CMsg* pMsg);
    void OnLink(QuorCore::CMsg* pMsg);   ///< The modem came or went.
    void OnReport(QuorCore::CMsg* pMsg); ///< It said something unasked.
    void OnNews(QuorCore::CMsg* pMsg);   ///< The keeper has found something out.
    /// @}

    static constexpr long kBadSettings = 2;

private:
    bool bReadSettings();
    bool bReadPort();
    bool bReadTimes();
    bool bReadPin();
    bool bStart();
    bool bOpenStore();
    void AnnounceReady();
    void ShowState(eModem eState);
    void Stop();

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
