#include "tools/check/LoaderLog.h"

#include <android/log.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace android::tools {
namespace {

constexpr const char* kConfigTag = "PeltoConfig";
constexpr const char* kEntryFailPrefix = "excpetion rule entry load fail, i ";
constexpr const char* kLoadFailurePrefixes[] = {"failed to open ", "loadConfig failed, ret "};

struct KnownMessage {
    const char* prefix; // the message starts with this text
    const char* path;   // absolute, or relative to exception_rule[N] when `inEntry`
    bool inEntry;
};

// Messages that do not carry their own path. Those of an exception entry's
// condition are followed by the entry's index on the next loader line.
constexpr KnownMessage kKnownMessages[] = {
        {"root is not an object", "", false},
        {"targetLayers.empty()", "target_layers", false},
        {"target_layers is not an array", "target_layers", false},
        {"target layer id ", "target_layers", false},
        {"\tignore layer id ", "target_layers", false},
        {"general_rule is not an object", "general_rule", false},
        {"generalRule.empty()", "general_rule", false},
        {"stayOnWhenHasOtherLayer ", "general_rule.on_when_has_other_layer", false},
        {"no on_when_has_other_layer", "general_rule.on_when_has_other_layer", false},
        {"on_when_has_other_layer,", "general_rule.on_when_has_other_layer", false},
        {"no use_adaptive_timeout", "general_rule.use_adaptive_timeout", false},
        {"use_adaptive_timeout,", "general_rule.use_adaptive_timeout", false},
        {"exceptions.empty()", "exception_rule", false},
        {"exception_rule is not an array", "exception_rule", false},
        {"no condition", ".layer_screen_size_ratio", true},
        {"condition should start", ".layer_screen_size_ratio.condition", true},
        {"invalid rule.conditionType", ".layer_screen_size_ratio.condition", true},
        {"no value1", ".layer_screen_size_ratio", true},
        {"value1 is not numeric", ".layer_screen_size_ratio.value1", true},
        {"value2 is not numeric", ".layer_screen_size_ratio.value2", true},
        {"condition in_range, but no value2", ".layer_screen_size_ratio", true},
        {"value1 > value2", ".layer_screen_size_ratio", true},
        {"focus,", ".focus", true},
        {"always_true,", ".always_true", true},
};

// Warnings after which the dump shows mLoadConfigSucceeded: 0.
constexpr const char* kUncleanWarnings[] = {"generalRule.empty()", "no on_when_has_other_layer",
                                            "no use_adaptive_timeout"};

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// "target_layers[2].name is not a string" -> "target_layers[2].name".
std::string leadingPath(const std::string& message) {
    if (!startsWith(message, "target_layers[") && !startsWith(message, "exception_rule[")) {
        return {};
    }
    return message.substr(0, message.find(' '));
}

// "target layer id 3, name ..." -> "target_layers[3]".
std::string withTargetIndex(const std::string& message, const char* prefix, std::string path) {
    const char* digits = message.c_str() + std::strlen(prefix);
    return path + "[" + std::to_string(std::atoi(digits)) + "]" +
            (startsWith(message, "\t") ? ".ignore_names" : "");
}

} // namespace

std::vector<Finding> readLoaderLines(const std::vector<LogLine>& lines) {
    std::vector<Finding> findings;
    std::vector<size_t> waitingForEntry; // findings whose path needs the entry's index
    for (const LogLine& line : lines) {
        if (line.tag != kConfigTag) continue;
        Finding finding;
        finding.source = Finding::Source::Loader;
        finding.message = line.message;
        finding.logPriority = priorityLetter(line.priority);
        finding.severity = line.priority >= ANDROID_LOG_ERROR ? Finding::Severity::Error
                : line.priority >= ANDROID_LOG_WARN           ? Finding::Severity::Warning
                                                              : Finding::Severity::Info;
        for (const char* prefix : kUncleanWarnings) {
            if (startsWith(line.message, prefix)) finding.severity = Finding::Severity::Error;
        }
        finding.path = leadingPath(line.message);
        if (startsWith(line.message, kEntryFailPrefix)) {
            const std::string entry = "exception_rule[" +
                    std::to_string(std::atoi(line.message.c_str() +
                                             std::strlen(kEntryFailPrefix))) +
                    "]";
            finding.path = entry;
            for (size_t index : waitingForEntry)
                findings[index].path = entry + findings[index].path;
            waitingForEntry.clear();
        } else if (finding.path.empty()) {
            for (const KnownMessage& known : kKnownMessages) {
                if (!startsWith(line.message, known.prefix)) continue;
                finding.path = known.path;
                if (startsWith(line.message, "target layer id ") ||
                    startsWith(line.message, "\tignore layer id ")) {
                    finding.path = withTargetIndex(line.message, known.prefix, known.path);
                }
                if (known.inEntry) waitingForEntry.push_back(findings.size());
                break;
            }
        }
        findings.push_back(std::move(finding));
    }
    for (size_t index : waitingForEntry) findings[index].path = "exception_rule";
    return findings;
}

bool isLoadFailure(const Finding& finding) {
    if (finding.source != Finding::Source::Loader) return false;
    for (const char* prefix : kLoadFailurePrefixes) {
        if (startsWith(finding.message, prefix)) return true;
    }
    return false;
}

} // namespace android::tools
