/// @file
/// @brief The application object of netd.
#pragma once

#include "CButton.h"
#include "CDeviceStatus.h"
#include "CNetwork.h"
#include "CStatusHub.h"

#include <libQuorCore/libQuorCore.h>

#include <memory>
#include <string>

/**
 * @brief The daemon of a device's front: a reset button, a LED that shows it, and the network.
 *
 * What the machine lacks is told in the log, and the rest goes on.
 *
 * Options beside those of the library: "--config FILE".
 * Keys: "port" (0: the kernel chooses) and "path" (of a Unix-domain socket; empty: none) of the
 * endpoint; "button_line" (number of a GPIO line; -1: none) and "button_active_low" (0 or 1); "led"
 * (name in /sys/class/leds; empty: none); "interface" (empty: none), "address" ("dhcp", "dhcp6", an
 * address, or empty: left as it is), "netmask", "gateway"; and "log_level_" followed by the label
 * of a thread.
 */
class CNetd : public QuorCore::CCoreApp
{
public:
    CNetd(int argc, char** argv);
    ~CNetd() override; ///< Stops what the threads use before it goes.

    /// Runs the daemon from its start to its end. @return The exit status of the process.
    int iRun();

    /// Reads the settings, then does what the library does. @return As CCoreApp::iInitInstance();
    ///         kBadSettings when a setting cannot be used.
    long iInitInstance() override;

    long iInitCallback() override; ///< Registers the slots. @return 0.

    /// @name Slots; on the dispatcher's thread.
    /// @{
    void OnButton(QuorCore::CMsg* pMsg);
    void OnNetwork(QuorCore::CMsg* pMsg);
    void OnConfigSave(QuorCore::CMsg* pMsg); ///< Somebody has changed log levels over the wire.
    /// @}

    static constexpr long kBadSettings = 2;

private:
    bool bReadSettings();
    bool bStart();
    bool bStartHub();
    void AnnounceReady();
    void FindLed();
    void Stop();

    int m_iPort = 0;
    std::string m_szPath;
    int m_iButtonLine = -1;
    std::unique_ptr<QuorCore::CLed> m_pLed; ///< Null: there is none.
    CDeviceStatus m_Status;
    CButton m_Button{this, "netd_button"};
    CNetwork m_Network{this, "netd_network", m_Status};
    CStatusHub m_Hub{this, "netd_hub", m_Status};
};
