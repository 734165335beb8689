#pragma once

// Whether this build runs under AddressSanitizer or ThreadSanitizer. Their runtimes own the
// allocator, and code runs several times slower under them: heavy tests size their inputs by
// kSanitizedBuild so that a busy machine slows the suite down without failing it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELTO_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELTO_SANITIZED_BUILD 1
#endif
#endif

namespace android::test {

#ifdef PELTO_SANITIZED_BUILD
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

} // namespace android::test
