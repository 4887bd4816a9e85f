#include "libQuorCore/CDMObject.h"

#include <utility>

namespace QuorCore
{
CDMObject::CDMObject(CObject* pParent, const char* pszLabel)
    : CRecord(pParent, pszLabel), m_Modified(this, "modified")
{
}

void CDMObject::SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth)
{
    const bool bRoot = std::exchange(context.m_bRoot, false);
    if (iDepth < -1 || !bMayPublish(context)) {
        return;
    }
    if (bIsNull()) {
        if (context.m_bPubAll) {
            StoreJson(context, value, false, Json::Value());
        }
    } else if (iDepth >= 0) {
        // An element's members are as deep as the list that it is in.
        PublishMembers(context, value, bRoot || bArray, bArray ? iDepth : iDepth - 1);
    }
    context.m_bRoot = false;
}

void CDMObject::NoteWrite(const CContextJson& context)
{
    if (context.m_Cmd == CContextJson::ePut) {
        m_Modified.GetCurrentDateTime();
    }
}

long CDMObject::iDeserializeJson(CContextJson& context, Json::Value& value)
{
    const long iRet = CRecord::iDeserializeJson(context, value);
    NoteWrite(context);
    return iRet;
}

void CDMObject::DeserializeArrayJson(CContextJson& context, Json::Value& value)
{
    CRecord::DeserializeArrayJson(context, value);
    NoteWrite(context);
}
} // namespace QuorCore
