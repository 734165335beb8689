#include "support/AllocationCounter.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELTO_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELTO_SANITIZER_ALLOCATOR 1
#endif
#endif

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

#ifdef PELTO_SANITIZER_ALLOCATOR

// A sanitizer's runtime defines every operator new and delete itself and cannot
// share them, so its allocator's hook counts instead (malloc included).
extern "C" int __sanitizer_install_malloc_and_free_hooks(
        void (*mallocHook)(const volatile void*, size_t), void (*freeHook)(const volatile void*));

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

namespace {

void* countedAlloc(size_t size, size_t alignment = 0) noexcept {
    ++tAllocations;
    // malloc(0) may return null; operator new must not.
    size = size == 0 ? 1 : size;
    if (alignment == 0) {
        return std::malloc(size);
    }
    void* p = nullptr;
    return posix_memalign(&p, std::max(alignment, sizeof(void*)), size) == 0 ? p : nullptr;
}

void* countedNew(size_t size, size_t alignment = 0) {
    if (void* p = countedAlloc(size, alignment)) {
        return p;
    }
    throw std::bad_alloc();
}

} // namespace

// Every replaceable form, so that each block is freed by the family that made it.
void* operator new(size_t size) {
    return countedNew(size);
}
void* operator new[](size_t size) {
    return countedNew(size);
}
void* operator new(size_t size, std::align_val_t alignment) {
    return countedNew(size, static_cast<size_t>(alignment));
}
void* operator new[](size_t size, std::align_val_t alignment) {
    return countedNew(size, static_cast<size_t>(alignment));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return countedAlloc(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return countedAlloc(size);
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return countedAlloc(size, static_cast<size_t>(alignment));
}
void* operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return countedAlloc(size, static_cast<size_t>(alignment));
}

void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}

#endif // PELTO_SANITIZER_ALLOCATOR
