#include "libQuorCore/CDMType.h"

namespace QuorCore
{
const char* const _aszAddressingType[6] = {"DHCP", "Static", "AutoIP", "SLAAC", "SEND", "RFC4941"};
} // namespace QuorCore
