#include "libQuorCore/CDMDateTime.h"

namespace QuorCore
{
CDMDateTime::CDMDateTime(CObject* pParent, const char* pszLabel) : CDateTime(pParent, pszLabel) {}
} // namespace QuorCore
