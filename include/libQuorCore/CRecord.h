/// @file
/// @brief A node with children.
#pragma once

#include "libQuorCore/CObjectData.h"
#include "libQuorCore/Export.h"

#include <deque>
#include <string>

namespace QuorCore
{
/**
 * @brief A node whose members are other nodes, in a fixed order.
 *
 * JSON: an object whose members are the children's labels; the root's children are the members of
 * the document itself. Binary: the attribute byte, then each child, without count or names. Built
 * not null.
 *
 * Ownership: children are listed, not owned. One that is destroyed leaves the list; a node is held
 * by one record at a time. Threads, errors: as CObjectData.
 */
class QUORCORE_API CRecord : public CObjectData
{
public:
    CRecord(CObject* pParent, const char* szLabel);
    ~CRecord() override;

    /// @return 0; else the first result of the stream or of a child that is not 0, where the walk
    ///         ended. What was read until then stays.
    long iSerialize(CSerialize& stream) override;
    long iCheckStatus(CSerialize& stream, bool bReset) override;

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    /**
     * @brief Checks the children against the member named by the label, or, of the root, against
     *        the document itself.
     *
     * An absent member is accepted. A present one is refused when the record is read-only or none,
     * and when it is neither JSON null nor an object. The walk ends at the first refusal.
     */
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;
    CObjectData* pFindChildByName(const char* szName) override;

    /**
     * @brief Adds a child at the end; it leaves the record that held it.
     * @param pChild  Not owned. Null changes nothing; so does one that is here already, and the
     * record itself.
     * @param bTake   Whether the record becomes its parent.
     * @return 0.
     */
    virtual long iAdd(CObjectData* pChild, bool bTake);

    /// Takes a child off the list; it lives on, without a parent. @return 0; -1 it is not here.
    virtual long iRemove(CObjectData* pChild);

    /// Puts a child at a position from 0; at the end when there is no such position.
    void Insert(CObjectData* pChild, int iPos);
    CObjectData* pGetAt(int iPos); ///< @return The child at a position from 0; null outside.
    /// @return @p pChild if it is here, else null.
    CObjectData* pFind(CObjectData* pChild);
    int iGetIndex(CObjectData* pChild); ///< @return Its position from 0; -1 when it is not here.

protected:
    /// The attribute byte, then the children, without the lines of the log.
    long iWalk(CSerialize& stream);

    /// The children against @p value, which holds their members.
    long iCheckMembers(CContextJson& context, Json::Value& value, std::string* pszError,
                       bool bReset);

    /// Refuses a request: 403, the cause, the error document, a line in the log. @return -1.
    long iRefuseJson(CContextJson& context, std::string* pszError);

    /**
     * @brief Publishes the children as members of @p value, of the member named by the label, or,
     *        in file form, of a file.
     * @param bInto    Whether @p value itself receives them.
     */
    void PublishMembers(CContextJson& context, Json::Value& value, bool bInto, int iDepth);

    /// Takes a child off without a look at whose it is.
    void Detach(CObjectData* pChild);

    std::deque<CObjectData*> m_Record; ///< In the order of serialisation; null entries are skipped.
    bool m_bIsList = false;            ///< Nodes do not enter themselves.

private:
    friend class CObjectData;
    friend class CListBase;

    void Link(CObjectData* pChild);
    void Unlink(CObjectData* pChild);

    CObjectData* m_pFirstHeld = nullptr; ///< Of those that entered or were added.
};
} // namespace QuorCore
