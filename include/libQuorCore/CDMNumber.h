/// @file
/// @brief A number of the data model.
#pragma once

#include "libQuorCore/CNumber.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/// A CNumber as data-model records declare it, for T = int, unsigned int and bool.
template <class T>
class QUORCORE_API CDMNumber : public CNumber<T>
{
public:
    /// Null, value and initial value 0. The bounds are those of T, of unsigned int 0 and
    /// 2147483647: every value also fits into an int.
    CDMNumber(CObject* pParent, const char* pszLabel);
    /// Not null. The order is value, least, greatest, initial value: another one than CNumber's.
    CDMNumber(CObject* pParent, const char* pszLabel, T val, T min, T max, T valInit);
    /// Copies label, values, bounds and attribute byte; the copy stands in no tree.
    CDMNumber(const CDMNumber& other);

    using CNumber<T>::operator=;
    CDMNumber& operator=(const CDMNumber& other); ///< Takes over the value, and nothing else.
};

extern template class CDMNumber<int>;
extern template class CDMNumber<unsigned int>;
extern template class CDMNumber<bool>;
} // namespace QuorCore
