#include "libQuorCore/CTime.h"

#include "internal/DateTime.h"

namespace QuorCore
{
namespace
{
/// Reads either form: that of UTC ends in "Z". @return Whether it could be read.
bool bReadEitherForm(const std::string& szText, time_t& time)
{
    const bool bUtc = !szText.empty() && szText.back() == 'Z';
    return bReadDateTime(szText.c_str(), !bUtc, time);
}
} // namespace

CTime::CTime(CObject* pParent, const char* szLabel) : CDateTime(pParent, szLabel) {}

CTime::CTime(CObject* pParent, const char* szLabel, const char* szText)
    : CDateTime(pParent, szLabel)
{
    CObject::SetNull(szText == nullptr || !bReadEitherForm(szText, m_Val));
}

void CTime::SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int /*iDepth*/)
{
    if (bIsAttributeDynamic() && bMayPublish(context)) {
        GetCurrentDateTime();
    }
    PublishLeaf(context, value, bArray, [this] { return Json::Value(szGetTimeString(false)); });
}

long CTime::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    return CDateTime::iDeserializeJson(context, value); // by way of the function below
}

void CTime::DeserializeArrayJson(CContextJson& /*context*/, Json::Value& value)
{
    SetNull(value.isNull());
    if (value.isString()) {
        bReadEitherForm(value.asString(), m_Val);
    }
}

long CTime::iCheckJson(CContextJson& context, Json::Value& /*value*/, std::string* pszError,
                       bool /*bReset*/)
{
    return iCheckAccess(context, pszError);
}

long CTime::iCheckArrayJson(CContextJson& context, Json::Value& /*value*/, std::string* pszError,
                            bool /*bReset*/)
{
    return iCheckAccess(context, pszError);
}

std::string CTime::szGetTimeString(time_t time, bool bLocal)
{
    return GetDateTimeString(time, bLocal);
}

std::string CTime::szGetTimeString(bool bLocal) const
{
    return GetDateTimeString(m_Val, bLocal);
}
} // namespace QuorCore
