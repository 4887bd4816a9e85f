// What a list is in JSON: an array, or, below a container, a directory with a file for each item.
#include "libQuorCore/CListBase.h"

#include "internal/CHeldLock.h"
#include "internal/Digits.h"
#include "internal/JsonFile.h"
#include "internal/JsonText.h"

#include "libQuorCore/CThread.h"

#include <algorithm>
#include <dirent.h>
#include <set>
#include <utility>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr long kNotRead = -2;
constexpr const char* kUnexpected = " : Valeur d’attribut non prévue ou incohérente";

using Held = CHeldLock<CRecursiveLock>;

/// Positions in their order, then other names in theirs.
bool bComesBefore(const std::string& szLeft, const std::string& szRight)
{
    const bool bLeft = bIsDigits(szLeft);
    const bool bRight = bIsDigits(szRight);
    if (bLeft && bRight && szLeft.size() != szRight.size()) {
        return szLeft.size() < szRight.size();
    }
    return bLeft != bRight ? bLeft : szLeft < szRight;
}

/// Stores the nulls that an array has where nothing was stored, so that iterators meet them.
void FillGaps(Json::Value& array)
{
    if (bHasGaps(array)) {
        for (Json::ArrayIndex place = 0; place < array.size(); ++place) {
            array[place]; // stores what is not there
        }
    }
}

/// The names of the working directory that a label can have.
std::vector<std::string> FileNames()
{
    std::vector<std::string> names;
    DIR* const pDirectory = ::opendir("."); // close-on-exec by itself
    if (pDirectory == nullptr) {
        return names;
    }
    while (const dirent* const pEntry = ::readdir(pDirectory)) {
        if (bIsFileName(pEntry->d_name) && pEntry->d_type != DT_DIR) {
            names.emplace_back(pEntry->d_name);
        }
    }
    ::closedir(pDirectory);
    return names;
}
} // namespace

void CListBase::SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth)
{
    const Held held(m_Lock);
    if (!held) {
        return;
    }
    context.m_bRoot = false;
    PublishLeaf(context, value, bArray, [&] { return ItemsAsJson(context, iDepth); });
}

Json::Value CListBase::ItemsAsJson(CContextJson& context, int iDepth)
{
    const bool bFiles = context.bIsFile() && m_bIsContainer;
    std::set<std::string> written;
    Json::Value array(Json::arrayValue);
    for (CObjectData* pItem : m_Record) {
        if (pItem == nullptr) {
            continue;
        }
        const bool bRecord = pItem->pRecordOrNull() != nullptr;
        if (bFiles && !written.insert(pItem->szGetLabel()).second) {
            QUORCORE_LOG(LOG_ERR, "fichier : %s: a second item of this label",
                         pItem->szGetLabel().c_str());
        }
        const Json::ArrayIndex place = array.size();
        if (!bRecord) {
            pItem->SerializeJson(context, array, true, iDepth);
        } else if (!pItem->bIsNull()) {
            Json::Value members;
            pItem->SerializeJson(context, members, true, iDepth);
            if (!members.isNull()) {
                array.append(std::move(members));
            }
        }
        // JSON null keeps the place; under eNotify what did not change is left out.
        if (array.size() == place && context.m_Cmd != CContextJson::eNotify) {
            array.append(Json::Value());
        }
        // A record has done it by itself; what is not to be seen now keeps the file that it has.
        if (bFiles && !bRecord && array.size() > place && pItem->bMayPublish(context)) {
            pItem->WriteOwnFile(array[place]);
        }
    }
    return array;
}

long CListBase::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    const Held held(m_Lock);
    if (!held) {
        return 0;
    }
    context.m_bRoot = false;
    if (context.bIsFile() && m_bIsContainer) {
        iDeserializeDirectoryJson(context);
    } else if (context.m_Cmd == CContextJson::ePost) {
        m_bIsModified = false;
        auto pItem = pNewItem();
        pItem->DeserializeArrayJson(context, value);
        bAppend(std::move(pItem));
    } else if (Json::Value* const pMember = pFindOwnMember(value)) {
        if (context.m_Cmd == CContextJson::eNotify) {
            m_bIsModified = false;
        } else if (pMember->isArray()) {
            ReadArray(context, *pMember);
        }
    }
    CountItems();
    return 0;
}

