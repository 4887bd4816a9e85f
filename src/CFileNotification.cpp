#include "libQuorCore/CFileNotification.h"

#include "internal/CCancelGuard.h"
#include "internal/CHeldLock.h"
#include "internal/CUniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr size_t kBatchBytes = 4096; // events read at once
constexpr int kIdleSec = 5;          // between two looks for a first watch
constexpr int kPollSliceMs = 1000;   // the longest wait before a stop or a new watch is noticed
constexpr int kBackOffMs = 10;       // after a pass that was told of events and read none

void DescribeEvent(unsigned char* pEvent, const inotify_event& header, CMsg& msg)
{
    msg.m_iEventId = header.mask;
    msg.m_iDataSize = header.len;
    msg.m_pData = header.len == 0 ? nullptr : pEvent + sizeof(inotify_event);
}

void Delete(const CInvokeCallback* pCallback)
{
    const CNoCancel noCancel; // a destructor must not be unwound
    delete pCallback;
}
} // namespace

/// Marks a callback as running for a scope; one that is removed meanwhile is deleted at its end.
class CFileNotification::CCall
{
public:
    CCall(CFileNotification& owner, CInvokeCallback* pCallback)
        : m_owner(owner), m_pCallback(pCallback)
    {
        m_owner.m_running.push_back(pCallback);
    }
    CCall(const CCall&) = delete;
    CCall& operator=(const CCall&) = delete;
    ~CCall()
    {
        std::vector<CInvokeCallback*>& running = m_owner.m_running;
        std::vector<CInvokeCallback*>& retired = m_owner.m_retired;
        running.pop_back();
        const bool bRunsFurtherOut =
            std::find(running.begin(), running.end(), m_pCallback) != running.end();
        const auto found = std::find(retired.begin(), retired.end(), m_pCallback);
        if (!bRunsFurtherOut && found != retired.end()) {
            retired.erase(found);
            Delete(m_pCallback);
        }
    }

private:
    CFileNotification& m_owner;
    CInvokeCallback* m_pCallback;
};

CFileNotification::CFileNotification(CObject* pParent, const char* szLabel)
    : CThread(pParent, szLabel)
{
}

CFileNotification::~CFileNotification()
{
    StopAndAwaitEnd();
    CFileNotification* pThis = this;
    m_pFileNotification.compare_exchange_strong(pThis, nullptr);
    RemoveAllNotification();
}

long CFileNotification::iAddFileNotification(CInvokeCallback* pCallback, const char* szPath,
                                             uint32_t iMask)
{
    const CDeferredCancel deferred;
    CUniqueFd instance(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!instance) {
        std::perror("inotify_init1");
        return -1;
    }
    const char* const szWatched = szPath == nullptr ? "" : szPath;
    if (::inotify_add_watch(instance.iGet(), szWatched, iMask) == -1) {
        const int iError = errno;
        instance.Reset();
        std::fprintf(stderr, "Cannot watch '%s'\n", szWatched);
        errno = iError;
        std::perror("inotify_add_watch");
        return -1;
    }
    {
        const std::lock_guard<std::mutex> held(m_MapLock);
        m_mapWaitNotification.emplace(instance.iGet(), pCallback);
        instance.iRelease(); // the map's now
    }
    StopDynWait(); // the loop may be idling
    return 0;
}

void CFileNotification::RemoveNotification(CInvokeCallback* pCallback)
{
    const CHeldLock held(m_RecursiveLock);
    if (!held) {
        return;
    }
    CUniqueFd instance; // closed last: its number must not be another's while the map has it
    {
        const std::lock_guard<std::mutex> heldMap(m_MapLock);
        const auto found =
            std::find_if(m_mapWaitNotification.begin(), m_mapWaitNotification.end(),
                         [pCallback](const auto& watch) { return watch.second == pCallback; });
        if (found == m_mapWaitNotification.end()) {
            return;
        }
        instance.Reset(found->first);
        m_mapWaitNotification.erase(found);
        for (auto& [iFd, pOther] : m_mapWaitNotification) {
            if (pOther == pCallback) { // registered twice against the rule: it is gone for both
                pOther = nullptr;
            }
        }
    }
    Retire(pCallback);
}

void CFileNotification::RemoveAllNotification()
{
    const CHeldLock held(m_RecursiveLock);
    if (!held) {
        return;
    }
    std::map<int, CInvokeCallback*> removed;
    {
        const std::lock_guard<std::mutex> heldMap(m_MapLock);
        removed.swap(m_mapWaitNotification);
    }
    std::vector<CInvokeCallback*> callbacks;
    for (const auto& [iFd, pCallback] : removed) {
        if (iFd != -1) {
            CUniqueFd::CloseFd(iFd);
        }
        callbacks.push_back(pCallback);
    }
    std::sort(callbacks.begin(), callbacks.end());
    callbacks.erase(std::unique(callbacks.begin(), callbacks.end()), callbacks.end());
    std::for_each(callbacks.begin(), callbacks.end(),
                  [this](auto* pCallback) { Retire(pCallback); });
}

