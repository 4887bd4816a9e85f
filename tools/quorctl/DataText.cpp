#include "DataText.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace QuorCtl
{
namespace
{
constexpr size_t kDumpBytes = 16; // on a line

uint8_t iByteAt(const std::string& szBytes, size_t position)
{
    return static_cast<uint8_t>(szBytes[position]);
}

bool bIsContinuation(uint8_t iByte)
{
    return (iByte & 0xC0) == 0x80;
}

// The length of the character at a position; 0: there is none. RFC 3629, section 4.
size_t CharacterBytes(const std::string& szBytes, size_t position)
{
    const uint8_t iFirst = iByteAt(szBytes, position);
    const size_t length = iFirst < 0x80                     ? 1
                          : iFirst >= 0xC2 && iFirst < 0xE0 ? 2
                          : iFirst >= 0xE0 && iFirst < 0xF0 ? 3
                          : iFirst >= 0xF0 && iFirst < 0xF5 ? 4
                                                            : 0;
    if (length == 0 || szBytes.size() - position < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if (!bIsContinuation(iByteAt(szBytes, position + i))) {
            return 0;
        }
    }
    const uint8_t iSecond = length > 1 ? iByteAt(szBytes, position + 1) : 0;
    const bool bOverlong = (iFirst == 0xE0 && iSecond < 0xA0) || (iFirst == 0xF0 && iSecond < 0x90);
    const bool bSurrogate = iFirst == 0xED && iSecond >= 0xA0;
    const bool bBeyond = iFirst == 0xF4 && iSecond >= 0x90;
    return bOverlong || bSurrogate || bBeyond ? 0 : length;
}

// C0 and DEL; the second such set, C1, is U+0080 to U+009F.
bool bIsControl(const std::string& szBytes, size_t position)
{
    const uint8_t iFirst = iByteAt(szBytes, position);
    return iFirst < 0x20 || iFirst == 0x7F ||
           (iFirst == 0xC2 && position + 1 < szBytes.size() &&
            iByteAt(szBytes, position + 1) < 0xA0);
}

// Calls step(position, length of the character or 0) from the first byte to the last.
template <class Step>
bool bAllCharacters(const std::string& szBytes, Step step)
{
    size_t position = 0;
    while (position < szBytes.size()) {
        const size_t length = CharacterBytes(szBytes, position);
        if (!step(position, length)) {
            return false;
        }
        position += std::max<size_t>(length, 1);
    }
    return true;
}

int iHexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char cLower = static_cast<char>(c | 0x20);
    return cLower >= 'a' && cLower <= 'f' ? cLower - 'a' + 10 : -1;
}
} // namespace

std::string szFormat(const char* pszFormat, ...)
{
    std::va_list args;
    va_start(args, pszFormat);
    std::va_list again;
    va_copy(again, args);
    const int iLength = std::vsnprintf(nullptr, 0, pszFormat, args);
    va_end(args);
    std::string szText(iLength > 0 ? static_cast<size_t>(iLength) : 0, '\0');
    std::vsnprintf(szText.data(), szText.size() + 1, pszFormat, again);
    va_end(again);
    return szText;
}

bool bIsUtf8(const std::string& szBytes)
{
    return bAllCharacters(szBytes, [](size_t, size_t length) { return length != 0; });
}

bool bIsPrintable(const std::string& szBytes)
{
    return bAllCharacters(szBytes, [&](size_t position, size_t length) {
        const char c = szBytes[position];
        // A return without its line feed would write over what stands on the line.
        const bool bEndsLine = c == '\n' || szBytes.compare(position, 2, "\r\n") == 0;
        return length != 0 && (c == '\t' || bEndsLine || !bIsControl(szBytes, position));
    });
}

std::string szVisible(const std::string& szBytes)
{
    std::string szText;
    bAllCharacters(szBytes, [&](size_t position, size_t length) {
        const size_t taken = std::max<size_t>(length, 1);
        if (szBytes[position] == '\\') {
            szText += "\\\\";
        } else if (length != 0 && !bIsControl(szBytes, position)) {
            szText.append(szBytes, position, length);
        } else {
            for (size_t i = 0; i < taken; ++i) {
                szText += "\\x" + szHex(szBytes.substr(position + i, 1));
            }
        }
        return true;
    });
    return szText;
}

std::string szHex(const std::string& szBytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string szDigits;
    szDigits.reserve(2 * szBytes.size());
    for (const char c : szBytes) {
        szDigits += kDigits[static_cast<uint8_t>(c) >> 4];
        szDigits += kDigits[static_cast<uint8_t>(c) & 0xF];
    }
    return szDigits;
}

std::string szHexDump(const std::string& szBytes)
{
    std::string szDump;
    for (size_t begin = 0; begin < szBytes.size(); begin += kDumpBytes) {
        const std::string szLine = szBytes.substr(begin, kDumpBytes);
        std::string szColumns;
        std::string szAscii;
        for (const char c : szLine) {
            szColumns += ' ' + szHex(std::string(1, c));
            szAscii += c >= ' ' && c <= '~' ? c : '.';
        }
        szColumns.resize(3 * kDumpBytes, ' ');
        szDump += szFormat("%04zx ", begin) + szColumns + "  " + szAscii + '\n';
    }
    return szDump;
}

std::optional<std::string> FromHex(const std::string& szDigits)
{
    std::string szBytes;
    for (size_t i = 0; i < szDigits.size();) {
        if (szDigits[i] == ' ' || szDigits[i] == ':') {
            ++i;
            continue;
        }
        const int iHigh = iHexDigit(szDigits[i]);
        const int iLow = i + 1 < szDigits.size() ? iHexDigit(szDigits[i + 1]) : -1;
        if (iHigh < 0 || iLow < 0) {
            return std::nullopt;
        }
        szBytes += static_cast<char>(iHigh << 4 | iLow);
        i += 2;
    }
    return szBytes;
}

std::string szUpToZero(const std::string& szBytes)
{
    return szBytes.substr(0, szBytes.find('\0'));
}
} // namespace QuorCtl
