#include "CCommandLine.h"

#include "CBenchCommand.h"
#include "CConfigCommand.h"
#include "CLogCommand.h"
#include "CModemCommand.h"
#include "CMonitorCommand.h"
#include "CPingCommand.h"
#include "CPrinter.h"
#include "CQueryCommand.h"
#include "CSendCommand.h"
#include "CWaitCommand.h"
#include "DataText.h"

#include <CLI/CLI.hpp>

namespace QuorCtl
{
namespace
{
constexpr int64_t kTimeOutMaxMs = 86400000;

// A message of the parser as one line.
std::string szOneLine(std::string szText)
{
    while (!szText.empty() && (szText.back() == '\n' || szText.back() == ' ')) {
        szText.pop_back();
    }
    std::replace(szText.begin(), szText.end(), '\n', ' ');
    return szText;
}

std::string szUnknown(const std::string& szWord)
{
    const bool bOption = szWord.size() > 1 && szWord[0] == '-';
    return (bOption ? "unknown option '" : "unknown command '") + szVisible(szWord) + '\'';
}
} // namespace

CCommandLine::CCommandLine()
    : m_pApp(std::make_unique<CLI::App>("Talks to the daemons that are built on libQuorCore.",
                                        "quorctl"))
{
    m_pApp->fallthrough(); // the options below may also stand behind the command
    m_pApp->require_subcommand(1);
    m_pApp->set_version_flag("-V,--version", "quorctl " QUORCTL_VERSION);
    AddTargetOptions();
    AddCommands();
}

CCommandLine::~CCommandLine() = default;

void CCommandLine::AddTargetOptions()
{
    CLI::Option* const pHost = m_pApp->add_option_function<std::string>(
        "--host", [this](const std::string& szHost) { m_settings.target.SetHost(szHost); },
        "Name or address of the machine, 127.0.0.1 by default");
    AddNumber(*m_pApp, "--port", m_iPort, 1, UINT16_MAX, "TCP port, 5555 by default");
    CLI::Option* const pUnix = m_pApp->add_option_function<std::string>(
        "--unix", [this](const std::string& szPath) { m_settings.target.SetUnixPath(szPath); },
        "Path of a Unix-domain stream socket, instead of host and port");
    pHost->type_name("HOST")->take_last();
    pUnix->type_name("PATH")->take_last()->excludes(pHost)->excludes(m_pApp->get_option("--port"));
    AddNumber(*m_pApp, "--timeout", m_iTimeOutMs, 1, kTimeOutMaxMs,
              "Time for the whole command in ms, 3000 by default");
    m_pApp->add_flag("--json", m_settings.bJson, "Print JSON instead of text");
}

template <class Command, class... Args>
void CCommandLine::AddCommand(Args&&... args)
{
    m_commands.push_back(std::make_unique<Command>(*m_pApp, std::forward<Args>(args)...));
}

void CCommandLine::AddCommands()
{
    AddCommand<CPingCommand>();
    AddCommand<CQueryCommand>("version", "Print the daemon's name and version",
                              QuorCore::CMD_COMMUN_VERSION, &ReadVersion);
    AddCommand<CQueryCommand>("pid", "Print the daemon's process id", QuorCore::CMD_COMMUN_PID,
                              &ReadPid);
    AddCommand<CQueryCommand>("name", "Print the daemon's name", QuorCore::CMD_COMMUN_NAME,
                              &ReadName);
    AddCommand<CLogCommand>();
    AddCommand<CConfigCommand>();
    AddCommand<CSendCommand>();
    AddCommand<CWaitCommand>();
    AddCommand<CMonitorCommand>();
    AddCommand<CBenchCommand>();
    AddCommand<CModemCommand>();
}

// False: it asked for help or the version, which was printed.
bool CCommandLine::bParse(int argc, const char* const* argv)
{
    try {
        m_pApp->parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        CPrinter(false).Print(m_pApp->help(), Json::Value());
        return false;
    } catch (const CLI::CallForVersion& version) {
        CPrinter(false).Print(version.what() + std::string("\n"), Json::Value());
        return false;
    } catch (const CLI::RequiredError& error) {
        const std::vector<std::string> unknown = m_pApp->remaining();
        if (m_pApp->get_subcommands().empty()) { // what the parser says of it names no word
            throw CUsageError((unknown.empty() ? "no command" : szUnknown(unknown[0])) +
                              " (see quorctl --help)");
        }
        throw CUsageError(szVisible(szOneLine(error.what())) + " (see quorctl --help)");
    } catch (const CLI::ParseError& error) {
        throw CUsageError(szVisible(szOneLine(error.what())) + " (see quorctl --help)");
    }
    return true;
}

eExitStatus CCommandLine::Run(int argc, const char* const* argv)
{
    if (!bParse(argc, argv)) {
        return EXIT_STATUS_OK;
    }
    m_settings.target.SetPort(static_cast<uint16_t>(m_iPort));
    m_settings.iTimeOutMs = static_cast<int>(m_iTimeOutMs);
    for (const std::unique_ptr<CCommand>& pCommand : m_commands) {
        if (pCommand->bChosen()) {
            return pCommand->Run(m_settings);
        }
    }
    throw CUsageError("no command (see quorctl --help)"); // the parser asks for one
}
} // namespace QuorCtl
