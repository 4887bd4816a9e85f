#include "libQuorCore/CString.h"

#include "internal/CPlainStream.h"

#include "libQuorCore/CNumber.h"
#include "libQuorCore/CThread.h"

#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr const char* kWrongType =
    "La valeur d’un attribut fourni dans la méthode ne correspond pas au type attendu";

constexpr int kHeadBytes = 3; // attribute byte and length

const char* szOrEmpty(const char* szText)
{
    return szText != nullptr ? szText : "";
}

/// Looks at a JSON string where it is, NULs included. @return Whether it is one.
bool bLookAt(const Json::Value& value, std::string_view& szText)
{
    const char* pBegin = nullptr;
    const char* pEnd = nullptr;
    if (!value.isString() || !value.getString(&pBegin, &pEnd)) {
        return false;
    }
    szText = std::string_view(pBegin, static_cast<size_t>(pEnd - pBegin));
    return true;
}

/// Takes over a JSON string. @return Whether it is one.
bool bTakeText(const Json::Value& value, std::string& szText)
{
    std::string_view szFound;
    if (!bLookAt(value, szFound)) {
        return false;
    }
    szText.assign(szFound);
    return true;
}

/// Pops the bytes one by one, as derived streams are used to, up to the first that is not there.
long iPopBytes(CSerialize& stream, uint16_t iLength, std::string& szText)
{
    long iRet = 0;
    for (uint16_t iDone = 0; iRet == 0 && iDone < iLength; ++iDone) {
        uint8_t iByte = 0;
        iRet = stream.iPopU8(iByte, "");
        if (iRet == 0) {
            szText += static_cast<char>(iByte);
        }
    }
    return iRet;
}
} // namespace

CString::CString(CObject* pParent, const char* szLabel, const char* szInit)
    : CString(pParent, szLabel, szInit, 0, kNoLimit, szInit)
{
}

CString::CString(CObject* pParent, const char* szLabel, const char* szInit, int iSizeMin,
                 int iSizeMax, const char* szVal)
    : CObjectData(pParent, szLabel), m_Val(szOrEmpty(szVal)), m_ValInit(szOrEmpty(szInit)),
      m_SizeMin(iSizeMin), m_SizeMax(iSizeMax)
{
    CObject::SetNull(szVal == nullptr);
}

void CString::Reset()
{
    m_Val = m_ValInit;
    m_bIsModified = true;
}

bool CString::bIsHidden(const CSerialize& stream) const
{
    return stream.m_bOnlyPublic != 0 && bIsAttributeMasked();
}

bool CString::bIsHidden(const CContextJson& context) const
{
    return context.m_bOnlyPublic && bIsAttributeMasked();
}

long CString::iPushText(CSerialize& stream)
{
    // The length field is cut to 16 bits, the text is not. Meant, see the header; held by
    // AString.WritesMoreThanItsLengthFieldCanTell.
    const auto iLength = static_cast<uint16_t>(m_Val.size());
    const auto iSize = static_cast<int>(m_Val.size());
    long iRet = 0;
    const uint8_t aHead[kHeadBytes] = {m_iAttribut, static_cast<uint8_t>(iLength & 0xFFU),
                                       static_cast<uint8_t>(iLength >> 8U)};
    if (bIsAttributeNone() || !CPlainStream::bPush(stream, aHead, sizeof(aHead))) {
        iRet = CObjectData::iSerialize(stream);
        iRet = iRet == 0 ? stream.iPushU16(iLength, "") : iRet;
    }
    if (iRet == 0 && iLength != 0 && !CPlainStream::bPush(stream, m_Val.data(), iSize)) {
        iRet = stream.iPushBuffer(m_Val.data(), iSize, "");
    }
    return iRet;
}

long CString::iPopValue(CSerialize& stream)
{
    const uint8_t* const pHead =
        bIsAttributeNone() ? nullptr : CPlainStream::pPop(stream, kHeadBytes);
    if (pHead != nullptr) {
        m_iAttribut = pHead[0];
        return iPopCharacters(stream, static_cast<uint16_t>(pHead[1] | pHead[2] << 8U), m_Val);
    }
    const long iRet = CObjectData::iSerialize(stream);
    return iRet == 0 ? iPopText(stream, m_Val) : iRet;
}

long CString::iPopText(CSerialize& stream, std::string& szText)
{
    uint16_t iLength = 0;
    const long iRet = stream.iPopU16(iLength, "");
    return iRet == 0 ? iPopCharacters(stream, iLength, szText) : iRet;
}

long CString::iPopCharacters(CSerialize& stream, uint16_t iLength, std::string& szText)
{
    if (iLength == 0) {
        szText.clear();
        return 0;
    }
    try {
        const uint8_t* const pBytes = CPlainStream::pPop(stream, iLength);
        if (pBytes == nullptr) {
            szText.clear();
            return iPopBytes(stream, iLength, szText);
        }
        if (szText.size() == iLength) {
            std::memcpy(szText.data(), pBytes, iLength);
        } else {
            szText.clear(); // without memory for the next text nothing is left of the former one
            szText.assign(reinterpret_cast<const char*>(pBytes), iLength);
        }
        return 0;
    } catch (const std::exception&) { // no memory
        return -1;
    }
}

