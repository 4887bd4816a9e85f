/// @file
/// @brief The binary stream that attribute trees are written to and read from.
#pragma once

#include "libQuorCore/Export.h"

#include <cstdint>
#include <ctime>
#include <string>

namespace QuorCore
{
/// A string of bytes.
using ustring = std::basic_string<unsigned char>;

/// Where and in which form a tree is serialised; 32 bits wide.
enum eSerializeFormat : int32_t {
    SERIALIZE_STREAM = 0,      ///< CSerialize: appends to a byte string that grows.
    SERIALIZE_BUFFER = 1,      ///< CSerializeBuffer: stays within a buffer.
    SERIALIZE_FILE = 2,        ///< Binary file; for callers, the library has no such stream.
    SERIALIZE_JSON_STREAM = 3, ///< JSON in a string.
    SERIALIZE_JSON_FILE = 4,   ///< JSON in a file.
};

/**
 * @brief Pushes values to the end of a byte string, or pops them from it in order.
 *
 * The stream carries no names, tags, alignment or padding: both ends walk the same tree in the same
 * order. Integers are little-endian and exactly as wide as their type, signed ones in two's
 * complement. One stream serves one walk in one direction; after a failure it is discarded.
 *
 * A derived stream that overrides iPushBuffer() and iPopBuffer() changes every other operation with
 * them. The label that each takes is a name for the diagnostics of derived streams; the library
 * passes an empty one and does not read it.
 *
 * Threads: a stream belongs to one thread at a time.
 * Ownership: the byte string is the caller's and must outlive the stream.
 * Errors: pushes and pops return 0, or -1 with the position unchanged; nothing throws.
 */
class QUORCORE_API CSerialize
{
public:
    /**
     * @param pPayload     Byte string to append to or to read from; null makes every push and pop
     *                     fail. Borrowed.
     * @param bSave        Whether walks push (write) or pop (read).
     * @param bLog         Whether walks log every value at debug level.
     * @param bOnlyPublic  Whether walks leave masked texts out.
     */
    CSerialize(ustring* pPayload, bool bSave, bool bLog, bool bOnlyPublic);
    virtual ~CSerialize();

    /// @return The position: bytes from the start of the stream. It stops at INT_MAX.
    virtual int iGetPos();

    /**
     * @brief Sets the position.
     * @param iPos  Any value: the bounds are tested by the pushes and pops that follow, which fail
     *              from a negative position. What does not fit into an int becomes the nearest int.
     * @return 0.
     */
    virtual int iSetPos(long iPos);

    /// @return Null: the memory behind a stream is known to its caller alone.
    virtual uint8_t* pGetBuffer();

    /// @name One integer each, of the width that the name tells in bits.
    /// A pop that fails leaves its argument as it was. @return 0 or -1.
    /// @{
    virtual int iPushU8(uint8_t iValue, std::string szLabel);
    virtual int iPopU8(uint8_t& iValue, std::string szLabel);
    virtual int iPushU16(uint16_t iValue, std::string szLabel);
    virtual int iPopU16(uint16_t& iValue, std::string szLabel);
    virtual int iPushU32(uint32_t iValue, std::string szLabel);
    virtual int iPopU32(uint32_t& iValue, std::string szLabel);
    virtual int iPushI8(int8_t iValue, std::string szLabel);
    virtual int iPopI8(int8_t& iValue, std::string szLabel);
    virtual int iPushI16(int16_t iValue, std::string szLabel);
    virtual int iPopI16(int16_t& iValue, std::string szLabel);
    virtual int iPushI32(int32_t iValue, std::string szLabel);
    virtual int iPopI32(int32_t& iValue, std::string szLabel);
    /// @}

    /// Pushes a time as 32-bit signed seconds since 1970; later than 2038-01-19 it is cut to its
    /// low 32 bits. @return 0 or -1.
    virtual int iPushTime(time_t value, std::string szLabel);

    /// Pops 32-bit signed seconds since 1970; @p value is left as it was on failure.
    /// @return 0 or -1.
    virtual int iPopTime(time_t& value, std::string szLabel);

    /**
     * @brief Appends bytes to the byte string, wherever the position is, and advances by @p iSize.
     * @param pData  @p iSize bytes (0 or more), borrowed. Not altered.
     * @return 0; -1 without a byte string, without data, for a negative size or without memory.
     */
    virtual int iPushBuffer(void* pData, int iSize, std::string szLabel);

    /**
     * @brief Copies the bytes at the position and advances by @p iSize.
     * @param pData  Room for @p iSize bytes (0 or more), the caller's.
     * @return 0; -1 without a byte string or destination, or when the bytes are not all there.
     */
    virtual int iPopBuffer(void* pData, int iSize, std::string szLabel);

    /**
     * @brief Pushes a block: its size as iPushI32() has it, then its bytes.
     *
     * The position advances twice over the size field and over the data: a block of n bytes that is
     * pushed to a buffer at p has its size at p, its data at p + 8, and ends at p + 8 + 2n. What
     * lies between is skipped and not written. Readers of stored blocks count on these places; see
     * iPopPayload(). Whether the data itself found room is not reported.
     *
     * @param iSize  Bytes at @p pData; a negative size is refused.
     * @return 0 when the size was pushed, else -1.
     */
    virtual int iPushPayload(void* pData, int iSize, std::string szLabel);

    /**
     * @brief Pops a block that iPushPayload() pushed to a buffer.
     *
     * The size comes from the stream and is bounded by the stream's end alone: never for data whose
     * sender is not trusted, unless @p pData has room for all that the stream holds.
     *
     * @param pData  Room for the block, the caller's.
     * @param iSize  Receives the size that the stream tells, also when the data is not all there;
     *               unchanged when the size itself is missing.
     * @return 0; -1 when the size or the data is not all there. Unlike the other operations it
     *         leaves the position behind the size field when only the data is missing.
     */
    virtual int iPopPayload(void* pData, int& iSize, std::string szLabel);

    /// @return Whether there are bytes to read behind the stream: a check pass takes its candidates
    ///         from a ready stream, and from the attributes themselves otherwise.
    bool bIsReady() const { return m_bReady; }

    bool m_bSave; ///< Walks push when it is set and pop otherwise; never changed.
    bool m_bLog;  ///< Walks log every value at debug level.

protected:
    /// For streams over something else than a byte string, which are always ready. @param szLabel
    /// Their type, for the log.
    CSerialize(eSerializeFormat format, const char* szLabel, bool bSave, bool bLog,
               bool bOnlyPublic);

    /// Moves the position by @p iBytes, at most to the ends of the range of int.
    void AdvancePos(int iBytes);

    /// @return Whether @p iBytes bytes are there from the position on, of @p iEnd in all.
    bool bIsWithin(int iBytes, uint64_t iEnd) const;

    int32_t m_iPos; ///< Bytes from the start of the stream.
    bool m_bReady;
    int m_iFormat; ///< An eSerializeFormat.
    std::string m_szLabel;

public:
    uint16_t m_bOnlyPublic; ///< Not 0: walks leave masked texts out.

protected:
    ustring* m_pPayload; ///< Borrowed; null in a stream over something else.

private:
    friend class CPlainStream;
};
} // namespace QuorCore
