#include "CModemTree.h"

#include "../common/ModemProtocol.h"

#include <algorithm>
#include <ctime>
#include <mutex>
#include <vector>

using namespace QuorCore;

namespace
{
constexpr size_t kCountryDigits = 3;
constexpr unsigned kNotKnown = 99; // of +CSQ

using held_t = std::lock_guard<std::mutex>;

void Set(CDMUInt& attribute, const std::optional<unsigned>& value)
{
    if (value) {
        attribute.SetVal(*value);
    }
    attribute.SetNull(!value); // SetVal() of the value that is held leaves a null one null
}

ustring BytesOf(CObjectData& record)
{
    ustring bytes;
    CSerialize stream(&bytes, true, false, false);
    record.iSerialize(stream);
    return bytes;
}

// A "+" may have become a blank on its way through a form: the record knows both.
bool bIsEntry(std::string szText)
{
    if (!szText.empty() && szText[0] == ' ') {
        szText[0] = '+';
    }
    return bIsPhoneNumber(szText);
}

std::vector<std::string> EntriesOf(CDMSrvCallback& callback)
{
    std::vector<std::string> entries;
    for (int i = 0; i < callback.m_WhiteList.iGetNbr(); ++i) {
        auto* const pEntry = dynamic_cast<CDMString*>(callback.m_WhiteList.pGetAt(i));
        entries.push_back(pEntry != nullptr ? pEntry->szGetVal() : "");
    }
    return entries;
}
} // namespace

CModemTree::CModemTree()
{
    m_Cell.SetReadOnly(true);
    m_Callback.m_WhiteList.SetAttributeCanDelete(true); // else it could never be read back
}

void CModemTree::SetSignal(const signal_t& signal)
{
    const auto known = [](unsigned iValue) {
        return iValue != kNotKnown ? std::optional<unsigned>(iValue) : std::nullopt;
    };
    const held_t held(Lock());
    Set(m_Cell.m_Rssi, known(signal.iRssi));
    Set(m_Cell.m_Ber, known(signal.iBer));
    m_Cell.m_RxLevel.SetVal(iLevelDbm(signal));
    m_Cell.m_DateMes.SetVal(std::time(nullptr));
}

void CModemTree::SetRegistration(const registration_t& registration)
{
    const char* const pszName = registration.techno ? pszTechno(*registration.techno) : nullptr;
    const held_t held(Lock());
    Set(m_Cell.m_Lac, registration.lac);
    Set(m_Cell.m_Ci, registration.cell);
    if (pszName != nullptr) {
        m_Cell.m_Techno.SetVal(pszName);
    }
}

void CModemTree::SetNetwork(const std::string& szDigits)
{
    const bool bKnown =
        (szDigits.size() == 5 || szDigits.size() == 6) && AtNumber(szDigits).has_value();
    const held_t held(Lock());
    Set(m_Cell.m_Mcc, bKnown ? AtNumber(szDigits.substr(0, kCountryDigits)) : std::nullopt);
    Set(m_Cell.m_Mnc, bKnown ? AtNumber(szDigits.substr(kCountryDigits)) : std::nullopt);
}

void CModemTree::ForgetCell()
{
    const held_t held(Lock());
    for (CDMUInt* const pValue : {&m_Cell.m_Rssi, &m_Cell.m_Ber, &m_Cell.m_Lac, &m_Cell.m_Ci,
                                  &m_Cell.m_Mcc, &m_Cell.m_Mnc}) {
        pValue->SetNull(true);
    }
    m_Cell.m_RxLevel.SetVal(kNoLevelDbm);
}

ustring CModemTree::CellBytes()
{
    const held_t held(Lock());
    return BytesOf(m_Cell);
}

ustring CModemTree::CallbackBytes()
{
    const held_t held(Lock());
    return BytesOf(m_Callback);
}

bool CModemTree::bReplaceCallback(socketFrame_t& frame)
{
    CDMSrvCallback received(nullptr, "");
    received.m_WhiteList.SetAttributeCanDelete(true);
    CSerializeBuffer stream(frame.pGetData(), frame.GetDataSize(), false, false, false);
    if (received.iSerialize(stream) != 0 || stream.iGetPos() != frame.GetDataSize()) {
        return false;
    }
    const std::vector<std::string> entries = EntriesOf(received);
    if (entries.size() > kWhitelistMax || !std::all_of(entries.begin(), entries.end(), &bIsEntry)) {
        return false;
    }
    const held_t held(Lock());
    m_Callback.m_WhiteList.Reset();
    for (const std::string& szEntry : entries) {
        m_Callback.AddPhoneNumberToWhitelist(szEntry);
    }
    m_Callback.m_SmsCallback.SetVal(received.m_SmsCallback.iGetVal());
    m_Callback.m_MtcCallback.SetVal(received.m_MtcCallback.iGetVal());
    m_Callback.m_AuthSms.SetVal(received.m_AuthSms.iGetVal());
    m_Callback.m_AuthMtc.SetVal(received.m_AuthMtc.iGetVal());
    m_Callback.m_Modified.GetCurrentDateTime();
    return true;
}

bool CModemTree::bAddNumber(const std::string& szNumber)
{
    const held_t held(Lock());
    if (bIsListed(szNumber)) {
        return true;
    }
    if (!bIsPhoneNumber(szNumber) ||
        static_cast<size_t>(m_Callback.m_WhiteList.iGetNbr()) >= kWhitelistMax) {
        return false;
    }
    m_Callback.AddPhoneNumberToWhitelist(szNumber);
    m_Callback.m_Modified.GetCurrentDateTime();
    return true;
}

bool CModemTree::bRemoveNumber(const std::string& szNumber)
{
    const held_t held(Lock());
    bool bRemoved = false;
    for (int i = m_Callback.m_WhiteList.iGetNbr() - 1; i >= 0; --i) {
        auto* const pEntry = dynamic_cast<CDMString*>(m_Callback.m_WhiteList.pGetAt(i));
        if (pEntry != nullptr && pEntry->szGetVal() == szNumber) {
            bRemoved = m_Callback.m_WhiteList.iRemove(pEntry) == 0;
        }
    }
    if (bRemoved) {
        m_Callback.m_Modified.GetCurrentDateTime();
    }
    return bRemoved;
}

bool CModemTree::bSmsAuthorized(const std::string& szNumber)
{
    const held_t held(Lock());
    return m_Callback.m_AuthSms.iGetVal() && bIsListed(szNumber);
}

bool CModemTree::bCallAuthorized(const std::string& szNumber)
{
    const held_t held(Lock());
    return m_Callback.m_AuthMtc.iGetVal() && bIsListed(szNumber);
}

// An entry that is empty would equal a withheld number.
bool CModemTree::bIsListed(const std::string& szNumber)
{
    return !szNumber.empty() && m_Callback.bPhoneNumberAuthorized(szNumber);
}
