#include "LogLevels.h"

#include "Number.h"

#include <array>
#include <syslog.h>

namespace QuorCtl
{
namespace
{
constexpr std::array<const char*, 8> kNames = {"emerg",   "alert",  "crit", "err",
                                               "warning", "notice", "info", "debug"};

bool bIsLevel(int iLevel)
{
    return iLevel >= LOG_EMERG && iLevel <= LOG_DEBUG;
}
} // namespace

const char* szLevelName(int iLevel)
{
    return bIsLevel(iLevel) ? kNames[static_cast<size_t>(iLevel)] : "unknown";
}

std::optional<int> ParseLevel(const std::string& szText)
{
    for (int iLevel = LOG_EMERG; iLevel <= LOG_DEBUG; ++iLevel) {
        if (szText == szLevelName(iLevel)) {
            return iLevel;
        }
    }
    const std::optional<int64_t> number = ParseNumber(szText, LOG_EMERG, LOG_DEBUG);
    return number ? std::optional<int>(static_cast<int>(*number)) : std::nullopt;
}

std::string szLevel(int iLevel)
{
    return (bIsLevel(iLevel) ? std::to_string(iLevel) : "?") + ' ' + szLevelName(iLevel);
}
} // namespace QuorCtl
