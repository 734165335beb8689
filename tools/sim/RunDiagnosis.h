#pragma once

#include <string>
#include <vector>

#include "tools/sim/RunRecord.h"
#include "tools/sim/RunSummary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// A lint finding on a rule file the run played.
struct LintNote {
    std::string file;
    std::string code;
    int line = 0;
    std::string message;
    std::string fix;
};

// What a run's figures alone do not say: rule files that loaded with errors
// or not at all, lint findings, rule-file targets that never matched a
// layer, layers that played no buffer, and why the mode never went On.
struct RunDiagnosis {
    std::vector<std::string> ruleProblems;
    std::vector<LintNote> lint;
    std::vector<std::string> unmatchedTargets; // each with the layer names that look close
    std::vector<std::string> layersWithoutBuffers;
    // False when no buffer was played: then there is nothing the panel
    // refresh estimate could be based on, and it is not given.
    bool refreshBasis = true;
    std::string neverOn; // why the mode never went On, and what to change; empty if it did
};

// Why the refresh estimate is not given when `refreshBasis` is false.
constexpr const char* kNoRefreshBasis = "no buffer was played";

// One line of the diagnosis with what it is about ("rule file", "frames",
// "unmatched target", "never On").
struct DiagnosisLine {
    const char* label;
    std::string text;
};

// The diagnosis but the lint, in the order every report lists it.
std::vector<DiagnosisLine> diagnosisLines(const RunDiagnosis& d);

RunDiagnosis diagnose(const Scenario& scenario, const RunRecord& record, const RunSummary& summary);

} // namespace android::tools::sim
