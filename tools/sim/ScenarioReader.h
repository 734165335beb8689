#pragma once

#include <string>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Reads and checks a scenario file (docs/pelto-sim.md describes the format).
// On failure returns false and sets *error to "<file>: <key>: <reason>" for
// the first problem found.
bool readScenario(const std::string& path, Scenario* scenario, std::string* error);

// The state names a scenario uses: "Off", "On", "Temp Off". -1 if unknown.
int32_t stateFromName(const std::string& name);

} // namespace android::tools::sim
