/// @file
/// @brief Every value type of the data model, and the addressing modes of networks.
#pragma once

#include "libQuorCore/CDMBoolean.h"
#include "libQuorCore/CDMDateTime.h"
#include "libQuorCore/CDMInt.h"
#include "libQuorCore/CDMList.h"
#include "libQuorCore/CDMNumber.h"
#include "libQuorCore/CDMObject.h"
#include "libQuorCore/CDMString.h"
#include "libQuorCore/CDMUInt.h"
#include "libQuorCore/CDMUrl.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/// The texts that a network's addressing mode may hold.
extern QUORCORE_API const char* const _aszAddressingType[6];
} // namespace QuorCore
