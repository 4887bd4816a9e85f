#include "CPrinter.h"

#include "DataText.h"

#include <cerrno>
#include <cstdio>
#include <json/writer.h>
#include <system_error>

namespace QuorCtl
{
namespace
{
constexpr int kDigits = 6; // of a fraction; times are measured to a microsecond at best

std::string szJsonLine(const Json::Value& json)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = kDigits;
    builder["precisionType"] = "decimal";
    std::string szLine;
    for (const char c : Json::writeString(builder, json)) { // escapes all controls but this one
        szLine += c == '\x7f' ? "\\u007f" : std::string(1, c);
    }
    return szLine + '\n';
}
} // namespace

void SetBytes(Json::Value& json, const std::string& szKey, const std::string& szBytes)
{
    if (bIsUtf8(szBytes)) {
        json[szKey] = szBytes;
    } else {
        json[szKey + "_hex"] = szHex(szBytes);
    }
}

void CPrinter::Print(const std::string& szText, const Json::Value& json) const
{
    const std::string szOutput = m_bJson ? szJsonLine(json) : szText;
    if (std::fwrite(szOutput.data(), 1, szOutput.size(), stdout) != szOutput.size() ||
        std::fflush(stdout) != 0) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
}
} // namespace QuorCtl
