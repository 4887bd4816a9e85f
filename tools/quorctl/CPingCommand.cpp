#include "CPingCommand.h"

#include "CFrameLink.h"
#include "CPingStatistics.h"
#include "CPrinter.h"
#include "CSignalWatch.h"
#include "DataText.h"

#include <CLI/CLI.hpp>

namespace QuorCtl
{
namespace
{
constexpr int64_t kIntervalMinMs = 10;
constexpr int64_t kIntervalMaxMs = 3600000;

/// @return A ping without data, which every daemon has room for; its two free words number it.
CFrame Ping(uint32_t iSequence)
{
    CFrame ping(QuorCore::CMD_COMMUN_PING);
    ping.header.user1 = static_cast<int16_t>(iSequence & 0xFFFF);
    ping.header.user2 = static_cast<int16_t>(iSequence >> 16);
    return ping;
}

bool bAnswers(const CFrame& frame, const CFrame& ping)
{
    return frame.header.command == QuorCore::CMD_COMMUN_PONG &&
           frame.header.user1 == ping.header.user1 && frame.header.user2 == ping.header.user2;
}

/// Sends one ping and waits for what answers it, but not for late answers to others.
/// @return The round trip in ms; none: the time is over.
std::optional<double> PingOnce(CFrameLink& link, uint32_t iSequence, int iTimeOutMs)
{
    const CDeadline deadline(iTimeOutMs);
    const CFrame ping = Ping(iSequence);
    const Clock::time_point sent = Clock::now();
    link.Send(ping, deadline);
    while (!deadline.bPassed()) {
        const std::optional<CFrame> frame = link.Receive(deadline);
        if (frame && bAnswers(*frame, ping)) {
            return std::chrono::duration<double, std::milli>(Clock::now() - sent).count();
        }
    }
    return std::nullopt;
}

void PrintOne(const CPrinter& printer, const std::string& szPeer, uint32_t iSequence,
              const std::optional<double>& roundTripMs, int iTimeOutMs)
{
    Json::Value json;
    json["seq"] = iSequence;
    std::string szText;
    if (roundTripMs) {
        json["time_ms"] = *roundTripMs;
        szText = szFormat("answer from %s: seq=%u time=%.3f ms\n", szPeer.c_str(), iSequence,
                          *roundTripMs);
    } else {
        json["lost"] = true;
        szText =
            szFormat("no answer from %s: seq=%u in %d ms\n", szPeer.c_str(), iSequence, iTimeOutMs);
    }
    printer.Print(szText, json);
}

/// Answers the daemon's pings until the next ping is due.
void ServeUntil(CFrameLink& link, const CDeadline& deadline)
{
    while (!deadline.bPassed()) {
        link.Receive(deadline);
    }
}
} // namespace

CPingCommand::CPingCommand(CLI::App& parent)
    : CCommand(parent, "ping", "Ping the daemon and tell the round-trip times")
{
    AddNumber(m_app, "-c,--count", m_iCount, 1, INT32_MAX, "Pings to send; without, until ctrl-C");
    AddSeconds(m_app, "-i,--interval", m_iIntervalMs, kIntervalMinMs, kIntervalMaxMs,
               "Time from one ping to the next in seconds, 1 by default");
}

eExitStatus CPingCommand::Run(const Settings& settings) const
{
    const CSignalWatch watch;
    const CPrinter printer(settings.bJson);
    CPingStatistics statistics;
    std::optional<CLinkFailure> failure;
    CFrameLink link(settings.target, CDeadline(settings.iTimeOutMs), watch.iFd());
    try {
        PingAll(link, settings, printer, statistics);
    } catch (const CInterrupted&) { // the usual end, unless
        if (statistics.iReceived() == 0) {
            failure = CLinkFailure("interrupted before an answer came from " + link.szPeer());
        }
    } catch (const CLinkFailure& linkFailure) {
        failure = linkFailure;
    }
    const std::string szTitle = "--- " + link.szPeer() + " ping statistics ---\n";
    printer.Print(szTitle + statistics.szSummary(), statistics.JsonSummary());
    if (failure) {
        throw *failure;
    }
    if (statistics.iReceived() == 0) {
        throw link.NoAnswer(CDeadline(settings.iTimeOutMs));
    }
    return EXIT_STATUS_OK;
}

void CPingCommand::PingAll(CFrameLink& link, const Settings& settings, const CPrinter& printer,
                           CPingStatistics& statistics) const
{
    Clock::time_point due = Clock::now();
    for (uint32_t iSequence = 1;; ++iSequence) {
        statistics.AddSent();
        const std::optional<double> roundTripMs = PingOnce(link, iSequence, settings.iTimeOutMs);
        if (roundTripMs) {
            statistics.AddAnswer(*roundTripMs);
        }
        PrintOne(printer, link.szPeer(), iSequence, roundTripMs, settings.iTimeOutMs);
        if (iSequence == m_iCount) {
            return;
        }
        // Those that an answer has kept waiting for are not made up for in a burst.
        due = std::max(due + std::chrono::milliseconds(m_iIntervalMs), Clock::now());
        ServeUntil(link, CDeadline(due));
    }
}
} // namespace QuorCtl
