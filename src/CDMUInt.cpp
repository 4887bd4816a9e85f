#include "libQuorCore/CDMUInt.h"

namespace QuorCore
{
CDMUInt::CDMUInt(CObject* pParent, const char* pszLabel)
    : CDMNumber<unsigned int>(pParent, pszLabel)
{
}

CDMUInt::CDMUInt(CObject* pParent, const char* pszLabel, uint32_t val, uint32_t min, uint32_t max,
                 uint32_t valInit)
    : CDMNumber<unsigned int>(pParent, pszLabel, val, min, max, valInit)
{
}

CDMUInt& CDMUInt::operator=(uint32_t val)
{
    SetVal(val);
    return *this;
}
} // namespace QuorCore
