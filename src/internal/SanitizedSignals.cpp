/// @file
/// @brief Keeps the thread sanitizer from losing a signal; nothing in any other build.

#ifdef __SANITIZE_THREAD__
#include <ctime>

namespace
{
// What GCC 12's runtime records of a thread's pending signals is made by the first of two: a
// blocking call of the thread or a signal that it takes. A SIGTERM that comes in the middle of the
// first such call, as it does to a daemon that has just said that it is ready, goes into a record
// that is thrown away. So the main thread makes its first blocking call before any signal is
// handled.
__attribute__((constructor)) void MakeRecordOfSignals()
{
    const timespec none{};
    nanosleep(&none, nullptr);
}
} // namespace
#endif
