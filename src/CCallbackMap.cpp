#include "libQuorCore/CCallbackMap.h"

#include "internal/CHeldLock.h"

#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

namespace QuorCore
{
/// Counts a dispatch in and, on every way out of it, out again; the last one out buries what was
/// removed meanwhile.
class CCallbackMap::CDispatchDepth
{
public:
    explicit CDispatchDepth(CCallbackMap& map) : m_map(map) { ++m_map.m_iDispatchDepth; }
    CDispatchDepth(const CDispatchDepth&) = delete;
    CDispatchDepth& operator=(const CDispatchDepth&) = delete;
    ~CDispatchDepth() noexcept(false)
    {
        if (--m_map.m_iDispatchDepth == 0) {
            m_map.Bury();
        }
    }

private:
    CCallbackMap& m_map;
};

CCallbackMap::CCallbackMap(const char* szLabel) : m_szLabel(szLabel != nullptr ? szLabel : "") {}

CCallbackMap::~CCallbackMap()
{
    RemoveAllCallback();
}

CInvokeCallback* CCallbackMap::pAddCallback(uint32_t iEventId, CInvokeCallback* pCallback)
{
    if (pCallback != nullptr) {
        const CHeldLock<CRecursiveLock> held(m_MapCallBackLock);
        if (held) {
            m_mmapCallback.emplace(iEventId, pCallback); // behind its equals
        }
    }
    return pCallback;
}

long CCallbackMap::iDispatchMessage(uint32_t iEventId, void* pData)
{
    const CHeldLock<CRecursiveLock> held(m_MapCallBackLock);
    if (!held) {
        return -1;
    }
    const CDispatchDepth depth(*this);
    auto entry = m_mmapCallback.lower_bound(iEventId);
    long lResult = -1;
    for (; entry != m_mmapCallback.end() && entry->first == iEventId; ++entry) {
        lResult = 0;
        if (entry->second != nullptr) { // removed while this dispatch runs
            entry->second->invoke(pData);
        }
    }
    return lResult;
}

void CCallbackMap::RemoveEvent(uint32_t iEventId)
{
    const CHeldLock<CRecursiveLock> held(m_MapCallBackLock);
    if (!held || m_mmapCallback.empty()) {
        return;
    }
    try {
        const auto range = m_mmapCallback.equal_range(iEventId);
        Retire(range.first, range.second);
    } catch (const std::exception& exception) {
        std::fputs(exception.what(), stdout);
        QUORCORE_LOG(LOG_ERR, "%s;", exception.what());
    }
}

void CCallbackMap::RemoveCallback(CInvokeCallback* pCallback)
{
    const CHeldLock<CRecursiveLock> held(m_MapCallBackLock);
    if (!held || pCallback == nullptr) {
        return;
    }
    const auto entry =
        std::find_if(m_mmapCallback.begin(), m_mmapCallback.end(),
                     [pCallback](const auto& candidate) { return candidate.second == pCallback; });
    if (entry != m_mmapCallback.end()) {
        Retire(entry, std::next(entry));
    }
}

void CCallbackMap::RemoveAllCallback()
{
    const CHeldLock<CRecursiveLock> held(m_MapCallBackLock);
    if (held) {
        Retire(m_mmapCallback.begin(), m_mmapCallback.end());
    }
}

/// Takes entries out: at once, or while a dispatch walks over them, after it.
void CCallbackMap::Retire(callbacks_t::iterator first, callbacks_t::iterator last)
{
    const auto nEntries = static_cast<size_t>(std::distance(first, last));
    m_retired.reserve(m_retired.size() + nEntries); // what throws does so before anything changes
    m_dead.reserve(m_dead.size() + nEntries);
    for (auto entry = first; entry != last; ++entry) {
        if (entry->second != nullptr) {
            m_retired.push_back(entry->second);
        }
        if (entry->second != nullptr || m_iDispatchDepth == 0) { // else it is among the dead
            m_dead.push_back(entry);
        }
        entry->second = nullptr;
    }
    if (m_iDispatchDepth == 0) {
        Bury();
    }
}

void CCallbackMap::Bury()
{
    for (const auto& entry : std::exchange(m_dead, {})) {
        m_mmapCallback.erase(entry);
    }
    // The entries go first: a callback's destructor may look into the map again. An object that was
    // registered twice under one id is deleted once.
    std::vector<CInvokeCallback*> retired = std::exchange(m_retired, {});
    std::sort(retired.begin(), retired.end());
    retired.erase(std::unique(retired.begin(), retired.end()), retired.end());
    for (CInvokeCallback* pCallback : retired) {
        delete pCallback;
    }
}
} // namespace QuorCore
