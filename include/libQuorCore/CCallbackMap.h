/// @file
/// @brief Callbacks by event id.
#pragma once

#include "libQuorCore/CInvokeCallback.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/synchro.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace QuorCore
{
/**
 * @brief Maps 32-bit event ids to callbacks, several per id, and owns them.
 *
 * Callbacks are called under the map's recursive lock, so a callback may call its own map. Whoever
 * holds a lock that a callback wants must not register or remove callbacks meanwhile.
 * One callback object is registered once: removing deletes it, whatever entries still name it.
 * Threads: any. Errors: a lock that cannot be taken makes the call do nothing.
 */
class QUORCORE_API CCallbackMap
{
public:
    explicit CCallbackMap(const char* szLabel); ///< @param szLabel  Copied; null is an empty one.
    CCallbackMap(const CCallbackMap&) = delete;
    CCallbackMap& operator=(const CCallbackMap&) = delete;
    virtual ~CCallbackMap(); ///< Deletes every callback.

    /**
     * @brief Registers a callback, behind those that its id already has.
     *
     * One that is added for the id being dispatched runs from the next dispatch on, and may run in
     * this one.
     *
     * @param pCallback  The map's from then on; null is ignored.
     * @return @p pCallback, registered or not.
     */
    CInvokeCallback* pAddCallback(uint32_t iEventId, CInvokeCallback* pCallback);

    /**
     * @brief Calls every callback of an id, in the order of registration.
     *
     * A callback that removes entries of this map, itself included, is safe: they are not called
     * any more and are deleted when the dispatch is over. An exception of a callback passes
     * through.
     *
     * @return 0 when the id has an entry, -1 when it has none.
     */
    long iDispatchMessage(uint32_t iEventId, void* pData);

    void RemoveEvent(uint32_t iEventId); ///< Removes and deletes all callbacks of an id.

    /// Removes the first entry, in id order, that holds @p pCallback, and deletes the callback.
    void RemoveCallback(CInvokeCallback* pCallback);

    void RemoveAllCallback(); ///< Removes and deletes every callback.

protected:
    using callbacks_t = std::multimap<uint32_t, CInvokeCallback*>;

    callbacks_t m_mmapCallback; ///< Guarded by m_MapCallBackLock.
    CRecursiveLock m_MapCallBackLock;
    std::string m_szLabel;

private:
    class CDispatchDepth;

    void Retire(callbacks_t::iterator first, callbacks_t::iterator last);
    void Bury();

    int m_iDispatchDepth = 0;                  ///< Guarded by m_MapCallBackLock.
    std::vector<callbacks_t::iterator> m_dead; ///< Emptied entries, erased at depth 0.
    std::vector<CInvokeCallback*> m_retired;   ///< Deleted at depth 0.
};
} // namespace QuorCore
