/// @file
/// @brief The application object of netd.
#pragma once

#include "../common/CDaemon.h"
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
class CNetd : public CDaemon
{
public:
    CNetd(int argc, char** argv);
    ~CNetd() override; ///< Stops what the threads use before it goes.

    long iInitCallback() override; ///< Registers the slots. @return 0.

    /// @name Slots; on the dispatcher's thread.
    /// @{
    void OnButton(QuorCore::CMsg* pMsg);
    void OnNetwork(QuorCore::CMsg* pMsg);
    /// @}

private:
    bool bReadSettings() override;
    bool bWork() override;
    bool bStart();
    bool bStartHub();
    void AnnounceReady();
    void FindLed();
    void Stop() override;

    int m_iPort = 0;
    std::string m_szPath;
    int m_iButtonLine = -1;
    std::unique_ptr<QuorCore::CLed> m_pLed; ///< Null: there is none.
    CDeviceStatus m_Status;
    CButton m_Button{this, "netd_button"};
    CNetwork m_Network{this, "netd_network", m_Status};
    CStatusHub m_Hub{this, "netd_hub", m_Status};
};
