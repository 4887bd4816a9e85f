/// @file
/// @brief An attribute that is a point in time.
#pragma once

#include "libQuorCore/CObjectData.h"
#include "libQuorCore/Export.h"
#include "libQuorCore/date_time.h"

#include <ctime>
#include <string>

namespace QuorCore
{
/**
 * @brief A time in seconds since 1970-01-01 UTC.
 *
 * Binary: the attribute byte, then 64 bits; 0 of a null one, and reading 0 keeps the time that is
 * held. Of other values the low 32 bits are taken, with their sign. JSON: a string in the form of
 * UTC, see date_time.h. With the dynamic bit the time is the clock's whenever it is written or
 * published.
 *
 * Threads, errors: as CObjectData.
 */
class QUORCORE_API CDateTime : public CObjectData
{
public:
    CDateTime(CObject* pParent, const char* szLabel, time_t val); ///< Not null.

    long iSerialize(CSerialize& stream) override;

    /**
     * @brief Skips the time: it has no bounds.
     *
     * A ready stream moves by twice the 8 bytes of the time. This is meant, daemons count on the
     * positions; so a tree with a time cannot be checked from the stream that it was written to.
     */
    long iCheckStatus(CSerialize& stream, bool bReset) override;

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    /// Under eNotify the modified flag is lowered when the member is there. @return 0.
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    /// JSON null makes it null; a string that is no time is logged and leaves the time as it was.
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    /**
     * @brief Accepts any request when the attribute is writable, and none when it is not.
     *
     * The request is not looked at: a time is guarded by its access bits alone. Meant, and kept
     * also for a request that does not name the attribute.
     */
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;

    time_t tmGetVal() const { return m_Val; }
    void SetVal(time_t val);      ///< Not null; modified if it is another time.
    void GetCurrentDateTime();    ///< SetVal() of the clock.
    double dGetDiffTimeS() const; ///< @return Seconds from the time held until now.

protected:
    CDateTime(CObject* pParent, const char* szLabel); ///< Null, and 0.

    /// The access bits alone. @return 0 or -1.
    long iCheckAccess(CContextJson& context, std::string* pszError);

    time_t m_ValOffset = 0; ///< Reserved.
    time_t m_Val;

private:
    long iPushTime(CSerialize& stream);
    long iPopTime(CSerialize& stream);
};
} // namespace QuorCore
