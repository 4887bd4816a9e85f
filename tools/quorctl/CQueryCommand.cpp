#include "CQueryCommand.h"

#include "CFrameLink.h"
#include "CPrinter.h"
#include "DataText.h"

#include <cstring>
#include <libQuorCore/CObject.h>

namespace QuorCtl
{
namespace
{
void CheckSize(const char* pszWhat, const std::string& szData, size_t expected)
{
    if (szData.size() != expected) {
        throw CRefusal(szFormat("the daemon's %s has %zu bytes instead of %zu", pszWhat,
                                szData.size(), expected));
    }
}
} // namespace

CQueryCommand::CQueryCommand(CLI::App& parent, const std::string& szName,
                             const std::string& szDescription, uint16_t iCommand, reader_t reader)
    : CCommand(parent, szName, szDescription), m_iCommand(iCommand), m_reader(reader)
{
}

eExitStatus CQueryCommand::Run(const Settings& settings) const
{
    const CDeadline deadline(settings.iTimeOutMs);
    CFrameLink link(settings.target, deadline);
    const QueryResult result =
        m_reader(link.Exchange(CFrame(m_iCommand), m_iCommand, deadline).szData);
    CPrinter(settings.bJson).Print(result.szText, result.json);
    return EXIT_STATUS_OK;
}

QueryResult ReadVersion(const std::string& szData)
{
    QuorCore::versionFW_t version = {};
    CheckSize("version record", szData, sizeof(version));
    std::memcpy(&version, szData.data(), sizeof(version));
    const std::string szName(version.szAppName,
                             strnlen(version.szAppName, sizeof(version.szAppName)));
    const std::string szVersion = szFormat("%d.%02d", version.version / 100, version.version % 100);
    QueryResult result;
    result.szText = szVisible(szName) + ' ' + szVersion + '\n';
    result.json["version"] = szVersion;
    result.json["number"] = version.version;
    SetBytes(result.json, "name", szName);
    return result;
}

QueryResult ReadPid(const std::string& szData)
{
    int32_t iPid = 0;
    CheckSize("process id", szData, sizeof(iPid));
    std::memcpy(&iPid, szData.data(), sizeof(iPid));
    QueryResult result;
    result.szText = std::to_string(iPid) + '\n';
    result.json["pid"] = iPid;
    return result;
}

QueryResult ReadName(const std::string& szData)
{
    QueryResult result;
    result.szText = szVisible(szUpToZero(szData)) + '\n';
    SetBytes(result.json, "name", szUpToZero(szData));
    return result;
}
} // namespace QuorCtl
