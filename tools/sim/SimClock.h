#pragma once

#include <cstdint>

namespace android::tools::sim {

// The simulation's monotonic clock. The simulator defines systemTime() and
// exports it from the executable, so the library's clock reads, which bind to
// the first definition in the process, return this value instead of the
// machine's clock. Only the simulation loop moves it.
void setVirtualTime(int64_t now);
int64_t virtualTime();

// Virtual time at the start of a scenario: well past boot, as on a device
// that has been up for a while.
constexpr int64_t kVirtualBootOffset = 100'000'000'000;

} // namespace android::tools::sim
