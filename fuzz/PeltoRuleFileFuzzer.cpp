// The input is a rule file. Each run loads it, looks names up, matches every
// rule it finds against a few layers, dumps, reloads the same bytes and checks
// that the reload gives the same dump and the same answers. pelto-check's
// scan of the file's text reads the same bytes, and each finding must point
// inside the file.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "config/PeltoConfig.h"
#include "fuzz/FuzzSupport.h"
#include "tools/check/RuleFileSyntax.h"

namespace android::fuzz {
namespace {

// Quoted text taken from the input as extra names, at most this many and this long.
constexpr size_t kMaxInputNames = 32;
constexpr size_t kMaxInputNameLength = 128;

const char* const kFixedNames[] = {"",          "t",    "InputMethod",   "VolumeDialog",
                                   "StatusBar", "name", "target_layers", "0",
                                   "1",         "true", "null",          "#"};

const float kRatios[] = {0.0f,
                         30.0f,
                         50.0f,
                         100.0f,
                         std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity()};

// The fixed names, then the text between pairs of double quotes (escapes are
// not decoded), so that names the file holds are looked up too.
std::vector<std::string> namesToLookUp(const uint8_t* data, size_t size) {
    std::vector<std::string> names(std::begin(kFixedNames), std::end(kFixedNames));
    const auto* text = reinterpret_cast<const char*>(data);
    bool inQuotes = false;
    size_t start = 0;
    size_t taken = 0;
    for (size_t i = 0; i < size && taken < kMaxInputNames; ++i) {
        if (text[i] != '"') {
            continue;
        }
        if (inQuotes && i - start <= kMaxInputNameLength) {
            names.emplace_back(text + start, i - start);
            ++taken;
        }
        inQuotes = !inQuotes;
        start = i + 1;
    }
    return names;
}

// One character per answer: '1' matched, '0' did not.
void appendMatches(const PeltoConfig& config, const PeltoExceptionRule* rule, std::string& out) {
    for (const float ratio : kRatios) {
        for (const bool focus : {false, true}) {
            PeltoExceptionRuleInput input;
            input.layerScreenSizeRatio = ratio;
            input.focus = focus;
            const bool match = rule != nullptr ? config.checkRuleMatch(input, *rule)
                                               : config.checkExceptionGeneralRuleMatch(input);
            out += match ? '1' : '0';
        }
    }
}

// Every lookup and match answer for `names`, as text.
std::string answers(const PeltoConfig& config, const std::vector<std::string>& names) {
    std::string out;
    out += config.hasExceptionGeneralRule() ? 'G' : '-';
    out += config.isAlwaysOn() ? 'A' : '-';
    out += config.useAdaptiveTimeout() ? 'T' : '-';
    out += config.loadConfigSucceeded() ? 'S' : '-';
    appendMatches(config, nullptr, out);
    for (const std::string& name : names) {
        out += '|';
        const PeltoTargetLayerInfo* target = nullptr;
        if (config.isTargetLayer(name, &target)) {
            check(target != nullptr, "a target hit hands out no record");
            out += "T" + std::to_string(target->id);
        }
        const PeltoTargetIgnoreInfo* ignore = nullptr;
        if (config.isTargetIgnoreLayer(name, &ignore)) {
            check(ignore != nullptr, "an ignore hit hands out no record");
            out += "I" + std::to_string(ignore->id);
        }
        const PeltoExceptionRule* rule = nullptr;
        if (config.isExceptionLayer(name, &rule)) {
            check(rule != nullptr, "an exception hit hands out no rule");
            out += "E" + std::to_string(rule->entries.size());
            appendMatches(config, rule, out);
        }
    }
    return out;
}

} // namespace
} // namespace android::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::fuzz::silenceLog();
    android::fuzz::ruleFilePath();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::fuzz;
    writeRuleFile(data, size);
    const std::vector<std::string> names = namesToLookUp(data, size);

    android::PeltoConfig config(ruleFilePath());
    const std::string firstAnswers = answers(config, names);
    std::string firstDump;
    config.dump(firstDump);

    // The file has not changed, so neither may anything the configuration shows.
    config.loadConfig(true);
    std::string secondDump;
    config.dump(secondDump);
    check(secondDump == firstDump, "the dump after a reload of the same file differs");
    check(answers(config, names) == firstAnswers,
          "lookups or matches after a reload of the same file differ");

    const std::string text(reinterpret_cast<const char*>(data), size);
    const int lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    std::vector<android::tools::Finding> findings = android::tools::scanRuleFileSyntax(text);
    if (auto encoding = android::tools::encodingProblem(text)) findings.push_back(*encoding);
    for (const android::tools::Finding& f : findings) {
        check(f.line >= 0 && f.line <= lines && f.column >= 0 && !f.code.empty(),
              "a text finding points outside the file or has no code");
    }
    return 0;
}
