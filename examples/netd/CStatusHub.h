/// @file
/// @brief The endpoint of netd.
#pragma once

#include "CDeviceStatus.h"

#include <libQuorCore/libQuorCore.h>

/// Serves any number of peers: the common commands, and CMD_COMMUN_GET_CONFIG, answered by the
/// status as JSON.
class CStatusHub : public QuorCore::CSocketHub
{
public:
    CStatusHub(CObject* pParent, const char* szLabel, CDeviceStatus& status)
        : CSocketHub(pParent, szLabel), m_status(status)
    {
    }
    ~CStatusHub() override { EndThread(); }

    long iInitInstance() override;
    void OnCmdGetStatus(QuorCore::socketFrame_t* pFrame);

    void PushStatus(); ///< Tells all peers by CMD_NETD_STATUS. Any thread.

private:
    CDeviceStatus& m_status; ///< Not owned.
};
