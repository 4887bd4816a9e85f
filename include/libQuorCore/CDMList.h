/// @file
/// @brief A list of the data model.
#pragma once

#include "libQuorCore/CDMString.h"
#include "libQuorCore/CList.h"

#include <cstdint>

namespace QuorCore
{
/// A CList as data-model records declare it.
template <class T>
class CDMList : public CList<T>
{
public:
    CDMList(CObject* pParent, const char* pszLabel, uint16_t sizeMax)
        : CList<T>(pParent, pszLabel, sizeMax)
    {
    }
};
} // namespace QuorCore
