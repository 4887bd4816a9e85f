/// @file
/// @brief An unsigned number of 32 bits.
#pragma once

#include "libQuorCore/CDMNumber.h"
#include "libQuorCore/Export.h"

#include <cstdint>

namespace QuorCore
{
/// An unsigned number of 32 bits. See CDMNumber and CNumber.
class QUORCORE_API CDMUInt : public CDMNumber<unsigned int>
{
public:
    CDMUInt(CObject* pParent, const char* pszLabel); ///< Null; as CDMNumber.
    /// Not null. The order is value, least, greatest, initial value.
    CDMUInt(CObject* pParent, const char* pszLabel, uint32_t val, uint32_t min, uint32_t max,
            uint32_t valInit);
    CDMUInt(const CDMUInt& other) = default;

    CDMUInt& operator=(const CDMUInt& other) = default; ///< Takes over the value.
    CDMUInt& operator=(uint32_t val);                   ///< As SetVal().
    bool operator==(uint32_t val) const { return m_Val == val; }
    bool operator!=(uint32_t val) const { return m_Val != val; }
};
} // namespace QuorCore
