#include "CSendCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"
#include "FrameText.h"
#include "InputFile.h"

#include <CLI/CLI.hpp>

namespace QuorCtl
{
namespace
{
std::string szFromHexOption(const std::string& szDigits)
{
    const std::optional<std::string> bytes = FromHex(szDigits);
    if (!bytes) {
        throw CUsageError("--hex: '" + szVisible(szDigits) + "' are no pairs of hex digits");
    }
    return *bytes;
}
} // namespace

CSendCommand::CSendCommand(CLI::App& parent)
    : CCommand(parent, "send", "Send a command and print its answer")
{
    AddNumber(m_app, "command", m_iCommand, 0, UINT16_MAX, "Number of the command");
    m_app.get_option("command")->required();
    CLI::Option* const pText = m_app.add_option("--data", m_szText, "Data: a text as it is");
    CLI::Option* const pHex = m_app.add_option("--hex", m_szHexDigits, "Data: pairs of hex digits");
    CLI::Option* const pFile =
        m_app.add_option("--file", m_szFile, "Data: a file's content; - is standard input");
    pText->type_name("TEXT")->take_last()->excludes(pHex)->excludes(pFile);
    pHex->type_name("BYTES")->take_last()->excludes(pFile);
    pFile->type_name("FILE")->take_last();
    AddNumber(m_app, "--type", m_iType, 0, UINT16_MAX, "Family of the command, 0 by default");
    AddNumber(m_app, "--user1", m_iUser1, INT16_MIN, INT16_MAX, "First free word of the header");
    AddNumber(m_app, "--user2", m_iUser2, INT16_MIN, INT16_MAX, "Second free word of the header");
    AddNumber(m_app, "--expect", m_iExpected, 0, UINT16_MAX,
              "Command of the answer; without, the first frame that is no ping");
    m_app.add_flag("--no-answer", m_bNoAnswer, "Do not wait for an answer")
        ->excludes(m_app.get_option("--expect"));
}

CFrame CSendCommand::Request(const CDeadline& deadline) const
{
    CFrame request(static_cast<uint16_t>(m_iCommand), m_szText);
    if (!m_szHexDigits.empty()) {
        request.szData = szFromHexOption(m_szHexDigits);
    } else if (m_app.count("--file") != 0) { // even "": a variable that a script forgot to set
        request.szData = szReadInput(m_szFile, "--file ", deadline);
    }
    if (request.szData.size() > QuorCore::kFrameDataBytesMax) {
        throw CUsageError("send: a frame has " + std::to_string(QuorCore::kFrameDataBytesMax) +
                          " bytes of data at most");
    }
    request.header.typeITF = static_cast<uint16_t>(m_iType);
    request.header.user1 = static_cast<int16_t>(m_iUser1);
    request.header.user2 = static_cast<int16_t>(m_iUser2);
    return request;
}

eExitStatus CSendCommand::Run(const Settings& settings) const
{
    if (m_iExpected == QuorCore::CMD_COMMUN_PING) {
        throw CUsageError("--expect: the daemon's pings are answered and are no answers; see "
                          "monitor --pings");
    }
    const CDeadline deadline(settings.iTimeOutMs);
    const CFrame request = Request(deadline);
    CFrameLink link(settings.target, deadline);
    link.Send(request, deadline);
    if (m_bNoAnswer) {
        link.Finish(deadline);
        return EXIT_STATUS_OK;
    }
    const CFrame answer =
        link.Await(m_iExpected < 0 ? std::optional<uint16_t>()
                                   : std::optional<uint16_t>(static_cast<uint16_t>(m_iExpected)),
                   deadline);
    CPrinter(settings.bJson).Print(szFrameText(answer), JsonFrame(answer));
    if (answer.header.error != 0) {
        throw CRefusal(link.szPeer() + " answered with error " +
                       std::to_string(answer.header.error));
    }
    return EXIT_STATUS_OK;
}
} // namespace QuorCtl