long CString::iSerialize(CSerialize& stream)
{
    if (bIsHidden(stream)) {
        return 0;
    }
    const long iRet = stream.m_bSave ? iPushText(stream) : iPopValue(stream);
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s = %s\r\n", m_szLabel.c_str(), m_Val.c_str());
    }
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s = %s ; iRet = %ld", m_szLabel.c_str(), m_Val.c_str(), iRet);
    }
    return iRet;
}

long CString::iCheckStatus(CSerialize& stream, bool bReset)
{
    if (bIsHidden(stream)) {
        return 0;
    }
    std::string szPopped;
    const std::string& szCandidate = stream.bIsReady() ? szPopped : m_Val;
    long iRet = CObjectData::iCheckStatus(stream, bReset);
    if (iRet == 0 && stream.bIsReady()) {
        iRet = iPopText(stream, szPopped);
    }
    const auto iSize = static_cast<int64_t>(szCandidate.size());
    // "At least" for both bounds, see the header; held by AString.PassesOnlyWhenItReachesBothBounds
    if (iRet == 0 && (iSize < m_SizeMin || iSize < m_SizeMax)) {
        iRet = kOutOfBounds;
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, "%s = %s | size min = %d | size max = %d\r\n", m_szLabel.c_str(),
                     szCandidate.c_str(), m_SizeMin, m_SizeMax);
    }
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, "%s = %s | size min = %d | size max = %d ; iRet = %ld",
                     m_szLabel.c_str(), szCandidate.c_str(), m_SizeMin, m_SizeMax, iRet);
    }
    if (iRet != 0 && bReset) {
        SetVal(m_ValInit);
        iRet = 0;
    }
    return iRet;
}

void CString::SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int /*iDepth*/)
{
    PublishLeaf(context, value, bArray,
                [this] { return Json::Value(m_Val.data(), m_Val.data() + m_Val.size()); });
}

long CString::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    Json::Value* const pMember = bIsHidden(context) ? nullptr : pFindOwnMember(value);
    if (pMember == nullptr) {
        return 0;
    }
    if (context.m_Cmd == CContextJson::eNotify) {
        m_bIsModified = false;
        return 0;
    }
    SetNull(pMember->isNull());
    // Stored directly: what comes from a client is no change that the client is to be told of.
    // Held by AString.IsNotModifiedByReadingJson.
    bTakeText(*pMember, m_Val);
    return 0;
}

void CString::DeserializeArrayJson(CContextJson& context, Json::Value& value)
{
    if (!bIsHidden(context) && bTakeText(value, m_Val)) {
        SetNull(false);
    }
}

long CString::iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset)
{
    const Json::Value* const pMember = pFindOwnMember(value);
    return pMember != nullptr ? iCheckMember(context, *pMember, pszError, bReset, false) : 0;
}

long CString::iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                              bool bReset)
{
    return iCheckMember(context, value, pszError, bReset, true);
}

long CString::iCheckMember(CContextJson& context, const Json::Value& member, std::string* pszError,
                           bool bReset, bool bElement)
{
    if (bIsHidden(context)) {
        return 0; // reading takes no notice of it
    }
    std::string_view szCandidate;
    long iRet = 0;
    if (member.isNull()) {
        iRet = bElement || iCheckNull(context) == 0 ? 0 : -1;
    } else if (!bLookAt(member, szCandidate) || !bCheckRestriction(context, false)) {
        iRet = -1;
    } else {
        const auto iSize = static_cast<int64_t>(szCandidate.size());
        iRet = iSize < m_SizeMin || (m_SizeMax >= 0 && iSize > m_SizeMax) ? -1 : 0;
    }
    if (iRet == 0) {
        return 0;
    }
    context.Refuse(kWrongType);
    BuildJsonError(context, pszError);
    if (context.m_bLog) {
        QUORCORE_LOG(LOG_ERR, "%s = %s | size min = %d | size max = %d\r\n", m_szLabel.c_str(),
                     std::string(szCandidate).c_str(), m_SizeMin, m_SizeMax);
    }
    if (bReset) {
        SetVal(m_ValInit);
        iRet = 0;
    }
    return iRet;
}

void CString::SetVal(std::string szVal)
{
    if (szVal != m_Val) {
        SetNull(false);
        m_bIsModified = true;
        m_Val = std::move(szVal);
    }
}

void CString::SetVal(const char* szVal)
{
    SetVal(std::string(szOrEmpty(szVal)));
}

void CString::Resize(int iSize)
{
    if (iSize >= 0) {
        std::string szVal = m_Val;
        szVal.resize(static_cast<size_t>(iSize));
        SetVal(std::move(szVal));
    }
}

std::vector<std::string> CString::vSplitString(char cSeparator) const
{
    std::vector<std::string> pieces;
    size_t begin = 0;
    for (size_t end = m_Val.find(cSeparator); end != std::string::npos;
         end = m_Val.find(cSeparator, begin)) {
        pieces.push_back(m_Val.substr(begin, end - begin));
        begin = end + 1;
    }
    pieces.push_back(m_Val.substr(begin));
    return pieces;
}
} // namespace QuorCore
