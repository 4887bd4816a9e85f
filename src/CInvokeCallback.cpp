#include "libQuorCore/CInvokeCallback.h"

namespace QuorCore
{
CInvokeCallback::~CInvokeCallback() = default;
} // namespace QuorCore
