/// @file
/// @brief What netd knows of the device, as the record that it serves.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <mutex>
#include <string>

/// What became of the interface.
struct network_t {
    std::string szState; ///< "unset", "asking", "up" or "failed".
    std::string szInterface;
    std::string szMac;
    std::string szAddress;
    std::string szNetmask;
    std::string szDns1;
    std::string szDns2;
};

/// The state of button, LED and network; empty texts are left unknown. Threads: any.
class CDeviceStatus
{
public:
    void SetButton(const char* szState); ///< "none", "up" or "down", of which each counts.
    void SetLed(const char* szState);    ///< "none", "dark" or "lit".
    void SetNetwork(const network_t& network);

    std::string szJson(); ///< @return All of it as a JSON document.

private:
    std::mutex m_Lock; ///< Guards all below.
    QuorCore::CRecord m_Root{nullptr, "netd"};
    QuorCore::CDMString m_Button{&m_Root, "button", "none"};
    QuorCore::CDMInt m_Presses{&m_Root, "presses", 0, 0, 1000000, 0};
    QuorCore::CDMString m_Led{&m_Root, "led", "none"};
    QuorCore::CRecord m_Network{&m_Root, "network"};
    QuorCore::CDMString m_State{&m_Network, "state", "unset"};
    QuorCore::CDMString m_Interface{&m_Network, "interface", nullptr};
    QuorCore::CDMString m_Mac{&m_Network, "mac", nullptr};
    QuorCore::CDMString m_Address{&m_Network, "address", nullptr};
    QuorCore::CDMString m_Netmask{&m_Network, "netmask", nullptr};
    QuorCore::CDMString m_Dns1{&m_Network, "dns1", nullptr};
    QuorCore::CDMString m_Dns2{&m_Network, "dns2", nullptr};
};
