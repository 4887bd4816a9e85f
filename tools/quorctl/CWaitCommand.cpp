#include "CWaitCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"
#include "Poll.h"

#include <algorithm>
#include <optional>

namespace QuorCtl
{
namespace
{
constexpr int kPauseMs = 50; // between two attempts

// While a machine starts it drops what asks for a connection, and the kernel asks again only after
// 1, 3, 7 s (tcp(7), tcp_syn_retries): a new attempt is faster.
constexpr int kConnectLimitMs = 1000;

// A machine that loses its power with our ping taken and not answered says nothing, and nothing
// more comes from it over this connection: only when something is sent does it tell, once it is up.
constexpr int kPingAgainMs = 1000;

void PingOverNewLink(const CTarget& target, const CDeadline& deadline)
{
    CFrameLink link(target, deadline, -1, kConnectLimitMs);
    while (!deadline.bPassed()) {
        link.Send(CFrame(QuorCore::CMD_COMMUN_PING), deadline);
        const CDeadline nextPing(std::min(kPingAgainMs, deadline.iRemainingMs()));
        while (!nextPing.bPassed()) {
            const std::optional<CFrame> frame = link.Receive(nextPing);
            if (frame && frame->header.command == QuorCore::CMD_COMMUN_PONG) {
                return;
            }
        }
    }
    throw link.NoAnswer(deadline);
}
} // namespace

CWaitCommand::CWaitCommand(CLI::App& parent)
    : CCommand(parent, "wait", "Wait until the daemon answers a ping, or the time is over")
{
}

eExitStatus CWaitCommand::Run(const Settings& settings) const
{
    const CDeadline deadline(settings.iTimeOutMs);
    const Clock::time_point begin = Clock::now();
    const std::string szName = settings.target.szName();
    std::string szLast;
    while (!deadline.bPassed()) {
        try {
            PingOverNewLink(settings.target, deadline);
        } catch (const CLinkFailure& failure) {
            szLast = failure.what();
            bPause(std::min(kPauseMs, deadline.iRemainingMs()), -1);
            continue;
        }
        const double dMs = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        Json::Value json;
        json["waited_ms"] = dMs;
        CPrinter(settings.bJson)
            .Print(szFormat("%s answers, after %.0f ms\n", szName.c_str(), dMs), json);
        return EXIT_STATUS_OK;
    }
    throw CTimeOut(szName + " was not ready in " + std::to_string(settings.iTimeOutMs) +
                   " ms: " + szLast);
}
} // namespace QuorCtl
