#include "CCommand.h"

#include "CPrinter.h"
#include "DataText.h"
#include "Number.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>

namespace QuorCtl
{
namespace
{
// "-c,--count" is known as --count.
std::string szLongName(const std::string& szNames)
{
    return szNames.substr(szNames.rfind(',') + 1);
}
} // namespace

CCommand::CCommand(CLI::App& parent, const std::string& szName, const std::string& szDescription)
    : m_app(*parent.add_subcommand(szName, szDescription))
{
}

bool CCommand::bChosen() const
{
    return m_app.parsed();
}

void AddNumber(CLI::App& app, const std::string& szNames, int64_t& iValue, int64_t iMin,
               int64_t iMax, const std::string& szDescription)
{
    const auto take = [&iValue, iMin, iMax,
                       szName = szLongName(szNames)](const std::string& szText) {
        const std::optional<int64_t> number = ParseNumber(szText, iMin, iMax);
        if (!number) {
            throw CUsageError(szName + ": '" + szVisible(szText) + "' is not a number from " +
                              std::to_string(iMin) + " to " + std::to_string(iMax));
        }
        iValue = *number;
    };
    app.add_option_function<std::string>(szNames, take, szDescription)->type_name("N")->take_last();
}

void AddSeconds(CLI::App& app, const std::string& szNames, int64_t& iValueMs, int64_t iMinMs,
                int64_t iMaxMs, const std::string& szDescription)
{
    const auto take = [&iValueMs, iMinMs, iMaxMs,
                       szName = szLongName(szNames)](const std::string& szText) {
        double dSeconds = 0; // read as the "C" locale has it, whatever the terminal's is
        const char* const pEnd = szText.data() + szText.size();
        const std::from_chars_result result =
            std::from_chars(szText.data(), pEnd, dSeconds, std::chars_format::fixed);
        const double dMs = dSeconds * 1000;
        if (result.ec != std::errc() || result.ptr != pEnd ||
            !(dMs >= static_cast<double>(iMinMs) && dMs <= static_cast<double>(iMaxMs))) {
            throw CUsageError(szName + ": '" + szVisible(szText) + "' is not a number from " +
                              szFormat("%g to %g", static_cast<double>(iMinMs) / 1000,
                                       static_cast<double>(iMaxMs) / 1000));
        }
        iValueMs = std::llround(dMs);
    };
    app.add_option_function<std::string>(szNames, take, szDescription)
        ->type_name("SECONDS")
        ->take_last();
}
} // namespace QuorCtl
