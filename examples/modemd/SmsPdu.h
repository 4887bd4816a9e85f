/// @file
/// @brief Messages as modems have them in their PDU mode: 3GPP TS 27.005 and TS 23.040.
#pragma once

#include <string>

/**
 * @param szPdu  Hexadecimal digits of a message that came (SMS-DELIVER), the service centre's
 *               address before it.
 * @return The number of the sender, a "+" before an international one; empty: it has none, such as
 *         one that is a name, or this is no such message.
 */
std::string szSenderOf(const std::string& szPdu);
