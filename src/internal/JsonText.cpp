#include "internal/JsonText.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

namespace QuorCore
{
namespace
{
constexpr size_t kUsualBytes = 512; // of a record's text

/// What other writers than ours decide: texts to be escaped, and fractions.
void AppendByFastWriter(std::string& szOut, const Json::Value& value)
{
    szOut += szFastWriterJson(value);
    szOut.pop_back(); // the line feed
}

bool bIsPlain(char c)
{
    return c >= ' ' && c < 0x7F && c != '"' && c != '\\';
}

void AppendText(std::string& szOut, const char* pBegin, const char* pEnd)
{
    if (!std::all_of(pBegin, pEnd, bIsPlain)) {
        AppendByFastWriter(szOut, Json::Value(pBegin, pEnd));
        return;
    }
    szOut += '"';
    szOut.append(pBegin, pEnd);
    szOut += '"';
}

template <class Integer>
void AppendNumber(std::string& szOut, Integer iNumber)
{
    char aDigits[24]; // of 64 bits, with a sign
    const auto end = std::to_chars(std::begin(aDigits), std::end(aDigits), iNumber).ptr;
    szOut.append(aDigits, end);
}

void Append(std::string& szOut, const Json::Value& value); // each calls the other

void AppendArray(std::string& szOut, const Json::Value& array)
{
    szOut += '[';
    for (auto element = array.begin(); element != array.end(); ++element) {
        if (element != array.begin()) {
            szOut += ',';
        }
        Append(szOut, *element);
    }
    szOut += ']';
}

void AppendObject(std::string& szOut, const Json::Value& object)
{
    szOut += '{';
    for (auto member = object.begin(); member != object.end(); ++member) {
        if (member != object.begin()) {
            szOut += ',';
        }
        const char* pEnd = nullptr;
        const char* const pName = member.memberName(&pEnd);
        AppendText(szOut, pName, pEnd);
        szOut += ':';
        Append(szOut, *member);
    }
    szOut += '}';
}

void Append(std::string& szOut, const Json::Value& value)
{
    const char* pBegin = nullptr;
    const char* pEnd = nullptr;
    switch (value.type()) {
    case Json::nullValue:
        szOut += "null";
        break;
    case Json::intValue:
        AppendNumber(szOut, value.asLargestInt());
        break;
    case Json::uintValue:
        AppendNumber(szOut, value.asLargestUInt());
        break;
    case Json::realValue:
        AppendByFastWriter(szOut, value);
        break;
    case Json::booleanValue:
        szOut += value.asBool() ? "true" : "false";
        break;
    case Json::stringValue:
        if (value.getString(&pBegin, &pEnd)) {
            AppendText(szOut, pBegin, pEnd);
        }
        break;
    case Json::arrayValue:
        AppendArray(szOut, value);
        break;
    case Json::objectValue:
        AppendObject(szOut, value);
        break;
    }
}
} // namespace

std::string szCompactJson(const Json::Value& value)
{
    std::string szOut;
    szOut.reserve(kUsualBytes);
    Append(szOut, value);
    szOut += '\n';
    return szOut;
}
} // namespace QuorCore
