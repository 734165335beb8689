#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <json/json.h>

namespace android::tools::sim {

// The figures --compare sets side by side for one run.
struct CompareFigures {
    std::string rules;
    double onPercent = 0;
    int hwcToggles = 0;
    double refreshesSavedPercent = 0;
    bool refreshBasis = true; // false: no buffer was played, so no refresh estimate
    std::vector<int32_t> reasons;
};

struct CompareRow {
    std::string input;
    CompareFigures a; // the input's own rule file (or --rules)
    CompareFigures b; // the other rule file
};

// One table: per input, both runs and the difference (b - a).
void printCompare(FILE* out, const std::vector<CompareRow>& rows);
Json::Value compareJson(const std::vector<CompareRow>& rows);

} // namespace android::tools::sim
