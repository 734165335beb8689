#pragma once

#include <string>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Reads and checks a scenario file (docs/pelto-sim.md describes the format).
// On failure returns false and sets *error to "<file>: <key>: <reason>" for
// the first problem found.
bool readScenario(const std::string& path, Scenario* scenario, std::string* error);

} // namespace android::tools::sim
