/// @file
/// @brief A text of the data model.
#pragma once

#include "libQuorCore/CString.h"
#include "libQuorCore/Export.h"

#include <string>

namespace QuorCore
{
/// A CString as data-model records declare it, with assignment and comparison; assigning is
/// SetVal(). A null text is an empty one.
class QUORCORE_API CDMString : public CString
{
public:
    /// @param pszVal  Default and current value; null: the attribute is null.
    CDMString(CObject* pParent, const char* pszLabel, const char* pszVal);
    /// @param iSizeMin  Least length in bytes.
    /// @param iSizeMax  Greatest length in bytes, negative: none.
    /// @param pszVal    Current value; null: the attribute is null.
    CDMString(CObject* pParent, const char* pszLabel, const char* pszInit, int iSizeMin,
              int iSizeMax, const char* pszVal);
    /// Copies label, texts, bounds and attribute byte; the copy stands in no tree.
    CDMString(const CDMString& other);

    CDMString& operator=(const CDMString& other); ///< Takes over the value, and nothing else.
    CDMString& operator=(const std::string& szVal);
    CDMString& operator=(const char* pszVal);
    bool operator==(const std::string& szVal) const { return m_Val == szVal; }
    bool operator==(const char* pszVal) const;
    bool operator!=(const std::string& szVal) const { return m_Val != szVal; }
    bool operator!=(const char* pszVal) const { return !(*this == pszVal); }
};
} // namespace QuorCore
