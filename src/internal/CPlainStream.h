/// @file
/// @brief The short way to the bytes of the library's own streams.
#pragma once

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/CSerializeBuffer.h"

#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <typeinfo>

namespace QuorCore
{
/**
 * @brief Pushes or pops several values in one step, without a virtual call for each.
 *
 * For a CSerialize or CSerializeBuffer itself, and only when the step succeeds as a whole. In all
 * other cases nothing has happened and the caller goes the long way, value by value, which fails at
 * the right place: a derived stream sees every value by itself. Both ways leave the same bytes.
 */
class CPlainStream
{
public:
    /// @return Whether @p iSize bytes, 1 or more, were written and the position moved behind them.
    static bool bPush(CSerialize& stream, const void* pData, int iSize)
    {
        const std::type_info* const pType = &typeid(stream);
        if (pType == &typeid(CSerialize)) {
            return bAppend(stream, pData, iSize);
        }
        uint8_t* const pPlace = pType == &typeid(CSerializeBuffer)
                                    ? pWithin(static_cast<CSerializeBuffer&>(stream), iSize)
                                    : nullptr;
        if (pPlace == nullptr) {
            return false;
        }
        std::memcpy(pPlace, pData, static_cast<size_t>(iSize));
        stream.m_iPos += iSize;
        return true;
    }

    /// @return Where the next @p iSize bytes, 1 or more, lie; the position is behind them. Null:
    ///         they are not all there, and the position is where it was.
    static const uint8_t* pPop(CSerialize& stream, int iSize)
    {
        const uint8_t* pPlace = nullptr;
        const std::type_info* const pType = &typeid(stream);
        if (pType == &typeid(CSerializeBuffer)) {
            pPlace = pWithin(static_cast<CSerializeBuffer&>(stream), iSize);
        } else if (pType == &typeid(CSerialize) && stream.m_pPayload != nullptr &&
                   bFits(stream.m_iPos, iSize, stream.m_pPayload->size())) {
            pPlace = stream.m_pPayload->data() + stream.m_iPos;
        }
        stream.m_iPos += pPlace != nullptr ? iSize : 0;
        return pPlace;
    }

private:
    static bool bFits(int32_t iPos, int iSize, uint64_t end)
    {
        return iPos >= 0 && iPos <= std::numeric_limits<int32_t>::max() - iSize &&
               static_cast<uint64_t>(iPos + iSize) <= end;
    }

    static uint8_t* pWithin(CSerializeBuffer& stream, int iSize)
    {
        return bFits(stream.m_iPos, iSize, static_cast<uint64_t>(stream.m_Size))
                   ? stream.m_pBuffer + stream.m_iPos
                   : nullptr;
    }

    static bool bAppend(CSerialize& stream, const void* pData, int iSize)
    {
        if (stream.m_pPayload == nullptr ||
            stream.m_iPos > std::numeric_limits<int32_t>::max() - iSize) {
            return false;
        }
        try {
            stream.m_pPayload->append(static_cast<const unsigned char*>(pData),
                                      static_cast<size_t>(iSize));
        } catch (const std::exception&) {
            return false;
        }
        stream.m_iPos += iSize;
        return true;
    }
};
} // namespace QuorCore
