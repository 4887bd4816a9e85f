#include "libQuorCore/CRecord.h"

#include "internal/CCancelGuard.h"

#include "libQuorCore/CThread.h"

#include <algorithm>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr long kFileNotRead = -2;
constexpr const char* kWrongType =
    "La valeur d’un attribut fourni dans la méthode ne correspond pas au type attendu";

/// Looks from both ends at once: children go in the order they came, or in the reverse one.
template <class Sequence>
typename Sequence::iterator FindFromEnds(Sequence& sequence, const CObjectData* pChild)
{
    auto front = sequence.begin();
    auto back = sequence.end();
    while (front != back) {
        --back;
        if (*back == pChild) {
            return back;
        }
        if (front == back) {
            break;
        }
        if (*front == pChild) {
            return front;
        }
        ++front;
    }
    return sequence.end();
}
} // namespace

CRecord::CRecord(CObject* pParent, const char* szLabel) : CObjectData(pParent, szLabel)
{
    m_bIsRecord = true;
    CObject::SetNull(false); // a record is there as soon as it is built; its members may be null
}

CRecord::~CRecord()
{
    while (m_pFirstHeld != nullptr) {
        CObjectData* const pChild = m_pFirstHeld;
        Unlink(pChild);
        if (pChild->pGetParent() == this) {
            pChild->SetParent(nullptr);
        }
    }
}

long CRecord::iSerialize(CSerialize& stream)
{
    const CDeferredCancel deferred;
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s = [\r\n", m_szLabel.c_str());
    }
    const long iRet = iWalk(stream);
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s ; iRet=%ld", m_szLabel.c_str(), iRet);
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "]\r\n");
    }
    return iRet;
}

long CRecord::iWalk(CSerialize& stream)
{
    long iRet = CObjectData::iSerialize(stream);
    for (auto child = m_Record.begin(); iRet == 0 && child != m_Record.end(); ++child) {
        iRet = *child != nullptr ? (*child)->iSerialize(stream) : 0;
    }
    return iRet;
}

long CRecord::iCheckStatus(CSerialize& stream, bool bReset)
{
    const CDeferredCancel deferred;
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s = [\r\n", m_szLabel.c_str());
    }
    long iRet = CObjectData::iCheckStatus(stream, bReset);
    for (auto child = m_Record.begin(); iRet == 0 && child != m_Record.end(); ++child) {
        iRet = *child != nullptr ? (*child)->iCheckStatus(stream, bReset) : 0;
    }
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s, ret = %ld", m_szLabel.c_str(), iRet);
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "iRet = %ld]\r\n", iRet);
    }
    return iRet;
}

void CRecord::SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth)
{
    const bool bRoot = std::exchange(context.m_bRoot, false);
    if (!bMayPublish(context)) {
        return;
    }
    if (bIsNull()) {
        if (context.m_bPubAll) {
            StoreJson(context, value, false, Json::Value());
        }
        return;
    }
    PublishMembers(context, value, bRoot || bArray, iDepth);
    context.m_bRoot = false;
}

void CRecord::PublishMembers(CContextJson& context, Json::Value& value, bool bInto, int iDepth)
{
    // A member is made only when there is something in it: an empty one would read as null.
    Json::Value own;
    Json::Value* pMembers = &value;
    if (!bInto) {
        Json::Value* const pThere = pFindOwnMember(value);
        pMembers = pThere != nullptr && pThere->isObject() ? pThere : &own;
    }
    const CObjectData* const pLabelStays = context.m_pLabelStays;
    for (CObjectData* pChild : m_Record) {
        if (pChild != nullptr) {
            context.m_pLabelStays = pLabelStays == this ? pChild : nullptr;
            pChild->SerializeJson(context, *pMembers, false, iDepth);
        }
    }
    context.m_pLabelStays = pLabelStays;
    if (context.bIsFile() && bHasOwnFile()) {
        WriteOwnFile(*pMembers);
    }
    if (pMembers == &own && !own.isNull()) {
        StoreJson(context, value, false, std::move(own));
    }
}

long CRecord::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    const bool bRoot = std::exchange(context.m_bRoot, false);
    long iRet = 0;
    if (context.bIsFile() && bHasOwnFile()) {
        iRet = bReadOwnFile(context) ? 0 : kFileNotRead;
    } else if (value.isNull()) {
        // Names no member, so nothing is read, and a list gets no item by a POST of it: the check
        // asked no child about it. Records below containers have files of their own, though.
        if (context.bIsFile()) {
            DeserializeArrayJson(context, value);
        }
    } else if (Json::Value* const pMembers = bRoot ? &value : pFindOwnMember(value)) {
        if (!bRoot) {
            SetNull(pMembers->isNull());
        }
        if (bRoot || !bIsNull()) {
            DeserializeArrayJson(context, *pMembers);
        }
    }
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s ; iRet=%ld", m_szLabel.c_str(), iRet);
    }
    context.m_bRoot = false;
    return iRet;
}

void CRecord::DeserializeArrayJson(CContextJson& context, Json::Value& value)
{
    for (CObjectData* pChild : m_Record) {
        if (pChild != nullptr) {
            pChild->iDeserializeJson(context, value); // a record without a file stops no other
        }
    }
}

