/// @file
/// @brief The base of every attribute of the data tree.
#pragma once

#include "libQuorCore/CContextJson.h"
#include "libQuorCore/CObject.h"
#include "libQuorCore/Export.h"

#include <string>

namespace QuorCore
{
class CRecord;

/**
 * @brief A named node that can be written as JSON, read back, and checked against a request.
 *
 * A node whose parent is a record that is no list enters itself into it, and leaves it when it is
 * destroyed; a record that goes first takes itself off its children. Bits of the attribute byte:
 * read-only is not written by a request, none neither published nor written, masked not part of
 * public output, optional may be set null by a request, can-delete lets a list be rebuilt, dynamic
 * takes the clock.
 *
 * Threads: a tree is used by one thread at a time; lists lock themselves.
 * Ownership: neither parent nor children are owned, but for items that a list took over.
 * Errors: by return value and by the context; no exception of the JSON library or of an allocation
 * leaves a function whose name begins with bSerialize, bDeserialize, iCheckStream, iMo or iSi.
 * Rests on jsoncpp's Value, Reader, FastWriter and StyledStreamWriter. Documents may nest 1000
 * levels at most and carry comments.
 */
class QUORCORE_API CObjectData : public CObject
{
public:
    CObjectData(CObject* pParent, const char* szLabel);
    ~CObjectData() override;

    bool bGetIsModified() const { return m_bIsModified; } ///< Changed since the owner cleared it.
    void SetIsModified(bool bOn) { m_bIsModified = bOn; }

    /**
     * @brief Publishes the node into @p value; a plain node publishes nothing.
     * @param value   An object or null: receives the member named by the label. In array mode an
     *                array or null, which receives an element; a record's own members come into
     *                @p value itself then. Nothing happens to a value of another type.
     * @param bArray  Array mode.
     * @param iDepth  Levels of CDMObject records below this one; others take no notice of it.
     *
     * A class of its own may publish nodes that it makes for that alone. Those that a record holds
     * stay there, and keep their labels, until the call that publishes the whole returns: its
     * document has no copies of their labels.
     */
    virtual void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth);

    /// Takes over the member of @p value that is named by the label. What is absent stays.
    /// @return 0; -2 when a file could not be read.
    virtual long iDeserializeJson(CContextJson& context, Json::Value& value);

    /// Takes over @p value itself: the element of an array, the members of a record.
    virtual void DeserializeArrayJson(CContextJson& context, Json::Value& value);

