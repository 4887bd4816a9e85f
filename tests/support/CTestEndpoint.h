/// @file
/// @brief Socket endpoints whose protected part is open to a test.
#pragma once

#include "libQuorCore/CSocketBase.h"
#include "libQuorCore/CSocketCallback.h"

#include "support/CDeadline.h"

#include <atomic>
#include <functional>
#include <string>

namespace TestSupport
{
constexpr int kStartLimitMs = 10000; ///< For a thread to start.
constexpr long kForEver = -1;        ///< Time-out of an exchange.
constexpr long kAmpleMs = 20000;     ///< Time-out of an exchange that is answered.

/**
 * @brief An endpoint with its members open, that a test may give a socket of its own.
 *
 * Stops its thread when it goes, as every class derived from an endpoint does.
 */
template <class Endpoint>
class COpenEndpoint : public Endpoint
{
public:
    COpenEndpoint() : Endpoint(nullptr, "endpoint") { this->SetLogLevel(LOG_DEBUG); }
    explicit COpenEndpoint(int iFd) : COpenEndpoint() { Adopt(iFd); }
    ~COpenEndpoint() override
    {
        if (this->bIsRunning()) {
            this->iStop(true, false);
        }
    }

    using Endpoint::m_AddrInfo;
    using Endpoint::m_bConnected;
    using Endpoint::m_bRun;
    using Endpoint::m_CallbackMap;
    using Endpoint::m_ClientAddress;
    using Endpoint::m_ExchangeResult;
    using Endpoint::m_iMsgCounter;
    using Endpoint::m_iNextPing;
    using Endpoint::m_iNumPort;
    using Endpoint::m_iSocket;
    using Endpoint::m_LockDataExchange;
    using Endpoint::m_LockExchange;
    using Endpoint::m_lSizeDataMax;
    using Endpoint::m_pRxBuffer;
    using Endpoint::m_pTagToWait;
    using Endpoint::m_RecursiveLock;

    /// Takes a connected socket, as if iConnect() had made it.
    void Adopt(int iFd)
    {
        m_iSocket = iFd;
        m_bConnected = true;
    }

    bool bAwaitPending()
    {
        return bAwait([this] { return m_ExchangeResult == -6; });
    }

    long iInitInstance() override
    {
        const long lResult = Endpoint::iInitInstance();
        if (m_OnFrame) {
            using Callback = QuorCore::CSocketCallback<QuorCore::CSocketBase>;
            this->pAddCallback(m_iHandled, new Callback(this, static_cast<Callback::Callback>(
                                                                  &COpenEndpoint::OnHandledFrame)));
        }
        return lResult;
    }

    void OnDeconnect() override
    {
        if (m_OnDeconnect) {
            m_OnDeconnect();
        }
        Endpoint::OnDeconnect();
    }

    /// Handles frames of command m_iHandled on the endpoint's thread; to be set before it starts.
    std::function<void(QuorCore::socketFrame_t*)> m_OnFrame;
    uint16_t m_iHandled = 3000;
    std::function<void()> m_OnDeconnect; ///< Called first thing at each disconnection.

private:
    void OnHandledFrame(QuorCore::socketFrame_t* pFrame) { m_OnFrame(pFrame); }
};

/// @return The bytes of a text, for the calls that take bytes; valid as long as the text.
inline uint8_t* pBytes(std::string& szText)
{
    return reinterpret_cast<uint8_t*>(szText.data());
}

inline long lSize(const std::string& szText)
{
    return static_cast<long>(szText.size());
}
} // namespace TestSupport
