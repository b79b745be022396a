// Whether this is a build with a sanitizer, for tests whose walks are too long there. What they leave out is said
// where they ask.
#pragma once

namespace trellis::testing {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool under_sanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool under_sanitizer = true;
#else
inline constexpr bool under_sanitizer = false;
#endif
#else
inline constexpr bool under_sanitizer = false;
#endif

} // namespace trellis::testing
