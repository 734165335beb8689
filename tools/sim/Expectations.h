#pragma once

#include <string>
#include <vector>

#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

struct ExpectationResult {
    const Expectation* expectation = nullptr;
    bool passed = false;
    std::string what; // the expectation, in words
    std::string got;  // what the run showed, when it failed
};

std::vector<ExpectationResult> checkExpectations(const Scenario& scenario, const RunRecord& record,
                                                 const RunSummary& summary);

// "12.345 s"
std::string formatSeconds(SimTime t);

} // namespace android::tools::sim
