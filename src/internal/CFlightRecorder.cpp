#include "internal/CFlightRecorder.h"

#include "internal/Clock.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>

namespace QuorCore
{
namespace
{
constexpr size_t kEventsMax = 400;
constexpr size_t kTextBytesMax = 512; // kept of one line

// 3GPP TS 27.007: PIN, new PIN, facility lock, password, authentication of a PDP context.
constexpr const char* kSecretCommands[] = {"+CPIN=", "+CPIN2=", "+CLCK=", "+CPWD=", "+CGAUTH="};

/// Every byte that is not plain ASCII as \xHH, so that a line stays a line.
void AppendEscaped(std::string& szLine, const std::string& szText)
{
    for (const char c : szText) {
        const auto uByte = static_cast<unsigned char>(c);
        if (uByte >= ' ' && uByte < 0x7F && c != '\\') {
            szLine.push_back(c);
        } else {
            std::array<char, 8> aEscape{};
            std::snprintf(aEscape.data(), aEscape.size(), "\\x%02X", unsigned{uByte});
            szLine += aEscape.data();
        }
    }
}
} // namespace

void CFlightRecorder::Note(eFlightMark eMark, const std::string& szText)
{
    if (m_events.size() == kEventsMax) {
        m_events.pop_front();
        m_nNew = std::min(m_nNew, m_events.size());
    }
    m_events.push_back({Now(CLOCK_REALTIME), eMark, szText.substr(0, kTextBytesMax)});
    if (szText.size() > kTextBytesMax) {
        m_events.back().szText.shrink_to_fit();
    }
    ++m_nNew;
}

std::string CFlightRecorder::szLine(const event_t& event)
{
    tm parts{};
    const time_t iSeconds = event.time.tv_sec;
    gmtime_r(&iSeconds, &parts);
    std::array<char, 64> aTime{};
    const size_t nTime = strftime(aTime.data(), aTime.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 16> aMs{};
    std::snprintf(aMs.data(), aMs.size(), ".%03dZ ",
                  static_cast<int>(event.time.tv_nsec / kNanosecondsPerMs % kMsPerSecond));
    std::string szLine(aTime.data(), nTime);
    szLine += aMs.data();
    szLine.push_back(static_cast<char>(event.eMark));
    if (!event.szText.empty()) {
        szLine.push_back(' ');
        AppendEscaped(szLine, event.szText);
    }
    return szLine;
}

std::string CFlightRecorder::szText() const
{
    std::string szText;
    for (const event_t& event : m_events) {
        szText += szLine(event);
        szText.push_back('\n');
    }
    return szText;
}

std::vector<std::string> CFlightRecorder::TakeNew()
{
    std::vector<std::string> lines;
    std::transform(m_events.end() - static_cast<std::ptrdiff_t>(m_nNew), m_events.end(),
                   std::back_inserter(lines), szLine);
    m_nNew = 0;
    return lines;
}

std::string szMaskSecret(const std::string& szCommand, bool bSecret)
{
    std::string szUpper = szCommand;
    std::transform(szUpper.begin(), szUpper.end(), szUpper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    size_t nKept = bSecret ? szCommand.find('=') : std::string::npos;
    if (bSecret && nKept == std::string::npos) {
        return "****";
    }
    for (const char* const pszSecret : kSecretCommands) {
        const size_t nAt = szUpper.find(pszSecret);
        nKept = nAt == std::string::npos ? nKept : std::min(nKept, szUpper.find('=', nAt));
    }
    return nKept == std::string::npos ? szCommand : szCommand.substr(0, nKept + 1) + "****";
}
} // namespace QuorCore
