#include "libQuorCore/CContextJson.h"

#include "internal/JsonFile.h"
#include "internal/JsonText.h"

#include "libQuorCore/CThread.h"

#include <cerrno>
#include <exception>
#include <utility>

namespace QuorCore
{
CContextJson::CContextJson(enumCmd cmd, std::string szUserName, eSerializeFormat format,
                           bool bPubAll, bool bOnlyPublic)
    : m_bPubAll(bPubAll), m_iFormat(format), m_szUserName(std::move(szUserName)), m_Cmd(cmd),
      m_bOnlyPublic(bOnlyPublic)
{
}

CContextJson::CContextJson(const CContextJson& other)
    : m_bPubAll(other.m_bPubAll), m_iHash(other.m_iHash), m_iFormat(other.m_iFormat),
      m_bRoot(other.m_bRoot), m_szUserName(other.m_szUserName), m_bLog(other.m_bLog),
      m_Cmd(other.m_Cmd), m_iCodeHTTP(other.m_iCodeHTTP), m_szCause(other.m_szCause),
      m_bOnlyPublic(other.m_bOnlyPublic)
{
}

CContextJson& CContextJson::operator=(const CContextJson& other)
{
    m_bPubAll = other.m_bPubAll;
    m_iHash = other.m_iHash;
    m_iFormat = other.m_iFormat;
    m_bRoot = other.m_bRoot;
    m_szUserName = other.m_szUserName;
    m_bLog = other.m_bLog;
    m_Cmd = other.m_Cmd;
    m_iCodeHTTP = other.m_iCodeHTTP;
    m_szCause = other.m_szCause;
    m_bOnlyPublic = other.m_bOnlyPublic;
    return *this;
}

CContextJson::~CContextJson() = default;

void CContextJson::Refuse(const std::string& szCause)
{
    m_iCodeHTTP = kRefused;
    m_szCause = szCause;
}

void CContextJson::Log(Json::Value& value)
{
    if (!m_bLog || !CLogger::bIsEnabled(LOG_DEBUG)) {
        return;
    }
    try {
        QUORCORE_LOG(LOG_DEBUG, "%s", szCompactJson(value).c_str());
    } catch (const std::exception& error) {
        QUORCORE_LOG(LOG_ERR, "error = %s", error.what());
    }
}

void CContextJson::Save(Json::Value& value, const char* szFile)
{
    const char* const szName = szFile != nullptr ? szFile : "";
    try {
        if (!bReplaceFile(szName, szStyledJson(value), true)) {
            const int iError = errno;
            QUORCORE_LOG(LOG_ERR, "fichier : %s: %s", szName,
                         CThread::m_Logger.strerrorT(iError).c_str());
        }
    } catch (const std::exception& error) {
        QUORCORE_LOG(LOG_ERR, "error = %s", error.what());
    }
}
} // namespace QuorCore
