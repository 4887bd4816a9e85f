#include "internal/JsonText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <string_view>

namespace QuorCore
{
namespace
{
/// Text on its way into a string, a buffer at a time: most of it comes in pieces of a few bytes.
class CTextOut
{
public:
    explicit CTextOut(std::string& szOut) : m_szOut(szOut) {}
    CTextOut(const CTextOut&) = delete;
    CTextOut& operator=(const CTextOut&) = delete;

    void Put(char c)
    {
        MakeRoom(1);
        m_aBuffer[m_used++] = c;
    }

    void Put(const char* pBegin, const char* pEnd)
    {
        const auto size = static_cast<size_t>(pEnd - pBegin);
        MakeRoom(size);
        if (size > sizeof(m_aBuffer)) {
            m_szOut.append(pBegin, size);
        } else {
            std::copy(pBegin, pEnd, m_aBuffer + m_used);
            m_used += size;
        }
    }

    void Put(std::string_view szText) { Put(szText.data(), szText.data() + szText.size()); }

    void Flush()
    {
        m_szOut.append(m_aBuffer, m_used);
        m_used = 0;
    }

private:
    void MakeRoom(size_t size)
    {
        if (size > sizeof(m_aBuffer) - m_used) {
            Flush();
        }
    }

    std::string& m_szOut;
    size_t m_used = 0;
    char m_aBuffer[512]; // of a record's text
};

/// What other writers than ours decide: texts to be escaped, fractions, and arrays with gaps.
void PutByFastWriter(CTextOut& out, const Json::Value& value)
{
    const std::string szText = szFastWriterJson(value);
    out.Put(std::string_view(szText).substr(0, szText.size() - 1)); // without the line feed
}

constexpr std::array<bool, 256> PlainCharacters()
{
    std::array<bool, 256> plain = {};
    for (size_t i = ' '; i < 0x7F; ++i) {
        plain[i] = i != '"' && i != '\\';
    }
    return plain;
}

bool bIsPlain(const char* pBegin, const char* pEnd)
{
    static constexpr std::array<bool, 256> kPlain = PlainCharacters();
    bool bPlain = true; // to the end without a branch: nearly all texts are
    for (const char* pNext = pBegin; pNext != pEnd; ++pNext) {
        bPlain &= kPlain[static_cast<unsigned char>(*pNext)];
    }
    return bPlain;
}

void PutText(CTextOut& out, const char* pBegin, const char* pEnd)
{
    if (!bIsPlain(pBegin, pEnd)) {
        PutByFastWriter(out, Json::Value(pBegin, pEnd));
        return;
    }
    out.Put('"');
    out.Put(pBegin, pEnd);
    out.Put('"');
}

template <class Integer>
void PutNumber(CTextOut& out, Integer iNumber)
{
    char aDigits[24]; // of 64 bits, with a sign
    out.Put(aDigits, std::to_chars(std::begin(aDigits), std::end(aDigits), iNumber).ptr);
}

/// A document that nobody else needs goes as it is written, container by container: what a large
/// one has in memory is looked at once, and not once more when it has left the caches.
void Release(const Json::Value& /*value*/) {}
void Release(Json::Value& value)
{
    Json::Value empty;
    value.swapPayload(empty);
}

template <class Value>
void Put(CTextOut& out, Value& value); // each calls the other

template <class Value>
void PutArray(CTextOut& out, Value& array)
{
    if (bHasGaps(array)) {
        PutByFastWriter(out, array);
        return;
    }
    const auto begin = array.begin();
    const auto end = array.end();
    out.Put('[');
    for (auto element = begin; element != end; ++element) {
        if (element != begin) {
            out.Put(',');
        }
        Put(out, *element);
    }
    out.Put(']');
}

template <class Value>
void PutObject(CTextOut& out, Value& object)
{
    const auto begin = object.begin();
    const auto end = object.end();
    out.Put('{');
    for (auto member = begin; member != end; ++member) {
        if (member != begin) {
            out.Put(',');
        }
        const char* pNameEnd = nullptr;
        const char* const pName = member.memberName(&pNameEnd);
        PutText(out, pName, pNameEnd);
        out.Put(':');
        Put(out, *member);
    }
    out.Put('}');
}

template <class Value>
void Put(CTextOut& out, Value& value)
{
    const char* pBegin = nullptr;
    const char* pEnd = nullptr;
    switch (value.type()) {
    case Json::nullValue:
        out.Put("null");
        break;
    case Json::intValue:
        PutNumber(out, value.asLargestInt());
        break;
    case Json::uintValue:
        PutNumber(out, value.asLargestUInt());
        break;
    case Json::realValue:
        PutByFastWriter(out, value);
        break;
    case Json::booleanValue:
        out.Put(value.asBool() ? "true" : "false");
        break;
    case Json::stringValue:
        if (value.getString(&pBegin, &pEnd)) {
            PutText(out, pBegin, pEnd);
        }
        break;
    case Json::arrayValue:
        PutArray(out, value);
        Release(value);
        break;
    case Json::objectValue:
        PutObject(out, value);
        Release(value);
        break;
    }
}

template <class Value>
std::string szCompact(Value& value)
{
    std::string szText;
    CTextOut out(szText);
    Put(out, value);
    out.Put('\n');
    out.Flush();
    return szText;
}
} // namespace

std::string szCompactJson(const Json::Value& value)
{
    return szCompact(value);
}

std::string szCompactJson(Json::Value&& document)
{
    return szCompact(document);
}
} // namespace QuorCore
