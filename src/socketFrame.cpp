#include "libQuorCore/socketFrame.h"

#include "libQuorCore/CSerializeBuffer.h"
#include "libQuorCore/CThread.h"

#include <algorithm>
#include <cstring>

namespace QuorCore
{
void socketFrame_t::SetData(uint8_t* pSource, int iSize)
{
    if (pSource != nullptr && iSize > 0) {
        std::memmove(pData, pSource, static_cast<size_t>(iSize));
    }
    SetDataSize(static_cast<uint16_t>(iSize));
}

long socketFrame_t::iReadObject(CObject& object)
{
    CSerializeBuffer stream(pGetData(), GetDataSize(), false, true, 1);
    const long lResult = object.iSerialize(stream);
    if (lResult != 0) {
        CThread::m_Logger.Log(LOG_ERR, __FILE__, __LINE__, "socketFrame_t::iReadObject", "%s",
                              "ECHEC");
    }
    return lResult;
}

long socketFrame_t::iGetData(ustring* pBytes)
{
    if (pBytes == nullptr) {
        return -1;
    }
    pBytes->assign(pGetData(), GetDataSize());
    return 0;
}

long socketFrame_t::iGetData(std::string* pszText)
{
    if (pszText == nullptr) {
        return -1;
    }
    uint8_t* const pEnd = pGetData() + GetDataSize();
    pszText->assign(pGetData(), std::find(pGetData(), pEnd, 0)); // data need not be terminated
    return 0;
}

long socketFrame_t::iGetData(long* plNumber)
{
    int32_t iNumber = 0; // 32 bits travel, whatever long is here
    if (plNumber == nullptr || GetDataSize() < sizeof(iNumber)) {
        return -1;
    }
    std::memcpy(&iNumber, pGetData(), sizeof(iNumber));
    *plNumber = iNumber;
    return 0;
}
} // namespace QuorCore
