#include "libQuorCore/CObject.h"

#include "internal/CDispatcherGate.h"
#include "internal/CPlainStream.h"

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSerializeBuffer.h"
#include "libQuorCore/CSlotCallbackManager.h"
#include "libQuorCore/CThread.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace QuorCore
{
namespace
{
constexpr long kNoDispatcher = -5;     // posted before the application has set one
constexpr const char* kTreeTop = "db"; // the data tree's own root: names start here
} // namespace

std::atomic<CFileNotification*> CObject::m_pFileNotification{nullptr};
std::atomic<CSlotCallbackManager*> CObject::m_pCallbackManager{nullptr};

CObject::CObject(CObject* pParent, const char* szLabel)
    : m_szLabel(szLabel != nullptr ? szLabel : ""), m_pParent(pParent), m_pExtraData(nullptr),
      m_iAttribut(ATTRIBUT_NULL) // the only initial state, whatever the label
{
}

CObject::~CObject()
{
    WithdrawMessages();
}

long CObject::iPostMessage(CMsg* pMsg)
{
    const CDispatcherGate gate(m_pCallbackManager);
    return gate.pGet() != nullptr ? gate.pGet()->iPost(pMsg) : kNoDispatcher;
}

long CObject::iPostMessage(uint32_t iEventId, uint32_t iParam1, uint32_t iParam2, void* pData,
                           uint32_t iDataSize, int iPriority)
{
    const CDispatcherGate gate(m_pCallbackManager);
    return gate.pGet() != nullptr
               ? gate.pGet()->iPost(this, iEventId, iParam1, iParam2, pData, iDataSize, iPriority)
               : kNoDispatcher;
}

long CObject::iSerialize(CSerialize& stream)
{
    if (bIsAttributeNone()) {
        return 0;
    }
    if (stream.m_bSave) {
        return stream.iPushU8(m_iAttribut, "");
    }
    const uint8_t* const pByte = CPlainStream::pPop(stream, 1);
    if (pByte == nullptr) {
        return stream.iPopU8(m_iAttribut, "");
    }
    m_iAttribut = *pByte;
    return 0;
}

long CObject::iCheckStatus(CSerialize& stream, bool /*bReset*/)
{
    uint8_t iIgnored = 0;
    return stream.bIsReady() ? stream.iPopBuffer(&iIgnored, 1, "") : 0;
}

void CObject::SetLabel(const char* szLabel)
{
    m_szLabel = szLabel != nullptr ? szLabel : "";
}

std::string CObject::szGetFullName() const
{
    std::vector<const std::string*> path{&m_szLabel};
    for (const CObject* pNode = m_pParent; pNode != nullptr; pNode = pNode->m_pParent) {
        path.push_back(&pNode->m_szLabel);
        if (pNode->m_szLabel == kTreeTop) {
            break;
        }
    }
    std::string szName;
    for (auto label = path.rbegin(); label != path.rend(); ++label) {
        szName.append("/").append(**label);
    }
    return szName;
}

void CObject::SetEventManager(CSlotCallbackManager* pCallbackManager,
                              CFileNotification* pFileNotification)
{
    CDispatcherGate::Replace(m_pCallbackManager, pCallbackManager);
    m_pFileNotification = pFileNotification;
}

void CObject::WithdrawMessages()
{
    if (m_bPosted.load(std::memory_order_relaxed)) {
        const CNoCancel noCancel; // for destructors: it may wait, and must not be unwound
        m_bPosted = false;
        const CDispatcherGate gate(m_pCallbackManager);
        if (gate.pGet() != nullptr) {
            gate.pGet()->ForgetOrigin(this);
        }
    }
}

bool CObject::bIsPostQueued(uint32_t iEventId) const
{
    const CDispatcherGate gate(m_pCallbackManager);
    return gate.pGet() != nullptr && gate.pGet()->bIsQueued(this, iEventId);
}

CMsg::CMsg()
    : m_pOrigin(nullptr), m_iEventId(0), m_iParam1(0), m_iParam2(0), m_iPriority(0),
      m_bDoDelete(false), m_iDataSize(0), m_pData(nullptr)
{
}

CMsg::CMsg(CObject* pOrigin, bool bDoDelete, uint32_t iEventId, uint32_t iParam1, uint32_t iParam2,
           void* pData, uint32_t iDataSize, int /*iPriority*/)
    : m_pOrigin(pOrigin), m_iEventId(iEventId), m_iParam1(static_cast<int32_t>(iParam1)),
      m_iParam2(static_cast<int32_t>(iParam2)), m_iPriority(0), m_bDoDelete(bDoDelete),
      m_iDataSize(0), m_pData(nullptr)
{
    if (!bDoDelete || pData == nullptr || iDataSize == 0) {
        return;
    }
    m_pData = iDataSize <= kInlineSize ? m_aInline : std::malloc(iDataSize);
    if (m_pData != nullptr) {
        std::memcpy(m_pData, pData, iDataSize);
        m_iDataSize = iDataSize;
    }
}

CMsg::~CMsg()
{
    if (m_bDoDelete && m_pData != m_aInline) {
        std::free(m_pData);
    }
}

long CMsg::iReadObject(CObject& object)
{
    CSerializeBuffer stream(static_cast<uint8_t*>(m_pData),
                            m_pData != nullptr ? static_cast<long>(m_iDataSize) : 0, false, true,
                            1);
    const long lResult = object.iSerialize(stream);
    if (lResult != 0) {
        CThread::m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "socketFrame_t::iReadObject", "%s",
                              "ECHEC");
    }
    return lResult;
}
} // namespace QuorCore
