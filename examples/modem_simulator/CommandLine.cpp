#include "CommandLine.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace
{
bool bIsDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string szInLargeLetters(std::string szText)
{
    bool bQuoted = false;
    for (char& c : szText) {
        bQuoted = bQuoted != (c == '"');
        if (!bQuoted) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
    }
    return szText;
}

// Where the ";" is that ends the command that begins at nBegin; the size of the text: nowhere.
size_t nSemicolon(const std::string& szText, size_t nBegin)
{
    bool bQuoted = false;
    for (size_t n = nBegin; n < szText.size(); ++n) {
        bQuoted = bQuoted != (szText[n] == '"');
        if (szText[n] == ';' && !bQuoted) {
            return n;
        }
    }
    return szText.size();
}

// Where a command of one letter ends: behind its number, a register also behind "=7", "?" or "=?".
size_t nEndOfBasic(const std::string& szText, size_t nBegin)
{
    const auto skipDigits = [&szText](size_t n) {
        while (n < szText.size() && bIsDigit(szText[n])) {
            ++n;
        }
        return n;
    };
    size_t n = skipDigits(nBegin + (szText[nBegin] == '&' ? 2 : 1));
    if (szText[nBegin] == 'S') {
        n = skipDigits(n + (szText.compare(n, 1, "=") == 0 ? 1 : 0));
        n += szText.compare(n, 1, "?") == 0 ? 1 : 0;
    }
    return std::min(n, szText.size());
}

size_t nEndOfCommand(const std::string& szText, size_t nBegin)
{
    const char cFirst = szText[nBegin];
    if (cFirst == 'D') { // a ";" at its end belongs to it: it makes the call one of voices
        return std::min(nSemicolon(szText, nBegin) + 1, szText.size());
    }
    const bool bBasic = (cFirst >= 'A' && cFirst <= 'Z') || cFirst == '&';
    return bBasic ? nEndOfBasic(szText, nBegin) : nSemicolon(szText, nBegin);
}
} // namespace

std::vector<std::string> CommandsOf(const std::string& szLine)
{
    const std::string szText = szInLargeLetters(szLine);
    const size_t nPrefix = szText.find("AT");
    std::vector<std::string> commands;
    if (nPrefix == std::string::npos) {
        return commands;
    }
    for (size_t n = nPrefix + 2; n < szText.size();) {
        if (szText[n] == ' ' || szText[n] == ';') {
            ++n;
            continue;
        }
        const size_t nEnd = nEndOfCommand(szText, n);
        commands.push_back("AT" + szText.substr(n, nEnd - n));
        n = nEnd;
    }
    if (commands.empty()) {
        commands.emplace_back("AT");
    }
    return commands;
}

bool bIsFinal(const std::string& szLine)
{
    constexpr std::array<const char*, 6> kWords = {"OK",   "ERROR",     "NO CARRIER",
                                                   "BUSY", "NO ANSWER", "NO DIALTONE"};
    return std::find(kWords.begin(), kWords.end(), szLine) != kWords.end() ||
           szLine.compare(0, 7, "CONNECT") == 0 || szLine.compare(0, 10, "+CME ERROR") == 0 ||
           szLine.compare(0, 10, "+CMS ERROR") == 0;
}