long CFileNotification::iRunThread()
{
    const CDeferredCancel deferred; // the whole loop holds locks and allocates
    m_bRun = true;
    pollTable_t table{};
    while (m_bRun) {
        const size_t nFilled = nFill(table);
        if (nFilled == 0) {
            bDynWait(kIdleSec);
            continue;
        }
        const int iReady = ::poll(table.data(), nFilled, kPollSliceMs);
        if (iReady == 0) {
            continue;
        }
        const bool bRead = iReady > 0 && bServe(table, nFilled, static_cast<size_t>(iReady));
        if (!bRead) {
            Sleep(kBackOffMs); // what is ready may stay so for long, see bServe()
        }
    }
    std::puts("Listening for events stopped.");
    return 0;
}

long CFileNotification::iInitInstance()
{
    return 0;
}

long CFileNotification::iExitInstance()
{
    return 0;
}

void CFileNotification::HandleEvents(int iFd, CInvokeCallback* pCallback)
{
    bServeDescriptor(iFd, pCallback);
}

/// Enters the watches into the table in map order. @return How many.
size_t CFileNotification::nFill(pollTable_t& table)
{
    const CHeldLock held(m_RecursiveLock);
    const std::vector<watch_t> watches = held ? FirstWatches(kPollMax) : std::vector<watch_t>();
    for (size_t i = 0; i < watches.size(); ++i) {
        table[i] = {watches[i].first, POLLIN, 0};
    }
    return watches.size();
}

/// @return Whether anything was read.
bool CFileNotification::bServe(const pollTable_t& table, size_t nFilled, size_t nReady)
{
    const CHeldLock held(m_RecursiveLock);
    if (!held) {
        return false;
    }
    // Reads the first nReady + 1 watches, ready or not, and no others: a watch further down waits
    // until enough of those before it have events as well. Intended: daemons register what matters
    // most first and count on its being served first. Held by
    // AFileNotification.LeavesAWatchBeyondTheNumberOfReadyOnesToALaterPass.
    bool bRead = false;
    const std::vector<watch_t> watches = FirstWatches(std::min(nFilled, nReady + 1));
    for (size_t i = 0; i < watches.size(); ++i) {
        const auto [iFd, pCallback] = watches[i];
        // A callback before this one may have removed it; the map has it as it is now.
        if (iFd == table[i].fd && pCallback != nullptr && bIsWatched(watches[i])) {
            bRead = bServeDescriptor(iFd, pCallback) || bRead;
        }
    }
    return bRead;
}

/// @return Whether anything was read.
bool CFileNotification::bServeDescriptor(int iFd, CInvokeCallback* pCallback)
{
    const CHeldLock held(m_RecursiveLock);
    if (!held || pCallback == nullptr) {
        return false;
    }
    alignas(inotify_event) unsigned char aEvents[kBatchBytes];
    CMsg msg;
    msg.m_pOrigin = this;
    const CCall call(*this, pCallback);
    bool bRead = false;
    while (m_bRun) {
        const ssize_t iRead = ::read(iFd, aEvents, sizeof(aEvents));
        if (iRead < 1) {
            break;
        }
        bRead = true;
        if (!bDeliver(aEvents, static_cast<size_t>(iRead), msg, pCallback)) {
            break; // and the descriptor is closed
        }
    }
    return bRead;
}

/// Calls the callback for each event of a batch. @return Whether it is still registered.
bool CFileNotification::bDeliver(unsigned char* pEvents, size_t iSize, CMsg& msg,
                                 CInvokeCallback* pCallback)
{
    inotify_event header{};
    for (size_t iOffset = 0; iOffset + sizeof(header) <= iSize;
         iOffset += sizeof(header) + header.len) {
        std::memcpy(&header, pEvents + iOffset, sizeof(header));
        DescribeEvent(pEvents + iOffset, header, msg);
        pCallback->invoke(&msg);
        if (bIsRetired(pCallback)) {
            return false;
        }
    }
    return true;
}

/// @return The first watches of the map, in descriptor order.
std::vector<CFileNotification::watch_t> CFileNotification::FirstWatches(size_t nMax)
{
    const std::lock_guard<std::mutex> held(m_MapLock);
    const auto nTaken = static_cast<std::ptrdiff_t>(std::min(nMax, m_mapWaitNotification.size()));
    const auto begin = m_mapWaitNotification.begin();
    return {begin, std::next(begin, nTaken)};
}

bool CFileNotification::bIsWatched(const watch_t& watch)
{
    const std::lock_guard<std::mutex> held(m_MapLock);
    const auto found = m_mapWaitNotification.find(watch.first);
    return found != m_mapWaitNotification.end() && found->second == watch.second;
}

bool CFileNotification::bIsRetired(const CInvokeCallback* pCallback) const
{
    return std::find(m_retired.begin(), m_retired.end(), pCallback) != m_retired.end();
}

/// Deletes a callback, or, while it runs, leaves that to its end.
void CFileNotification::Retire(CInvokeCallback* pCallback)
{
    if (std::find(m_running.begin(), m_running.end(), pCallback) == m_running.end()) {
        Delete(pCallback);
    } else {
        m_retired.push_back(pCallback);
    }
}
} // namespace QuorCore
