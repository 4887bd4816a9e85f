#include "CModemCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"
#include "ModemProtocol.h"

#include <CLI/CLI.hpp>
#include <libQuorCore/libQuorCore.h>

namespace QuorCtl
{
namespace
{
using namespace QuorCore;

/// Reads a record, all of the data and no more. @throw CRefusal  It is another one, or none.
void ReadRecord(const std::string& szData, CObjectData& record)
{
    std::string szCopy = szData;
    CSerializeBuffer stream(reinterpret_cast<uint8_t*>(szCopy.data()),
                            static_cast<long>(szCopy.size()), false, false, false);
    if (record.iSerialize(stream) != 0 || stream.iGetPos() != static_cast<int>(szData.size())) {
        throw CRefusal("the answer is no such record");
    }
}

/// @return The record as JSON; what has no value is null.
Json::Value JsonOf(CObjectData& record)
{
    CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_STREAM, true, true);
    Json::Value json;
    record.bSerializeValueJson(context, json, 0);
    return json;
}

std::string szValue(const Json::Value& value)
{
    return value.isNull() ? "-" : szVisible(value.asString());
}

/// The daemon's own words with a line feed for each of theirs, and nothing else that moves a
/// cursor.
std::string szLines(const std::string& szText)
{
    std::string szResult;
    for (size_t begin = 0; begin < szText.size();) {
        const size_t end = std::min(szText.find('\n', begin), szText.size());
        szResult += szVisible(szText.substr(begin, end - begin)) + '\n';
        begin = end + 1;
    }
    return szResult;
}
} // namespace

CModemCommand::CModemCommand(CLI::App& parent)
    : CCommand(parent, "modem", "Ask a modem daemon, and have its modem do something")
{
    m_app.require_subcommand(1);
    AddText("imei", "Print the modem's number", CMD_MODEM_GET_IMEI);
    AddText("imsi", "Print the subscriber's number", CMD_MODEM_GET_IMSI);
    AddText("csq", "Print signal strength and bit errors as the modem counts them",
            CMD_MODEM_GET_CSQ);
    Add(
        m_app, "cell", "Print what is known of the serving cell",
        [] { return CFrame(CMD_MODEM_GET_CELL_SERVING); }, &ReadCell);
    AddText("scan", "Have the modem look for networks, and print a line for each",
            CMD_MODEM_GET_NETWORK_SCAN);
    CLI::App& inbox = Add(
        m_app, "inbox", "Print the first message of the modem's store as PDU, below its number",
        [this] { return CFrame(CMD_MODEM_GET_INCOMING_SMS_PDU, m_szNumber); },
        [](const std::string& szData) { return ReadText("message", szData); });
    inbox.add_option("done", m_szNumber, "Number of a message to delete before")->type_name("");
    CLI::App& sms = Add(
        m_app, "sms", "Send a text message and print its reference",
        [this] { return CFrame(CMD_MODEM_SEND_SMS, m_szNumber + '\n' + m_szText); },
        [](const std::string& szData) { return ReadText("reference", szData); });
    sms.add_option("number", m_szNumber, "Phone number")->required()->type_name("");
    sms.add_option("text", m_szText, "1 to 160 characters")->required()->type_name("");
    AddWhitelist();
    CLI::App& at = Add(
        m_app, "at", "Send an AT command, if the daemon allows it, and print the modem's lines",
        [this] { return CFrame(CMD_MODEMD_AT, m_szAt); },
        [](const std::string& szData) { return ReadText("answer", szData); });
    at.add_option("command", m_szAt, "As AT+CSQ")->required()->type_name("");
    AddText("record", "Print the last of what was said to the modem and by it", CMD_MODEMD_RECORD);
}

CLI::App& CModemCommand::Add(CLI::App& parent, const std::string& szName,
                             const std::string& szDescription, std::function<CFrame()> request,
                             std::function<result_t(const std::string& szData)> read)
{
    CLI::App* const pApp = parent.add_subcommand(szName, szDescription);
    m_actions.push_back({pApp, std::move(request), std::move(read)});
    return *pApp;
}

void CModemCommand::AddText(const std::string& szName, const std::string& szDescription,
                            uint16_t iCommand)
{
    Add(
        m_app, szName, szDescription, [iCommand] { return CFrame(iCommand); },
        [szName](const std::string& szData) { return ReadText(szName, szData); });
}

void CModemCommand::AddWhitelist()
{
    const auto request = [this](int16_t iWhat) {
        return [this, iWhat] {
            CFrame frame(CMD_MODEM_SET_WHITELIST, m_szNumber);
            frame.header.user1 = iWhat;
            return frame;
        };
    };
    CLI::App* const pList =
        m_app.add_subcommand("whitelist", "Show or change who may call or text");
    pList->require_subcommand(1);
    Add(*pList, "list", "Show the numbers", request(WHITELIST_REPLACE), &ReadWhitelist);
    CLI::App& add = Add(*pList, "add", "Add a number", request(WHITELIST_ADD), &ReadWhitelist);
    add.add_option("number", m_szNumber, "Phone number")->required()->type_name("");
    CLI::App& remove =
        Add(*pList, "remove", "Remove a number", request(WHITELIST_REMOVE), &ReadWhitelist);
    remove.add_option("number", m_szNumber, "Phone number")->required()->type_name("");
}

eExitStatus CModemCommand::Run(const Settings& settings) const
{
    for (const action_t& action : m_actions) {
        if (!action.pApp->parsed()) {
            continue;
        }
        const CFrame request = action.request();
        const CDeadline deadline(settings.iTimeOutMs);
        CFrameLink link(settings.target, deadline);
        link.Send(request, deadline);
        const CFrame answer = link.Await(request.header.command, deadline);
        if (answer.header.error != 0) {
            throw CRefusal(szVisible(answer.szData) + " (error " +
                           std::to_string(answer.header.error) + ')');
        }
        const result_t result = action.read(answer.szData);
        CPrinter(settings.bJson).Print(result.szText, result.json);
        return EXIT_STATUS_OK;
    }
    throw CUsageError("no command (see quorctl modem --help)"); // the parser asks for one
}

CModemCommand::result_t CModemCommand::ReadText(const std::string& szKey, const std::string& szData)
{
    result_t result;
    result.szText = szLines(szData);
    SetBytes(result.json, szKey, szData);
    return result;
}

CModemCommand::result_t CModemCommand::ReadCell(const std::string& szData)
{
    CDMStatCellServing cell(nullptr, "");
    ReadRecord(szData, cell);
    result_t result;
    result.json = JsonOf(cell);
    const CObjectData* pChild = nullptr;
    for (int i = 0; (pChild = cell.pGetAt(i)) != nullptr; ++i) { // in the record's own order
        const std::string szName = pChild->szGetLabel();
        result.szText += szFormat("%-9s ", szName.c_str()) + szValue(result.json[szName]) + '\n';
    }
    return result;
}

CModemCommand::result_t CModemCommand::ReadWhitelist(const std::string& szData)
{
    CDMSrvCallback callback(nullptr, "");
    ReadRecord(szData, callback);
    result_t result;
    result.json = JsonOf(callback);
    for (const Json::Value& number : result.json["whiteList"]) {
        result.szText += szValue(number) + '\n';
    }
    return result;
}
} // namespace QuorCtl