long CRecord::iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset)
{
    const bool bRoot = std::exchange(context.m_bRoot, false);
    Json::Value* const pMembers = bRoot ? &value : pFindOwnMember(value);
    long iRet = 0;
    if (pMembers != nullptr) {
        iRet = CObjectData::iCheckJson(context, *pMembers, pszError, bReset);
        if (iRet == 0 && !pMembers->isNull()) {
            iRet = iCheckMembers(context, *pMembers, pszError, bReset);
        }
    }
    context.m_bRoot = false;
    return iRet;
}

long CRecord::iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                              bool bReset)
{
    context.m_bRoot = false;
    const long iRet = CObjectData::iCheckJson(context, value, pszError, bReset);
    return iRet == 0 && !value.isNull() ? iCheckMembers(context, value, pszError, bReset) : iRet;
}

long CRecord::iCheckMembers(CContextJson& context, Json::Value& value, std::string* pszError,
                            bool bReset)
{
    if (!value.isObject()) {
        context.Refuse(kWrongType);
        return iRefuseJson(context, pszError);
    }
    long iRet = 0;
    for (auto child = m_Record.begin(); iRet == 0 && child != m_Record.end(); ++child) {
        iRet = *child != nullptr ? (*child)->iCheckJson(context, value, pszError, bReset) : 0;
    }
    return iRet;
}

long CRecord::iRefuseJson(CContextJson& context, std::string* pszError)
{
    constexpr long kResult = -1;
    BuildJsonError(context, pszError);
    QUORCORE_LOG(LOG_ERR, "%s : iRet = %ld", m_szLabel.c_str(), kResult);
    return kResult;
}

CObjectData* CRecord::pFindChildByName(const char* szName)
{
    if (szName != nullptr) {
        if (m_szLabel == szName) {
            return this;
        }
        for (CObjectData* pChild : m_Record) {
            if (pChild != nullptr && pChild->szGetLabel() == szName) {
                return pChild;
            }
        }
    }
    return CObjectData::pFindChildByName(szName);
}

long CRecord::iAdd(CObjectData* pChild, bool bTake)
{
    if (pChild != nullptr && pChild != this && pChild->m_pHolder != this) {
        Link(pChild);
        m_Record.push_back(pChild);
        if (bTake) {
            pChild->SetParent(this);
        }
    }
    return 0;
}

long CRecord::iRemove(CObjectData* pChild)
{
    if (pFind(pChild) == nullptr) {
        return -1;
    }
    Detach(pChild);
    if (pChild->pGetParent() == this) {
        pChild->SetParent(nullptr);
    }
    return 0;
}

void CRecord::Insert(CObjectData* pChild, int iPos)
{
    if (pChild == nullptr || pChild == this) {
        return;
    }
    Link(pChild);
    const bool bWithin = iPos >= 0 && static_cast<size_t>(iPos) < m_Record.size();
    m_Record.insert(bWithin ? m_Record.begin() + iPos : m_Record.end(), pChild);
}

CObjectData* CRecord::pGetAt(int iPos)
{
    return iPos >= 0 && static_cast<size_t>(iPos) < m_Record.size()
               ? m_Record[static_cast<size_t>(iPos)]
               : nullptr;
}

CObjectData* CRecord::pFind(CObjectData* pChild)
{
    return pChild != nullptr && FindFromEnds(m_Record, pChild) != m_Record.end() ? pChild : nullptr;
}

int CRecord::iGetIndex(CObjectData* pChild)
{
    const auto found = FindFromEnds(m_Record, pChild);
    return found != m_Record.end() ? static_cast<int>(found - m_Record.begin()) : -1;
}

void CRecord::Link(CObjectData* pChild)
{
    if (pChild->m_pHolder != nullptr) {
        pChild->m_pHolder->Detach(pChild);
    }
    pChild->m_pHolder = this;
    pChild->m_pFormerHeld = nullptr;
    pChild->m_pNextHeld = m_pFirstHeld;
    if (m_pFirstHeld != nullptr) {
        m_pFirstHeld->m_pFormerHeld = pChild;
    }
    m_pFirstHeld = pChild;
}

void CRecord::Unlink(CObjectData* pChild)
{
    if (pChild->m_pNextHeld != nullptr) {
        pChild->m_pNextHeld->m_pFormerHeld = pChild->m_pFormerHeld;
    }
    (pChild->m_pFormerHeld != nullptr ? pChild->m_pFormerHeld->m_pNextHeld : m_pFirstHeld) =
        pChild->m_pNextHeld;
    pChild->m_pHolder = nullptr;
    pChild->m_pNextHeld = nullptr;
    pChild->m_pFormerHeld = nullptr;
}

void CRecord::Detach(CObjectData* pChild)
{
    if (pChild->m_pHolder == this) {
        Unlink(pChild);
    }
    const auto found = FindFromEnds(m_Record, pChild);
    if (found != m_Record.end()) {
        m_Record.erase(found);
    }
}
} // namespace QuorCore