void CListBase::ReadArray(CContextJson& context, Json::Value& array)
{
    if (!bIsAttributeCanDelete()) {
        if (array.size() != m_Record.size()) {
            return;
        }
        SetNull(false);
        FillGaps(array);
        auto element = array.begin(); // by iterator: an index is looked up
        for (CObjectData* pItem : m_Record) {
            if (pItem != nullptr) {
                pItem->DeserializeArrayJson(context, *element);
            }
            ++element;
        }
        return;
    }
    Reset();
    SetNull(false);
    FillGaps(array);
    for (Json::Value& element : array) {
        auto pItem = pNewItem();
        pItem->DeserializeArrayJson(context, element);
        if (!bAppend(std::move(pItem))) {
            return;
        }
    }
}

void CListBase::DeserializeArrayJson(CContextJson& context, Json::Value& value)
{
    const Held held(m_Lock);
    if (!held) {
        return;
    }
    Json::Value* const pArray = pFindOwnMember(value);
    Forget(true); // nobody else has a pointer to what reading made
    SetNull(true);
    if (pArray != nullptr && pArray->isArray()) {
        SetNull(false);
        FillGaps(*pArray);
        for (Json::Value& element : *pArray) {
            auto pItem = pNewItem();
            pItem->iDeserializeJson(context, element);
            bAppend(std::move(pItem));
        }
    }
    CountItems();
}

long CListBase::iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                           bool bReset)
{
    const Held held(m_Lock);
    if (!held) {
        return 0;
    }
    context.m_bRoot = false;
    const bool bPost = context.m_Cmd == CContextJson::ePost;
    Json::Value* const pMember = bPost ? &value : pFindOwnMember(value);
    if (pMember == nullptr) {
        return 0;
    }
    if (!bCheckRestriction(context, false)) {
        return iRefuseJson(context, pszError);
    }
    if (bPost) {
        // A POST reaches every list of a record with the whole request: what is no element of this
        // one is no reason to refuse it.
        const auto pItem = pNewItem();
        const bool bRecord = pItem->pRecordOrNull() != nullptr;
        return value.isObject() == bRecord
                   ? pItem->iCheckArrayJson(context, value, pszError, bReset)
                   : 0;
    }
    return pMember->isNull() && bIsNull() ? 0 : iCheckArray(context, *pMember, pszError, bReset);
}

long CListBase::iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                                bool bReset)
{
    return iCheckJson(context, value, pszError, bReset); // as an element it is an object with it
}

long CListBase::iCheckArray(CContextJson& context, Json::Value& array, std::string* pszError,
                            bool bReset)
{
    const bool bFixed = !bIsAttributeCanDelete();
    if (!array.isArray() || (bFixed ? array.size() != m_Record.size() : array.size() > m_SizeMax)) {
        context.Refuse(m_szLabel + kUnexpected);
        return iRefuseJson(context, pszError);
    }
    const auto pScratch = bFixed ? nullptr : pNewItem();
    FillGaps(array);
    long iRet = 0;
    auto item = m_Record.begin();
    for (auto element = array.begin(); iRet == 0 && element != array.end(); ++element) {
        CObjectData* const pItem = bFixed ? *item++ : pScratch.get();
        iRet = pItem != nullptr ? pItem->iCheckArrayJson(context, *element, pszError, bReset) : 0;
    }
    return iRet;
}

long CListBase::iDeserializeDirectoryJson(CContextJson& context)
{
    const Held held(m_Lock);
    if (!held) {
        return -1;
    }
    long iRet = 0;
    if (!bIsAttributeCanDelete()) {
        for (CObjectData* pItem : m_Record) {
            if (pItem != nullptr && !pItem->bReadOwnFile(context)) {
                iRet = kNotRead;
            }
        }
        return iRet;
    }
    const std::vector<std::string> names = ItemFiles();
    Reset();
    SetNull(false);
    for (const std::string& szName : names) {
        auto pItem = pNewItem();
        pItem->SetLabel(szName.c_str());
        CObjectData* const pAdded = pItem.get();
        if (!pItem->bReadOwnFile(context)) {
            iRet = kNotRead;
        } else if (bAppend(std::move(pItem))) {
            pAdded->SetLabel(szName.c_str()); // its file's, also when others are missing before it
        }
    }
    CountItems();
    return iRet;
}

std::vector<std::string> CListBase::ItemFiles() const
{
    std::vector<std::string> names = FileNames();
    names.erase(std::remove_if(names.begin(), names.end(),
                               [this](const std::string& szName) { return bIsFileAbove(szName); }),
                names.end());
    std::sort(names.begin(), names.end(), bComesBefore);
    names.resize(std::min(names.size(), size_t{m_SizeMax}));
    return names;
}
} // namespace QuorCore
