/// @file
/// @brief The binary stream over a fixed piece of memory.
#pragma once

#include "libQuorCore/CSerialize.h"

#include <cstdint>
#include <string>

namespace QuorCore
{
/**
 * @brief A CSerialize that writes into, or reads from, a buffer of fixed size.
 *
 * Received frames and messages are read through it. It is always ready: a check pass reads its
 * candidates from it. Threads, errors: as CSerialize.
 * Ownership: the buffer is the caller's and must outlive the stream.
 */
class QUORCORE_API CSerializeBuffer : public CSerialize
{
public:
    /**
     * @param pBuffer      Memory to write or read; null is an empty buffer. Borrowed.
     * @param iSize        Bytes at @p pBuffer. Negative is an empty buffer; more than INT_MAX is
     *                     INT_MAX.
     * @param bSave        Whether walks push (write) or pop (read).
     * @param bLog         Whether walks log every value at debug level.
     * @param bOnlyPublic  Not 0: walks leave masked texts out.
     */
    CSerializeBuffer(uint8_t* pBuffer, long iSize, bool bSave, bool bLog, uint16_t bOnlyPublic);
    ~CSerializeBuffer() override;

    /**
     * @brief Copies bytes to the position and advances by @p iSize.
     * @param pData  @p iSize bytes (0 or more), borrowed. Not altered.
     * @return 0; -1 with nothing written when they do not all fit.
     */
    int iPushBuffer(void* pData, int iSize, std::string szLabel) override;

    /**
     * @brief Copies the bytes at the position and advances by @p iSize.
     * @param pData  Room for @p iSize bytes (0 or more), the caller's.
     * @return 0; -1 without a destination, or when the bytes are not all there.
     */
    int iPopBuffer(void* pData, int iSize, std::string szLabel) override;

protected:
    uint8_t* m_pBuffer; ///< Borrowed.
    int32_t m_Size;     ///< Bytes at m_pBuffer, 0 or more.

private:
    friend class CPlainStream;
};
} // namespace QuorCore
