#include "CModemPort.h"

#include <array>
#include <termios.h>
#include <utility>

using namespace QuorCore;

namespace
{
struct report_t {
    const char* pszPrefix;
    int iFollowing; // lines that come with it
};

constexpr std::array<report_t, 12> kReports = {{{"+CREG:", 0},
                                                {"+CGREG:", 0},
                                                {"+CMTI:", 0},
                                                {"+CMT:", 1},
                                                {"+CDSI:", 0},
                                                {"+CPIN:", 0},
                                                {"+CUSD:", 0},
                                                {"+CLIP:", 0},
                                                {"+CRING:", 0},
                                                {"RING", 0},
                                                {"NO CARRIER", 0},
                                                {"BUSY", 0}}};

constexpr std::array<std::pair<int, speed_t>, 11> kSpeeds = {{{1200, B1200},
                                                              {2400, B2400},
                                                              {4800, B4800},
                                                              {9600, B9600},
                                                              {19200, B19200},
                                                              {38400, B38400},
                                                              {57600, B57600},
                                                              {115200, B115200},
                                                              {230400, B230400},
                                                              {460800, B460800},
                                                              {921600, B921600}}};
} // namespace

CModemPort::CModemPort(CObject* pParent, const char* szLabel) : CThreadAT(pParent, szLabel)
{
    for (const report_t& report : kReports) {
        SetUnsolicited(report.pszPrefix, report.iFollowing, EVT_MODEM_REPORT);
    }
}

CModemPort::~CModemPort()
{
    EndThread();
}

bool CModemPort::bSetSpeed(int iBitsPerSecond)
{
    for (const auto& [iSpeed, code] : kSpeeds) {
        if (iSpeed == iBitsPerSecond) {
            m_iSpeed = code;
            return true;
        }
    }
    return false;
}

void CModemPort::OnConnect()
{
    ++m_nConnections;
    m_bAnnounced = true;
    CThreadAT::OnConnect();
}

void CModemPort::OnLinkLost()
{
    CThreadAT::OnLinkLost();
    if (m_bAnnounced.exchange(false)) {
        OnDeconnect();
    }
}

std::string CModemPort::szPrefixOf(const std::string& szCommand)
{
    const size_t nEnd = szCommand.find_first_of("=?");
    const std::string szName =
        szCommand.size() > 2 ? szCommand.substr(2, nEnd == std::string::npos ? nEnd : nEnd - 2)
                             : "";
    for (const report_t& report : kReports) {
        if (szName + ':' == report.pszPrefix) {
            return szName + ':';
        }
    }
    return "";
}
