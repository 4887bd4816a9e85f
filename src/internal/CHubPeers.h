/// @file
/// @brief The peers of a hub, by their number.
#pragma once

#include "internal/CHubPeer.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace QuorCore
{
/// All connections. Threads: any; the loop alone adds and removes.
class CHubPeers
{
public:
    void Add(const std::shared_ptr<CHubPeer>& pPeer);
    void Remove(CSocketHub::peerId_t id);
    std::shared_ptr<CHubPeer>
    pFind(CSocketHub::peerId_t id) const;               ///< @return Null: there is none.
    std::vector<std::shared_ptr<CHubPeer>> All() const; ///< @return In order of numbers.
    size_t nPeers() const;

private:
    mutable std::mutex m_lock;
    std::map<CSocketHub::peerId_t, std::shared_ptr<CHubPeer>> m_peers;
};
} // namespace QuorCore
