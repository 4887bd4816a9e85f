/// @file
/// @brief The settings of the callback service: who may call or text the device.
#pragma once

#include "libQuorCore/CDMType.h"
#include "libQuorCore/Export.h"

#include <string>

namespace QuorCore
{
/**
 * @brief The phone-number callback service's settings; the labels are the keys of the JSON.
 *
 * Threads: the white list locks itself; all else as CObjectData.
 */
class QUORCORE_API CDMSrvCallback : public CDMObject
{
public:
    CDMSrvCallback(CObject* pParent, const char* pszLabel);

    void AddPhoneNumberToWhitelist(std::string szPhone); ///< As a new entry at the end.

    /**
     * @brief Whether an entry of the white list is exactly this number.
     *
     * A blank at the front of an entry counts as the "+" that it was before it travelled in a URL
     * form; the entry stays as it is. An entry that is empty equals a withheld number: who asks
     * refuses an empty number before.
     */
    bool bPhoneNumberAuthorized(std::string szPhone);

    CDMList<CDMString> m_WhiteList; ///< "whiteList": phone numbers.
    CDMUInt m_SmsCallback;          ///< "smsCallback": setting of the SMS service.
    CDMUInt m_MtcCallback;          ///< "mtcCallback": setting for mobile-terminated calls.
    CDMBoolean m_AuthSms;           ///< "authSms": SMS requests are accepted.
    CDMBoolean m_AuthMtc;           ///< "authMtc": calls are accepted.
};
} // namespace QuorCore
