#include "libQuorCore/CListBase.h"

#include "internal/CHeldLock.h"
#include "internal/CPlainStream.h"
#include "internal/Digits.h"

#include "libQuorCore/CString.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr const char* kNameChild = "name"; // its text is the item's label
constexpr size_t kIndexDigits = 5;         // of the greatest position, 65535

using Held = CHeldLock<CRecursiveLock>;
} // namespace

CListBase::CListBase(CObject* pParent, const char* szLabel, uint16_t sizeMax)
    : CRecord(pParent, szLabel), m_SizeMax(sizeMax),
      m_Nb(nullptr, "", 0, 0, std::numeric_limits<short>::max(), 0) // no child: no item of the list
{
    m_bIsList = true;
}

CListBase::~CListBase()
{
    Forget(true);
}

void CListBase::CountItems()
{
    m_Nb.SetVal(static_cast<short>(m_Record.size()));
}

void CListBase::Forget(bool bDelete)
{
    while (!m_Record.empty()) {
        CObjectData* const pItem = m_Record.back();
        if (pItem != nullptr && bDelete && pItem->m_bOwned) {
            Drop(pItem);
        } else {
            m_Record.pop_back();
            if (pItem != nullptr && pItem->m_pHolder == this) {
                pItem->m_bOwned = false;
                Unlink(pItem);
                SetFree(pItem);
            }
        }
    }
    CountItems();
}

void CListBase::Drop(CObjectData* pItem)
{
    const bool bOwned = pItem->m_bOwned;
    Detach(pItem);
    if (bOwned) {
        delete pItem;
    } else {
        SetFree(pItem);
    }
}

void CListBase::SetFree(CObjectData* pItem)
{
    if (pItem->pGetParent() == this) {
        pItem->SetParent(nullptr); // it may outlive the list
    }
}

void CListBase::Reset()
{
    const Held held(m_Lock);
    if (held) {
        Forget(bIsAttributeCanDelete());
        SetNull(true);
    }
}

long CListBase::iSerialize(CSerialize& stream)
{
    const Held held(m_Lock);
    if (!held) {
        return held.iResult();
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s = {\r\n", m_szLabel.c_str());
    }
    long iRet = 0;
    if (stream.m_bSave) {
        iRet = stream.iPushU16(static_cast<uint16_t>(m_Record.size()), "");
        if (iRet == 0) {
            CRecord::iSerialize(stream); // its result is dropped, see the header
        }
    } else {
        iRet = iReadItems(stream);
    }
    CountItems();
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s; iRet = %ld", m_szLabel.c_str(), iRet);
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s; iRet = %ld", m_szLabel.c_str(), iRet);
    }
    return iRet;
}

long CListBase::iReadItems(CSerialize& stream)
{
    uint16_t iCount = 0;
    long iRet = 0;
    if (const uint8_t* const pCount = CPlainStream::pPop(stream, sizeof(iCount))) {
        std::memcpy(&iCount, pCount, sizeof(iCount));
    } else {
        iRet = stream.iPopU16(iCount, "");
    }
    iRet = iRet == 0 ? CObject::iSerialize(stream) : iRet;
    if (iRet != 0) {
        return iRet;
    }
    if (bIsAttributeCanDelete()) {
        return iRebuild(stream, iCount);
    }
    if (iCount != m_Record.size()) {
        return -1;
    }
    for (auto item = m_Record.begin(); iRet == 0 && item != m_Record.end(); ++item) {
        iRet = *item != nullptr ? (*item)->iSerialize(stream) : 0;
    }
    return iRet;
}

