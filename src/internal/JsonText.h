/// @file
/// @brief JSON documents from text and to text: the one place that uses jsoncpp's older classes.
#pragma once

#include <cstddef>
#include <json/json.h>
#include <sstream>
#include <string>

// Newer versions of jsoncpp mark these classes as deprecated. They fix the texts that daemons and
// their clients exchange, so they stay; nothing outside this header names them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace QuorCore
{
/**
 * @brief Parses a text, comments allowed and kept.
 * @param szErrors  Receives the reader's messages when it is no JSON.
 * @return Whether it is JSON. Throws what jsoncpp throws, as for more than 1000 levels.
 */
inline bool bParseJson(const std::string& szText, Json::Value& value, std::string& szErrors)
{
    Json::Reader reader;
    if (reader.parse(szText.data(), szText.data() + szText.size(), value)) {
        return true;
    }
    szErrors = reader.getFormattedErrorMessages();
    return false;
}

/// @return Whether some places of an array were skipped when a later one was stored. They count and
///         are null, but iterators pass over them. A parsed array has none.
inline bool bHasGaps(const Json::Value& array)
{
    return array.end() - array.begin() != static_cast<std::ptrdiff_t>(array.size());
}

/// @return The document in one line that ends in a line feed: what Json::FastWriter writes, without
///         its copies of every name.
std::string szCompactJson(const Json::Value& value);

/// @return The same of a document that nobody else needs: nothing is left of what it contained.
std::string szCompactJson(Json::Value&& document);

/// @return The same by Json::FastWriter itself.
inline std::string szFastWriterJson(const Json::Value& value)
{
    return Json::FastWriter().write(value);
}

/// @return The document as files have it: indented with tabs.
inline std::string szStyledJson(const Json::Value& value)
{
    std::ostringstream text;
    Json::StyledStreamWriter("\t").write(text, value);
    return text.str();
}
} // namespace QuorCore

#pragma GCC diagnostic pop
