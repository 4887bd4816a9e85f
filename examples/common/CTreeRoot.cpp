#include "CTreeRoot.h"

using namespace QuorCore;

namespace
{
/// The child itself: CRecord::pFindChildByName() also finds the record that it is asked of.
CObjectData* pFindChild(CRecord& record, const std::string& szLabel)
{
    CObjectData* pChild = nullptr;
    for (int i = 0; (pChild = record.pGetAt(i)) != nullptr; ++i) {
        if (pChild->szGetLabel() == szLabel) {
            return pChild;
        }
    }
    return nullptr;
}

/// A record whose members a document names; null for lists, whose items have no names, and leaves.
CRecord* pAsRecord(CObjectData* pNode)
{
    return dynamic_cast<CListBase*>(pNode) == nullptr ? dynamic_cast<CRecord*>(pNode) : nullptr;
}

/// @return The full name of the first member of a request that no attribute has; empty: there is
///         none.
std::string szFindUnknown(CRecord& record, const Json::Value& members)
{
    if (!members.isObject()) {
        return {}; // the check of the record has its own opinion
    }
    for (const std::string& szName : members.getMemberNames()) {
        CObjectData* const pChild = pFindChild(record, szName);
        if (pChild == nullptr) {
            return record.szGetFullName() + '/' + szName;
        }
        CRecord* const pRecord = pAsRecord(pChild);
        std::string szUnknown =
            pRecord != nullptr ? szFindUnknown(*pRecord, members[szName]) : std::string();
        if (!szUnknown.empty()) {
            return szUnknown;
        }
    }
    return {};
}
} // namespace

void CTreeRoot::DeserializeArrayJson(CContextJson& context, Json::Value& value)
{
    CObjectData* pChild = nullptr;
    for (int i = 0; (pChild = pGetAt(i)) != nullptr; ++i) {
        // In file form there is no document: each has its file.
        if (context.bIsFile() || (value.isObject() && value.isMember(pChild->szGetLabel()))) {
            pChild->iDeserializeJson(context, value);
        }
    }
}

long CTreeRoot::iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                           bool bReset)
{
    const std::string szUnknown = szFindUnknown(*this, value);
    if (!szUnknown.empty()) {
        context.Refuse("there is no attribute " + szUnknown);
        return iRefuseJson(context, pszError);
    }
    return CRecord::iCheckJson(context, value, pszError, bReset);
}

CObjectData* CTreeRoot::pFindByFullName(const std::string& szFullName)
{
    const std::string szOwn = szGetFullName();
    if (szFullName.compare(0, szOwn.size(), szOwn) != 0) {
        return nullptr;
    }
    CObjectData* pNode = this;
    for (size_t begin = szOwn.size(); pNode != nullptr && begin < szFullName.size();) {
        if (szFullName[begin] != '/') {
            return nullptr;
        }
        const size_t end = szFullName.find('/', begin + 1);
        const std::string szLabel = szFullName.substr(begin + 1, end - begin - 1);
        if (auto* const pList = dynamic_cast<CListBase*>(pNode)) {
            pNode = szLabel != pList->szGetLabel() ? pList->pFindChildByName(szLabel.c_str())
                                                   : nullptr; // which would be the list itself
        } else {
            CRecord* const pRecord = pAsRecord(pNode);
            pNode = pRecord != nullptr ? pFindChild(*pRecord, szLabel) : nullptr;
        }
        begin = end != std::string::npos ? end : szFullName.size();
    }
    return pNode;
}
