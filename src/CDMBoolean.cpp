#include "libQuorCore/CDMBoolean.h"

namespace QuorCore
{
CDMBoolean::CDMBoolean(CObject* pParent, const char* pszLabel) : CDMNumber<bool>(pParent, pszLabel)
{
}

CDMBoolean::CDMBoolean(CObject* pParent, const char* pszLabel, int32_t val, int32_t min,
                       int32_t max, int32_t valInit)
    : CDMNumber<bool>(pParent, pszLabel, val != 0, min != 0, max != 0, valInit != 0)
{
}

CDMBoolean& CDMBoolean::operator=(bool val)
{
    SetVal(val);
    return *this;
}
} // namespace QuorCore
