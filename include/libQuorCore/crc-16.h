/// @file
/// @brief The CRC-16 of the device's data.
#pragma once

#include "libQuorCore/Export.h"

#include <cstdint>

/**
 * @brief Computes a CRC-16/XMODEM: polynomial 0x1021, most significant bit first, initial value 0.
 *
 * @param data    Bytes; may be null when there are none.
 * @param length  Their number. Positions are counted in 16 bits, so no more than the first 65535
 *                bytes are taken: whoever checks such data agrees on that.
 * @return The CRC; 0 for no bytes, 0x31C3 for the nine characters 123456789.
 */
QUORCORE_API uint16_t Crc16(const unsigned char* data, unsigned int length);
