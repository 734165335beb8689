#pragma once

#include <string>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Reads and checks a scenario file (docs/pelto-sim.md describes the format).
// On failure returns false and sets *error to "<file>: <key>: <reason>" for
// the first problem found.
bool readScenario(const std::string& path, Scenario* scenario, std::string* error);

// What a run may play, for scenario files and for scenarios made from a
// capture alike: panel rates, and compositions plus buffers (the time a run
// takes grows with them).
constexpr double kMinRefreshHz = 1;
constexpr double kMaxRefreshHz = 1000;
constexpr double kMaxRunSteps = 5e7;
double runSteps(const Scenario& scenario);

} // namespace android::tools::sim
