#include "CHelloTree.h"

#include <algorithm>
#include <iterator>
#include <mutex>

using namespace QuorCore;

namespace
{
constexpr int kWholeDepth = 1; // the record has no records below

/// @return What is wrong with a record that was read; null: nothing.
const char* pszFault(CDMStatCellServing& cell)
{
    if (cell.bIsNull() || cell.bIsAttributeNone()) {
        return "it holds no cell";
    }
    // The values that were read, not the bytes: over these the check pass goes twice as far for
    // each time, and would end in the middle of the record.
    CSerialize values(nullptr, false, false, false);
    if (cell.iCheckStatus(values, false) != 0) {
        return "a value is out of its range";
    }
    const auto bSame = [&cell](const char* pszTechno) { return cell.m_Techno == pszTechno; };
    const bool bKnown = std::any_of(std::begin(_apszTechnoType), std::end(_apszTechnoType), bSame);
    return bKnown ? nullptr : "there is no such technology";
}
} // namespace

CHelloTree::CHelloTree()
{
    m_Callback.m_WhiteList.SetAttributeCanDelete(true); // a request may bring another list
    m_Cell.SetReadOnly(true);
}

std::string CHelloTree::szGreet(const std::string& szName)
{
    const std::lock_guard<std::mutex> held(Lock());
    if (szName.empty() || szName.size() > m_Greeting.m_NameBytesMax.iGetVal()) {
        return {};
    }
    m_Greeting.m_Answered.iInc();
    return m_Greeting.m_Word.szGetVal() + ", " + szName;
}

bool CHelloTree::bTakeCell(socketFrame_t& frame)
{
    CDMStatCellServing cell(nullptr, "cell");
    CSerializeBuffer bytes(frame.pGetData(), frame.GetDataSize(), false, false, 1);
    const bool bRead = cell.iSerialize(bytes) == 0 && bytes.iGetPos() == frame.GetDataSize();
    const char* const pszWrong = bRead ? pszFault(cell) : "its bytes are no such record";
    if (pszWrong != nullptr) {
        QUORCORE_LOG(LOG_WARNING, "a cell of the peer was refused: %s", pszWrong);
        return false;
    }
    // By way of JSON: values and what is null, and no access bits. A put stamps "modified".
    Json::Value members;
    CContextJson all(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, true, false);
    CContextJson put(CContextJson::ePut, "", SERIALIZE_JSON_STREAM, true, false);
    const std::lock_guard<std::mutex> held(Lock());
    if (!cell.bSerializeValueJson(all, members, kWholeDepth) ||
        !m_Cell.bDeserializeValueJson(put, members)) {
        QUORCORE_LOG(LOG_ERR, "a cell of the peer could not be taken over: %s",
                     put.m_szCause.c_str());
        return false;
    }
    QUORCORE_LOG(LOG_NOTICE, "the peer is served by a cell: %s, %d dBm",
                 m_Cell.m_Techno.szGetVal().c_str(), m_Cell.m_RxLevel.iGetVal());
    return true;
}
