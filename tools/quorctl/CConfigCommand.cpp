#include "CConfigCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"
#include "InputFile.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <json/reader.h>
#include <json/writer.h>

namespace QuorCtl
{
namespace
{
/// @return Whether the text is JSON, and nothing else behind it.
bool bParse(const std::string& szText, Json::Value& document)
{
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    const std::unique_ptr<Json::CharReader> pReader(builder.newCharReader());
    try {
        std::string szErrors;
        return pReader->parse(szText.data(), szText.data() + szText.size(), &document, &szErrors);
    } catch (const std::exception&) { // nested too deep
        return false;
    }
}

std::string szWritten(const Json::Value& document, const char* pszIndentation, bool bUtf8)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = pszIndentation;
    builder["emitUTF8"] = bUtf8;
    return Json::writeString(builder, document);
}

/// The writer escapes the controls below 0x20 alone; a terminal obeys those above 0x7e, too.
std::string szPretty(const Json::Value& document)
{
    const std::string szText = szWritten(document, "    ", true);
    if (!bIsUtf8(szText)) {
        return szWritten(document, "    ", false) + '\n';
    }
    std::string szOut;
    for (size_t i = 0; i < szText.size(); ++i) {
        const auto next = static_cast<unsigned char>(szText[i + 1 < szText.size() ? i + 1 : i]);
        if (szText[i] == '\x7f') {
            szOut += "\\u007f";
        } else if (szText[i] == '\xc2' && next < 0xa0) { // U+0080 to U+009F
            szOut += szFormat("\\u%04x", next);
            ++i;
        } else {
            szOut += szText[i];
        }
    }
    return szOut + '\n';
}

/// @throw CRefusal  With the cause that the daemon gives, if it gives one.
[[noreturn]] void Refuse(const CFrameLink& link, const CFrame& answer)
{
    const std::string szError = "error " + std::to_string(answer.header.error);
    Json::Value document;
    if (!bParse(answer.szData, document) || !document.isObject() || !document["cause"].isString()) {
        throw CRefusal(link.szPeer() + " answered command " +
                       std::to_string(answer.header.command) + " with " + szError);
    }
    const std::string szObject =
        document["object"].isString() ? document["object"].asString() + ": " : "";
    throw CRefusal(szVisible(szObject + document["cause"].asString()) + " (" + szError + ')');
}

CFrame Exchange(CFrameLink& link, uint16_t iCommand, const std::string& szData,
                const CDeadline& deadline)
{
    link.Send(CFrame(iCommand, szData), deadline);
    CFrame answer = link.Await(iCommand, deadline);
    if (answer.header.error != 0) {
        Refuse(link, answer);
    }
    return answer;
}

/// @return What the tree holds there. @throw CRefusal  There is nothing, or it is no JSON.
Json::Value Fetch(CFrameLink& link, const std::string& szPath, const CDeadline& deadline)
{
    const CFrame answer = Exchange(link, QuorCore::CMD_COMMUN_GET_CONFIG, szPath, deadline);
    Json::Value document;
    if (!bParse(answer.szData, document)) {
        throw CRefusal("the daemon's answer is no JSON");
    }
    return document;
}

void CheckSize(const std::string& szJson)
{
    if (szJson.size() > QuorCore::kFrameDataBytesMax) {
        throw CUsageError("config set: a frame has " +
                          std::to_string(QuorCore::kFrameDataBytesMax) + " bytes of data at most");
    }
}

/// The value as the command line has it: the text itself, @ and a file's name, or "-".
std::string szValue(const std::string& szArgument, const CDeadline& deadline)
{
    if (szArgument == "-") {
        return szReadInput(szArgument, "config set ", deadline);
    }
    return !szArgument.empty() && szArgument[0] == '@'
               ? szReadInput(szArgument.substr(1), "config set @", deadline)
               : szArgument;
}
} // namespace

CConfigCommand::CConfigCommand(CLI::App& parent)
    : CCommand(parent, "config", "Show or change the data tree of a daemon that has one"),
      m_get(*m_app.add_subcommand("get", "Show the tree, or what a full name names")),
      m_set(*m_app.add_subcommand("set", "Change the tree, or what a full name names, and show it"))
{
    m_app.require_subcommand(1);
    m_get.add_option("path", m_szPath, "Full name, as /db/callback; the whole tree by default")
        ->type_name("");
    m_set
        .add_option("arguments", m_arguments,
                    "Full name, if it is not the whole tree, and the value: JSON, @FILE, or - for "
                    "standard input")
        ->required()
        ->expected(1, 2)
        ->type_name("");
}

eExitStatus CConfigCommand::Run(const Settings& settings) const
{
    return m_set.parsed() ? Set(settings) : Get(settings);
}

eExitStatus CConfigCommand::Get(const Settings& settings) const
{
    const CDeadline deadline(settings.iTimeOutMs);
    CFrameLink link(settings.target, deadline);
    const Json::Value document = Fetch(link, m_szPath, deadline);
    CPrinter(settings.bJson).Print(szPretty(document), document);
    return EXIT_STATUS_OK;
}

eExitStatus CConfigCommand::Set(const Settings& settings) const
{
    const CDeadline deadline(settings.iTimeOutMs);
    const std::string szPath = m_arguments.size() == 2 ? m_arguments.front() : "";
    const std::string szJson = szValue(m_arguments.back(), deadline);
    CheckSize(szJson); // before it is parsed: what is read from a file may be cut
    const std::string szDocument = szDocumentFor(szPath, szJson);
    CheckSize(szDocument);
    CFrameLink link(settings.target, deadline);
    Fetch(link, szPath, deadline); // some daemons pass over what they do not know
    Exchange(link, QuorCore::CMD_COMMUN_SET_CONFIG, szDocument, deadline);
    const Json::Value document = Fetch(link, szPath, deadline);
    CPrinter(settings.bJson).Print(szPretty(document), document);
    return EXIT_STATUS_OK;
}

std::string szDocumentFor(const std::string& szPath, const std::string& szJson)
{
    Json::Value document;
    if (!bParse(szJson, document)) {
        throw CUsageError("config set: '" + szVisible(szJson.substr(0, 80)) +
                          "' is no JSON (a text has quotes: '\"...\"')");
    }
    size_t end = szPath.size();
    while (end > 0) {
        const size_t slash = szPath.rfind('/', end - 1);
        if (slash == std::string::npos || slash + 1 == end) {
            throw CUsageError("config set: '" + szVisible(szPath) +
                              "' is no full name, as /db/callback is");
        }
        if (slash > 0) { // what begins the name is the tree itself
            Json::Value outer;
            outer[szPath.substr(slash + 1, end - slash - 1)] = document;
            document = outer;
        }
        end = slash;
    }
    return szWritten(document, "", false);
}
} // namespace QuorCtl
