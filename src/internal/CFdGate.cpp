#include "internal/CFdGate.h"

#include "internal/CUniqueFd.h"

#include <algorithm>
#include <sys/socket.h>

namespace QuorCore
{
namespace
{
constexpr size_t kUsualEntries = 4; // a reader, a listener, and what they leave behind
} // namespace

CFdGate::CFdGate()
{
    m_entries.reserve(kUsualEntries); // so that a frame costs no allocation
}

CFdGate::Entry& CFdGate::Find(int iFd)
{
    const auto isIt = [iFd](const Entry& entry) { return entry.iFd == iFd; };
    const auto found = std::find_if(m_entries.begin(), m_entries.end(), isIt);
    return found != m_entries.end() ? *found : m_entries.emplace_back(Entry{iFd, 0, false});
}

int CFdGate::iEnter(const std::atomic<int>& slot)
{
    const std::lock_guard<std::mutex> held(m_lock);
    const int iFd = slot;
    if (iFd != -1) {
        ++Find(iFd).iPins;
    }
    return iFd;
}

void CFdGate::Leave(int iFd)
{
    bool bClose = false;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        Entry& entry = Find(iFd);
        if (--entry.iPins == 0) {
            bClose = entry.bRetired;
            entry = m_entries.back();
            m_entries.pop_back();
        }
    }
    if (bClose) {
        CUniqueFd::CloseFd(iFd);
    }
}

void CFdGate::Retire(std::atomic<int>& slot)
{
    const CDeferredCancel deferred;
    int iFd = -1;
    {
        const std::lock_guard<std::mutex> held(m_lock);
        iFd = slot.exchange(-1);
        if (iFd == -1) {
            return;
        }
        Entry& entry = Find(iFd);
        ++entry.iPins; // ours, until the connection is shut down
        entry.bRetired = true;
    }
    ::shutdown(iFd, SHUT_RDWR); // wakes every call on it; fails harmlessly where nothing connects
    Leave(iFd);
}
} // namespace QuorCore
