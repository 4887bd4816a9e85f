#include "CMonitorCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "CSignalWatch.h"
#include "FrameText.h"

#include <CLI/CLI.hpp>

namespace QuorCtl
{
CMonitorCommand::CMonitorCommand(CLI::App& parent)
    : CCommand(parent, "monitor", "Print the frames that the daemon sends, until ctrl-C")
{
    AddNumber(m_app, "-c,--count", m_iCount, 1, INT32_MAX, "Frames to print; without, no end");
    m_app.add_flag("--pings", m_bPings, "Print the daemon's pings, too");
}

eExitStatus CMonitorCommand::Run(const Settings& settings) const
{
    const CSignalWatch watch;
    const CPrinter printer(settings.bJson);
    const CDeadline never = CDeadline::Never();
    CFrameLink link(settings.target, CDeadline(settings.iTimeOutMs), watch.iFd());
    try {
        for (int64_t iPrinted = 0; m_iCount == 0 || iPrinted < m_iCount; ++iPrinted) {
            const std::optional<CFrame> frame =
                m_bPings ? link.ReceiveWithPings(never) : link.Receive(never);
            Json::Value json = JsonFrame(*frame);
            json["time"] = szTimeOfDay();
            printer.Print(szFrameLine(*frame), json);
        }
    } catch (const CInterrupted&) { // the usual end
    }
    return EXIT_STATUS_OK;
}
} // namespace QuorCtl
