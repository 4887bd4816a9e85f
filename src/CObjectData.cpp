#include "libQuorCore/CObjectData.h"

#include "internal/CCancelGuard.h"
#include "internal/CForScope.h"
#include "internal/JsonFile.h"
#include "internal/JsonText.h"

#include "libQuorCore/CRecord.h"
#include "libQuorCore/CThread.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace QuorCore
{
namespace
{
constexpr const char* kReadRefused = "Tentative de lecture d’un attribut masqué";
constexpr const char* kWriteRefused =
    "Tentative de modification d’un attribut non WRITE (ni W ni WR)";
constexpr const char* kBadPayload = "bad payload"; // the JSON library, or memory, gave up
constexpr const char* kServices = "services";      // what stands directly below is a service
constexpr int kWholeTree = 1000;                   // levels of a notification
constexpr mode_t kDirectoryMode = 0777;            // less the umask

/// Notes that a document could not be used; a cause that is there already stays.
void NoteBadDocument(CContextJson& context, const std::string& szCause)
{
    context.m_iCodeHTTP = CContextJson::kRefused;
    if (context.m_szCause.empty()) {
        context.m_szCause = szCause;
    }
}

/// Makes a directory, whose mere existence is fine, the working directory.
bool bEnterDirectory(const char* szDirectory)
{
    if (szDirectory == nullptr || *szDirectory == '\0') {
        return false;
    }
    ::mkdir(szDirectory, kDirectoryMode);
    if (::chdir(szDirectory) != 0) {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "fichier : %s: %s", szDirectory,
                     CThread::m_Logger.strerrorT(iError).c_str());
        return false;
    }
    return true;
}

/// Runs a step that uses the JSON library. @return Its result; false, with the cause, when it
/// threw.
template <class Step>
bool bGuarded(CContextJson& context, Step step)
{
    try {
        return step();
    } catch (const std::exception& error) {
        NoteBadDocument(context, kBadPayload);
        QUORCORE_LOG(LOG_ERR, "error = %s", error.what());
        return false;
    }
}

/// Parses a text into @p value. @return False: the context has the reader's messages.
bool bParse(CContextJson& context, const std::string& szText, Json::Value& value)
{
    std::string szErrors;
    if (bParseJson(szText, value, szErrors)) {
        return true;
    }
    NoteBadDocument(context, szErrors);
    QUORCORE_LOG(LOG_ERR, "error = %s", context.m_szCause.c_str());
    return false;
}

/// The same for a request, whose text is logged, too; null is none.
bool bParseRequest(CContextJson& context, const std::string* pszText, Json::Value& value)
{
    if (pszText == nullptr) {
        NoteBadDocument(context, kBadPayload);
        return false;
    }
    if (!bParse(context, *pszText, value)) {
        QUORCORE_LOG(LOG_ERR, "error = %s", pszText->c_str());
        return false;
    }
    return true;
}
} // namespace

CObjectData::CObjectData(CObject* pParent, const char* szLabel) : CObject(pParent, szLabel)
{
    // The parent may itself be under construction: as far as it is a record by now, it is one.
    auto* const pRecord = dynamic_cast<CRecord*>(pParent);
    if (pRecord != nullptr && !pRecord->m_bIsList) {
        pRecord->Link(this);
        pRecord->m_Record.push_back(this);
    }
}

CRecord* CObjectData::pRecordOrNull()
{
    return m_bIsRecord ? static_cast<CRecord*>(this) : nullptr;
}

CObjectData::~CObjectData()
{
    if (m_pHolder != nullptr) {
        m_pHolder->Detach(this);
    }
}

void CObjectData::SerializeJson(CContextJson& /*context*/, Json::Value& /*value*/, bool /*bArray*/,
                                int /*iDepth*/)
{
}

long CObjectData::iDeserializeJson(CContextJson& /*context*/, Json::Value& /*value*/)
{
    return 0;
}

void CObjectData::DeserializeArrayJson(CContextJson& /*context*/, Json::Value& /*value*/) {}

long CObjectData::iCheckJson(CContextJson& context, Json::Value& /*value*/, std::string* pszError,
                             bool /*bReset*/)
{
    if (bCheckRestriction(context, false)) {
        return 0;
    }
    BuildJsonError(context, pszError);
    return -1;
}

long CObjectData::iCheckArrayJson(CContextJson& context, Json::Value& value, std::string* pszError,
                                  bool bReset)
{
    return CObjectData::iCheckJson(context, value, pszError, bReset);
}

