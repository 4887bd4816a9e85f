/// @file
/// @brief netd, started and asked by a test.
#pragma once

#include "examples/ExampleProgram.h"
#include "support/CTcpPeer.h"
#include "support/CTempDirectory.h"
#include "support/Files.h"
#include "support/Frames.h"

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace TestSupport
{
/// @brief One run of netd, and one peer of it.
class CNetdProgram
{
public:
    static constexpr uint16_t kGetConfig = 15;
    static constexpr uint16_t kStatus = 1010;

    /// @brief Starts it and connects the peer. @param szSettings  Lines of its configuration file.
    void Start(const std::string& szSettings)
    {
        CSyslogReceiver::Get().Clear();
        WriteFile(m_szConfig, "port=0\n" + szSettings);
        m_pDaemon = std::make_unique<CChild>(Program({NETD, "--config", m_szConfig}));
        const std::vector<std::string> ready = AwaitLog("ready, pid ([0-9]+), port ([0-9]+)");
        ASSERT_FALSE(ready.empty());
        ASSERT_TRUE(m_Peer.bConnect(std::stoi(ready[2])));
    }

    /// @return Its state as JSON; empty when it does not answer.
    std::string szStatus()
    {
        Frame answer;
        if (m_Peer.bSend(FrameBytes(kGetConfig))) {
            do { // what it tells of its own accord may come first
                answer = ReceiveFrame(m_Peer);
            } while (answer.bComplete && answer.iCommand != kGetConfig);
        }
        return answer.szData;
    }

    /// @brief Asks until the state has a part. @return False: it has not in time.
    bool bAwaitStatus(const std::string& szPart)
    {
        return bAwait([&] { return szStatus().find(szPart) != std::string::npos; });
    }

    CTcpPeer& Peer() { return m_Peer; }

    int iEnd() ///< @return Its exit status.
    {
        m_pDaemon->Signal(SIGTERM);
        return m_pDaemon->Await().iExitCode;
    }

private:
    const CTempDirectory m_Directory;
    const std::string m_szConfig = m_Directory.szPath("netd.conf");
    std::unique_ptr<CChild> m_pDaemon;
    CTcpPeer m_Peer;
};
} // namespace TestSupport
