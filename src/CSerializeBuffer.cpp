#include "libQuorCore/CSerializeBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace QuorCore
{
namespace
{
int32_t iCapacity(const uint8_t* pBuffer, long iSize)
{
    constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
    return pBuffer == nullptr ? 0
                              : static_cast<int32_t>(std::clamp(int64_t{iSize}, int64_t{0}, kMax));
}
} // namespace

CSerializeBuffer::CSerializeBuffer(uint8_t* pBuffer, long iSize, bool bSave, bool bLog,
                                   uint16_t bOnlyPublic)
    : CSerialize(SERIALIZE_BUFFER, "CSerializeBuffer", bSave, bLog, bOnlyPublic != 0),
      m_pBuffer(pBuffer), m_Size(iCapacity(pBuffer, iSize))
{
}

CSerializeBuffer::~CSerializeBuffer() = default;

int CSerializeBuffer::iPushBuffer(void* pData, int iSize, std::string /*szLabel*/)
{
    if (!bIsWithin(iSize, static_cast<uint64_t>(m_Size)) || (pData == nullptr && iSize > 0)) {
        return -1;
    }
    if (iSize > 0) {
        std::memcpy(m_pBuffer + m_iPos, pData, static_cast<size_t>(iSize));
    }
    AdvancePos(iSize);
    return 0;
}

int CSerializeBuffer::iPopBuffer(void* pData, int iSize, std::string /*szLabel*/)
{
    if (pData == nullptr || !bIsWithin(iSize, static_cast<uint64_t>(m_Size))) {
        return -1;
    }
    if (iSize > 0) {
        std::memcpy(pData, m_pBuffer + m_iPos, static_cast<size_t>(iSize));
    }
    AdvancePos(iSize);
    return 0;
}
} // namespace QuorCore
