#pragma once

#include <cstdio>
#include <vector>

#include "tools/sim/Expectations.h"
#include "tools/sim/RunDiagnosis.h"
#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// The run as text: what was simulated, the timeline, the summary, and the
// result of each expectation. Returns the number of failed expectations.
void printHeader(FILE* out, const Scenario& scenario);
// With `libraryThreads`, also the lines the library's own threads logged.
void printTimeline(FILE* out, const RunRecord& record, bool libraryThreads);
void printSummary(FILE* out, const Scenario& scenario, const RunSummary& summary,
                  const RunDiagnosis& diagnosis);
int printExpectations(FILE* out, const std::vector<ExpectationResult>& results);

} // namespace android::tools::sim
