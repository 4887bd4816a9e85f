/// @file
/// @brief What lists of all item types have in common.
#pragma once

#include "libQuorCore/CNumber.h"
#include "libQuorCore/CRecord.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/synchro.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QuorCore
{
/**
 * @brief A record of items of one type, whose number may change; see CList.
 *
 * With the can-delete bit reading rebuilds the list item by item; without it the list has a fixed
 * shape, and reading fills the items that are there. Binary: the number of items in 16 bits, the
 * attribute byte, the items. JSON: an array; an item that is null or not to be seen keeps its place
 * as JSON null, so that an array can be read back into a list of fixed shape.
 *
 * In file form a list that is a container has a file for each item, named by the item's label, in
 * the working directory; it is read back in the order of the numbers that name files, then of the
 * other names. Every regular file of the directory is an item then, so a directory belongs to one
 * container; the file of a record above, which may lie there too, is none, and an item of that
 * label has no file. A list of fixed shape reads the files of the items that it has.
 *
 * Threads: every operation holds m_Lock; an operation whose lock cannot be taken does nothing. A
 * pointer to an item is good as long as m_Lock is held: another thread may remove the item.
 * Ownership: items that were added with iAdd(item, true), and those that reading made, are the
 * list's and are deleted with it. No item may be a member or stand on the stack and be added so.
 * Other items live on, without a parent if the list was it.
 * Errors: as CObjectData.
 */
class QUORCORE_API CListBase : public CRecord
{
public:
    ~CListBase() override;

    /// Deletes the items with the can-delete bit, else gives all of them back to whoever has a
    /// pointer; then the list is empty and null.
    void Reset() override;

    /// @return 0 once the count was written, whatever became of the items: meant, a peer gets what
    ///         there is. Reading: -1 for another count than that of a fixed shape; else the first
    ///         result that is not 0, with the items read until then. Both: what the lock answered
    ///         when it cannot be taken, as EAGAIN.
    long iSerialize(CSerialize& stream) override;

    /// Tests the count, and with a ready stream each item. @return 0, -2200 more items than
    ///         the list takes, or the first other result that is not 0, as that of the lock.
    long iCheckStatus(CSerialize& stream, bool bReset) override;

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;

    /**
     * @brief Takes over an array; under ePost appends one item that the whole of @p value is.
     *
     * In a record all lists are asked: a POST to a record appends an item to each list that it
     * holds, so POST to the list itself. Under eNotify only the modified flag is lowered.
     *
     * @return 0 always.
     */
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    /**
     * @brief Refuses what reading would drop.
     *
     * That is: what is no array, null unless the list is null, another number of elements than a
     * fixed shape has, more than the list takes, and elements that their item refuses. An absent
     * member is accepted, a present one of a restricted list refused.
     */
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;

    /// Also by position, from "1", when no item has that label.
    CObjectData* pFindChildByName(const char* szName) override;
    bool bIsContainer() override { return m_bIsContainer; }

    /**
     * @brief Appends an item; a full list deletes its oldest one to make room.
     *
     * The item's label becomes the text of its child "name" if that is a text, else its position
     * from "1".
     *
     * @param bTake  Whether the list owns the item from now on, and is its parent.
     * @return 0; -1 nothing was added, the item is still the caller's.
     */
    long iAdd(CObjectData* pItem, bool bTake) override;
    /// Takes an item off, and deletes it if the list owns it. @return 0; -1 it is not here.
    long iRemove(CObjectData* pItem) override;

    /// Reads one item from each file of the working directory. @return 0; -2 when one could not be
    ///         read, which was logged and stopped no other; -1 without the lock.
    virtual long iDeserializeDirectoryJson(CContextJson& context);

    /// Puts an item, not owned, at a position from 0, or at the end; a full list takes none.
    void Insert(CObjectData* pItem, int iPos);
    long iPermute(int iFirst, int iSecond); ///< Swaps two positions. @return 0; -1 not there.
    /// Replaces the items by copies of at most @p iCount items of another list of the same type, by
    /// way of their bytes: of records with a text above 65535 bytes there is no exact copy.
    void Copy(CListBase& other, int iCount);
    bool bIsIndex(const char* szName); ///< Whether it is the position of an item, from "1".
    int iGetNbr();                     ///< @return The number of items.
    void SetSizeMax(uint16_t sizeMax); ///< Leaves items that are there.
    void SetIsContainer(bool bOn) { m_bIsContainer = bOn; } ///< Before threads use the list.

    CRecursiveLock m_Lock; ///< Held by whoever uses a pointer to an item.

protected:
    CListBase(CObject* pParent, const char* szLabel, uint16_t sizeMax);

    virtual CObjectData* pMakeItem() = 0; ///< @return A new item below the list, not yet in it.

    uint16_t m_SizeMax;  ///< The greatest number of items.
    CNumber<short> m_Nb; ///< The number of items for whoever shows it: above 32767 it is negative.
    bool m_bIsContainer = false;

private:
    /// What is needed to make an item anew.
    struct itemImage_t {
        ustring bytes;
        uint8_t iAttribut = 0; ///< Of an item that is none it is not among the bytes.
        std::string szText;    ///< Of a text: the bytes cannot tell more than 65535 of it.
    };

    static itemImage_t ImageOf(CObjectData& item);
    static long iReadImage(CObjectData& item, itemImage_t& image);
    void Forget(bool bDelete);
    void Drop(CObjectData* pItem);
    void SetFree(CObjectData* pItem);
    std::vector<std::string> ItemFiles() const;
    void CountItems();
    bool bAppend(std::unique_ptr<CObjectData> pItem);
    std::unique_ptr<CObjectData> pNewItem() { return std::unique_ptr<CObjectData>(pMakeItem()); }
    long iReadItems(CSerialize& stream);
    long iRebuild(CSerialize& stream, uint16_t iCount);
    long iCheckItems(CSerialize& stream, int iCount, bool bReset);
    Json::Value ItemsAsJson(CContextJson& context, int iDepth);
    void ReadArray(CContextJson& context, Json::Value& array);
    long iCheckArray(CContextJson& context, Json::Value& array, std::string* pszError, bool bReset);
};
} // namespace QuorCore
