#include "libQuorCore/CDMInt.h"

namespace QuorCore
{
CDMInt::CDMInt(CObject* pParent, const char* pszLabel) : CDMNumber<int>(pParent, pszLabel) {}

CDMInt::CDMInt(CObject* pParent, const char* pszLabel, int32_t val, int32_t min, int32_t max,
               int32_t valInit)
    : CDMNumber<int>(pParent, pszLabel, val, min, max, valInit)
{
}

CDMInt& CDMInt::operator=(int32_t val)
{
    SetVal(val);
    return *this;
}
} // namespace QuorCore
