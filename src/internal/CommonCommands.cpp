#include "internal/CommonCommands.h"

#include "libQuorCore/CObject.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace QuorCore::CommonCommands
{
namespace
{
constexpr size_t kPageBytesMax = 65515; // from there on GetFrameSize() wraps, at the peer too

outcome_t Answer(std::string szData)
{
    outcome_t outcome;
    outcome.answer = outcome_t::eAnswer::NEW_DATA;
    outcome.szData = std::move(szData);
    return outcome;
}
} // namespace

outcome_t Ping(socketFrame_t& frame)
{
    frame.command = CMD_COMMUN_PONG;
    frame.error = 0;
    outcome_t outcome;
    outcome.answer = outcome_t::eAnswer::FRAME;
    outcome.iEventAfter = EVT_COM_PING;
    return outcome;
}

outcome_t Pong(socketFrame_t& frame)
{
    frame.error = 0;
    outcome_t outcome;
    outcome.iEventAfter = EVT_COM_PONG;
    return outcome;
}

// The three below: a request carries no data, so a frame that does is an answer whose exchange has
// given up. Answered as a request, it would go back and forth between two endpoints for ever.
outcome_t Version(socketFrame_t& frame)
{
    if (frame.GetDataSize() != 0) {
        return {};
    }
    versionFW_t version = {}; // what follows the name's end stays in this process
    version.version = g_versionFW.version;
    std::memcpy(version.szAppName, g_versionFW.szAppName,
                strnlen(g_versionFW.szAppName, sizeof(version.szAppName)));
    return Answer({reinterpret_cast<const char*>(&version), sizeof(version)});
}

outcome_t Pid(socketFrame_t& frame)
{
    if (frame.GetDataSize() != 0) {
        return {};
    }
    const int32_t iPid = getpid(); // four bytes on every machine
    return Answer({reinterpret_cast<const char*>(&iPid), sizeof(iPid)});
}

outcome_t Name(socketFrame_t& frame)
{
    if (frame.GetDataSize() != 0) {
        return {};
    }
    std::string szName(g_versionFW.szAppName,
                       strnlen(g_versionFW.szAppName, sizeof(g_versionFW.szAppName)));
    szName += '\0';
    return Answer(std::move(szName));
}

outcome_t GetLogConfig(socketFrame_t& frame)
{
    const std::string szAction(reinterpret_cast<char*>(frame.pGetData()), frame.GetDataSize());
    std::string szPage;
    CThread::m_Logger.iGetLogConfigHtml(szPage, szAction.c_str()); // the peer's bytes end there
    // An action that begins as the page does is a page whose exchange has given up: see above.
    constexpr size_t kTelltaleBytes = 15;
    if (szPage.size() > kTelltaleBytes &&
        szAction.compare(0, kTelltaleBytes, szPage, 0, kTelltaleBytes) == 0) {
        return {};
    }
    szPage.resize(std::min(szPage.size(), kPageBytesMax - 1));
    szPage += '\0';
    return Answer(std::move(szPage));
}

outcome_t SetLogConfig(socketFrame_t& frame)
{
    constexpr uint16_t kPairBytes = 2;
    if (frame.GetDataSize() < kPairBytes) {
        return {}; // without a pair it is an answer, see above: these are empty
    }
    CThread::m_Logger.SetLogLevel(frame.pGetData(), frame.GetDataSize());
    frame.SetData(nullptr, 0);
    frame.error = 0;
    outcome_t outcome;
    outcome.answer = outcome_t::eAnswer::FRAME;
    outcome.iEventBefore = EVT_CONFIG_SAVE;
    return outcome;
}
} // namespace QuorCore::CommonCommands
