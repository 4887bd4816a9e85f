/// @file
/// @brief The place of a virtual member function in its class's table.
#pragma once

#include <cstddef>
#include <cstring>

namespace TestSupport
{
/**
 * @brief The slot of a virtual member function, as the Itanium C++ ABI (section 2.3) encodes it in
 *        a pointer to it: 0 and 1 are a destructor declared first, what follows comes behind.
 * @return The slot; -1 for a function that is not virtual.
 */
template <class MemberFunction>
long lVirtualSlot(MemberFunction function)
{
    struct {
        ptrdiff_t lPointer;
        ptrdiff_t lAdjustment;
    } parts;
    static_assert(sizeof(parts) == sizeof(function), "a pointer to a member function");
    std::memcpy(&parts, &function, sizeof(parts));
#if defined(__arm__) || defined(__aarch64__)
    const bool bVirtual = (parts.lAdjustment & 1) != 0; // code addresses may be odd there
    const ptrdiff_t lOffset = parts.lPointer;
#else
    const bool bVirtual = (parts.lPointer & 1) != 0;
    const ptrdiff_t lOffset = parts.lPointer - 1;
#endif
    return bVirtual ? static_cast<long>(lOffset / static_cast<ptrdiff_t>(sizeof(void*))) : -1;
}
} // namespace TestSupport
