#pragma once

// Whether this build runs under AddressSanitizer or ThreadSanitizer. Their runtimes own the
// allocator, and code runs several times slower under them: heavy tests size their inputs by
// kSlowBuild so that a busy machine slows the suite down without failing it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELTO_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELTO_SANITIZED_BUILD 1
#endif
#endif

// PELTO_EMULATED_BUILD comes from tests/CMakeLists.txt for a cross build whose tests run
// under a CPU emulator (qemu's user mode, the arm64 preset). Code runs there several times
// slower too, and the program cannot execute itself again: the kernel knows only the host's
// binaries.

namespace android::test {

#ifdef PELTO_SANITIZED_BUILD
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

#ifdef PELTO_EMULATED_BUILD
constexpr bool kEmulatedBuild = true;
#else
constexpr bool kEmulatedBuild = false;
#endif

// Whether heavy tests shrink their inputs.
constexpr bool kSlowBuild = kSanitizedBuild || kEmulatedBuild;

} // namespace android::test
