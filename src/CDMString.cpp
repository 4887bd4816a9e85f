#include "libQuorCore/CDMString.h"

namespace QuorCore
{
CDMString::CDMString(CObject* pParent, const char* pszLabel, const char* pszVal)
    : CString(pParent, pszLabel, pszVal)
{
}

CDMString::CDMString(CObject* pParent, const char* pszLabel, const char* pszInit, int iSizeMin,
                     int iSizeMax, const char* pszVal)
    : CString(pParent, pszLabel, pszInit, iSizeMin, iSizeMax, pszVal)
{
}

CDMString::CDMString(const CDMString& other)
    : CString(nullptr, other.m_szLabel.c_str(), nullptr, other.m_SizeMin, other.m_SizeMax, nullptr)
{
    m_Val = other.m_Val;
    m_ValInit = other.m_ValInit;
    m_iAttribut = other.m_iAttribut;
}

CDMString& CDMString::operator=(const CDMString& other)
{
    SetVal(other.m_Val);
    return *this;
}

CDMString& CDMString::operator=(const std::string& szVal)
{
    SetVal(szVal);
    return *this;
}

CDMString& CDMString::operator=(const char* pszVal)
{
    SetVal(pszVal);
    return *this;
}

bool CDMString::operator==(const char* pszVal) const
{
    return m_Val == (pszVal != nullptr ? pszVal : "");
}
} // namespace QuorCore
