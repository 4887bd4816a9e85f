#include "internal/CSocketReader.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>

namespace QuorCore
{
int CSocketReader::iEnter(const std::atomic<int>& slot)
{
    const int iStaying = iStay(slot);
    if (iStaying != -1) {
        return iStaying;
    }
    Leave(); // first: once it is unpinned the next connection may have the same number
    return m_pin.iEnter(slot);
}

void CSocketReader::Leave()
{
    m_pin.Leave();
    m_iNext = m_iEnd = 0;
}

ssize_t CSocketReader::lReceive(uint8_t* pTarget, size_t nWanted)
{
    if (m_iNext == m_iEnd) {
        if (nWanted >= m_aAhead.size()) { // would only be copied
            return recv(m_pin.iGet(), pTarget, nWanted, MSG_WAITALL);
        }
        const ssize_t lChunk = recv(m_pin.iGet(), m_aAhead.data(), m_aAhead.size(), 0);
        if (lChunk < 1) {
            return lChunk;
        }
        m_iNext = 0;
        m_iEnd = static_cast<size_t>(lChunk);
    }
    const size_t nGiven = std::min(nWanted, m_iEnd - m_iNext);
    std::memcpy(pTarget, m_aAhead.data() + m_iNext, nGiven);
    m_iNext += nGiven;
    return static_cast<ssize_t>(nGiven);
}
} // namespace QuorCore
