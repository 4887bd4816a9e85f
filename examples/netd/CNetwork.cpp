#include "CNetwork.h"

#include "NetdProtocol.h"

#include <pthread.h>

using namespace QuorCore;

namespace
{
/// The digits of the line that the library makes: "Mac : 02:..." and a line feed.
std::string szMacOf(const std::string& szInterface)
{
    std::string szLine;
    const std::vector<std::string> words =
        SplitString(" \n", szGetMacAddress(szInterface.c_str(), szLine));
    return words.empty() ? "" : words.back();
}
} // namespace

long CNetwork::iRunThread()
{
    // The end of the daemon does not wait for a DHCP exchange: it cancels this thread, which must
    // then not be in the middle of anything.
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    m_bRun = true;
    network_t network{"asking", m_settings.szInterface, szMacOf(m_settings.szInterface), "", "", "",
                      ""};
    Tell(network);
    const int iResult = iSetUp();
    if (iResult != 0) {
        QUORCORE_LOG(LOG_ERR, "interface %s could not be set up: %d",
                     m_settings.szInterface.c_str(), iResult);
    }
    const bool bUp = iGetIp(m_settings.szInterface.c_str(), &network.szAddress, &network.szNetmask,
                            false, 0) == 0 ||
                     iFindNetworkInterface(m_settings.szInterface.c_str(), &network.szAddress,
                                           nullptr, nullptr, 0) == 0;
    iGetDns(&network.szDns1, &network.szDns2);
    network.szState = iResult == 0 && bUp ? "up" : "failed";
    QUORCORE_LOG(LOG_NOTICE, "interface %s: %s, address \"%s\"", m_settings.szInterface.c_str(),
                 network.szState.c_str(), network.szAddress.c_str());
    Tell(network);
    return 0;
}

/// @return 0, or what the command has ended with.
int CNetwork::iSetUp() const
{
    const char* const szInterface = m_settings.szInterface.c_str();
    if (m_settings.szAddress.empty()) {
        return 0;
    }
    if (m_settings.szAddress == "dhcp" || m_settings.szAddress == "dhcp6") {
        return iStartDhcp(szInterface, m_settings.szAddress == "dhcp6");
    }
    const bool bIpv6 = m_settings.szAddress.find(':') != std::string::npos;
    return iSetStaticIp(szInterface, m_settings.szAddress.c_str(), m_settings.szNetmask.c_str(),
                        m_settings.szGateway.c_str(), bIpv6);
}

void CNetwork::Tell(const network_t& network)
{
    m_status.SetNetwork(network);
    iPostMessage(EVT_NETD_NETWORK, 0, 0, nullptr, 0, 0);
}
