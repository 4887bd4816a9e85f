/// @file
/// @brief A signed number of 32 bits.
#pragma once

#include "libQuorCore/CDMNumber.h"
#include "libQuorCore/Export.h"

#include <cstdint>

namespace QuorCore
{
/// A signed number of 32 bits. See CDMNumber and CNumber.
class QUORCORE_API CDMInt : public CDMNumber<int>
{
public:
    CDMInt(CObject* pParent, const char* pszLabel); ///< Null; as CDMNumber.
    /// Not null. The order is value, least, greatest, initial value.
    CDMInt(CObject* pParent, const char* pszLabel, int32_t val, int32_t min, int32_t max,
           int32_t valInit);
    CDMInt(const CDMInt& other) = default;

    CDMInt& operator=(const CDMInt& other) = default; ///< Takes over the value.
    CDMInt& operator=(int32_t val);                   ///< As SetVal().
    bool operator==(int32_t val) const { return m_Val == val; }
};
} // namespace QuorCore
