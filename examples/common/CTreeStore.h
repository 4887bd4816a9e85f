/// @file
/// @brief Keeps a daemon's data tree in a directory of JSON files, through any sudden end.
#pragma once

#include "CTreeRoot.h"

#include <libQuorCore/libQuorCore.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

/**
 * @brief Saves the children of a tree, a file for each, and reads them back.
 *
 * The directory holds the link "current" to a directory "state-N" with one JSON file for each
 * child, named by its label. Saving writes a whole new state beside it, brings that to the disk,
 * and then moves the link in one step, rename(2): whoever reads, after whatever end of this process
 * or of the machine, finds either all the old records or all the new ones. What an end in the
 * middle has left is removed at the next start.
 *
 * A record that cannot be read keeps the values that it was built with, whole, and the log says so;
 * its file is kept as "unreadable-" and its label. A file is judged as a request is, by type, range
 * and length, but may set what is read-only. Masked texts are saved, too: the directories are
 * for the owner alone (0700).
 *
 * The directory belongs to one process: it is locked with flock(2) as long as this object lives,
 * and waited for 2 s when another one has it. A daemon calls bOpen() as the user that it runs as,
 * before its threads run, and bSave() upon EVT_DATABASE_SAVE and at its end. What did not change
 * since the last time is not written again.
 *
 * Threads: bSave() from any; it takes the tree's lock to look at the tree, not to write files.
 * Ownership: the tree is not owned. Errors: by return value, and each is logged; nothing throws but
 * for want of memory. Rests on rename(2), fsync(2) and flock(2). The working directory stays.
 */
class CTreeStore
{
public:
    explicit CTreeStore(CTreeRoot& tree) : m_tree(tree) {}
    CTreeStore(const CTreeStore&) = delete;
    CTreeStore& operator=(const CTreeStore&) = delete;
    ~CTreeStore(); ///< Lets go of the directory; saves nothing.

    /**
     * @brief Takes a directory and reads what is there.
     * @param szDirectory  Absolute; made if its parent is there. Empty: nothing is kept, bSave()
     *                     has nothing to do.
     * @return Whether the tree will be saved there. Records that could not be read are no reason
     *         for false.
     */
    bool bOpen(const std::string& szDirectory);

    /// Saves the tree, if it was changed. @return Whether what is saved is what the tree holds.
    bool bSave();

private:
    /// A child as it is saved.
    struct record_t {
        std::string szLabel;
        Json::Value members;
    };

    bool bTakeDirectory();
    bool bFindCurrent();
    void RemoveOthers();
    bool bRemoveState(const std::string& szState) const;
    void ReadAll();
    bool bRead(QuorCore::CObjectData& child, int iStateFd);
    bool bPublish(std::vector<record_t>& records);
    std::string szNextState() const;
    bool bWriteState(const std::string& szState, const std::vector<record_t>& records) const;
    bool bSwitchTo(const std::string& szState);
    bool bFail(const char* szWhat, const std::string& szName) const;

    CTreeRoot& m_tree;
    std::string m_szDirectory; ///< Empty: nothing is kept.
    std::mutex m_saveLock;     ///< Held over a save: guards what follows.
    int m_iDirectoryFd = -1;   ///< Locked. -1: not to be had.
    std::string m_szCurrent;   ///< The state that the link names; empty: there is none.
    bool m_bSaved = false;     ///< m_saved is what the files hold.
    std::vector<record_t> m_saved;
};
