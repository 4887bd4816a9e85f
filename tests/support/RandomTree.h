/// @file
/// @brief Data trees and documents of any shape and values, the same ones for the same seeds.
#pragma once

#include "libQuorCore/CDMType.h"
#include "libQuorCore/CTime.h"

#include <deque>
#include <json/json.h>
#include <memory>
#include <random>
#include <string>

namespace TestSupport
{
using Random = std::mt19937;

inline int iBelow(Random& random, int iEnd)
{
    return static_cast<int>(random() % static_cast<unsigned>(iEnd));
}

inline std::string szAnyText(Random& random)
{
    const char* const aPieces[] = {"a", "Z", "é", "漢", "\"", "\\", "\n", "/", " ", "0", "\x7f"};
    std::string szText;
    for (int i = iBelow(random, 12); i > 0; --i) {
        szText += aPieces[iBelow(random, 11)];
    }
    return szText;
}

/// @brief A tree of random shape and values; the same seed gives the same shape.
class CRandomTree
{
public:
    CRandomTree(unsigned iShape, unsigned iValues) : m_Shape(iShape), m_Values(iValues)
    {
        Grow(m_Root, 3);
    }

    QuorCore::CRecord m_Root{nullptr, "root"};

private:
    void Grow(QuorCore::CRecord& record, int iDepth)
    {
        const int iChildren = 1 + iBelow(m_Shape, 6);
        for (int i = 0; i < iChildren; ++i) {
            const std::string szLabel = "c" + std::to_string(i);
            const int iKind = iBelow(m_Shape, iDepth > 0 ? 11 : 8);
            Make(record, szLabel.c_str(), iKind, iDepth);
        }
    }

    void Make(QuorCore::CRecord& parent, const char* szLabel, int iKind, int iDepth)
    {
        const auto iBits = static_cast<unsigned>(m_Values());
        switch (iKind) {
        case 0:
            Keep<QuorCore::CNumber<bool>>(parent, szLabel)->SetVal((iBits & 1U) != 0);
            break;
        case 1:
            Keep<QuorCore::CNumber<short>>(parent, szLabel)->SetVal(static_cast<short>(iBits));
            break;
        case 2:
            Keep<QuorCore::CNumber<unsigned short>>(parent, szLabel)
                ->SetVal(static_cast<unsigned short>(iBits));
            break;
        case 3:
            Keep<QuorCore::CNumber<int>>(parent, szLabel)->SetVal(static_cast<int>(iBits));
            break;
        case 4:
            Keep<QuorCore::CNumber<unsigned int>>(parent, szLabel)->SetVal(iBits);
            break;
        case 5:
            Text(parent, szLabel);
            break;
        case 6:
            Keep<QuorCore::CDMDateTime>(parent, szLabel)->SetVal(1 + iBelow(m_Values, 2000000000));
            break;
        case 7:
            Keep<QuorCore::CTime>(parent, szLabel)->SetVal(1 + iBelow(m_Values, 2000000000));
            break;
        case 8:
            Texts(parent, szLabel);
            break;
        default:
            Grow(*Keep<QuorCore::CRecord>(parent, szLabel), iDepth - 1);
            break;
        }
    }

    template <class T>
    T* Keep(QuorCore::CRecord& parent, const char* szLabel)
    {
        auto pNode = std::make_unique<T>(&parent, szLabel);
        pNode->SetNull(false); // a null one is refused in a request unless it is optional
        T* const pKept = pNode.get();
        m_nodes.push_back(std::move(pNode));
        return pKept;
    }

    void Text(QuorCore::CRecord& parent, const char* szLabel)
    {
        auto pNode = std::make_unique<QuorCore::CString>(&parent, szLabel, "");
        pNode->SetVal(szAnyText(m_Values));
        m_nodes.push_back(std::move(pNode));
    }

    void Texts(QuorCore::CRecord& parent, const char* szLabel)
    {
        auto pList = std::make_unique<QuorCore::CDMList<QuorCore::CDMString>>(&parent, szLabel, 50);
        pList->SetAttributeCanDelete(true);
        for (int i = iBelow(m_Values, 6); i > 0; --i) {
            QuorCore::CDMString* const pItem = pList->pNewObject();
            pItem->SetVal(szAnyText(m_Values));
            pList->iAdd(pItem, true);
        }
        m_nodes.push_back(std::move(pList));
    }

    Random m_Shape;
    Random m_Values;
    std::deque<std::unique_ptr<QuorCore::CObjectData>> m_nodes; // goes before the root
};

/// @brief A random document: some of it fits a tree of the above, some does not.
inline Json::Value AnyJson(Random& random, int iDepth)
{
    Json::Value value;
    switch (iBelow(random, iDepth > 0 ? 9 : 7)) {
    case 0:
        return Json::Value(static_cast<Json::Int>(random()));
    case 1:
        return Json::Value(static_cast<Json::UInt64>(random()) << iBelow(random, 33));
    case 2:
        return Json::Value(1e300 * iBelow(random, 3) - 0.5);
    case 3:
        return Json::Value(szAnyText(random));
    case 4:
        return Json::Value(iBelow(random, 2) == 0);
    case 5:
        return Json::Value();
    case 6:
        return Json::Value(iBelow(random, 100));
    case 7:
        value = Json::Value(Json::arrayValue);
        for (int i = iBelow(random, 5); i > 0; --i) {
            value.append(AnyJson(random, iDepth - 1));
        }
        return value;
    default:
        value = Json::Value(Json::objectValue);
        for (int i = iBelow(random, 6); i > 0; --i) {
            value["c" + std::to_string(iBelow(random, 6))] = AnyJson(random, iDepth - 1);
        }
        return value;
    }
}
} // namespace TestSupport
