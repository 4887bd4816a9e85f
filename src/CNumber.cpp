#include "libQuorCore/CNumber.h"

#include "internal/CPlainStream.h"

#include "libQuorCore/CThread.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace QuorCore
{
namespace
{
constexpr const char* kUnexpected = " : Valeur d’attribut non prévue ou incohérente";

/// What a number travels as: a boolean is one byte, 0 or 1.
template <class T>
using Wire = std::conditional_t<std::is_same_v<T, bool>, uint8_t, T>;

int iPush(CSerialize& stream, uint8_t iValue)
{
    return stream.iPushU8(iValue, "");
}
int iPush(CSerialize& stream, int16_t iValue)
{
    return stream.iPushI16(iValue, "");
}
int iPush(CSerialize& stream, uint16_t iValue)
{
    return stream.iPushU16(iValue, "");
}
int iPush(CSerialize& stream, int32_t iValue)
{
    return stream.iPushI32(iValue, "");
}
int iPush(CSerialize& stream, uint32_t iValue)
{
    return stream.iPushU32(iValue, "");
}
int iPop(CSerialize& stream, uint8_t& iValue)
{
    return stream.iPopU8(iValue, "");
}
int iPop(CSerialize& stream, int16_t& iValue)
{
    return stream.iPopI16(iValue, "");
}
int iPop(CSerialize& stream, uint16_t& iValue)
{
    return stream.iPopU16(iValue, "");
}
int iPop(CSerialize& stream, int32_t& iValue)
{
    return stream.iPopI32(iValue, "");
}
int iPop(CSerialize& stream, uint32_t& iValue)
{
    return stream.iPopU32(iValue, "");
}

/// Cuts to T; for bool whatever is not 0 is true: 256 is.
template <class T>
T Cut(int64_t iValue)
{
    if constexpr (std::is_same_v<T, bool>) {
        return iValue != 0;
    } else {
        return static_cast<T>(iValue);
    }
}

/// As the log shows it.
template <class T>
unsigned int iHex(T value)
{
    return static_cast<unsigned int>(value);
}

/// The whole part of a JSON number; beyond 64 bits the nearest end, which is in no T's range.
int64_t iWhole(double dValue)
{
    constexpr double kEnd = 9223372036854775808.0; // 2 to the 63
    if (dValue >= kEnd) {
        return std::numeric_limits<int64_t>::max();
    }
    return dValue >= -kEnd ? static_cast<int64_t>(dValue) : std::numeric_limits<int64_t>::min();
}

/// @param iValue  Receives the candidate that a request names. @return Whether it names a number.
bool bTakeCandidate(const Json::Value& member, int64_t& iValue)
{
    switch (member.type()) {
    case Json::booleanValue:
        iValue = member.asBool() ? 1 : 0;
        return true;
    case Json::intValue:
        iValue = member.asInt64();
        return true;
    case Json::uintValue:
        iValue = member.isInt64() ? member.asInt64() : std::numeric_limits<int64_t>::max();
        return true;
    case Json::realValue:
        iValue = iWhole(member.asDouble());
        return true;
    case Json::nullValue:
    case Json::stringValue:
    case Json::arrayValue:
    case Json::objectValue:
        break;
    }
    return false;
}
} // namespace

template <class T>
CNumber<T>::CNumber(CObject* pParent, const char* szLabel)
    : CObjectData(pParent, szLabel), m_ValInit(0), m_Val(0), m_Min(std::numeric_limits<T>::min()),
      m_Max(std::numeric_limits<T>::max())
{
}

template <class T>
CNumber<T>::CNumber(CObject* pParent, const char* szLabel, T init, T min, T max, T val)
    : CObjectData(pParent, szLabel), m_ValInit(init), m_Val(val), m_Min(min), m_Max(max)
{
    CObject::SetNull(false);
}

template <class T>
void CNumber<T>::Reset()
{
    m_Val = m_ValInit;
    m_bIsModified = true;
}

template <class T>
long CNumber<T>::iPushBytes(CSerialize& stream)
{
    const auto wire = static_cast<Wire<T>>(m_Val);
    if (!bIsAttributeNone()) {
        uint8_t aBytes[1 + sizeof(wire)] = {m_iAttribut};
        std::memcpy(aBytes + 1, &wire, sizeof(wire));
        if (CPlainStream::bPush(stream, aBytes, sizeof(aBytes))) {
            return 0;
        }
    }
    const long iRet = CObjectData::iSerialize(stream);
    return iRet == 0 ? iPush(stream, wire) : iRet;
}

template <class T>
long CNumber<T>::iPopBytes(CSerialize& stream)
{
    Wire<T> wire = 0; // never a bool: a byte other than 0 and 1 is none
    long iRet = 0;
    const uint8_t* const pBytes =
        bIsAttributeNone() ? nullptr : CPlainStream::pPop(stream, 1 + sizeof(wire));
    if (pBytes != nullptr) {
        m_iAttribut = *pBytes;
        std::memcpy(&wire, pBytes + 1, sizeof(wire));
    } else {
        iRet = CObjectData::iSerialize(stream);
        iRet = iRet == 0 ? iPop(stream, wire) : iRet;
    }
    if (iRet == 0) {
        m_Val = Cut<T>(wire);
    }
    return iRet;
}

template <class T>
long CNumber<T>::iSerialize(CSerialize& stream)
{
    const long iRet = stream.m_bSave ? iPushBytes(stream) : iPopBytes(stream);
    constexpr const char* kFormat = "%s = 0x%04x; iRet = %ld; size = %d";
    constexpr int kSize = sizeof(T);
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, kFormat, m_szLabel.c_str(), iHex(m_Val), iRet, kSize);
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, kFormat, m_szLabel.c_str(), iHex(m_Val), iRet, kSize);
    }
    return iRet;
}

