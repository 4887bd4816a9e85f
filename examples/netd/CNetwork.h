/// @file
/// @brief The thread that sets up the interface.
#pragma once

#include "CDeviceStatus.h"

#include <libQuorCore/libQuorCore.h>

#include <string>

/// Sets up the interface once, which may take minutes, and tells the status how that went; posts
/// EVT_NETD_NETWORK then.
class CNetwork : public QuorCore::CThread
{
public:
    struct settings_t {
        std::string szInterface;
        std::string szAddress; ///< "dhcp", "dhcp6", an address, or empty: it is left as it is.
        std::string szNetmask;
        std::string szGateway; ///< Empty: none.
    };

    CNetwork(CObject* pParent, const char* szLabel, CDeviceStatus& status)
        : CThread(pParent, szLabel), m_status(status)
    {
    }
    ~CNetwork() override { StopAndAwaitEnd(); }

    void Configure(const settings_t& settings) { m_settings = settings; } ///< Before the start.

    long iRunThread() override;

private:
    int iSetUp() const;
    void Tell(const network_t& network);

    settings_t m_settings;
    CDeviceStatus& m_status; ///< Not owned.
};