long CListBase::iRebuild(CSerialize& stream, uint16_t iCount)
{
    const uint8_t iAttribut = m_iAttribut; // the sender's; Reset() and adding change the null bit
    long iRet = 0;
    try {
        Reset();
        // One item at a time, and none before its bytes are there: the count is the peer's.
        for (uint16_t iDone = 0; iRet == 0 && iDone < iCount; ++iDone) {
            auto pItem = pNewItem();
            iRet = pItem->iSerialize(stream);
            if (iRet == 0 && !bAppend(std::move(pItem))) {
                iRet = -1;
            }
        }
    } catch (const std::exception&) { // no memory
        iRet = -1;
    }
    m_iAttribut = iAttribut;
    return iRet;
}

long CListBase::iCheckStatus(CSerialize& stream, bool bReset)
{
    const Held held(m_Lock);
    if (!held) {
        return held.iResult();
    }
    if (stream.m_bLog) {
        // At the level of an error, unlike all other first lines: scripts find a check by it. Held
        // by AList.AnnouncesItsCheckAsAnError.
        QUORCORE_LOG(LOG_ERR, "%s = {\r\n", m_szLabel.c_str());
    }
    int iCount = m_SizeMax + 1; // in an int: 65536 for the largest list
    long iRet = 0;
    if (stream.bIsReady()) {
        uint16_t iPopped = 0;
        iRet = stream.iPopU16(iPopped, "");
        iCount = iRet == 0 ? iPopped : iCount;
    } else {
        iCount = static_cast<int>(m_Record.size());
    }
    iRet = iRet == 0 && iCount > m_SizeMax ? kOutOfBounds : iRet;
    iRet = iRet == 0 ? CObject::iCheckStatus(stream, bReset) : iRet;
    if (iRet == 0 && stream.bIsReady() && iCount > 0) {
        iRet = iCheckItems(stream, iCount, bReset);
    }
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s; iRet = %ld", m_szLabel.c_str(), iRet);
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s; iRet = %ld", m_szLabel.c_str(), iRet);
    }
    return iRet;
}

long CListBase::iCheckItems(CSerialize& stream, int iCount, bool bReset)
{
    try {
        const auto pScratch = pNewItem();
        long iRet = 0;
        for (int iDone = 0; iRet == 0 && iDone < iCount; ++iDone) {
            iRet = pScratch->iCheckStatus(stream, bReset);
        }
        return iRet;
    } catch (const std::exception&) { // no memory
        return -1;
    }
}

CObjectData* CListBase::pFindChildByName(const char* szName)
{
    const Held held(m_Lock);
    if (!held || szName == nullptr) {
        return nullptr;
    }
    if (m_szLabel == szName) {
        return this;
    }
    for (CObjectData* pItem : m_Record) {
        if (pItem != nullptr && pItem->szGetLabel() == szName) {
            return pItem;
        }
    }
    return bIsIndex(szName) ? pGetAt(std::stoi(szName) - 1) : CObjectData::pFindChildByName(szName);
}

long CListBase::iAdd(CObjectData* pItem, bool bTake)
{
    const Held held(m_Lock);
    if (!held || pItem == nullptr || pItem == this) {
        return -1;
    }
    if (pItem->m_pHolder == this) {
        return 0; // it is here already
    }
    // A full list drops its oldest item, whatever the can-delete bit, and takes the new one: a ring
    // of the last entries. Held by AList.DropsItsOldestItemWhenItIsFull.
    if (!m_Record.empty() && m_Record.size() >= m_SizeMax) {
        CObjectData* const pOldest = m_Record.front();
        if (pOldest != nullptr) {
            Drop(pOldest);
        } else {
            m_Record.pop_front();
        }
    }
    if (m_Record.size() >= m_SizeMax) { // the limit was lowered; one goes with each that comes
        CountItems();
        return -1;
    }
    CRecord::iAdd(pItem, bTake);
    pItem->m_bOwned = bTake;
    SetNull(false);
    CountItems();
    // Only records have children: asking a leaf would leave a line in the log for each. Without a
    // label, for one called "name" would answer with itself.
    pItem->SetLabel("");
    CRecord* const pRecord = pItem->pRecordOrNull();
    auto* const pName = pRecord != nullptr
                            ? dynamic_cast<CString*>(pRecord->pFindChildByName(kNameChild))
                            : nullptr;
    pItem->SetLabel(pName != nullptr ? pName->szGetVal().c_str()
                                     : std::to_string(m_Record.size()).c_str());
    return 0;
}