    /**
     * @brief Tells whether iDeserializeJson() may be called with a request; changes nothing.
     * @param value     The request. iMoWrite() then reads the same one: no member may be added, as
     *                  by a look-up with operator[].
     * @param pszError  Receives the error document if it is still empty; may be null.
     * @param bReset    Whether the value becomes the initial one: of a number that passes, of a
     *                  text that fails.
     * @return 0 accepted. Otherwise -1 or 403, and the context has code and cause.
     */
    virtual long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                            bool bReset);

    /// The same for DeserializeArrayJson(): @p value is the element itself.
    virtual long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                                 bool bReset);

    /// @return The child of this label; of a record also the record itself. Null when there is none
    ///         or for null. A child of a list may go with the next change by another thread.
    virtual CObjectData* pFindChildByName(const char* szName);

    /// @return The node itself or the nearest data object above of this label; else null, logged
    ///         at level 6.
    virtual CObjectData* pFindParentByName(const char* szName);

    /**
     * @brief Finds the service that the node belongs to: the entry directly below "services".
     *
     * A node labelled "services" is its own answer. Asked by the attributes of a service, that is,
     * at least two levels below "services": the entry itself is not found by itself.
     *
     * @return The entry; else null, logged at level 6.
     */
    virtual CObjectData* pFindParentService();

    virtual bool bIsContainer(); ///< Whether the records directly below have a file each.

    /// Publishes the whole public tree, nulls included. In file form: records below containers are
    /// also written to their files in the working directory. @return 200, or 500 when it failed.
    virtual long iSiNotify(std::string* pszOut);

    /// Publishes what is public. @return 200, or 500 when it failed.
    virtual long iMoRead(std::string* pszOut, std::string szUserName, int iDepth);

    /**
     * @brief Checks a request and applies it if the whole of it passed.
     * @param pszIn       The document; null is not one.
     * @param pszOut      Receives the cause when the result is not 200; may be null.
     * @param szUserName  Kept in the context unless it is empty.
     * @return 200, or the context's code, 403 at least.
     */
    virtual long iMoWrite(CContextJson& context, std::string* pszIn, std::string* pszOut,
                          std::string szUserName);

    /**
     * @brief Whether the access bits allow to publish or to write.
     * @return False: the context has 403 and the cause.
     */
    virtual bool bCheckRestriction(CContextJson& context, bool bRead);

    /// @name Publishing, to a value, a string, a file, a directory.
    /// @return Whether it went well, whatever attributes were left out.
    /// @{

    /// @param pszOut  Receives one line with a line feed; may be null.
    /// @param pValue  Receives the document; may be null.
    bool bSerializeJson(CContextJson& context, std::string* pszOut, Json::Value* pValue,
                        int iDepth);
    bool bSerializeValueJson(CContextJson& context, Json::Value& value, int iDepth);
    bool bSerializeStreamJson(CContextJson& context, std::string& szOut, int iDepth);

    /**
     * @brief Replaces the content of a file, then flushes the buffers of the whole system.
     *
     * A regular file is replaced in one step: who reads it, now or after a power cut, sees the old
     * content or the new one. It keeps its mode and owner; a new one gets 0644, less the umask.
     * Where the directory allows no new file, it is written in place. The flush, sync(2), may take
     * seconds and is done on failure too.
     *
     * @param pValue  What to write; null: the node's own JSON.
     */
    bool bSerializeFileJson(CContextJson& context, const char* szFile, Json::Value* pValue,
                            int iDepth);
    bool bSerializeFileJson(CContextJson& context, const char* szFile, int iDepth);

    /**
     * @brief Publishes into a directory: every record directly below a container, and one without
     *        a parent, has the file of its label.
     *
     * The directory is made (0777, less the umask) and becomes the working directory of the
     * process, for all its threads and lastingly; one such operation at a time. All files lie in
     * this one directory, whichever container their records are below. A file that is there already
     * and belongs to no record stays: who wants exactly the tree publishes into a new directory. A
     * label that is no plain file name (empty, beginning with "." as ".." does, with "/" or a NUL,
     * or the name of a link or directory) is not published to a file, which is logged at level 3.
     *
     * @return Whether the directory could be made current.
     */
    bool bSerializeDirectoryJson(CContextJson& context, const char* szDirectory, int iDepth);
    /// @}

    /// @name Reading, without the check that a request must pass before.
    /// @return False: the text is not JSON, or applying it failed; the context has 403 and a cause.
    ///         Or a file could not be opened, which is logged as "fichier : name".
    /// @{

    /// @param pszIn   The document; null: @p pValue as it is.
    /// @param pValue  Receives the document parsed; may be null.
    bool bDeserializeJson(CContextJson& context, std::string* pszIn, Json::Value* pValue);
    bool bDeserializeValueJson(CContextJson& context, Json::Value& value);
    bool bDeserializeStreamJson(CContextJson& context, std::string& szIn);
    /// A NUL ends the text; a file above 64 MiB is refused.
    bool bDeserializeFileJson(CContextJson& context, const char* szFile, int iDepth);
    /// Reads what bSerializeDirectoryJson() wrote; makes the directory and the working directory
    /// as it does.
    bool bDeserializeDirectoryJson(CContextJson& context, const char* szDirectory, int iDepth);
    /// @}

    /// Parses a request and checks it as iCheckJson() does. @return 0; else as iCheckJson().
    long iCheckStreamJson(CContextJson& context, std::string* pszIn, std::string* pszError,
                          bool bReset);

    /**
     * @brief Writes the error document, in one line, if @p pszError is still empty.
     *
     * For eDelete with 405 or 409 "object"; for ePut with 403, 405 or 409 "object" and "cause";
     * JSON null for all else.
     */
    void BuildJsonError(CContextJson& context, std::string* pszError);

protected:
    /// Whether the node is to be seen: not masked in public output, and not restricted.
    bool bMayPublish(CContextJson& context);

    /// Puts the JSON form of a leaf where SerializeJson() has it.
    void StoreJson(const CContextJson& context, Json::Value& value, bool bArray,
                   Json::Value form) const;

    /// Publishes a leaf, whose JSON form @p form is asked for when it is needed.
    template <class Form>
    void PublishLeaf(CContextJson& context, Json::Value& value, bool bArray, Form form)
    {
        if (!bMayPublish(context)) {
            return;
        }
        if (!bIsNull()) {
            StoreJson(context, value, bArray, form());
        } else if (context.m_bPubAll) {
            StoreJson(context, value, bArray, Json::Value());
        }
    }

    /// @return The member named by the label; null when there is none.
    Json::Value* pFindOwnMember(Json::Value& value) const;

    /// Whether a JSON null in a request may set the node null: it is optional, and writable unless
    /// it is null already. @return 0, -1 not optional, 403 restricted.
    long iCheckNull(CContextJson& context);

    /// Whether records of file form have a file each at this place: below a container, or without
    /// a parent.
    bool bHasOwnFile() const;

    /// Whether a record above has the file of this name. A client may name an item so.
    bool bIsFileAbove(const std::string& szName) const;

    /// Writes @p value to the file of the label, in the working directory; refused and logged when
    /// the label is no plain file name, or that of a record above.
    void WriteOwnFile(Json::Value& value);

    /// Reads the file of the label. @return Whether it could be.
    bool bReadOwnFile(CContextJson& context);

    bool m_bIsModified = false;

private:
    friend class CRecord;
    friend class CListBase;

    /// @return The node if it is a record, else null; a list asks each item that it takes.
    CRecord* pRecordOrNull();

    bool bApplyFile(CContextJson& context, const char* szFile, bool bOwnLabel);

    bool m_bIsRecord = false;
    bool m_bOwned = false;              ///< By the list that holds it.
    CRecord* m_pHolder = nullptr;       ///< The record that lists it.
    CObjectData* m_pNextHeld = nullptr; ///< Neighbours among all that the record holds.
    CObjectData* m_pFormerHeld = nullptr;
};
} // namespace QuorCore
