#include "libQuorCore/string_tools.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>

namespace
{
using bytes_t = std::basic_string<unsigned char>;

constexpr char kUpper[] = "0123456789ABCDEF";
constexpr char kLower[] = "0123456789abcdef";
constexpr unsigned int kDateTimeBytes = 12;
constexpr int kYearOfTm = 1900;

void AppendHex(std::string& text, unsigned char cByte, const char* digits)
{
    text += digits[cByte >> 4];
    text += digits[cByte & 0x0F];
}

/// The upper-case digits of each byte, one pair behind the other.
constexpr std::array<char, 512> MakePairs()
{
    std::array<char, 512> pairs{};
    for (size_t i = 0; i < pairs.size(); i += 2) {
        pairs[i] = kUpper[i / 2 >> 4];
        pairs[i + 1] = kUpper[i / 2 & 0x0F];
    }
    return pairs;
}
constexpr std::array<char, 512> kPairs = MakePairs();

/// The value of each character that is a digit, and -1 for all others.
constexpr std::array<signed char, 256> MakeDigits()
{
    std::array<signed char, 256> digits{};
    for (signed char& iDigit : digits) {
        iDigit = -1;
    }
    for (signed char i = 0; i < 16; ++i) {
        digits[static_cast<unsigned char>(kUpper[i])] = i;
        digits[static_cast<unsigned char>(kLower[i])] = i;
    }
    return digits;
}
constexpr std::array<signed char, 256> kDigits = MakeDigits();

int iDigitOf(char c)
{
    return kDigits[static_cast<unsigned char>(c)];
}

unsigned char PairToByte(char high, char low)
{
    return static_cast<unsigned char>(iHexCharToUint8(high) * 16 + iHexCharToUint8(low));
}

/// @return Each pair of characters as a byte; an odd last one is dropped.
template <class Bytes>
Bytes PairsToBytes(const std::string& hex)
{
    Bytes bytes;
    bytes.reserve(hex.size() / 2);
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<typename Bytes::value_type>(PairToByte(hex[i], hex[i + 1]));
    }
    return bytes;
}

/// Formats into a new text; the list is used up.
std::string FormatList(const char* format, va_list args)
{
    va_list again;
    va_copy(again, args); // the first pass uses the list up
    const int iLength = std::vsnprintf(nullptr, 0, format, args);
    std::string text;
    if (iLength > 0) {
        text.resize(static_cast<size_t>(iLength) + 1); // vsnprintf() ends it with a 0 byte
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

const char* SetOrBlanks(const char* set)
{
    return set != nullptr ? set : GetBlanks();
}
} // namespace

std::string Hexlify(const unsigned char* bytes, unsigned int length, char sep)
{
    std::string text;
    if (bytes == nullptr) {
        return text;
    }
    text.resize(size_t{length} * (sep != 0 ? 3 : 2));
    char* out = text.data();
    if (sep == 0) {
        for (unsigned int i = 0; i < length; ++i) {
            std::memcpy(out + 2 * size_t{i}, &kPairs[size_t{bytes[i]} * 2], 2);
        }
        return text;
    }
    for (unsigned int i = 0; i < length; ++i) {
        std::memcpy(out, &kPairs[size_t{bytes[i]} * 2], 2);
        out[2] = sep;
        out += 3;
    }
    return text;
}

std::string Hexlify(const char* bytes, unsigned int length, char sep)
{
    return Hexlify(reinterpret_cast<const unsigned char*>(bytes), length, sep);
}

std::string Hexlify(const std::string& bytes, char sep)
{
    return Hexlify(bytes.data(), static_cast<unsigned int>(bytes.size()), sep);
}

std::string Hexlify(const bytes_t& bytes, char sep)
{
    return Hexlify(bytes.data(), static_cast<unsigned int>(bytes.size()), sep);
}

std::string UnHexlify(const char* text, unsigned int length)
{
    std::string bytes;
    if (text == nullptr) {
        return bytes;
    }
    bytes.resize(length / 2);
    char* out = bytes.data();
    const char* const end = text + length;
    while (end - text >= 2) {
        const int iHigh = iDigitOf(text[0]);
        int iLow = iDigitOf(text[1]);
        text += iHigh < 0 ? 1 : 2;
        if (iHigh < 0) {
            continue;
        }
        for (; iLow < 0 && text != end; ++text) { // what stands between the digits of a pair
            iLow = iDigitOf(*text);
        }
        if (iLow >= 0) {
            *out++ = static_cast<char>(iHigh << 4 | iLow);
        }
    }
    bytes.resize(static_cast<size_t>(out - bytes.data()));
    return bytes;
}

uint8_t iHexCharToUint8(char c)
{
    constexpr int kBeforeLowerA = 'a' - 10;
    if ('0' <= c && c <= '9') {
        return static_cast<uint8_t>(c - '0');
    }
    if ('A' <= c && c <= 'F') {
        return static_cast<uint8_t>(c - 'A' + 10);
    }
    return static_cast<uint8_t>(static_cast<unsigned char>(c) - kBeforeLowerA);
}

std::string szUint8ToHexChar(uint8_t iByte)
{
    return Hexlify(&iByte, 1, 0);
}

bytes_t uszStringToUString(std::string& hex)
{
    return PairsToBytes<bytes_t>(hex);
}

std::string uszStringToBytes(std::string& hex)
{
    return PairsToBytes<std::string>(hex);
}

std::string szUStringToString(bytes_t& bytes)
{
    return Hexlify(bytes, 0);
}

std::vector<std::string> SplitString(const char* delimiters, std::string text)
{
    const char* const set = delimiters != nullptr ? delimiters : "";
    std::vector<std::string> pieces;
    size_t begin = text.find_first_not_of(set);
    while (begin != std::string::npos) {
        const size_t end = text.find_first_of(set, begin);
        pieces.push_back(text.substr(begin, end - begin)); // to its end, if there is no delimiter
        begin = text.find_first_not_of(set, end);
    }
    return pieces;
}

std::string GetEnv(const std::string& name)
{
    const char* const value = std::getenv(name.c_str());
    return value != nullptr ? value : "";
}

bool IsBlank(char c)
{
    return c == '\n' || c == '\r' || c == ' ' || c == '\t';
}

const char* GetBlanks()
{
    return " \t\r\n";
}

std::string StripHead(std::string text, const char* set)
{
    text.erase(0, text.find_first_not_of(SetOrBlanks(set)));
    return text;
}

std::string StripTail(std::string text, const char* set)
{
    text.erase(text.find_last_not_of(SetOrBlanks(set)) + 1); // npos + 1 is 0: all of it
    return text;
}

std::string Strip(std::string text, const char* set)
{
    return StripHead(StripTail(std::move(text), set), set);
}

void replace(std::string& text, const std::string& from, const std::string& to)
{
    if (from.empty()) {
        return;
    }
    std::string result;
    size_t begin = 0;
    for (size_t found = text.find(from); found != std::string::npos;
         found = text.find(from, begin)) {
        result.append(text, begin, found - begin).append(to);
        begin = found + from.size();
    }
    result.append(text, begin, std::string::npos);
    text = std::move(result);
}

std::string ToString(int iNumber)
{
    return std::to_string(iNumber);
}

std::string string_format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = FormatList(format, args);
    va_end(args);
    return text;
}

