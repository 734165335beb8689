#pragma once

#include <string>

#include <json/json.h>

#include "tools/sim/RunDiagnosis.h"
#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// The figures of one run as JSON, for scripts and CI: time in each state,
// HWC toggles, vsync callbacks, the Q2Q rate, the refresh estimate, the
// reasons seen and the state changes with their causes.
Json::Value runJson(const Scenario& scenario, const RunRecord& record, const RunSummary& summary,
                    const RunDiagnosis& diagnosis);

// The reason codes of the run's state changes, in the order first seen.
std::vector<int32_t> reasonsSeen(const RunRecord& record);

// Writes `value` to `path`, or to stdout for "-".
bool writeJson(const Json::Value& value, const std::string& path, std::string* error);

} // namespace android::tools::sim
