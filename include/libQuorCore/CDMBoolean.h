/// @file
/// @brief A boolean.
#pragma once

#include "libQuorCore/CDMNumber.h"
#include "libQuorCore/Export.h"

#include <cstdint>

namespace QuorCore
{
/// A boolean. See CDMNumber and CNumber.
class QUORCORE_API CDMBoolean : public CDMNumber<bool>
{
public:
    CDMBoolean(CObject* pParent, const char* pszLabel); ///< Null; as CDMNumber.
    /// Not null. The order is value, least, greatest, initial value; each is true when it is not 0.
    CDMBoolean(CObject* pParent, const char* pszLabel, int32_t val, int32_t min, int32_t max,
               int32_t valInit);
    CDMBoolean(const CDMBoolean& other) = default;

    CDMBoolean& operator=(const CDMBoolean& other) = default; ///< Takes over the value.
    CDMBoolean& operator=(bool val);                          ///< As SetVal().
    bool operator==(bool val) const { return m_Val == val; }
};
} // namespace QuorCore
