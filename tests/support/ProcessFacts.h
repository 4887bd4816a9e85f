/// @file
/// @brief What the kernel counts for this process: shows a leak of descriptors or threads.
#pragma once

#include <cstddef>

namespace TestSupport
{
/// @return Descriptors open at the moment, by /proc/self/fd; the one that counts is left out.
size_t nOpenDescriptors();

/// @return Threads alive at the moment, the main one included, by /proc/self/task. One that was
///         joined, and that the kernel has not quite removed yet, does not count. A sanitizer may
///         have a thread of its own: compare with the number from before.
size_t nThreads();
} // namespace TestSupport
