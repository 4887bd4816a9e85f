/// @file
/// @brief The frame in which daemons talk to each other over TCP; drawn in docs/frame-format.md.
#pragma once

#include "libQuorCore/CSerialize.h"
#include "libQuorCore/Export.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace QuorCore
{
class CObject;

/// Both bytes of every frame's first word.
constexpr uint16_t kFrameMagic = 0xAAAA;

/// Most data of one frame in bytes: writers store 16 bits of size.
constexpr long kFrameDataBytesMax = 65535;

/**
 * @brief The header of a frame, byte for byte as on the wire, little-endian.
 *
 * Packed: its 32-bit size lies at offset 2. Fields are read and written by value; a pointer or
 * reference to one would be misaligned, and some ARM cores fault on that.
 */
struct __attribute__((packed, may_alias)) QUORCORE_API socketFrameHdr_t {
    uint16_t magicNumber; ///< kFrameMagic.
    uint32_t size;        ///< Data bytes that follow the header.
    uint16_t typeITF;     ///< Family of the command; the application's, never read here.
    uint16_t command;     ///< Chooses the handler: an eITFCmdCommun or a number of the application.
    uint16_t error;       ///< Result of an answer, 0 is success.
    uint16_t protocol;    ///< The sender's.
    uint16_t msgCounter;  ///< Writes that the sender had made when it built the header.
    int16_t user1;        ///< The application's.
    int16_t user2;        ///< The application's.

    /// Stores a data size; 16 bits, so 70000 becomes 4464.
    void SetDataSize(uint16_t iSize) { size = iSize; }

    /// @return The low 16 bits of the data size.
    uint16_t GetDataSize() const { return static_cast<uint16_t>(size); }

    /// @return Header and data in bytes, in 16 bits: from 65516 data bytes on it wraps to 0 and up,
    ///         as every peer computes it. Who needs the true length adds in a wider type.
    uint16_t GetFrameSize() const;
};

constexpr size_t kFrameHeaderSize = 2 + 4 + 7 * 2; ///< magic, size, seven 16-bit words.
static_assert(sizeof(socketFrameHdr_t) == kFrameHeaderSize, "the header is 20 bytes on the wire");
static_assert(offsetof(socketFrameHdr_t, size) == 2, "the size follows the magic directly");
static_assert(offsetof(socketFrameHdr_t, command) == 8, "dispatch reads the command at offset 8");
static_assert(offsetof(socketFrameHdr_t, user2) == 18, "the last word ends the header");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "a big-endian build must swap the fields");

inline uint16_t socketFrameHdr_t::GetFrameSize() const
{
    return static_cast<uint16_t>(GetDataSize() + kFrameHeaderSize);
}

/**
 * @brief A whole frame: the header with its data directly behind it.
 *
 * A view of bytes in somebody's buffer, which also knows how long that is; never an object of its
 * own. Errors: by return value; nothing throws.
 */
struct __attribute__((packed, may_alias)) QUORCORE_API socketFrame_t : socketFrameHdr_t {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" // C99's array without a bound: GCC and Clang have it
    uint8_t pData[];                        ///< GetDataSize() bytes.
#pragma GCC diagnostic pop

    uint8_t* pGetData()
    {
        return pData;
    } ///< @return The first byte behind the header.

    /**
     * @brief Puts data into the frame and stores its size; (nullptr, 0) empties the frame.
     * @param pSource  Copied, may lie within the frame; null stores the size alone.
     * @param iSize    Bytes, 0 to 65535; the buffer that holds the frame has room for them.
     */
    void SetData(uint8_t* pSource, int iSize);

    /**
     * @brief Reads an object out of the data.
     * @return 0, or the result of the object's iSerialize(), which is logged at level 3; the object
     *         may then be filled in part.
     */
    long iReadObject(CObject& object);

    /// Gives the data as bytes. @return 0, -1 for null.
    long iGetData(ustring* pBytes);

    /// Gives the data as a text that ends at its first 0 byte, if any. @return 0, -1 for null.
    long iGetData(std::string* pszText);

