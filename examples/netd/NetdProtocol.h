/// @file
/// @brief What netd and its peers agree on beyond the common commands.
#pragma once

#include <cstdint>

/// What netd tells its peers when something has changed: the JSON that CMD_COMMUN_GET_CONFIG is
/// answered by, too.
constexpr uint16_t CMD_NETD_STATUS = 1010;

/// @name Messages within netd
/// @{
constexpr uint32_t EVT_NETD_BUTTON = 1000;  ///< Param 1: 1 it went down, 0 up.
constexpr uint32_t EVT_NETD_NETWORK = 1001; ///< The network's state has changed.
/// @}
