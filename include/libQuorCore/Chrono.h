/// @file
/// @brief Measures elapsed time.
#pragma once

#include "libQuorCore/Export.h"

#include <cstdint>
#include <ctime>

/**
 * @brief Tells how long ago it was reset, on the monotonic clock, which nobody sets.
 *
 * Copies are plain copies. Threads: one at a time. Rests on clock_gettime(2).
 */
class QUORCORE_API Chrono
{
public:
    Chrono() { Raz(); } ///< Begins to measure.

    /// Begins anew. A clock that cannot be read is logged at level 3, and the former beginning
    /// stays.
    void Raz();

    /**
     * @return ms since the reset, modulo 2^32: it wraps after 49.7 days. When the clock cannot be
     *         read, which is logged at level 3, it is 1000, so that loops that wait for a time go
     *         on.
     */
    uint32_t GetElapsedTime() const;

protected:
    timespec m_timeOnRaz = {}; ///< When it was reset.
};
