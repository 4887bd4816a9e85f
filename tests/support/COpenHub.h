/// @file
/// @brief A hub whose hooks a test supplies.
#pragma once

#include "libQuorCore/CSocketCallback.h"
#include "libQuorCore/CSocketHub.h"

#include "support/CDeadline.h"

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport
{
/**
 * @brief A hub that tells who came and went, and hands frames of one command to the test.
 *
 * Threads: the hooks run on the hub's thread and are set before it starts; any may ask who is gone.
 */
class COpenHub : public QuorCore::CSocketHub
{
public:
    using gone_t = std::pair<peerId_t, eGone>;

    explicit COpenHub(const char* pszLabel = "hub") : CSocketHub(nullptr, pszLabel) {}
    ~COpenHub() override { EndThread(); }

    using CSocketHub::m_bRun;
    using CSocketHub::m_CallbackMap;

    long iInitInstance() override
    {
        const long lResult = CSocketHub::iInitInstance();
        if (m_OnFrame) {
            pAddCallback(kHandled,
                         new QuorCore::CSocketCallback<COpenHub>(this, &COpenHub::OnHandledFrame));
        }
        return lResult;
    }

    /// @return Whether a peer went for that reason, whichever it was, within the usual limit.
    bool bAwaitGone(eGone reason)
    {
        return bAwait([this, reason] {
            const std::vector<gone_t> gone = Gone();
            return std::any_of(gone.begin(), gone.end(),
                               [reason](const gone_t& entry) { return entry.second == reason; });
        });
    }

    /// @return All that are gone, in the order in which they went.
    std::vector<gone_t> Gone() const
    {
        const std::lock_guard<std::mutex> held(m_goneLock);
        return m_gone;
    }

    static constexpr uint16_t kHandled = 3000; ///< The command of m_OnFrame.

    std::function<void(QuorCore::socketFrame_t*)> m_OnFrame;
    std::function<void(const peer_t&)> m_OnCame;
    std::function<void(const peer_t&)> m_OnWent;

protected:
    void OnPeerConnected(const peer_t& peer) override
    {
        if (m_OnCame) {
            m_OnCame(peer);
        }
        CSocketHub::OnPeerConnected(peer);
    }

    void OnPeerGone(const peer_t& peer, eGone reason) override
    {
        {
            const std::lock_guard<std::mutex> held(m_goneLock);
            m_gone.emplace_back(peer.id, reason);
        }
        if (m_OnWent) {
            m_OnWent(peer);
        }
        CSocketHub::OnPeerGone(peer, reason);
    }

private:
    void OnHandledFrame(QuorCore::socketFrame_t* pFrame) { m_OnFrame(pFrame); }

    mutable std::mutex m_goneLock;
    std::vector<gone_t> m_gone; ///< Guarded by m_goneLock.
};
} // namespace TestSupport
