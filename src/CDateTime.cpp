#include "libQuorCore/CDateTime.h"

#include "internal/CPlainStream.h"
#include "internal/DateTime.h"

#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace QuorCore
{
namespace
{
constexpr int kTimeBytes = 8;

/// Logs one of the texts of a time; the raw fields of struct tm: years since 1900, months from 0.
void LogTime(int iLevel, const char* szLabel, time_t time, const char* szEnd)
{
    const tm fields = LocalFields(time);
    QUORCORE_LOG(iLevel, "%s = %02d%02d%02d%02d%02d%02d%s", szLabel, fields.tm_year, fields.tm_mon,
                 fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec, szEnd);
}

std::string szResult(long lRet)
{
    return " ; iRet = " + std::to_string(lRet);
}
} // namespace

CDateTime::CDateTime(CObject* pParent, const char* szLabel)
    : CObjectData(pParent, szLabel), m_Val(0)
{
}

CDateTime::CDateTime(CObject* pParent, const char* szLabel, time_t val)
    : CObjectData(pParent, szLabel), m_Val(val)
{
    CObject::SetNull(false);
}

long CDateTime::iPushTime(CSerialize& stream)
{
    const int64_t iSeconds = bIsNull() ? 0 : int64_t{m_Val};
    if (!bIsAttributeNone()) {
        uint8_t aBytes[1 + kTimeBytes] = {m_iAttribut};
        std::memcpy(aBytes + 1, &iSeconds, kTimeBytes);
        if (CPlainStream::bPush(stream, aBytes, sizeof(aBytes))) {
            return 0;
        }
    }
    int64_t iPushed = iSeconds;
    const long iRet = CObjectData::iSerialize(stream);
    return iRet == 0 ? stream.iPushBuffer(&iPushed, kTimeBytes, "") : iRet;
}

long CDateTime::iPopTime(CSerialize& stream)
{
    int64_t iSeconds = 0;
    long iRet = 0;
    const uint8_t* const pBytes =
        bIsAttributeNone() ? nullptr : CPlainStream::pPop(stream, 1 + kTimeBytes);
    if (pBytes != nullptr) {
        m_iAttribut = *pBytes;
        std::memcpy(&iSeconds, pBytes + 1, kTimeBytes);
    } else {
        iRet = CObjectData::iSerialize(stream);
        iRet = iRet == 0 ? stream.iPopBuffer(&iSeconds, kTimeBytes, "") : iRet;
    }
    // An absent time never wipes one that is held. Meant; held by
    // ADateTime.KeepsItsTimeWhenItReadsZero.
    if (iRet == 0 && iSeconds != 0) {
        m_Val = static_cast<int32_t>(iSeconds & 0xFFFFFFFF);
    }
    return iRet;
}

long CDateTime::iSerialize(CSerialize& stream)
{
    if (stream.m_bSave && bIsAttributeDynamic()) {
        GetCurrentDateTime();
    }
    const long iRet = stream.m_bSave ? iPushTime(stream) : iPopTime(stream);
    for (const int iLevel : {LOG_ERR, LOG_DEBUG}) {
        const bool bWanted = iLevel == LOG_ERR ? iRet != 0 : stream.m_bLog;
        if (bWanted && CLogger::bIsEnabled(iLevel)) {
            LogTime(iLevel, m_szLabel.c_str(), m_Val,
                    (szResult(iRet) + "; size = " + std::to_string(kTimeBytes)).c_str());
        }
    }
    return iRet;
}

long CDateTime::iCheckStatus(CSerialize& stream, bool bReset)
{
    const long iRet = CObjectData::iCheckStatus(stream, bReset);
    auto candidate = static_cast<int64_t>(m_Val);
    if (iRet == 0 && stream.bIsReady()) {
        // The result is not looked at, and the position moves twice over the time. Meant, see the
        // header; held by ADateTime.SkipsItsTimeTwiceInTheCheckPass.
        stream.iPopBuffer(&candidate, kTimeBytes, "");
        // Without an overflow where long has 32 bits.
        stream.iSetPos(std::min(stream.iGetPos(), std::numeric_limits<int>::max() - kTimeBytes) +
                       kTimeBytes);
    }
    const auto time = static_cast<time_t>(candidate);
    if (stream.m_bLog && CLogger::bIsEnabled(LOG_DEBUG)) {
        LogTime(LOG_DEBUG, m_szLabel.c_str(), time, "\r\n");
    }
    if (iRet != 0 && CLogger::bIsEnabled(LOG_ERR)) {
        LogTime(LOG_ERR, m_szLabel.c_str(), time, szResult(iRet).c_str());
    }
    return iRet;
}

void CDateTime::SerializeJson(CContextJson& context, Json::Value& value, bool bArray,
                              int /*iDepth*/)
{
    // The clock first: with it the time is there, null or not.
    if (bIsAttributeDynamic() && bMayPublish(context)) {
        GetCurrentDateTime();
    }
    PublishLeaf(context, value, bArray,
                [this] { return Json::Value(GetDateTimeString(m_Val, false)); });
}

long CDateTime::iDeserializeJson(CContextJson& context, Json::Value& value)
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

void CDateTime::DeserializeArrayJson(CContextJson& /*context*/, Json::Value& value)
{
    SetNull(value.isNull());
    if (value.isString()) {
        bReadDateTime(value.asCString(), false, m_Val);
    }
}

long CDateTime::iCheckAccess(CContextJson& context, std::string* pszError)
{
    constexpr long kRefused = -1;
    if (bCheckRestriction(context, false)) {
        return 0;
    }
    BuildJsonError(context, pszError);
    QUORCORE_LOG(LOG_ERR, "%s : iRet = %ld", m_szLabel.c_str(), kRefused);
    return kRefused;
}

long CDateTime::iCheckJson(CContextJson& context, Json::Value& /*value*/, std::string* pszError,
                           bool /*bReset*/)
{
    return iCheckAccess(context, pszError);
}

long CDateTime::iCheckArrayJson(CContextJson& context, Json::Value& /*value*/,
                                std::string* pszError, bool /*bReset*/)
{
    return iCheckAccess(context, pszError);
}

void CDateTime::SetVal(time_t val)
{
    SetNull(false);
    m_bIsModified = m_bIsModified || val != m_Val;
    m_Val = val;
}

void CDateTime::GetCurrentDateTime()
{
    SetVal(std::time(nullptr));
}

double CDateTime::dGetDiffTimeS() const
{
    return std::difftime(std::time(nullptr), m_Val);
}
} // namespace QuorCore
