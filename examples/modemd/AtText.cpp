#include "AtText.h"

#include <libQuorCore/libQuorCore.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>

namespace
{
constexpr size_t kPhoneDigitsMax = 20; // 3GPP TS 23.040, clause 9.1.2.5
constexpr unsigned kRssiMax = 31;
constexpr unsigned kBerMax = 7;
constexpr size_t kApnMax = 100; // 3GPP TS 23.003, clause 9.1
constexpr int kLeastLevelDbm = -113;
constexpr int kLevelStepDbm = 2;

bool bAreDigits(const std::string& szText)
{
    return szText.find_first_not_of("0123456789") == std::string::npos;
}

bool bIsNetworkNumber(const std::string& szText) // 3GPP TS 23.003, clause 12.1
{
    return (szText.size() == 5 || szText.size() == 6) && bAreDigits(szText);
}
} // namespace

std::vector<std::string> AtFields(const std::string& szLine)
{
    const size_t nColon = szLine.find(':');
    std::vector<std::string> fields;
    if (nColon == std::string::npos) {
        return fields;
    }
    fields.emplace_back();
    bool bQuoted = false;
    for (const char c : szLine.substr(nColon + 1)) {
        if (c == '"') {
            bQuoted = !bQuoted;
        } else if (c == ',' && !bQuoted) {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    for (std::string& szField : fields) {
        szField = Strip(szField, nullptr);
    }
    return fields;
}

std::optional<unsigned> AtNumber(const std::string& szText, int iBase)
{
    const char* const pszDigits = iBase == 16 ? "0123456789abcdefABCDEF" : "0123456789";
    if (szText.empty() || szText.find_first_not_of(pszDigits) != std::string::npos) {
        return {};
    }
    const unsigned long long iNumber = std::strtoull(szText.c_str(), nullptr, iBase);
    return iNumber <= INT_MAX ? std::optional<unsigned>(static_cast<unsigned>(iNumber))
                              : std::nullopt;
}

// In the answer a number stands before the state, and place and cell stand in quotes, or, of some
// modems, without: a report has the place second, an answer the state.
std::optional<registration_t> ParseRegistration(const std::string& szLine)
{
    const std::vector<std::string> fields = AtFields(szLine);
    const size_t nComma = szLine.find(',');
    const bool bReport =
        fields.size() == 1 || szLine.compare(std::min(nComma, szLine.size()), 2, ",\"") == 0;
    const size_t nState = bReport ? 0 : 1;
    const std::optional<unsigned> state =
        fields.size() > nState ? AtNumber(fields[nState]) : std::nullopt;
    if (!state) {
        return {};
    }
    registration_t registration;
    registration.setting = bReport ? std::nullopt : AtNumber(fields[0]);
    registration.iState = *state;
    if (fields.size() > nState + 2) {
        registration.lac = AtNumber(fields[nState + 1], 16);
        registration.cell = AtNumber(fields[nState + 2], 16);
    }
    if (fields.size() > nState + 3) {
        registration.techno = AtNumber(fields[nState + 3]);
    }
    return registration;
}

const char* pszRegistration(unsigned iState)
{
    static constexpr std::array<const char*, 6> kStates = {"not registered", "home",    "searching",
                                                           "denied",         "unknown", "roaming"};
    return iState < kStates.size() ? kStates[iState] : "unknown";
}

const char* pszTechno(unsigned iAccessTechnology)
{
    // Indices of _apszTechnoType by <AcT>: GSM, GSM Compact, UTRAN, EGPRS, HSDPA, HSUPA, both,
    // E-UTRAN, and the narrow-band forms of GSM and E-UTRAN.
    static constexpr std::array<size_t, 10> kIndices = {0, 0, 2, 1, 3, 4, 5, 7, 0, 7};
    return iAccessTechnology < kIndices.size()
               ? QuorCore::_apszTechnoType[kIndices[iAccessTechnology]]
               : nullptr;
}

std::optional<signal_t> ParseSignal(const std::string& szLine)
{
    const std::vector<std::string> fields = AtFields(szLine);
    const std::optional<unsigned> rssi = fields.size() == 2 ? AtNumber(fields[0]) : std::nullopt;
    const std::optional<unsigned> ber = fields.size() == 2 ? AtNumber(fields[1]) : std::nullopt;
    if (!rssi || !ber) {
        return {};
    }
    signal_t signal;
    signal.iRssi = *rssi <= kRssiMax ? *rssi : signal.iRssi;
    signal.iBer = *ber <= kBerMax ? *ber : signal.iBer;
    return signal;
}

int iLevelDbm(const signal_t& signal)
{
    return signal.iRssi <= kRssiMax
               ? kLeastLevelDbm + kLevelStepDbm * static_cast<int>(signal.iRssi)
               : kNoLevelDbm;
}

// "(2,"long","short","20801",7),(1,...),,(0,1,2,3,4),(0,1,2)": the last ones say what may be set.
std::vector<operator_t> OperatorsOf(const std::string& szLine)
{
    std::vector<operator_t> operators;
    size_t nBegin = std::string::npos;
    bool bQuoted = false;
    for (size_t n = 0; n < szLine.size(); ++n) {
        bQuoted = bQuoted != (szLine[n] == '"');
        if (bQuoted) {
            continue;
        }
        if (szLine[n] == '(') {
            nBegin = n + 1;
        } else if (szLine[n] == ')' && nBegin != std::string::npos) {
            const auto fields = AtFields(':' + szLine.substr(nBegin, n - nBegin));
            const auto state = AtNumber(fields[0]);
            if (fields.size() >= 4 && state && bIsNetworkNumber(fields[3])) {
                operators.push_back({*state, fields[1], fields[3],
                                     fields.size() > 4 ? AtNumber(fields[4]) : std::nullopt});
            }
            nBegin = std::string::npos;
        }
    }
    return operators;
}

const char* pszOperatorState(unsigned iState)
{
    static constexpr std::array<const char*, 4> kStates = {"unknown", "available", "in use",
                                                           "forbidden"};
    return kStates[iState < kStates.size() ? iState : 0];
}

bool bIsApn(const std::string& szText)
{
    return !szText.empty() && szText.size() <= kApnMax &&
           szText.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                    "0123456789-.") == std::string::npos;
}

bool bIsPhoneNumber(const std::string& szText)
{
    const std::string szDigits = szText.substr(szText.compare(0, 1, "+") == 0 ? 1 : 0);
    return !szDigits.empty() && szDigits.size() <= kPhoneDigitsMax && bAreDigits(szDigits);
}

bool bIsPin(const std::string& szText)
{
    return szText.size() >= 4 && szText.size() <= 8 && bAreDigits(szText);
}

bool bIsPrintable(const std::string& szText)
{
    return std::all_of(szText.begin(), szText.end(), [](char c) { return c >= ' ' && c <= '~'; });
}