void string_append_format(std::string& text, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string appended = FormatList(format, args); // first: text may be an argument
    va_end(args);
    text += appended;
}

std::string Basename(const std::string& path)
{
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0: the whole path
}

std::string Dirname(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

int iCompressedTimeToOctetStringTime(const long* time, unsigned char* out, unsigned int size)
{
    constexpr unsigned char kNotSpecified = 0xFF;
    if (time == nullptr || out == nullptr || size < kDateTimeBytes) {
        return -1;
    }
    const time_t seconds = *time; // a long is not a time_t on every machine
    tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) {
        return -1;
    }
    const auto iYear = static_cast<unsigned int>(local.tm_year + kYearOfTm);
    const unsigned int aFields[kDateTimeBytes] = {
        iYear >> 8 & 0xFF,
        iYear & 0xFF,
        static_cast<unsigned int>(local.tm_mon) + 1,
        static_cast<unsigned int>(local.tm_mday),
        local.tm_wday != 0 ? static_cast<unsigned int>(local.tm_wday) : 7, // Sunday comes last
        static_cast<unsigned int>(local.tm_hour),
        static_cast<unsigned int>(local.tm_min),
        static_cast<unsigned int>(local.tm_sec),
        0,
        0x80,
        0x00,
        kNotSpecified,
    };
    std::transform(std::begin(aFields), std::end(aFields), out,
                   [](unsigned int iField) { return static_cast<unsigned char>(iField); });
    return 0;
}

int iOctetStringTimeToCompressedTime(unsigned char* in, long* time)
{
    if (in == nullptr || time == nullptr) {
        return -1;
    }
    const int iYear = in[0] << 8 | in[1];
    const unsigned char cMonth = in[2];
    const unsigned char cDay = in[3];
    const bool bBad = iYear == 0xFFFF || cMonth >= 0xFD || cDay == 0 || cDay > 31 || in[5] > 23 ||
                      in[6] > 59 || in[7] > 59;
    if (bBad) {
        return -1;
    }
    tm local = {};
    local.tm_year = iYear - kYearOfTm;
    local.tm_mon = cMonth - 1;
    local.tm_mday = cDay;
    local.tm_hour = in[5];
    local.tm_min = in[6];
    local.tm_sec = in[7];
    local.tm_isdst = -1; // the octets do not tell
    const time_t seconds = mktime(&local);
    if (seconds < std::numeric_limits<long>::min() || seconds > std::numeric_limits<long>::max()) {
        return -1;
    }
    *time = static_cast<long>(seconds);
    return 1;
}

void EncodeMacExtendedAddr(char* out, const std::string& hex)
{
    if (out != nullptr) {
        const std::string bytes = PairsToBytes<std::string>(hex);
        std::copy(bytes.begin(), bytes.end(), out);
    }
}

void DecodeMacExtendedAddr(const char* bytes, unsigned char count, std::string& out)
{
    std::string text;
    for (unsigned int i = 0; bytes != nullptr && i < count; ++i) {
        AppendHex(text, static_cast<unsigned char>(bytes[i]), kLower);
    }
    out = std::move(text);
}

void EncodeConcentratorId(std::string& out, const std::string& id)
{
    out = UnHexlify(id.data(), static_cast<unsigned int>(id.size()));
}

void RevertBytesArray(unsigned char* bytes, int count)
{
    if (bytes != nullptr && count > 1) {
        std::reverse(bytes, bytes + count);
    }
}

bytes_t uszRevertUString(bytes_t bytes)
{
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}
