/// @file
/// @brief Closes what a child must not inherit.
#pragma once

namespace QuorCore
{
/**
 * @brief Closes every descriptor from @p iFirst up; for the child of a fork, before it executes.
 *
 * Takes as long as there are open descriptors, not as long as the table may grow: that is a million
 * on some systems. Allocates nothing. close_range(2); on older kernels the list in /proc/self/fd;
 * without /proc the whole table.
 */
void CloseDescriptorsFrom(int iFirst);
} // namespace QuorCore
