/// @file
/// @brief Capability sets of a process, for dropping privileges while keeping a few.
#pragma once

#include "libQuorCore/Export.h"

#include <cstdint>

namespace QuorCore
{
/// A capability number, as in capabilities(7); a list of them ends with -1.
using capability_t = int;

/// What flags choose among the three sets.
enum eProcessCapFlag : int {
    PROCESS_CAP_EFFECTIVE = 1,
    PROCESS_CAP_PERMITTED = 2,
    PROCESS_CAP_INHERITABLE = 4,
};

/// The record of capget(2) and capset(2); its layout is the kernel's.
struct process_cap_s {
    struct {
        uint32_t version; ///< Always 0x20080522: version 3, sets of 64 bits.
        int32_t pid;      ///< 0: the calling thread.
    } cap_hdr;
    struct {
        uint32_t effective;
        uint32_t permitted;
        uint32_t inheritable;
    } cap_data[2]; ///< Capabilities 0 to 31, then 32 to 63.
};

/// Zeroes a record and sets its version.
QUORCORE_API void process_cap_raz(process_cap_s* pCap);
QUORCORE_API void process_cap_cp(process_cap_s* pTo, const process_cap_s* pFrom);

/// Sets or clears one capability in the sets that @p iFlags chooses. @return 0, or EINVAL for one
/// outside 0 to 63.
QUORCORE_API int process_cap_enable(process_cap_s* pCap, int iFlags, int iCapability);
QUORCORE_API int process_cap_disable(process_cap_s* pCap, int iFlags, int iCapability);

/// The same for a list that ends with -1. @return 0; EINVAL for a null or empty list; the first
/// failure, at which it stops.
QUORCORE_API int process_cap_tab_enable(process_cap_s* pCap, int iFlags,
                                        const capability_t* pCapabilities);
QUORCORE_API int process_cap_tab_disable(process_cap_s* pCap, int iFlags,
                                         const capability_t* pCapabilities);

/// capget(2) and capset(2) with the version set. @return 0, or -1 with errno.
QUORCORE_API int process_cap_get(process_cap_s* pCap);
QUORCORE_API int process_cap_set(process_cap_s* pCap);
} // namespace QuorCore
