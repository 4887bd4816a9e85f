/// @file
/// @brief What one JSON operation on a data tree is, and how it went.
#pragma once

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/Export.h"

#include <cstdint>
#include <json/json.h>
#include <string>

namespace QuorCore
{
class CObjectData;

/**
 * @brief Travels with one JSON operation through the tree: command, form, user, and the outcome.
 *
 * A context lives for one operation. Threads: one at a time. Errors: the outcome is kept here, as a
 * code in the manner of HTTP and a cause text for people; nothing throws.
 */
class QUORCORE_API CContextJson
{
public:
    /// What is asked for.
    enum enumCmd {
        eGet = 0,
        eDelete = 1,
        ePut = 2,
        ePost = 3,
        eNotify = 4, ///< Publishing: only attributes whose modified flag is set.
    };

    static constexpr int kOk = 200;         ///< The outcome as long as nothing is refused.
    static constexpr int kRefused = 403;    ///< Access, type, range or text refused.
    static constexpr int kNotAllowed = 405; ///< The command does not apply there.
    static constexpr int kConflict = 409;   ///< The command contradicts what there is.
    static constexpr int kFailed = 500;     ///< Publishing or applying failed.

    /**
     * @param cmd          What is asked for.
     * @param szUserName   On whose behalf; may be empty.
     * @param format       SERIALIZE_JSON_STREAM or SERIALIZE_JSON_FILE.
     * @param bPubAll      Whether what is null is published, as JSON null.
     * @param bOnlyPublic  Whether masked attributes are left out.
     */
    CContextJson(enumCmd cmd, std::string szUserName, eSerializeFormat format, bool bPubAll,
                 bool bOnlyPublic);
    CContextJson(const CContextJson& other); ///< Everything but m_bHashOnly.
    CContextJson& operator=(const CContextJson& other);
    ~CContextJson();

    bool bIsFile() const { return m_iFormat == SERIALIZE_JSON_FILE; } ///< Files, not a string.

    /// Notes a refusal: the code becomes 403 and the cause @p szCause, whatever it was.
    void Refuse(const std::string& szCause);

    /// Traces a document, in one line at debug level, if m_bLog is set.
    void Log(Json::Value& value);

    /// Writes a document to a file, as CObjectData::bSerializeFileJson() does; a failure is logged.
    void Save(Json::Value& value, const char* szFile);

    bool m_bPubAll;            ///< What is null is published, as JSON null.
    bool m_bHashOnly = false;  ///< Reserved; neither set by the arguments nor copied.
    uint32_t m_iHash = 0;      ///< Reserved.
    int m_iFormat;             ///< An eSerializeFormat.
    bool m_bRoot = true;       ///< The next record is the root: its members are the document's.
    std::string m_szUserName;  ///< On whose behalf.
    bool m_bLog = true;        ///< Refused texts are logged.
    enumCmd m_Cmd;             ///< What is asked for.
    int32_t m_iCodeHTTP = kOk; ///< The outcome. Publishing may leave 403 here when it went well:
                               ///< some attribute was not to be seen.
    std::string m_szCause;     ///< Why something was refused; empty until it is.
    bool m_bOnlyPublic;        ///< Masked attributes are left out.

private:
    friend class CObjectData;
    friend class CRecord;

    // The node about to be published whose label outlives the document, which then needs no copy of
    // it. Never an item of a list: another thread may remove it before the document is written. Nor
    // a node that a class of its own makes while it is published. Null: none. Not copied.
    const CObjectData* m_pLabelStays = nullptr;
};
} // namespace QuorCore
