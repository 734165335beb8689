#pragma once

#include <cstdint>

namespace android::test {

// The test program defines systemTime(), so the library's clock reads land
// here. By default it reads the real clock; a FakeClock in scope switches the
// monotonic clock to a value that only the test moves. A test uses one or the
// other, never real waits against a fake clock.
class FakeClock {
public:
    explicit FakeClock(int64_t start = 1'000'000'000'000);
    ~FakeClock();

    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    void set(int64_t now);
    void advance(int64_t delta);
    int64_t now() const;
};

} // namespace android::test