CObjectData* CObjectData::pFindChildByName(const char* szName)
{
    QUORCORE_LOG(LOG_DEBUG, "m_szLabel=%s ; name=%s; not found.", m_szLabel.c_str(),
                 szName != nullptr ? szName : "");
    return nullptr;
}

CObjectData* CObjectData::pFindParentByName(const char* szName)
{
    const std::string szWanted = szName != nullptr ? szName : "";
    for (CObject* pNode = this; szName != nullptr && pNode != nullptr;
         pNode = pNode->pGetParent()) {
        auto* const pData = dynamic_cast<CObjectData*>(pNode);
        if (pData != nullptr && pNode->szGetLabel() == szWanted) {
            return pData;
        }
    }
    // The name that was looked for stands in the first place, the node's own in the second. Meant:
    // the line is read by scripts. Held by AnObjectData.LogsTheNameLookedForFirst.
    QUORCORE_LOG(LOG_INFO, "m_szLabel=%s ; name=%s; not found.", szWanted.c_str(),
                 m_szLabel.c_str());
    return nullptr;
}

CObjectData* CObjectData::pFindParentService()
{
    if (m_szLabel == kServices) {
        return this;
    }
    // Only ancestors are candidates, never the node itself: the entry directly below "services" is
    // not its own service. Callers are a service's attributes. Held by
    // AnObjectData.IsNoServiceOfItsOwn.
    CObject* pEntry = nullptr;
    for (CObject* pNode = m_pParent; pNode != nullptr; pNode = pNode->pGetParent()) {
        if (pNode->szGetLabel() != kServices) {
            pEntry = pNode;
        } else if (auto* const pService = dynamic_cast<CObjectData*>(pEntry)) {
            return pService;
        } else {
            break;
        }
    }
    QUORCORE_LOG(LOG_INFO, "m_szLabel=%s ; name=%s; not found.", kServices, m_szLabel.c_str());
    return nullptr;
}

bool CObjectData::bIsContainer()
{
    return false;
}

long CObjectData::iSiNotify(std::string* pszOut)
{
    CContextJson context(CContextJson::eGet, "", SERIALIZE_JSON_FILE, true, true);
    return bSerializeJson(context, pszOut, nullptr, kWholeTree) ? CContextJson::kOk
                                                                : CContextJson::kFailed;
}

long CObjectData::iMoRead(std::string* pszOut, std::string szUserName, int iDepth)
{
    CContextJson context(CContextJson::eGet, std::move(szUserName), SERIALIZE_JSON_STREAM, false,
                         true);
    return bSerializeJson(context, pszOut, nullptr, iDepth) ? CContextJson::kOk
                                                            : CContextJson::kFailed;
}

long CObjectData::iMoWrite(CContextJson& context, std::string* pszIn, std::string* pszOut,
                           std::string szUserName)
{
    const CDeferredCancel deferred;
    if (!szUserName.empty()) {
        context.m_szUserName = std::move(szUserName);
    }
    long iCode = CContextJson::kFailed;
    bGuarded(context, [&] {
        // Parsed once for the check and for what follows it.
        Json::Value document;
        context.m_bRoot = true;
        if (bParseRequest(context, pszIn, document) &&
            iCheckJson(context, document, pszOut, false) == 0) {
            context.m_bRoot = true;
            iCode = bDeserializeJson(context, nullptr, &document) ? CContextJson::kOk : iCode;
        }
        return true;
    });
    if (iCode != CContextJson::kOk) {
        if (context.m_iCodeHTTP == CContextJson::kOk) {
            context.m_iCodeHTTP = CContextJson::kRefused; // no refusal looks like a success
        }
        iCode = context.m_iCodeHTTP;
        if (pszOut != nullptr) {
            *pszOut = context.m_szCause;
        }
    }
    return iCode;
}

bool CObjectData::bCheckRestriction(CContextJson& context, bool bRead)
{
    if (bRead) {
        const bool bShown = context.m_Cmd != CContextJson::eNotify || m_bIsModified;
        if (!bIsAttributeNone() && bShown) {
            return true;
        }
        context.Refuse(kReadRefused);
    } else {
        if (!bIsReadOnly() && !bIsAttributeNone()) {
            return true;
        }
        context.Refuse(kWriteRefused);
    }
    return false;
}

