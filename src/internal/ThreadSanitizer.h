/// @file
/// @brief Tells the thread sanitizer of synchronisation that it does not see by itself.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define QUORCORE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUORCORE_TSAN 1
#endif
#endif

#ifdef QUORCORE_TSAN
extern "C" void __tsan_acquire(void* pAddress);
#endif

namespace QuorCore
{
/// What other threads did before they released @p pAddress happened before what follows.
inline void TsanAcquire([[maybe_unused]] void* pAddress)
{
#ifdef QUORCORE_TSAN
    __tsan_acquire(pAddress);
#endif
}
} // namespace QuorCore
