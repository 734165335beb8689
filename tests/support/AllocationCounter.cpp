#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

#include "support/SanitizedBuild.h"

namespace {

// Constant-initialised, so reading it needs no allocation of its own.
thread_local size_t tAllocations = 0;

} // namespace

namespace android::test {

AllocationCounter::AllocationCounter() : mStart(tAllocations) {}

size_t AllocationCounter::allocations() const {
    return tAllocations - mStart;
}

} // namespace android::test

#ifdef PELTO_SANITIZED_BUILD

// A sanitizer's runtime defines every operator new and delete itself and cannot
// share them, so its allocator's hook counts instead (malloc included).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void*,
                                                                            size_t),
                                                         void (*freeHook)(const volatile void*));

namespace {

void countAllocation(const volatile void*, size_t) {
    ++tAllocations;
}
void ignoreFree(const volatile void*) {}

// The runtime takes a hook pair only when both are given.
[[maybe_unused]] const int sHooksInstalled =
        __sanitizer_install_malloc_and_free_hooks(countAllocation, ignoreFree);

} // namespace

#else

// The array and nothrow forms call these by default, so replacing them counts
// every allocation but the over-aligned ones.
void* operator new(size_t size) {
    ++tAllocations;
    // malloc(0) may return null; operator new must not.
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
#if defined(__cpp_exceptions)
    throw std::bad_alloc();
#else
    std::abort();
#endif
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, size_t) noexcept {
    std::free(p);
}

#endif // PELTO_SANITIZER_ALLOCATOR
