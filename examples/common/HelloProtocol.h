/// @file
/// @brief What hello_daemon and hello_client agree on beyond the common commands.
#pragma once

#include <cstddef>
#include <cstdint>

/// Request: a name of 1 to kNameBytesMax bytes. Answer: "hello, " and the name, or what else was
/// set for either; empty, with the error word at kErrorBadName, for any other request.
constexpr uint16_t CMD_HELLO_GREET = 1000;

/// What hello_daemon tells its tools when its peer comes or goes: a text.
constexpr uint16_t CMD_HELLO_NEWS = 1001;

/// Request: a CDMStatCellServing, serialised, of the cell that serves the sender. Answer: empty,
/// with the error word at 0, or at kErrorBadCell when it was refused.
constexpr uint16_t CMD_HELLO_CELL = 1002;

constexpr size_t kNameBytesMax = 64;
constexpr uint16_t kErrorBadName = 1;
constexpr uint16_t kErrorBadCell = 2;

/// The port where neither side is told another one.
constexpr int kDefaultPort = 5555;
