/// @file
/// @brief An attribute that is a list of items of one type.
#pragma once

#include "libQuorCore/CListBase.h"

#include <cstdint>
#include <type_traits>

namespace QuorCore
{
/**
 * @brief A list of T, see CListBase for all it does.
 * @tparam T  A data object that can be built from a parent and a label, or from these and a text
 *            that may be null.
 */
template <class T>
class CList : public CListBase
{
public:
    /// @param sizeMax  The greatest number of items.
    CList(CObject* pParent, const char* szLabel, uint16_t sizeMax)
        : CListBase(pParent, szLabel, sizeMax)
    {
    }

    /// @return A new item below the list, without label and text; the caller's until it is added.
    T* pNewObject()
    {
        if constexpr (std::is_constructible_v<T, CObject*, const char*, const char*>) {
            return new T(this, "", nullptr);
        } else {
            return new T(this, "");
        }
    }

protected:
    CObjectData* pMakeItem() override { return pNewObject(); }
};
} // namespace QuorCore