template <class T>
long CNumber<T>::iCheckStatus(CSerialize& stream, bool bReset)
{
    Wire<T> candidate = static_cast<Wire<T>>(m_Val);
    long iRet = CObjectData::iCheckStatus(stream, bReset);
    if (iRet == 0 && stream.bIsReady()) {
        iRet = iPop(stream, candidate);
    }
    if (iRet == 0 && (Cut<T>(candidate) < m_Min || Cut<T>(candidate) > m_Max)) {
        iRet = kOutOfBounds;
    }
    if (iRet == 0 && bReset) {
        SetVal(m_ValInit);
    }
    constexpr const char* kFormat =
        "%s = 0x%08x | min = 0x%08x | max = 0x%08x | init = 0x%08x, iRet = %d";
    if (iRet != 0) {
        QUORCORE_LOG(LOG_ERR, kFormat, m_szLabel.c_str(), iHex(candidate), iHex(m_Min), iHex(m_Max),
                     iHex(m_ValInit), static_cast<int>(iRet));
    }
    if (stream.m_bLog) {
        QUORCORE_LOG(LOG_DEBUG, kFormat, m_szLabel.c_str(), iHex(candidate), iHex(m_Min),
                     iHex(m_Max), iHex(m_ValInit), static_cast<int>(iRet));
    }
    return iRet;
}

template <class T>
void CNumber<T>::SerializeJson(CContextJson& context, Json::Value& value, bool bArray,
                               int /*iDepth*/)
{
    PublishLeaf(context, value, bArray, [this] {
        // Json::Value knows no short.
        using Form =
            std::conditional_t<std::is_same_v<T, bool>, bool,
                               std::conditional_t<std::is_signed_v<T>, Json::Int, Json::UInt>>;
        return Json::Value(static_cast<Form>(m_Val));
    });
}

template <class T>
long CNumber<T>::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    Json::Value* const pMember = pFindOwnMember(value);
    if (pMember != nullptr) {
        DeserializeArrayJson(context, *pMember);
        if (context.m_Cmd == CContextJson::eNotify) {
            m_bIsModified = false;
        }
    }
    return 0;
}

template <class T>
void CNumber<T>::DeserializeArrayJson(CContextJson& /*context*/, Json::Value& value)
{
    SetNull(value.isNull());
    if (value.isBool()) {
        m_Val = static_cast<T>(value.asBool());
    } else if (value.isInt64()) { // whole numbers, also those written with a fraction of 0
        m_Val = Cut<T>(value.asInt64());
    } else if (value.isUInt64()) {
        m_Val = Cut<T>(static_cast<int64_t>(value.asUInt64()));
    }
    // Other numbers, as 5.9, pass the check and are not taken. Meant: what is stored is exactly
    // what the client wrote. Held by ANumber.LeavesItsValueForANumberThatIsNotWhole.
}

