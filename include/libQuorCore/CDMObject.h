/// @file
/// @brief The base of every record of the data model.
#pragma once

#include "libQuorCore/CDMDateTime.h"
#include "libQuorCore/CRecord.h"
#include "libQuorCore/Export.h"

namespace QuorCore
{
/// A record that tells when it was last written from outside, in its first child "modified", and
/// that is published down to a depth.
class QUORCORE_API CDMObject : public CRecord
{
public:
    CDMObject(CObject* pParent, const char* pszLabel);

    /// @param iDepth  Levels of such records below this one that are published, too; -1: not even
    ///                this one's own members.
    void SerializeJson(CContextJson& context, Json::Value& value, bool bArray, int iDepth) override;
    /// As CRecord; under ePut "modified" becomes the current time.
    long iDeserializeJson(CContextJson& context, Json::Value& value) override;
    void DeserializeArrayJson(CContextJson& context, Json::Value& value) override;

    CDMDateTime m_Modified; ///< Of the last write from outside; null until there was one.

private:
    void NoteWrite(const CContextJson& context);
};
} // namespace QuorCore
