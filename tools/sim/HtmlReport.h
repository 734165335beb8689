#pragma once

#include <string>
#include <vector>

#include "tools/sim/Expectations.h"
#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Writes the run as one self-contained HTML page: an SVG timeline of the
// state, the HWC mode, the Q2Q rate, isQ2QFull, the vsync requests and each
// layer's time on screen, then the summary, the expectations and the timeline
// as text. No script, no external file. False, with *error, on a write error.
bool writeHtmlReport(const std::string& path, const Scenario& scenario, const RunRecord& record,
                     const RunSummary& summary, const std::vector<ExpectationResult>& results,
                     std::string* error);

} // namespace android::tools::sim
