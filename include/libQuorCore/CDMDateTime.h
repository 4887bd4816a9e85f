/// @file
/// @brief A point in time of the data model.
#pragma once

#include "libQuorCore/CDateTime.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/// A CDateTime that is null until it is set.
class QUORCORE_API CDMDateTime : public CDateTime
{
public:
    CDMDateTime(CObject* pParent, const char* pszLabel);
};
} // namespace QuorCore
