#include "CLogCommand.h"

#include "CFrameLink.h"
#include "CLogAssignments.h"
#include "CLogPage.h"
#include "CPrinter.h"
#include "DataText.h"
#include "LogLevels.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace QuorCtl
{
namespace
{
CLogPage FetchPage(CFrameLink& link, const CDeadline& deadline)
{
    constexpr uint16_t kCommand = QuorCore::CMD_COMMUN_GET_LOG_CONFIG;
    return CLogPage(link.Exchange(CFrame(kCommand), kCommand, deadline).szData);
}

// In characters, not bytes; a label of wide characters still looks crooked.
size_t Width(const std::string& szUtf8)
{
    return static_cast<size_t>(
        std::count_if(szUtf8.begin(), szUtf8.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string szTable(const std::vector<LogThread>& threads)
{
    const std::string szHeading = "Thread";
    size_t width = szHeading.size();
    for (const LogThread& thread : threads) {
        width = std::max(width, Width(szVisible(thread.szLabel)));
    }
    std::string szTable =
        "Index  " + szHeading + std::string(width - szHeading.size(), ' ') + "  Level\n";
    for (const LogThread& thread : threads) {
        const std::string szLabel = szVisible(thread.szLabel);
        szTable += szFormat("%5d  ", thread.iIndex) + szLabel +
                   std::string(width - Width(szLabel), ' ') + "  " + szLevel(thread.iLevel) + '\n';
    }
    return szTable;
}

void SetLevel(Json::Value& json, const std::string& szKey, int iLevel)
{
    if (iLevel < 0) {
        json[szKey] = Json::nullValue;
        return;
    }
    json[szKey] = iLevel;
    json[szKey + "_name"] = szLevelName(iLevel);
}

Json::Value JsonThread(const LogThread& thread)
{
    Json::Value json;
    json["index"] = thread.iIndex;
    SetBytes(json, "thread", thread.szLabel);
    return json;
}

std::string szPairs(const std::map<int, int>& levels)
{
    std::string szBytes;
    for (const auto& [iIndex, iLevel] : levels) {
        szBytes += static_cast<char>(iIndex);
        szBytes += static_cast<char>(iLevel);
    }
    return szBytes;
}

// A label that several threads have does not tell which one is meant.
std::string szThread(const LogThread& thread, const std::vector<LogThread>& threads)
{
    const auto bSameLabel = [&](const LogThread& other) { return other.szLabel == thread.szLabel; };
    const bool bAlone = std::count_if(threads.begin(), threads.end(), bSameLabel) == 1;
    return szVisible(thread.szLabel) + (bAlone ? "" : szFormat("[%d]", thread.iIndex));
}

std::string szChange(const std::string& szThread, int iBefore, int iAfter)
{
    return szThread + ": " + szLevel(iBefore) +
           (iBefore == iAfter ? " (unchanged)" : " -> " + szLevel(iAfter)) + '\n';
}

/// @return Whether a row still is the same thread's, as far as the pages tell. Where several have
///         one label the next may have moved up, so that there must be as many of them as before.
bool bSameThread(size_t index, const std::vector<LogThread>& before,
                 const std::vector<LogThread>& after)
{
    const std::string& szLabel = before[index].szLabel;
    const auto bHasLabel = [&](const LogThread& thread) { return thread.szLabel == szLabel; };
    return index < after.size() && after[index].szLabel == szLabel &&
           std::count_if(before.begin(), before.end(), bHasLabel) ==
               std::count_if(after.begin(), after.end(), bHasLabel);
}

/// @return A thread that nobody meant and that has another level all the same: the indices were
///         others when the daemon set the levels. None: null.
const LogThread* pHitByMistake(const std::vector<LogThread>& before,
                               const std::vector<LogThread>& after,
                               const std::map<int, int>& levels)
{
    const auto bHit = [&](const LogThread& old) {
        const auto index = static_cast<size_t>(old.iIndex);
        return levels.count(old.iIndex) == 0 && bSameThread(index, before, after) &&
               after[index].iLevel != old.iLevel;
    };
    const auto found = std::find_if(before.begin(), before.end(), bHit);
    return found != before.end() ? &*found : nullptr;
}

/// Prints what became of the threads that were meant.
/// @throw CRefusal  Not what was asked for: the daemon ignored it, or its threads changed.
void PrintChanges(const CPrinter& printer, const std::vector<LogThread>& before,
                  const std::vector<LogThread>& after, const std::map<int, int>& levels)
{
    std::string szText;
    Json::Value json;
    json["changes"] = Json::arrayValue;
    std::string szFailed;
    for (const auto& [iIndex, iLevel] : levels) {
        const LogThread& old = before[static_cast<size_t>(iIndex)];
        if (!bSameThread(static_cast<size_t>(iIndex), before, after)) {
            throw CRefusal("the daemon's threads have changed meanwhile: look with 'log list'");
        }
        const int iNow = after[static_cast<size_t>(iIndex)].iLevel;
        szText += szChange(szThread(old, before), old.iLevel, iNow);
        Json::Value change = JsonThread(old);
        SetLevel(change, "before", old.iLevel);
        SetLevel(change, "after", iNow);
        json["changes"].append(change);
        if (iNow != iLevel && szFailed.empty()) {
            szFailed = "the daemon left " + szThread(old, before) + " at " + szLevel(iNow);
        }
    }
    printer.Print(szText, json);
    if (const LogThread* const pHit = pHitByMistake(before, after, levels)) {
        szFailed =
            "the level of " + szThread(*pHit, before) + " has changed, too: look with 'log list'";
    }
    if (!szFailed.empty()) {
        throw CRefusal(szFailed);
    }
}
} // namespace

CLogCommand::CLogCommand(CLI::App& parent)
    : CCommand(parent, "log", "Show or set the log levels of the daemon's threads"),
      m_set(*m_app.add_subcommand("set", "Set levels: number 0 to 7, or emerg alert crit err "
                                         "warning notice info debug"))
{
    m_app.add_subcommand("list", "Show the threads and their levels; what log alone does, too");
    m_app.require_subcommand(0, 1);
    m_set
        .add_option("assignments", m_assignments,
                    "THREAD=LEVEL; a thread by its label, its index, or a pattern as 'modem*'")
        ->required()
        ->type_name("");
}

eExitStatus CLogCommand::Run(const Settings& settings) const
{
    return m_set.parsed() ? Set(settings) : List(settings);
}

eExitStatus CLogCommand::List(const Settings& settings) const
{
    const CDeadline deadline(settings.iTimeOutMs);
    CFrameLink link(settings.target, deadline);
    const CLogPage page = FetchPage(link, deadline);
    Json::Value json;
    SetBytes(json, "daemon", page.szDaemon());
    json["threads"] = Json::arrayValue;
    for (const LogThread& thread : page.Threads()) {
        Json::Value entry = JsonThread(thread);
        SetLevel(entry, "level", thread.iLevel);
        json["threads"].append(entry);
    }
    CPrinter(settings.bJson).Print(szTable(page.Threads()), json);
    return EXIT_STATUS_OK;
}

eExitStatus CLogCommand::Set(const Settings& settings) const
{
    const CLogAssignments assignments(m_assignments); // a bad one needs no daemon to be told
    const CDeadline deadline(settings.iTimeOutMs);
    CFrameLink link(settings.target, deadline);
    const CLogPage before = FetchPage(link, deadline);
    const std::map<int, int> levels = assignments.Resolve(before.Threads());
    if (!before.bIndicesCertain()) {
        // The index on the page may be another thread's in the command: CLogger::SetLogLevel().
        throw CRefusal("nothing was set: the daemon has threads without a level, so the indices of "
                       "its page are not certain");
    }
    constexpr uint16_t kCommand = QuorCore::CMD_COMMUN_SET_LOG_CONFIG;
    link.Exchange(CFrame(kCommand, szPairs(levels)), kCommand, deadline);
    const CLogPage after = FetchPage(link, deadline);
    PrintChanges(CPrinter(settings.bJson), before.Threads(), after.Threads(), levels);
    return EXIT_STATUS_OK;
}
} // namespace QuorCtl