    /// Gives the first four bytes as a signed number, the same on 32 and 64 bits. @return 0; -1 for
    /// null or less data.
    long iGetData(long* plNumber);
};
static_assert(sizeof(socketFrame_t) == kFrameHeaderSize, "the data begins behind the header");

/// Commands that every endpoint knows; CSocketBase answers those that a comment says so.
enum eITFCmdCommun : uint16_t {
    CMD_COMMUN_PING = 10,           ///< Answered by CMD_COMMUN_PONG with the same data.
    CMD_COMMUN_VERSION = 11,        ///< Answered with a versionFW_t.
    CMD_COMMUN_PID = 12,            ///< Answered with the process id, four bytes.
    CMD_COMMUN_NAME = 13,           ///< Answered with the application's name, zero-terminated.
    CMD_COMMUN_SET_CONFIG = 14,     ///< The application's; no answer of the library.
    CMD_COMMUN_GET_CONFIG = 15,     ///< The application's; no answer of the library.
    CMD_COMMUN_SET_LOG_CONFIG = 16, ///< (thread index, level) byte pairs; answered empty.
    CMD_COMMUN_GET_LOG_CONFIG = 17, ///< Form action; answered with the page, zero-terminated.
    CMD_COMMUN_PONG = 18,           ///< Answer to a ping; not answered.
};

/// Commands between the modem daemon and its clients; the library has no handler for them.
enum eITFCmdModem : uint16_t {
    CMD_MODEM_GET_IMEI = 3000,
    CMD_MODEM_GET_IMSI = 3001,
    CMD_MODEM_GET_CID = 3002,
    CMD_MODEM_GET_CSQ = 3003,
    CMD_MODEM_GET_CGREG = 3004,
    CMD_MODEM_GET_RSSI = 3005,
    CMD_MODEM_GET_CODE_PIN_STATE = 3006,
    CMD_MODEM_SET_CODE_PIN = 3007,
    CMD_MODEM_SET_CODE_PIN_ACTIVE = 3008,
    CMD_MODEM_GET_REGISTRATION_STATE = 3009,
    CMD_MODEM_GET_ACCESS_TECHNO = 3010,
    CMD_MODEM_GET_INCOMING_SMS_PDU = 3011,
    CMD_MODEM_SEND_SMS = 3012,
    CMD_MODEM_DELETE_OLD_SMS = 3013,
    CMD_MODEM_SHUTDOWN_ = 3014, ///< The trailing underscore is part of the name in use.
    CMD_MODEM_SET_INIT = 3015,
    CMD_MODEM_SET_REGISTER = 3016,
    CMD_MODEM_SET_DEREGISTER = 3017,
    CMD_MODEM_GET_KCELL = 3018,
    CMD_MODEM_GET_CELLS_STATS = 3019,
    CMD_MODEM_GET_NETWORK_SCAN = 3020,
    CMD_MODEM_GET_EXTENDED_ERROR_REPORT = 3021,
    CMD_MODEM_GET_XCGED_PAGE = 3022,
    CMD_MODEM_GET_SIGNAL_QUALITY = 3023,
    CMD_MODEM_SET_CONFIG_PPP = 3024,
    CMD_MODEM_SET_LED_GPRS_LOW = 3025,
    CMD_MODEM_SET_LED_GPRS_MED = 3026,
    CMD_MODEM_SET_LED_GPRS_HIGH = 3027,
    CMD_MODEM_SET_LED_UMTS_LOW = 3028,
    CMD_MODEM_SET_LED_UMTS_MED = 3029,
    CMD_MODEM_SET_LED_UMTS_HIGH = 3030,
    CMD_MODEM_SET_CONFIG_FLOW_NTP = 3031,
    CMD_MODEM_TEST_CONNECTIVITY = 3032,
    CMD_MODEM_SET_CONFIG_APN = 3033,
    CMD_MODEM_GET_CELL_SERVING = 3034,
    CMD_MODEM_RESET_PPP = 3035,
    CMD_MODEM_SET_WHITELIST = 3036,
};
} // namespace QuorCore
