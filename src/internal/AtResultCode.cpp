#include "internal/AtResultCode.h"

#include "libQuorCore/atErrors.h"
#include "libQuorCore/string_tools.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

namespace QuorCore
{
namespace
{
constexpr size_t kErrorDigitsMax = 6; // more is no number of an error

struct finalWord_t {
    const char* pszWord;
    eAtFinal eKind;
};
constexpr finalWord_t kWords[] = {
    {"OK", eAtFinal::SUCCESS},
    {"CONNECT", eAtFinal::SUCCESS},
    {"ERROR", eAtFinal::FAILURE},
    {"ABORTED", eAtFinal::FAILURE},
    {"COMMAND NOT SUPPORT", eAtFinal::FAILURE},
    {"NO CARRIER", eAtFinal::CALL},
    {"BUSY", eAtFinal::CALL},
    {"NO ANSWER", eAtFinal::CALL},
    {"NO DIALTONE", eAtFinal::CALL},
};

bool bBeginsWith(const std::string& szText, const char* pszPrefix)
{
    return szText.rfind(pszPrefix, 0) == 0;
}

bool bIsNumber(const std::string& szText)
{
    return !szText.empty() && szText.size() <= kErrorDigitsMax &&
           szText.find_first_not_of("0123456789") == std::string::npos;
}

/// @param szValue  What stands behind "+CME ERROR:".
atFinal_t ParseError(const std::string& szValue, const char* (*pszText)(int),
                     int (*iNumber)(const char*))
{
    atFinal_t final{eAtFinal::FAILURE, -1, Strip(szValue, nullptr)};
    if (bIsNumber(final.szError)) {
        final.iError = std::atoi(final.szError.c_str());
        const char* const pszKnown = pszText(final.iError);
        final.szError = pszKnown != nullptr ? pszKnown : final.szError;
    } else {
        final.iError = iNumber(final.szError.c_str());
    }
    return final;
}
} // namespace

atFinal_t ParseFinal(const std::string& szLine)
{
    constexpr char szCme[] = "+CME ERROR:";
    constexpr char szCms[] = "+CMS ERROR:";
    if (bBeginsWith(szLine, szCme)) {
        return ParseError(szLine.substr(sizeof(szCme) - 1), pszCmeError, iCmeError);
    }
    if (bBeginsWith(szLine, szCms)) {
        return ParseError(szLine.substr(sizeof(szCms) - 1), pszCmsError, iCmsError);
    }
    if (bBeginsWith(szLine, "CONNECT ")) { // with the speed behind it
        return {eAtFinal::SUCCESS, -1, ""};
    }
    const auto* const pFound =
        std::find_if(std::begin(kWords), std::end(kWords),
                     [&szLine](const finalWord_t& word) { return szLine == word.pszWord; });
    return {pFound != std::end(kWords) ? pFound->eKind : eAtFinal::NONE, -1, ""};
}

bool bIsCallCommand(const std::string& szCommand)
{
    std::string szUpper = szCommand;
    std::transform(szUpper.begin(), szUpper.end(), szUpper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const bool bBasic = szUpper.size() > 2 && bBeginsWith(szUpper, "AT") &&
                        std::string("DAOH").find(szUpper[2]) != std::string::npos;
    return bBasic || bBeginsWith(szUpper, "AT+CGDATA");
}
} // namespace QuorCore