bool CObjectData::bSerializeJson(CContextJson& context, std::string* pszOut, Json::Value* pValue,
                                 int iDepth)
{
    const CDeferredCancel deferred;
    return bGuarded(context, [&] {
        Json::Value local;
        Json::Value& value = pValue != nullptr ? *pValue : local;
        const CForScope labelStays(context.m_pLabelStays, pValue == nullptr ? this : nullptr);
        SerializeJson(context, value, false, iDepth);
        if (pszOut != nullptr) {
            *pszOut = pValue != nullptr ? szCompactJson(value) : szCompactJson(std::move(local));
        }
        return true;
    });
}

bool CObjectData::bSerializeValueJson(CContextJson& context, Json::Value& value, int iDepth)
{
    return bSerializeJson(context, nullptr, &value, iDepth);
}

bool CObjectData::bSerializeStreamJson(CContextJson& context, std::string& szOut, int iDepth)
{
    return bSerializeJson(context, &szOut, nullptr, iDepth);
}

bool CObjectData::bSerializeFileJson(CContextJson& context, const char* szFile, Json::Value* pValue,
                                     int iDepth)
{
    const CDeferredCancel deferred;
    const std::string szName = szFile != nullptr ? szFile : "";
    const bool bWritten = bGuarded(context, [&] {
        Json::Value local;
        if (pValue == nullptr) {
            SerializeJson(context, local, false, iDepth);
        }
        if (bReplaceFile(szName, szStyledJson(pValue != nullptr ? *pValue : local), true)) {
            return true;
        }
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "fichier : %s: %s", szName.c_str(),
                     CThread::m_Logger.strerrorT(iError).c_str());
        return false;
    });
    ::sync();
    return bWritten;
}

bool CObjectData::bSerializeFileJson(CContextJson& context, const char* szFile, int iDepth)
{
    return bSerializeFileJson(context, szFile, nullptr, iDepth);
}

bool CObjectData::bSerializeDirectoryJson(CContextJson& context, const char* szDirectory,
                                          int iDepth)
{
    const CDeferredCancel deferred;
    bool bDone = false;
    if (bEnterDirectory(szDirectory)) { // else the files would land in the former one
        context.m_iFormat = SERIALIZE_JSON_FILE;
        context.m_bRoot = false;
        bDone = bSerializeJson(context, nullptr, nullptr, iDepth);
    }
    ::sync();
    return bDone;
}

bool CObjectData::bDeserializeJson(CContextJson& context, std::string* pszIn, Json::Value* pValue)
{
    const CDeferredCancel deferred;
    return bGuarded(context, [&] {
        Json::Value local;
        Json::Value& value = pValue != nullptr ? *pValue : local;
        return (pszIn == nullptr || bParse(context, *pszIn, value)) &&
               iDeserializeJson(context, value) == 0;
    });
}

bool CObjectData::bDeserializeValueJson(CContextJson& context, Json::Value& value)
{
    return bDeserializeJson(context, nullptr, &value);
}

bool CObjectData::bDeserializeStreamJson(CContextJson& context, std::string& szIn)
{
    return bDeserializeJson(context, &szIn, nullptr);
}

bool CObjectData::bApplyFile(CContextJson& context, const char* szFile, bool bOwnLabel)
{
    const CDeferredCancel deferred;
    return bGuarded(context, [&] {
        const std::string szName = szFile != nullptr ? szFile : "";
        std::string szText;
        if (!bReadFile(szName, szText, !bOwnLabel)) {
            QUORCORE_LOG(LOG_ERR, "fichier : %s", szName.c_str());
            return false;
        }
        Json::Value value;
        if (!bParse(context, szText, value)) {
            return false;
        }
        CContextJson inner(context);
        inner.m_bRoot = false; // the first record within must not take itself for the document
        DeserializeArrayJson(inner, value);
        return true;
    });
}

bool CObjectData::bDeserializeFileJson(CContextJson& context, const char* szFile, int /*iDepth*/)
{
    return bApplyFile(context, szFile, false);
}

bool CObjectData::bDeserializeDirectoryJson(CContextJson& context, const char* szDirectory,
                                            int /*iDepth*/)
{
    if (!bEnterDirectory(szDirectory)) {
        return false;
    }
    context.m_iFormat = SERIALIZE_JSON_FILE;
    return bDeserializeJson(context, nullptr, nullptr);
}

long CObjectData::iCheckStreamJson(CContextJson& context, std::string* pszIn, std::string* pszError,
                                   bool bReset)
{
    const CDeferredCancel deferred;
    long iRet = -1;
    const bool bParsed = bGuarded(context, [&] {
        Json::Value value;
        if (!bParseRequest(context, pszIn, value)) {
            return false;
        }
        iRet = iCheckJson(context, value, pszError, bReset);
        return true;
    });
    return bParsed ? iRet : -1;
}

