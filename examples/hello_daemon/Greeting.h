/// @file
/// @brief The answer to CMD_HELLO_GREET, whichever endpoint was asked.
#pragma once

#include "CHelloTree.h"

#include <libQuorCore/libQuorCore.h>

#include <cstdint>
#include <vector>

/// @param tree     Says how, and counts.
/// @param request  From whoever reached the endpoint.
/// @return The frame to send back. The words of its header that are the peer's are as they came.
std::vector<uint8_t> MakeGreeting(CHelloTree& tree, QuorCore::socketFrame_t& request);
