#pragma once

#include <cstddef>

namespace android::test {

// Counts the heap allocations (operator new, all but the over-aligned forms)
// that the calling thread makes while the counter lives. The test program
// replaces the global operator new/delete to count, forwarding to malloc/free;
// under ASan or TSan, whose runtimes own those operators, the sanitizer's
// allocation hook counts instead and sees malloc as well.
class AllocationCounter {
public:
    AllocationCounter();

    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations made by this thread since construction.
    size_t allocations() const;

private:
    const size_t mStart;
};

} // namespace android::test
