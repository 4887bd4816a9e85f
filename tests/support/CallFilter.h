/// @file
/// @brief Makes system calls fail, or deadly, in a child process of a test. seccomp(2).
#pragma once

#include <cstdint>

namespace TestSupport
{
/// @return Whether this machine can filter calls; an emulator may not.
bool bCanFilterCalls();

/**
 * @brief From now on a system call of this process, its threads and its programs fails.
 * @param iCall   Number, SYS_... of syscall(2).
 * @param iError  What errno becomes.
 * @throw std::system_error  The filter was refused.
 */
void RefuseCall(long iCall, int iError);

/**
 * @brief From now on a system call ends the process by SIGSYS if its first argument is in a range.
 * @param uFirst, uLast  The range, of the argument's low 32 bits, both included.
 * @throw std::system_error  The filter was refused.
 */
void ForbidCall(long iCall, uint32_t uFirst, uint32_t uLast);
} // namespace TestSupport
