#include "libQuorCore/CDMSrvCallback.h"

#include "internal/CHeldLock.h"

#include <limits>
#include <memory>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr uint32_t kSettingMax = std::numeric_limits<int32_t>::max();
constexpr uint16_t kWhiteListMax = std::numeric_limits<uint16_t>::max();
} // namespace

CDMSrvCallback::CDMSrvCallback(CObject* pParent, const char* pszLabel)
    : CDMObject(pParent, pszLabel), m_WhiteList(this, "whiteList", kWhiteListMax),
      m_SmsCallback(this, "smsCallback", 1, 0, kSettingMax, 1),
      m_MtcCallback(this, "mtcCallback", 1, 0, kSettingMax, 1),
      m_AuthSms(this, "authSms", true, false, true, true),
      m_AuthMtc(this, "authMtc", true, false, true, true)
{
}

void CDMSrvCallback::AddPhoneNumberToWhitelist(std::string szPhone)
{
    const CDeferredCancel deferred;
    auto pEntry = std::make_unique<CDMString>(nullptr, "", nullptr);
    pEntry->SetVal(std::move(szPhone));
    if (m_WhiteList.iAdd(pEntry.get(), true) == 0) {
        pEntry.release(); // the list's from now on
    }
}

bool CDMSrvCallback::bPhoneNumberAuthorized(std::string szPhone)
{
    const CHeldLock<CRecursiveLock> held(m_WhiteList.m_Lock);
    const int iCount = held ? m_WhiteList.iGetNbr() : 0;
    for (int i = 0; i < iCount; ++i) {
        auto* const pEntry = dynamic_cast<CDMString*>(m_WhiteList.pGetAt(i));
        std::string szEntry = pEntry != nullptr ? pEntry->szGetVal() : "";
        if (!szEntry.empty() && szEntry[0] == ' ') {
            szEntry[0] = '+';
        }
        if (pEntry != nullptr && szEntry == szPhone) {
            return true;
        }
    }
    return false;
}
} // namespace QuorCore
