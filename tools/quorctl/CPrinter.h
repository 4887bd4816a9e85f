/// @file
/// @brief What a command prints: text, or JSON objects, one on a line.
#pragma once

#include <json/value.h>
#include <string>

namespace QuorCtl
{
/// Stores bytes under @p szKey if they are UTF-8, else their hex digits under @p szKey + "_hex".
void SetBytes(Json::Value& json, const std::string& szKey, const std::string& szBytes);

/**
 * @brief Standard output in the form that the command line asks for.
 *
 * Each call reaches the reader at once, as a line may be all that comes for hours. Errors: throws
 * std::system_error when the output cannot be written; a reader that has gone is told by SIGPIPE.
 */
class CPrinter
{
public:
    explicit CPrinter(bool bJson) : m_bJson(bJson) {}

    bool bJson() const { return m_bJson; }

    /// Prints one of the two.
    void Print(const std::string& szText, const Json::Value& json) const;

private:
    bool m_bJson;
};
} // namespace QuorCtl