void CObjectData::BuildJsonError(CContextJson& context, std::string* pszError)
{
    if (pszError == nullptr || !pszError->empty()) {
        return;
    }
    const int32_t iCode = context.m_iCodeHTTP;
    const bool bConflict = iCode == CContextJson::kNotAllowed || iCode == CContextJson::kConflict;
    Json::Value error;
    if (context.m_Cmd == CContextJson::eDelete && bConflict) {
        const bool bParents = m_pExtraData != nullptr && m_pParent != nullptr;
        error["object"] = (bParents ? m_pParent : this)->szGetFullName();
    } else if (context.m_Cmd == CContextJson::ePut &&
               (bConflict || iCode == CContextJson::kRefused)) {
        error["object"] = m_pExtraData != nullptr ? std::string() : szGetFullName();
        error["cause"] = context.m_szCause;
    }
    *pszError = szCompactJson(std::move(error));
}

bool CObjectData::bMayPublish(CContextJson& context)
{
    return !(context.m_bOnlyPublic && bIsAttributeMasked()) && bCheckRestriction(context, true);
}

void CObjectData::StoreJson(const CContextJson& context, Json::Value& value, bool bArray,
                            Json::Value form) const
{
    const Json::ValueType type = value.type();
    if (type != Json::nullValue && type != (bArray ? Json::arrayValue : Json::objectValue)) {
        return;
    }
    if (bArray) {
        value.append(std::move(form));
        return;
    }
    const char* const pLabel = m_szLabel.c_str();
    const size_t size = m_szLabel.size();
    // One that is not copied ends with its first NUL.
    const bool bStays = context.m_pLabelStays == this && std::strlen(pLabel) == size;
    Json::Value& member =
        bStays ? value[Json::StaticString(pLabel)] : *value.demand(pLabel, pLabel + size);
    if (bStays && !form.isObject()) {
        member.swapPayload(form); // quicker: a leaf's form and a new document have no comments
    } else {
        member = std::move(form);
    }
}

Json::Value* CObjectData::pFindOwnMember(Json::Value& value) const
{
    if (!value.isObject()) {
        return nullptr;
    }
    // The constant look-up: the other one adds what it does not find to the caller's document.
    const char* const pLabel = m_szLabel.data();
    return const_cast<Json::Value*>(value.find(pLabel, pLabel + m_szLabel.size()));
}

long CObjectData::iCheckNull(CContextJson& context)
{
    if (!bIsAttributeOptional()) {
        return -1;
    }
    return bIsNull() || bCheckRestriction(context, false) ? 0 : CContextJson::kRefused;
}

bool CObjectData::bHasOwnFile() const
{
    if (m_pParent == nullptr) {
        return true;
    }
    auto* const pParent = dynamic_cast<CObjectData*>(m_pParent);
    return pParent != nullptr && pParent->bIsContainer();
}

bool CObjectData::bIsFileAbove(const std::string& szName) const
{
    for (const CObject* pNode = m_pParent; pNode != nullptr; pNode = pNode->pGetParent()) {
        auto* const pRecord = dynamic_cast<const CRecord*>(pNode);
        if (pRecord != nullptr && !pRecord->m_bIsList && pRecord->m_szLabel == szName &&
            pRecord->bHasOwnFile()) {
            return true;
        }
    }
    return false;
}

void CObjectData::WriteOwnFile(Json::Value& value)
{
    // A label can come from a client, who must not reach anything but this directory with it, nor
    // the settings of the whole.
    if (!bIsFileName(m_szLabel) || bIsFileAbove(m_szLabel)) {
        QUORCORE_LOG(LOG_ERR, "fichier : %s", m_szLabel.c_str());
        return;
    }
    if (!bReplaceFile(m_szLabel, szStyledJson(value), false)) {
        const int iError = errno;
        QUORCORE_LOG(LOG_ERR, "fichier : %s: %s", m_szLabel.c_str(),
                     CThread::m_Logger.strerrorT(iError).c_str());
    }
    ::sync();
}

bool CObjectData::bReadOwnFile(CContextJson& context)
{
    if (!bIsFileName(m_szLabel) || bIsFileAbove(m_szLabel)) {
        QUORCORE_LOG(LOG_ERR, "fichier : %s", m_szLabel.c_str());
        return false;
    }
    return bApplyFile(context, m_szLabel.c_str(), true);
}
} // namespace QuorCore
