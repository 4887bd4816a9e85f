/// @file
/// @brief Whether the build carries a sanitizer, which makes everything several times slower.
#pragma once

namespace TestSupport
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/// Why a test is left out then. They intercept the calls in which threads are cancelled, and add
/// clean-ups to functions that have none.
constexpr const char* kNoCancelReason = "the sanitizers do not follow a cancelled thread";

/// @return How often a stress test repeats itself: @p nFull times, a tenth of it when sanitized.
constexpr int nRounds(int nFull)
{
    return kSanitized ? (nFull + 9) / 10 : nFull;
}
} // namespace TestSupport
