#pragma once

#include <string>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Writes a scenario made by captureScenario as a scenario file that
// pelto-sim reads back (the rule file's path relative to it).
bool writeScenarioFile(const Scenario& scenario, const std::string& path, std::string* error);

} // namespace android::tools::sim
