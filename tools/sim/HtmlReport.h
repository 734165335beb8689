#pragma once

#include <string>
#include <vector>

#include "tools/sim/Expectations.h"
#include "tools/sim/RunDiagnosis.h"
#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Writes the run as one self-contained HTML page: a timeline of the state,
// the HWC mode, the Q2Q rate, isQ2QFull, the vsync requests, the compositor's
// calls and each window's time on screen, drawn, zoomed and panned by an
// inline script (HtmlScript.h) from the run's data (HtmlTimeline.h); then the
// summary with the run's diagnosis (RunDiagnosis.h), the expectations and the
// timeline as text. No external file, no network access. False, with *error, on a write error.
bool writeHtmlReport(const std::string& path, const Scenario& scenario, const RunRecord& record,
                     const RunSummary& summary, const RunDiagnosis& diagnosis,
                     const std::vector<ExpectationResult>& results, std::string* error);

} // namespace android::tools::sim
