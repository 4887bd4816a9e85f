/// @file
/// @brief The top of a daemon's data tree, which several threads share.
#pragma once

#include <libQuorCore/libQuorCore.h>

#include <mutex>
#include <string>

/**
 * @brief A record labelled "db" whose children are the records of a daemon.
 *
 * The children name it as their parent and enter themselves; their full names begin with "/db". It
 * has no parent itself, with which its own full name would begin. It is a container: in file form
 * each child has a file of its own, named by its label.
 *
 * A request names what it wants to change. Names that the tree does not have are refused, where the
 * library would pass over them: who mistypes is told. And records that a request does not name are
 * left alone, so that their "modified" stays the time of their own last change.
 *
 * Threads: the tree belongs to who holds Lock(). The children's setters and getters want it as much
 * as the calls here do; only what CTreeCommands and CTreeStore do takes it by itself. It is held
 * for memory alone, never over a file or a socket. Before the daemon's threads run, and after they
 * have stopped, nobody needs it.
 * Ownership: children are not owned. They are destroyed before it: members behind it.
 */
class CTreeRoot : public QuorCore::CRecord
{
public:
    CTreeRoot() : CRecord(nullptr, "db") {}

    std::mutex& Lock() { return m_lock; } ///< Held by who uses the tree. Not recursive.

    bool bIsContainer() override { return true; }

    /// As CRecord, but a child that @p value does not name is not asked at all.
    void DeserializeArrayJson(QuorCore::CContextJson& context, Json::Value& value) override;

    /// As CRecord, but members without an attribute of that name are refused with 403.
    long iCheckJson(QuorCore::CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;

    /**
     * @brief Finds an attribute by its full name, as "/db/callback/authSms".
     * @param szFullName  Items of lists by their label or position.
     * @return Null when there is none. An item of a list may go when Lock() is released.
     */
    QuorCore::CObjectData* pFindByFullName(const std::string& szFullName);

private:
    std::mutex m_lock;
};
