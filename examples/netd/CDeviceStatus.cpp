#include "CDeviceStatus.h"

#include <cstring>

using namespace QuorCore;

namespace
{
constexpr int kWholeDepth = 10; // levels of records; there are two

void SetOrForget(CDMString& attribute, const std::string& szValue)
{
    attribute = szValue;
    attribute.SetNull(szValue.empty());
}
} // namespace

void CDeviceStatus::SetButton(const char* szState)
{
    const std::lock_guard<std::mutex> held(m_Lock);
    m_Button = szState;
    if (std::strcmp(szState, "down") == 0) {
        m_Presses = m_Presses.iGetVal() + 1;
    }
}

void CDeviceStatus::SetLed(const char* szState)
{
    const std::lock_guard<std::mutex> held(m_Lock);
    m_Led = szState;
}

void CDeviceStatus::SetNetwork(const network_t& network)
{
    const std::lock_guard<std::mutex> held(m_Lock);
    m_State = network.szState;
    SetOrForget(m_Interface, network.szInterface);
    SetOrForget(m_Mac, network.szMac);
    SetOrForget(m_Address, network.szAddress);
    SetOrForget(m_Netmask, network.szNetmask);
    SetOrForget(m_Dns1, network.szDns1);
    SetOrForget(m_Dns2, network.szDns2);
}

std::string CDeviceStatus::szJson()
{
    const std::lock_guard<std::mutex> held(m_Lock);
    std::string szText;
    m_Root.iMoRead(&szText, "netd", kWholeDepth);
    return Strip(szText, nullptr);
}
