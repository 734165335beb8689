#pragma once

#include <cstdint>
#include <limits>

namespace android {

// a - b, clamped to the range of int64_t instead of overflowing: clock values
// from the host may be anything.
inline int64_t saturatingSub(int64_t a, int64_t b) {
    int64_t result;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    }
    return result;
}

} // namespace android
