/// @file
/// @brief The mark of what the shared library exports.
#pragma once

#if defined(QUORCORE_STATIC_DEFINE)
#define QUORCORE_API
#else
#define QUORCORE_API __attribute__((visibility("default")))
#endif
