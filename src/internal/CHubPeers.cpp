#include "internal/CHubPeers.h"

namespace QuorCore
{
void CHubPeers::Add(const std::shared_ptr<CHubPeer>& pPeer)
{
    const std::lock_guard<std::mutex> held(m_lock);
    m_peers.emplace(pPeer->Facts().id, pPeer);
}

void CHubPeers::Remove(CSocketHub::peerId_t id)
{
    const std::lock_guard<std::mutex> held(m_lock);
    m_peers.erase(id);
}

std::shared_ptr<CHubPeer> CHubPeers::pFind(CSocketHub::peerId_t id) const
{
    const std::lock_guard<std::mutex> held(m_lock);
    const auto found = m_peers.find(id);
    return found != m_peers.end() ? found->second : nullptr;
}

std::vector<std::shared_ptr<CHubPeer>> CHubPeers::All() const
{
    std::vector<std::shared_ptr<CHubPeer>> all;
    const std::lock_guard<std::mutex> held(m_lock);
    all.reserve(m_peers.size());
    for (const auto& entry : m_peers) {
        all.push_back(entry.second);
    }
    return all;
}

size_t CHubPeers::nPeers() const
{
    const std::lock_guard<std::mutex> held(m_lock);
    return m_peers.size();
}
} // namespace QuorCore
