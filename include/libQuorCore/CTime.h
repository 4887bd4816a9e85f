/// @file
/// @brief A point in time that is also read in the local form.
#pragma once

#include "libQuorCore/CDateTime.h"
#include "libQuorCore/Export.h"

#include <ctime>
#include <string>

namespace QuorCore
{
/**
 * @brief A time as CDateTime, in binary the same, in JSON more tolerant.
 *
 * Published in the form of UTC; read in that form and in the local one, which names its distance
 * to UTC. What is published is read back as the same time.
 */
class QUORCORE_API CTime : public CDateTime
{
public:
    CTime(CObject* pParent, const char* szLabel); ///< Null.
    /// @param szText  A time in one of the two forms; with null or another text the attribute is
    ///                null.
    CTime(CObject* pParent, const char* szLabel, const char* szText);

    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;
    long iCheckJson(CContextJson& context, Json::Value& value, std::string* pszError,
                    bool bReset) override;
    long iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                         bool bReset) override;

    static std::string szGetTimeString(time_t time, bool bLocal); ///< As GetDateTimeString().
    std::string szGetTimeString(bool bLocal) const;               ///< Of the time held.
};
} // namespace QuorCore
