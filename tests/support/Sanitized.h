/// @file
/// @brief What makes everything several times slower: a sanitizer, an emulated processor.
#pragma once

namespace TestSupport
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

#if defined(__arm__) || defined(__aarch64__)
constexpr int kSlowness = 10; ///< What is only large, to be sure, is divided by it.
#else
constexpr int kSlowness = 1;
#endif

/// Why a test is left out with a sanitizer. They intercept the calls in which threads are
/// cancelled, and add clean-ups to functions that have none.
constexpr const char* kNoCancelReason = "the sanitizers do not follow a cancelled thread";

/// @return How often a stress test repeats itself: @p nFull times, a tenth of it where it is slow.
constexpr int nRounds(int nFull)
{
    return kSanitized || kSlowness > 1 ? (nFull + 9) / 10 : nFull;
}
} // namespace TestSupport
