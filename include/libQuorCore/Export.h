/// @file
/// @brief The mark of what the library offers to its users.
#pragma once

/**
 * @def QUORCORE_API
 * @brief Stands before the name of each public class and free function.
 *
 * The shared library is compiled with -fvisibility=hidden: only what is marked can be linked from
 * outside, and only marked exception and polymorphic types are the same type on both sides. Users
 * of the static library are given QUORCORE_STATIC_DEFINE by the CMake target and by pkg-config; the
 * mark is then empty. Rests on the visibility attribute of GCC and Clang.
 */
#ifdef QUORCORE_STATIC_DEFINE
#define QUORCORE_API
#else
#define QUORCORE_API __attribute__((visibility("default")))
#endif
