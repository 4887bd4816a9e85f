/// @file
/// @brief Short ways to write, read and publish data trees in tests.
#pragma once

#include "libQuorCore/CContextJson.h"
#include "libQuorCore/CObjectData.h"
#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSerializeBuffer.h"

#include <string>

namespace TestSupport
{
/// @brief The bytes of an object.
inline QuorCore::ustring Encoded(QuorCore::CObject& object, bool bOnlyPublic = false)
{
    QuorCore::ustring bytes;
    QuorCore::CSerialize stream(&bytes, true, false, bOnlyPublic);
    return object.iSerialize(stream) == 0 ? bytes : QuorCore::ustring();
}

/// @brief Reads an object from bytes. @return Its result.
inline long lDecode(QuorCore::CObject& object, QuorCore::ustring bytes, bool bOnlyPublic = false)
{
    QuorCore::CSerializeBuffer stream(bytes.data(), static_cast<long>(bytes.size()), false, false,
                                      bOnlyPublic ? 1 : 0);
    return object.iSerialize(stream);
}

/// @brief Runs the check pass over bytes. @return Its result.
inline long lCheck(QuorCore::CObject& object, QuorCore::ustring bytes, bool bReset = false)
{
    QuorCore::CSerializeBuffer stream(bytes.data(), static_cast<long>(bytes.size()), false, false,
                                      0);
    return object.iCheckStatus(stream, bReset);
}

/// @brief Runs the check pass over the values that an object holds. @return Its result.
inline long lCheckHeld(QuorCore::CObject& object, bool bReset = false)
{
    QuorCore::CSerialize stream(nullptr, false, false, false);
    return object.iCheckStatus(stream, bReset);
}

/// @brief A context for a document in a string: everything is seen, nulls are left out.
inline QuorCore::CContextJson Context(QuorCore::CContextJson::enumCmd cmd)
{
    return QuorCore::CContextJson(cmd, "", QuorCore::SERIALIZE_JSON_STREAM, false, false);
}

/// @brief The document of a node, in one line; empty when it failed.
inline std::string szPublished(QuorCore::CObjectData& node, QuorCore::CContextJson context)
{
    std::string szOut;
    return node.bSerializeStreamJson(context, szOut, 1000) ? szOut : std::string();
}

/// @brief The document of a node, nulls included.
inline std::string szPublishedWhole(QuorCore::CObjectData& node)
{
    QuorCore::CContextJson context = Context(QuorCore::CContextJson::eGet);
    context.m_bPubAll = true;
    return szPublished(node, context);
}

/// @brief Checks a request. @return The result of the check.
inline long lCheckText(QuorCore::CObjectData& node, std::string szText,
                       QuorCore::CContextJson& context, bool bReset = false)
{
    std::string szError;
    return node.iCheckStreamJson(context, &szText, &szError, bReset);
}

/// @brief The same with a context of a put.
inline long lCheckText(QuorCore::CObjectData& node, const std::string& szText, bool bReset = false)
{
    QuorCore::CContextJson context = Context(QuorCore::CContextJson::ePut);
    return lCheckText(node, szText, context, bReset);
}

/// @brief Reads a document without a check. @return Whether that worked.
inline bool bApply(QuorCore::CObjectData& node, std::string szText,
                   QuorCore::CContextJson::enumCmd cmd = QuorCore::CContextJson::ePut)
{
    QuorCore::CContextJson context = Context(cmd);
    return node.bDeserializeStreamJson(context, szText);
}
} // namespace TestSupport