template <class T>
long CNumber<T>::iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                            bool bReset)
{
    return iCheckMember(context, pFindOwnMember(value), pszError, bReset);
}

template <class T>
long CNumber<T>::iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                                 bool bReset)
{
    // A list publishes an item that is null as JSON null: of it that is the current value.
    const bool bCurrent = value.isNull() && bIsNull();
    return iCheckMember(context, bCurrent ? nullptr : &value, pszError, bReset);
}

template <class T>
long CNumber<T>::iCheckMember(CContextJson& context, const Json::Value* pMember,
                              std::string* pszError, bool bReset)
{
    auto iCandidate = static_cast<int64_t>(m_Val);
    long iRet = 0;
    if (pMember != nullptr && pMember->isNull()) {
        iRet = iCheckNull(context);
    } else if (pMember != nullptr && !bTakeCandidate(*pMember, iCandidate)) {
        iRet = -1;
    }
    if constexpr (std::is_same_v<T, bool>) {
        iCandidate = iCandidate != 0 ? 1 : 0;
    }
    // In 64 bits: cut to T, 4294967301 would pass as a 5. The current value skips both tests, see
    // the header.
    if (iRet == 0 && iCandidate != static_cast<int64_t>(m_Val)) {
        const bool bInRange =
            std::is_same_v<T, bool> || (iCandidate >= static_cast<int64_t>(m_Min) &&
                                        iCandidate <= static_cast<int64_t>(m_Max));
        iRet = bCheckRestriction(context, false) && bInRange ? 0 : CContextJson::kRefused;
    }
    if (iRet == 0 && bReset) {
        SetVal(m_ValInit);
    }
    if (iRet != 0) {
        context.Refuse(m_szLabel + kUnexpected); // also in place of a refused access' own text
        BuildJsonError(context, pszError);
        QUORCORE_LOG(LOG_ERR,
                     "%s = 0x%08x | min = 0x%08x | max = 0x%08x | init = 0x%08x, iRet = %d",
                     m_szLabel.c_str(), static_cast<unsigned int>(iCandidate), iHex(m_Min),
                     iHex(m_Max), iHex(m_ValInit), static_cast<int>(iRet));
    }
    return iRet;
}

template <class T>
void CNumber<T>::SetVal(T val)
{
    if (val != m_Val) {
        SetNull(false);
        m_bIsModified = true;
        m_Val = val;
    }
}

template <class T>
T CNumber<T>::iInc()
{
    return iAdd(1);
}

template <class T>
T CNumber<T>::iDecr()
{
    return (*this -= 1).m_Val;
}

template <class T>
T CNumber<T>::iAdd(T val)
{
    return (*this += val).m_Val;
}

template <class T>
CNumber<T>& CNumber<T>::operator=(T val)
{
    SetVal(val);
    return *this;
}

template <class T>
CNumber<T>& CNumber<T>::operator=(const CNumber& other)
{
    SetVal(other.m_Val);
    return *this;
}

template <class T>
CNumber<T>& CNumber<T>::operator+=(T val)
{
    SetVal(Cut<T>(static_cast<int64_t>(m_Val) + static_cast<int64_t>(val)));
    return *this;
}

template <class T>
CNumber<T>& CNumber<T>::operator-=(T val)
{
    SetVal(Cut<T>(static_cast<int64_t>(m_Val) - static_cast<int64_t>(val)));
    return *this;
}

template <class T>
CNumber<T>& CNumber<T>::operator/=(T val)
{
    if (val == T{}) {
        QUORCORE_LOG(LOG_ERR, "%s: division by zero", m_szLabel.c_str());
    } else {
        SetVal(Cut<T>(static_cast<int64_t>(m_Val) / static_cast<int64_t>(val)));
    }
    return *this;
}

template class CNumber<bool>;
template class CNumber<short>;
template class CNumber<unsigned short>;
template class CNumber<int>;
template class CNumber<unsigned int>;
} // namespace QuorCore
