/// @file
/// @brief The file watcher: one thread that calls back when watched files change.
#pragma once

#include "libQuorCore/CInvokeCallback.h"
#include "libQuorCore/CThread.h"
#include "libQuorCore/Export.h"

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <poll.h>
#include <utility>
#include <vector>

namespace QuorCore
{
/**
 * @brief Watches files and directories and calls, on its own thread, each watch's callback.
 *
 * The callback gets a CMsg whose origin is the watcher, whose event id holds the bits that
 * happened (IN_*), and whose data is the name of the file within a watched directory: zero-
 * terminated and padded with zeros to the data size; null and 0 when the event carries no name. The
 * message and its data are the watcher's and valid during the call only. An exception of a callback
 * ends the thread.
 *
 * Threads: any may add and remove watches. Callbacks run under the thread's recursive lock: they
 * may remove watches, their own included, and add some, but must not block, since removals by
 * other threads and every other callback wait for them. A new watch is served within a second, the
 * first one within five; a stop is noticed within a second.
 * Ownership: callbacks belong to the watcher once added, one callback to one watch.
 * Errors: registration reports on standard error, not in the log, and by return value.
 * The thread does not register with the logger: what it logs appears as "GEN" at level 3.
 * Rests on inotify(7), one instance for each watch, and poll(2).
 */
class QUORCORE_API CFileNotification : public CThread
{
public:
    /// @param pParent   Parent in the object tree or null; not owned.
    /// @param szLabel   Name of the object; copied.
    CFileNotification(CObject* pParent, const char* szLabel);

    /// Stops the thread and waits for it, withdraws itself from CObject and removes every watch.
    ~CFileNotification() override;

    /**
     * @brief Watches a file or directory.
     *
     * At most 1024 watches are served, those of the lowest descriptors.
     *
     * @param pCallback  The watcher's when the result is 0; otherwise it stays the caller's. Null
     *                   makes a watch that nobody hears of.
     * @param szPath     What to watch; the watch follows the file, not the name.
     * @param iMask      As inotify_add_watch(2).
     * @return 0; -1 when the watch could not be made, with the reason on standard error.
     */
    long iAddFileNotification(CInvokeCallback* pCallback, const char* szPath, uint32_t iMask);

    /**
     * @brief Removes the first watch, in descriptor order, that has this callback, and deletes the
     *        callback; nothing when there is none.
     *
     * A callback that is running is deleted when it returns. It is not called again, not even for
     * events that were read already.
     */
    void RemoveNotification(CInvokeCallback* pCallback);

    void RemoveAllNotification(); ///< Removes every watch and deletes the callbacks, as above.

    long iRunThread() override;    ///< The loop. @return 0.
    long iInitInstance() override; ///< Does nothing. @return 0.
    long iExitInstance() override; ///< Does nothing. @return 0.

    /**
     * @brief Reads what a descriptor has to tell and calls the callback for every event, while the
     *        loop runs.
     * @param iFd        An inotify descriptor that does not block; borrowed.
     * @param pCallback  Borrowed; null reads nothing. It may remove itself.
     */
    void HandleEvents(int iFd, CInvokeCallback* pCallback);

protected:
    std::map<int, CInvokeCallback*> m_mapWaitNotification; ///< By inotify descriptor, both owned.
                                                           ///< Guarded by m_MapLock.

private:
    static constexpr size_t kPollMax = 1024; ///< Watches that one pass can wait for.
    using pollTable_t = std::array<pollfd, kPollMax>;
    using watch_t = std::pair<int, CInvokeCallback*>;
    class CCall;

    size_t nFill(pollTable_t& table);
    bool bServe(const pollTable_t& table, size_t nFilled, size_t nReady);
    bool bServeDescriptor(int iFd, CInvokeCallback* pCallback);
    bool bDeliver(unsigned char* pEvents, size_t iSize, CMsg& msg, CInvokeCallback* pCallback);
    std::vector<watch_t> FirstWatches(size_t nMax);
    bool bIsWatched(const watch_t& watch);
    bool bIsRetired(const CInvokeCallback* pCallback) const;
    void Retire(CInvokeCallback* pCallback);

    std::mutex m_MapLock; ///< Held for look-ups and changes only, never across a call: registration
                          ///< must not wait for m_RecursiveLock, which callbacks run under.
    std::vector<CInvokeCallback*> m_running; ///< Innermost last. Guarded by m_RecursiveLock.
    std::vector<CInvokeCallback*> m_retired; ///< Removed while running. Guarded by m_RecursiveLock.
};
} // namespace QuorCore
