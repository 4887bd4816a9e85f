#include "libQuorCore/CSocketCallback.h"

#include "libQuorCore/CSocketBase.h"

namespace QuorCore
{
template class CSocketCallback<CSocketBase>; // the one that every endpoint uses
} // namespace QuorCore