bool CListBase::bAppend(std::unique_ptr<CObjectData> pItem)
{
    if (iAdd(pItem.get(), true) != 0) {
        return false;
    }
    pItem.release(); // the list's from now on
    return true;
}

long CListBase::iRemove(CObjectData* pItem)
{
    const Held held(m_Lock);
    if (!held || pFind(pItem) == nullptr) {
        return -1;
    }
    Drop(pItem);
    CountItems();
    return 0;
}

void CListBase::SetSizeMax(uint16_t sizeMax)
{
    const Held held(m_Lock);
    if (held) {
        m_SizeMax = sizeMax;
    }
}

void CListBase::Insert(CObjectData* pItem, int iPos)
{
    const Held held(m_Lock);
    if (held && m_Record.size() < m_SizeMax) {
        CRecord::Insert(pItem, iPos);
        CountItems();
    }
}

long CListBase::iPermute(int iFirst, int iSecond)
{
    const Held held(m_Lock);
    if (!held || pGetAt(iFirst) == nullptr || pGetAt(iSecond) == nullptr) {
        return -1;
    }
    std::swap(m_Record[static_cast<size_t>(iFirst)], m_Record[static_cast<size_t>(iSecond)]);
    return 0;
}

void CListBase::Copy(CListBase& other, int iCount)
{
    if (&other == this) {
        return;
    }
    // Each list under its own lock alone: two that copy each other must not wait for each other.
    std::vector<itemImage_t> images;
    {
        const Held held(other.m_Lock);
        const auto size = static_cast<int>(other.m_Record.size());
        for (int i = 0; held && i < std::min(iCount, size); ++i) {
            CObjectData* const pItem = other.m_Record[static_cast<size_t>(i)];
            if (pItem != nullptr) {
                images.push_back(ImageOf(*pItem));
            }
        }
    }
    const Held held(m_Lock);
    if (!held) {
        return;
    }
    Forget(true);
    for (itemImage_t& image : images) {
        auto pItem = pNewItem();
        const long iRet = iReadImage(*pItem, image);
        if (iRet == 0) {
            bAppend(std::move(pItem));
        } else {
            QUORCORE_LOG(LOG_ERR, "%s; iRet = %ld", m_szLabel.c_str(), iRet);
        }
    }
    CountItems();
}

CListBase::itemImage_t CListBase::ImageOf(CObjectData& item)
{
    itemImage_t image;
    CSerialize writer(&image.bytes, true, false, false);
    item.iSerialize(writer);
    image.iAttribut = item.m_iAttribut;
    if (const auto* const pText = dynamic_cast<CString*>(&item)) {
        image.szText = pText->szGetVal();
    }
    return image;
}

long CListBase::iReadImage(CObjectData& item, itemImage_t& image)
{
    item.m_iAttribut = image.iAttribut; // first: it tells which bytes there are
    CSerialize reader(&image.bytes, false, false, false);
    const long iRet = item.iSerialize(reader);
    if (auto* const pText = dynamic_cast<CString*>(&item)) {
        pText->SetVal(std::move(image.szText)); // mostly the one that it has by now
    }
    return iRet;
}

bool CListBase::bIsIndex(const char* szName)
{
    const Held held(m_Lock);
    const std::string szText = szName != nullptr ? szName : "";
    if (!held || !bIsDigits(szText) || szText.size() > kIndexDigits) {
        return false;
    }
    const auto index = static_cast<size_t>(std::stoi(szText));
    return index >= 1 && index <= m_Record.size();
}

int CListBase::iGetNbr()
{
    const Held held(m_Lock);
    return static_cast<int>(m_Record.size());
}
} // namespace QuorCore
