#include "tools/check/LoaderLog.h"

#include <android/log.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace android::tools {
namespace {

constexpr const char* kConfigTag = "PeltoConfig";
constexpr const char* kEntryFailPrefix = "excpetion rule entry load fail, i ";
constexpr const char* kParseFailPrefix = "parse fail, ";
constexpr const char* kLoadFailurePrefixes[] = {"failed to open ", "loadConfig failed, ret "};

// Said of a message that pelto-check does not know: the library's text is
// still shown, unchanged.
constexpr const char* kUnknownCode = "loader-message";
constexpr const char* kUnknownFix = "look up the key this message is about in the rule file";

constexpr const char* kBoolFix =
        "write true or false without quotes (\"true\" in quotes is a string, which the library "
        "does not read as a boolean)";
constexpr const char* kNumberFix = "write a bare number: 30, not \"30\" or \"30%\"";

struct KnownMessage {
    const char* prefix; // the message starts with this text
    const char* path;   // absolute, or relative to exception_rule[N] when `inEntry`
    bool inEntry;
    const char* code;
    const char* fix; // empty for the loader's info lines
};

// Messages that do not carry their own path, the more specific of two with
// one prefix first. Those of an exception entry's
// condition are followed by the entry's index on the next loader line.
const KnownMessage kKnownMessages[] = {
        {"targetLayers.empty()", "target_layers", false, "no-targets",
         "add \"target_layers\": [ { \"name\": \"...\" } ] with at least one layer; without it "
         "the library loads nothing"},
        {"target layer id ", "target_layers", false, "target-layer", ""},
        {"\tignore layer id ", "target_layers", false, "ignore-name", ""},
        {"generalRule.empty()", "general_rule", false, "no-general-rule",
         "add \"general_rule\": { \"on_when_has_other_layer\": true, \"use_adaptive_timeout\": "
         "true } with the values meant"},
        {"stayOnWhenHasOtherLayer ", "general_rule.on_when_has_other_layer", false, "switch-value",
         ""},
        {"no on_when_has_other_layer", "general_rule.on_when_has_other_layer", false,
         "missing-switch", "add \"on_when_has_other_layer\": true or false to general_rule"},
        {"on_when_has_other_layer,", "general_rule.on_when_has_other_layer", false, "not-boolean",
         kBoolFix},
        {"no use_adaptive_timeout", "general_rule.use_adaptive_timeout", false, "missing-switch",
         "add \"use_adaptive_timeout\": true or false to general_rule"},
        {"use_adaptive_timeout,", "general_rule.use_adaptive_timeout", false, "not-boolean",
         kBoolFix},
        {"exceptions.empty()", "exception_rule", false, "no-exception-rules",
         "add \"exception_rule\": [ ... ] with at least one entry; without one no exception "
         "rule turns the mode off"},
        {"no condition", ".layer_screen_size_ratio", true, "missing-condition",
         "add \"condition\": \"0 smaller\", \"1 bigger\", \"2 in_range\" or \"3 equal\""},
        {"condition should start", ".layer_screen_size_ratio.condition", true, "condition-type",
         "start the condition with its type number: \"0 smaller\", \"1 bigger\", \"2 in_range\" "
         "or \"3 equal\""},
        {"invalid rule.conditionType", ".layer_screen_size_ratio.condition", true, "condition-type",
         "the type is 0 to 3: \"0 smaller\", \"1 bigger\", \"2 in_range\" or \"3 equal\""},
        {"no value1", ".layer_screen_size_ratio", true, "missing-value",
         "add \"value1\", a percentage of the screen's area (0 to 100)"},
        {"value1 is not numeric", ".layer_screen_size_ratio.value1", true, "not-numeric",
         kNumberFix},
        {"value2 is not numeric", ".layer_screen_size_ratio.value2", true, "not-numeric",
         kNumberFix},
        {"condition in_range, but no value2", ".layer_screen_size_ratio", true, "missing-value",
         "add \"value2\", the upper bound of the range"},
        {"value1 > value2", ".layer_screen_size_ratio", true, "reversed-range",
         "swap value1 and value2: value1 is the lower bound of \"2 in_range\""},
        {"focus,", ".focus", true, "not-boolean", kBoolFix},
        {"always_true,", ".always_true", true, "not-boolean", kBoolFix},
        {kEntryFailPrefix, "", false, "entry-dropped",
         "fix the error logged before it; until then the library leaves the entry out"},
        {"parse fail, Exceeded stackLimit", "", false, "too-deep",
         "arrays and objects nest at most 999 deep; a rule file needs 4 levels"},
        {kParseFailPrefix, "", false, "json-syntax",
         "correct the JSON at the line and column named; a missing comma, quote or bracket is "
         "the usual cause"},
        {"loadConfig failed, ret ", "", false, "load-failed",
         "fix the error before it: the library loads nothing from this file"},
        {"failed to open ", "", false, "cannot-open", "make the file readable"},
};

// "<path> is not a string" and the like: a value of the wrong JSON type,
// where <path> is "root" for the whole file.
struct TypeMessage {
    const char* suffix;
    const char* fix;
};
const TypeMessage kTypeMessages[] = {
        {" is not an object", "write a JSON object, { ... }, here"},
        {" is not an array", "write a JSON array, [ ... ], here"},
        {" is not a string", "write the name as a JSON string, in double quotes"},
};

// Warnings after which the dump shows mLoadConfigSucceeded: 0.
constexpr const char* kUncleanWarnings[] = {"generalRule.empty()", "no on_when_has_other_layer",
                                            "no use_adaptive_timeout"};

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

bool endsWith(const std::string& text, const char* suffix) {
    const size_t length = std::strlen(suffix);
    return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

int numberAfter(const std::string& message, const char* prefix) {
    return std::atoi(message.c_str() + std::strlen(prefix));
}

// "target layer id 3, name ..." -> "target_layers[3]".
std::string withTargetIndex(const std::string& message, const char* prefix, std::string path) {
    return path + "[" + std::to_string(numberAfter(message, prefix)) + "]" +
            (startsWith(message, "\t") ? ".ignore_names" : "");
}

// jsoncpp's error text starts "* Line 3, Column 7".
void setParsePosition(const std::string& message, Finding* finding) {
    int line = 0;
    int column = 0;
    if (std::sscanf(message.c_str() + std::strlen(kParseFailPrefix), "* Line %d, Column %d", &line,
                    &column) == 2) {
        finding->line = line;
        finding->column = column;
    }
}

Finding fromLine(const LogLine& line) {
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
    finding.code = kUnknownCode;
    if (finding.severity != Finding::Severity::Info) finding.fix = kUnknownFix;
    return finding;
}

// Gives the finding its code, fix and path from the tables; returns the
// known message it is, if any.
const KnownMessage* identify(Finding* finding) {
    const std::string& message = finding->message;
    for (const TypeMessage& type : kTypeMessages) {
        if (!endsWith(message, type.suffix)) continue;
        const std::string path = message.substr(0, message.size() - std::strlen(type.suffix));
        finding->path = path == "root" ? "" : path;
        finding->code = "wrong-type";
        finding->fix = type.fix;
        return nullptr;
    }
    for (const KnownMessage& known : kKnownMessages) {
        if (!startsWith(message, known.prefix)) continue;
        finding->code = known.code;
        finding->fix = known.fix;
        finding->path = known.path;
        if (startsWith(message, "target layer id ") || startsWith(message, "\tignore layer id ")) {
            finding->path = withTargetIndex(message, known.prefix, known.path);
        }
        if (startsWith(message, kParseFailPrefix)) setParsePosition(message, finding);
        return &known;
    }
    return nullptr;
}

} // namespace

std::vector<Finding> readLoaderLines(const std::vector<LogLine>& lines) {
    std::vector<Finding> findings;
    std::vector<size_t> waitingForEntry; // findings whose path needs the entry's index
    for (const LogLine& line : lines) {
        if (line.tag != kConfigTag) continue;
        Finding finding = fromLine(line);
        const KnownMessage* known = identify(&finding);
        if (startsWith(line.message, kEntryFailPrefix)) {
            const std::string entry = "exception_rule[" +
                    std::to_string(numberAfter(line.message, kEntryFailPrefix)) + "]";
            finding.path = entry;
            for (size_t index : waitingForEntry)
                findings[index].path = entry + findings[index].path;
            waitingForEntry.clear();
        } else if (known != nullptr && known->inEntry) {
            waitingForEntry.push_back(findings.size());
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
