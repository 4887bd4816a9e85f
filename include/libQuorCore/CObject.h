/// @file
/// @brief The named node that every framework object is, and the message that objects post.
#pragma once

#include "libQuorCore/CFileConfig.h"
#include "libQuorCore/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace QuorCore
{
class CFileNotification;
class CMsg;
class CSerialize;
class CSlotCallbackManager;

/// Events of the framework; fixed values, since they travel in messages and frames. Applications
/// share the same 32-bit space.
enum eEventQuorCore : uint32_t {
    EVT_PROCESS_STOPPED = 0, ///< A child ended: param 1 its pid, param 2 its wait status; 0, 0 on a
                             ///< regular stop.
    EVT_COM_CONNECTED = 1,   ///< A link came up.
    EVT_COM_DISCONNECTED = 2, ///< A link went down.
    EVT_CONFIG_SAVE = 3,      ///< The configuration is to be saved.
    EVT_DATABASE_SAVE = 4,    ///< Data is to be saved.
    EVT_DATABASE_READ = 5,    ///< Data is to be read.
    EVT_THREAD_STARTED = 6,   ///< Posted by every worker thread as it starts.
    EVT_COM_PING = 7,         ///< A socket endpoint received a ping.
    EVT_COM_PONG = 8,         ///< A socket endpoint received the answer to a ping.
    CMD_CONFIG_ETH = 100,     ///< Ethernet configuration command of applications.
};

/// A firmware version as it is exchanged and shown.
struct versionFW_t {
    uint16_t version;
    char szAppName[128]; ///< Zero-terminated; readers bound it by its size all the same.
};
static_assert(sizeof(versionFW_t) == 2 + 128, "the record is 130 bytes on the wire");

/// The running daemon's own version record; filled by the daemon before it starts its threads.
extern QUORCORE_API versionFW_t g_versionFW;

/**
 * @brief A named node of the object tree that can post messages to the process's dispatcher.
 *
 * The tree is held by upward links only: a node knows its parent and no children.
 * Threads: posting from any; the plain accessors belong to the owner of the object.
 * Ownership: owns its configuration store; neither the parent nor the extra data, both of which
 * must outlive their use. Errors: by return value; nothing throws.
 */
class QUORCORE_API CObject
{
public:
    /// @param pParent   Parent node or null; not owned.
    /// @param szLabel   Node name; copied; null is an empty one.
    CObject(CObject* pParent, const char* szLabel);
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;

    /// Messages of this object that are still queued lose their origin; one that another thread is
    /// dispatching is waited for.
    virtual ~CObject();

    virtual void Reset() {} ///< For derived classes; does nothing here.

    /**
     * @brief Posts a message to the process's dispatcher.
     * @param pMsg  Belongs to the dispatcher from then on when its m_bDoDelete is set; otherwise it
     *              stays the caller's, who keeps it alive until it has been dispatched.
     * @return 0 queued; -1 the dispatcher could not be woken, the message stays queued; -5 there is
     *         no dispatcher, the message stays the caller's.
     */
    virtual long iPostMessage(CMsg* pMsg);

    /**
     * @brief Posts a new message whose origin is this object.
     * @param pData      Payload, copied; @p iDataSize bytes; may be null.
     * @param iPriority  Accepted and not kept, as CMsg has it: an urgent message is built by hand.
     * @return As the other form; with -5 nothing is left over.
     */
    virtual long iPostMessage(uint32_t iEventId, uint32_t iParam1, uint32_t iParam2, void* pData,
                              uint32_t iDataSize, int iPriority);

    /**
     * @brief Writes or reads the attribute byte, unless the none flag is set.
     * @return 0, or the stream's result.
     */
    virtual long iSerialize(CSerialize& stream);

    /// Skips the attribute byte of a ready stream. @return 0, or the stream's result.
    virtual long iCheckStatus(CSerialize& stream, bool bReset);

    virtual bool bIsNull() const { return bHasFlag(ATTRIBUT_NULL); } ///< Holds no value.
    virtual void SetNull(bool bOn) { SetFlag(ATTRIBUT_NULL, bOn); }

    bool bIsReadOnly() const { return bHasFlag(ATTRIBUT_READ_ONLY); } ///< No client may write it.
    void SetReadOnly(bool bOn) { SetFlag(ATTRIBUT_READ_ONLY, bOn); }
    bool bIsAttributeNone() const { return bHasFlag(ATTRIBUT_NONE); } ///< Not serialised.
    void SetAttributeNone(bool bOn) { SetFlag(ATTRIBUT_NONE, bOn); }
    /// A client may delete it.
    bool bIsAttributeCanDelete() const { return bHasFlag(ATTRIBUT_CAN_DELETE); }
    void SetAttributeCanDelete(bool bOn) { SetFlag(ATTRIBUT_CAN_DELETE, bOn); }
    bool bIsAttributeDynamic() const { return bHasFlag(ATTRIBUT_DYNAMIC); } ///< Made at run time.
    void SetAttributeDynamic(bool bOn) { SetFlag(ATTRIBUT_DYNAMIC, bOn); }
    bool bIsAttributeOptional() const { return bHasFlag(ATTRIBUT_OPTIONAL); } ///< May be absent.
    void SetAttributeOptional(bool bOn) { SetFlag(ATTRIBUT_OPTIONAL, bOn); }
    bool bIsAttributeMasked() const { return bHasFlag(ATTRIBUT_MASKED); } ///< Hidden from clients.
    void SetAttributeMasked(bool bOn) { SetFlag(ATTRIBUT_MASKED, bOn); }

    void SetLabel(const char* szLabel); ///< Copied; null is an empty one.
    const std::string& szGetLabel() const { return m_szLabel; }
    void SetParent(CObject* pParent) { m_pParent = pParent; } ///< Not owned.
    CObject* pGetParent() const { return m_pParent; }
    void SetExtraData(void* pExtraData) { m_pExtraData = pExtraData; } ///< Not owned.
    void* pGetExtraData() const { return m_pExtraData; }

    /**
     * @brief The labels from the root, or from the nearest ancestor labelled "db", down to here.
     * @return For x under b under db under root "/db/b/x"; for a root x "/x". The parents must form
     *         no ring.
     */
    std::string szGetFullName() const;

    /**
     * @brief Sets the dispatcher and the file watcher of the process, for every object.
     *
     * Called once by the application at its start, before other threads post. Neither is owned;
     * each withdraws itself when it is destroyed.
     */
    void SetEventManager(CSlotCallbackManager* pCallbackManager,
                         CFileNotification* pFileNotification);

    CFileConfig m_FileConfig; ///< The object's own settings.

protected:
    /// Bits of m_iAttribut.
    enum eAttribut : uint8_t {
        ATTRIBUT_READ_ONLY = 0x01,
        ATTRIBUT_NULL = 0x02,
        ATTRIBUT_NONE = 0x04,
        ATTRIBUT_CAN_DELETE = 0x08,
        ATTRIBUT_DYNAMIC = 0x10,
        ATTRIBUT_OPTIONAL = 0x20,
        ATTRIBUT_MASKED = 0x40,
    };

    /// Takes this object out of queued messages, and waits for one of its own that another thread
    /// is dispatching. A destructor calls it while all that slots use of the object still lives.
    void WithdrawMessages();

    /// @return Whether a message without payload that this object posted for @p iEventId still
    ///         waits in the dispatcher's queue.
    bool bIsPostQueued(uint32_t iEventId) const;

    std::string m_szLabel;
    CObject* m_pParent;
    void* m_pExtraData;
    uint8_t m_iAttribut;
    bool m_bIsThread = false; ///< Set by CThread; see pAsThread() there.

    static std::atomic<CFileNotification*> m_pFileNotification;
    static std::atomic<CSlotCallbackManager*> m_pCallbackManager;

private:
    friend class CSlotCallbackManager;
    friend class CFileNotification;
    friend class CThread;

    bool bHasFlag(eAttribut bit) const { return (m_iAttribut & bit) != 0; }
    void SetFlag(eAttribut bit, bool bOn)
    {
        m_iAttribut = static_cast<uint8_t>(bOn ? m_iAttribut | bit : m_iAttribut & ~bit);
    }

    std::atomic<bool> m_bPosted{false}; ///< Some message named this object as its origin.
};

/**
 * @brief A message on its way through the dispatcher.
 *
 * Ownership: with m_bDoDelete the message owns its payload, and the dispatcher owns the message
 * once posted. Without it the poster keeps both. A payload that the message copied lies within the
 * message when it is small: who wants to keep it copies it. One that is put into m_pData by hand is
 * memory of malloc(3).
 */
class QUORCORE_API CMsg
{
public:
    CMsg(); ///< Every field zero, false or null; for records filled field by field.

    /**
     * @brief Builds a message; the payload is copied only when @p bDoDelete is set.
     *
     * A message built without @p bDoDelete carries no payload at all, and one whose payload cannot
     * be allocated is built without it.
     *
     * @param pOrigin    Poster; not owned.
     * @param iPriority  Accepted and deliberately not kept: m_iPriority is 0. Who wants an urgent
     *                   message sets m_iPriority before posting it, so that no caller overtakes
     *                   the queue by a default argument.
     */
    CMsg(CObject* pOrigin, bool bDoDelete, uint32_t iEventId, uint32_t iParam1, uint32_t iParam2,
         void* pData, uint32_t iDataSize, int iPriority);
    CMsg(const CMsg&) = delete;
    CMsg& operator=(const CMsg&) = delete;
    virtual ~CMsg(); ///< Frees the payload when m_bDoDelete is set.

    /**
     * @brief Reads an object out of the payload.
     * @return 0, or the result of the object's iSerialize(), which is logged; it may then be filled
     *         in part.
     */
    long iReadObject(CObject& object);

    CObject* m_pOrigin;
    uint32_t m_iEventId;
    int32_t m_iParam1;
    int32_t m_iParam2;
    uint32_t m_iPriority; ///< 0 queued at the back, else at the front.
    bool m_bDoDelete;
    uint32_t m_iDataSize; ///< Bytes at m_pData.
    void* m_pData;

private:
    static constexpr uint32_t kInlineSize =
        40; ///< Payloads up to here need no memory of their own.
    alignas(std::max_align_t) unsigned char m_aInline[kInlineSize]; // as malloc(3) aligns
};
} // namespace QuorCore
