#include "libQuorCore/CDMNumber.h"

#include <limits>
#include <type_traits>

namespace QuorCore
{
template <class T>
CDMNumber<T>::CDMNumber(CObject* pParent, const char* pszLabel) : CNumber<T>(pParent, pszLabel)
{
    if constexpr (std::is_same_v<T, unsigned int>) {
        this->m_Max = std::numeric_limits<int>::max();
    }
}

template <class T>
CDMNumber<T>::CDMNumber(CObject* pParent, const char* pszLabel, T val, T min, T max, T valInit)
    : CNumber<T>(pParent, pszLabel, valInit, min, max, val)
{
}

template <class T>
CDMNumber<T>::CDMNumber(const CDMNumber& other)
    : CNumber<T>(nullptr, other.m_szLabel.c_str(), other.m_ValInit, other.m_Min, other.m_Max,
                 other.m_Val)
{
    this->m_iAttribut = other.m_iAttribut;
}

template <class T>
CDMNumber<T>& CDMNumber<T>::operator=(const CDMNumber& other)
{
    this->SetVal(other.m_Val);
    return *this;
}

template class CDMNumber<int>;
template class CDMNumber<unsigned int>;
template class CDMNumber<bool>;
} // namespace QuorCore
