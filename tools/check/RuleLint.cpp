#include "tools/check/RuleLint.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>

namespace android::tools {
namespace {

// Exception ratios are percentages of the screen's area.
constexpr float kWholeScreen = 100.0f;
// A misspelling at most this many edits away from a known key is named.
constexpr size_t kMaxSuggestionDistance = 2;

// Where a key may appear, and the keys the library reads there.
struct KeyLevel {
    const char* where;
    std::vector<std::string> keys;
};
const KeyLevel kRootLevel{"the root object", {"target_layers", "general_rule", "exception_rule"}};
const KeyLevel kTargetLevel{"a target_layers element", {"name", "ignore_names"}};
const KeyLevel kGeneralLevel{"general_rule", {"on_when_has_other_layer", "use_adaptive_timeout"}};
const KeyLevel kExceptionLevel{"an exception_rule element",
                               {"name", "layer_screen_size_ratio", "focus", "always_true"}};
const KeyLevel kRatioLevel{"layer_screen_size_ratio", {"condition", "value1", "value2"}};
const KeyLevel* const kLevels[] = {&kRootLevel, &kTargetLevel, &kGeneralLevel, &kExceptionLevel,
                                   &kRatioLevel};

const char* const kConditionNames[] = {"smaller", "bigger", "in_range", "equal"};

// The library's own readings of a value (see config/PeltoConfig.cpp).
bool isPresent(const Json::Value& value) {
    return !value.empty();
}
bool isBoolLike(const Json::Value& value) {
    return value.isConvertibleTo(Json::booleanValue);
}
bool isStringLike(const Json::Value& value) {
    return value.isString() || value.isNumeric() || value.isBool();
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string number(float value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

std::string child(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
}

std::string element(const std::string& path, Json::ArrayIndex index) {
    return path + "[" + std::to_string(index) + "]";
}

std::string folded(const std::string& key) {
    std::string out;
    for (const char c : key) {
        if (c != '_' && c != '-' && c != ' ') out += static_cast<char>(std::tolower(c));
    }
    return out;
}

// Edit distance with adjacent transpositions, so "ignroe_names" is one edit away.
size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

// How to fix an unknown key: the known key it was probably meant to be, or
// the level it belongs to, or the keys known at this level.
std::string unknownKeyFix(const std::string& key, const KeyLevel& level) {
    std::optional<std::string> best;
    size_t bestDistance = kMaxSuggestionDistance + 1;
    for (const std::string& known : level.keys) {
        const size_t distance = folded(known) == folded(key) ? 0 : editDistance(known, key);
        if (distance < bestDistance) {
            best = known;
            bestDistance = distance;
        }
    }
    if (best) return "did you mean " + quoted(*best) + "?";
    for (const KeyLevel* other : kLevels) {
        if (std::find(other->keys.begin(), other->keys.end(), key) != other->keys.end()) {
            return quoted(key) + " belongs in " + other->where + ", not in " + level.where;
        }
    }
    std::string known;
    for (const std::string& k : level.keys) known += (known.empty() ? "" : ", ") + quoted(k);
    return "the keys of " + std::string(level.where) + " are " + known;
}

// A set of ratios: an interval whose ends are open or closed.
struct Interval {
    float lo = -std::numeric_limits<float>::infinity();
    float hi = std::numeric_limits<float>::infinity();
    bool loClosed = false;
    bool hiClosed = false;

    bool empty() const { return lo > hi || (lo == hi && !(loClosed && hiClosed)); }
    bool contains(const Interval& other) const {
        const bool lower = lo < other.lo || (lo == other.lo && (loClosed || !other.loClosed));
        const bool upper = hi > other.hi || (hi == other.hi && (hiClosed || !other.hiClosed));
        return lower && upper;
    }
};

// A ratio condition as the library reads it.
struct Ratio {
    int type = 0;      // the leading number of "condition", 0 to 3
    std::string label; // the words after it
    float value1 = 0.0f;
    float value2 = 0.0f;
    bool hasValue2 = false;

    std::string typeText() const { return std::to_string(type) + " " + kConditionNames[type]; }
    // The ratios the condition holds for.
    Interval interval() const {
        Interval interval;
        switch (type) {
            case 0:
                interval.hi = value1;
                break;
            case 1:
                interval.lo = value1;
                break;
            case 2:
                interval.lo = value1;
                interval.hi = value2;
                break;
            default:
                interval.lo = interval.hi = value1;
                interval.loClosed = interval.hiClosed = true;
                break;
        }
        return interval;
    }
};

// The ratio object as the library reads it; nothing when the library rejects it.
std::optional<Ratio> readRatio(const Json::Value& ratio) {
    const Json::Value& condition = ratio["condition"];
    if (!isPresent(condition) || !isStringLike(condition)) return std::nullopt;
    const std::string text = condition.asString();
    size_t digits = 0;
    int64_t type = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9' && type < 10) {
        type = type * 10 + (text[digits++] - '0');
    }
    if (digits == 0 || type > 3) return std::nullopt;
    const Json::Value& value1 = ratio["value1"];
    const Json::Value& value2 = ratio["value2"];
    if (!isPresent(value1) || !value1.isNumeric()) return std::nullopt;
    if (isPresent(value2) && !value2.isNumeric()) return std::nullopt;
    Ratio parsed;
    parsed.type = static_cast<int>(type);
    parsed.hasValue2 = isPresent(value2);
    parsed.value1 = value1.asFloat();
    parsed.value2 = parsed.hasValue2 ? value2.asFloat() : 0.0f;
    if (type == 2 && (!parsed.hasValue2 || parsed.value1 > parsed.value2)) return std::nullopt;
    parsed.label = text.substr(digits);
    parsed.label.erase(0, parsed.label.find_first_not_of(" \t"));
    return parsed;
}

// An exception entry as the library loads it, for comparing entries.
struct EntryShape {
    Json::ArrayIndex index = 0;
    bool alwaysTrue = false;
    std::optional<Interval> ratio;
    std::optional<bool> focus;

    bool matchesNothing() const {
        if (alwaysTrue) return false;
        return (!ratio && !focus) || (ratio && ratio->empty());
    }
    // Every layer that `later` matches, this entry matches too.
    bool covers(const EntryShape& later) const {
        if (alwaysTrue) return true;
        if (later.alwaysTrue) return false;
        if (!ratio.value_or(Interval{}).contains(later.ratio.value_or(Interval{}))) return false;
        return !focus || later.focus == focus;
    }
};

class Linter {
public:
    explicit Linter(const RuleFileText& file) : mFile(file) {}

    std::vector<Finding> run() {
        const Json::Value& root = mFile.root();
        if (!root.isObject()) return {};
        checkKeys(root, "", kRootLevel);
        lintTargets(root["target_layers"]);
        if (const Json::Value& general = root["general_rule"]; general.isObject()) {
            checkKeys(general, "general_rule", kGeneralLevel);
        }
        lintExceptions(root["exception_rule"]);
        return std::move(mFindings);
    }

private:
    struct Listing {
        std::string path;
        const Json::Value* value;
    };

    void add(const char* code, const std::string& path, const Json::Value& at, std::string message,
             std::string fix) {
        Finding finding;
        finding.severity = Finding::Severity::Warning;
        finding.source = Finding::Source::Lint;
        finding.code = code;
        finding.path = path;
        finding.line = mFile.lineOf(at);
        finding.message = std::move(message);
        finding.fix = std::move(fix);
        mFindings.push_back(std::move(finding));
    }

    void checkKeys(const Json::Value& object, const std::string& path, const KeyLevel& level) {
        for (const std::string& key : object.getMemberNames()) {
            if (std::find(level.keys.begin(), level.keys.end(), key) != level.keys.end()) continue;
            add("unknown-key", child(path, key), object[key],
                "unknown key " + quoted(key) + ": the library does not read it",
                unknownKeyFix(key, level));
        }
    }

    // Names are compared byte for byte with a layer's name cut before its last '#'.
    void checkName(const std::string& name, const std::string& path, const Json::Value& at) {
        const size_t first = name.find_first_not_of(" \t");
        const size_t last = name.find_last_not_of(" \t");
        if (!name.empty() && (first != 0 || last != name.size() - 1)) {
            const std::string trimmed =
                    first == std::string::npos ? "" : name.substr(first, last - first + 1);
            add("name-whitespace", path, at,
                "the name " + quoted(name) +
                        " starts or ends with white space; names are compared byte for byte, "
                        "nothing is trimmed",
                "write " + quoted(trimmed));
        }
        const size_t hash = name.rfind('#');
        if (hash != std::string::npos && hash + 1 < name.size() &&
            std::all_of(name.begin() + hash + 1, name.end(),
                        [](char c) { return c >= '0' && c <= '9'; })) {
            add("name-layer-number", path, at,
                "the name ends in " + quoted(name.substr(hash)) +
                        ", a layer's own number; the library looks every layer up by its name "
                        "cut before the last '#', so this name never matches",
                "write " + quoted(name.substr(0, hash)));
        }
    }

    void lintTargets(const Json::Value& targets) {
        if (!targets.isArray()) return;
        std::set<Json::ArrayIndex> withIgnores;
        for (Json::ArrayIndex i = 0; i < targets.size(); ++i) {
            const Json::Value& target = targets[i];
            const std::string path = element("target_layers", i);
            if (!target.isObject()) continue;
            checkKeys(target, path, kTargetLevel);
            const Json::Value& nameValue = target["name"];
            if (isPresent(nameValue) && !isStringLike(nameValue)) continue;
            if (!isPresent(nameValue)) {
                add("target-without-name", path, target,
                    "the element has no \"name\": the library registers the empty name as a "
                    "target, and no layer has it",
                    "add the layer's \"name\"");
            }
            const std::string name = nameValue.isNull() ? std::string() : nameValue.asString();
            if (isPresent(nameValue)) checkName(name, child(path, "name"), nameValue);
            if (const auto it = mTargets.find(name); it != mTargets.end() && isPresent(nameValue)) {
                std::string message = quoted(name) + " is already " +
                        element("target_layers", it->second) +
                        ".name; the library keeps one target, with the id of the last (" +
                        std::to_string(i) + ")";
                if (withIgnores.count(it->second) != 0) {
                    message += ", so the ignore_names of " + element("target_layers", it->second) +
                            " belong to no target and are never left out";
                }
                add("duplicate-target", child(path, "name"), nameValue, message,
                    "merge the two elements into one");
            }
            mTargets[name] = i;

            const Json::Value& ignoreNames = target["ignore_names"];
            if (!ignoreNames.isArray()) continue;
            if (!ignoreNames.empty()) withIgnores.insert(i);
            for (Json::ArrayIndex j = 0; j < ignoreNames.size(); ++j) {
                const Json::Value& value = ignoreNames[j];
                if (!isStringLike(value)) continue;
                const std::string ignore = value.asString();
                const std::string ignorePath = element(child(path, "ignore_names"), j);
                checkName(ignore, ignorePath, value);
                if (const auto it = mIgnored.find(ignore); it != mIgnored.end()) {
                    add("duplicate-ignore-name", ignorePath, value,
                        quoted(ignore) + " is listed at " + it->second.path +
                                " too; an ignored name belongs to the last target that lists it "
                                "(here " +
                                element("target_layers", i) +
                                ") and is left out beside that target only",
                        "list it once, under the target it belongs to");
                }
                mIgnored[ignore] = {ignorePath, &value};
            }
        }
        for (const auto& [ignore, listing] : mIgnored) {
            if (const auto it = mTargets.find(ignore); it != mTargets.end()) {
                add("ignored-target", listing.path, *listing.value,
                    quoted(ignore) + " is a target too (" + element("target_layers", it->second) +
                            "); a layer is classified as a target first, so it is never ignored",
                    "remove it from ignore_names or from target_layers");
            }
        }
    }

    void lintExceptions(const Json::Value& exceptions) {
        if (!exceptions.isArray()) return;
        std::vector<EntryShape> general;
        std::map<std::string, std::vector<EntryShape>> named;
        std::set<std::string> reported;
        for (Json::ArrayIndex i = 0; i < exceptions.size(); ++i) {
            const Json::Value& entry = exceptions[i];
            const std::string path = element("exception_rule", i);
            if (!entry.isObject()) continue;
            checkKeys(entry, path, kExceptionLevel);
            const Json::Value& nameValue = entry["name"];
            const bool hasName = isPresent(nameValue);
            if (hasName && !isStringLike(nameValue)) continue;
            const std::string name = hasName ? nameValue.asString() : std::string();
            if (hasName) {
                checkName(name, child(path, "name"), nameValue);
                if (reported.insert(name).second)
                    checkRuleIsUsed(name, child(path, "name"), nameValue);
            }
            if (const auto shape = lintEntry(entry, i, path)) {
                (hasName ? named[name] : general).push_back(*shape);
            }
        }
        lintShadowing(general);
        for (const auto& [name, entries] : named) lintShadowing(entries);
    }

    // Registration classifies a layer as a target, else as ignored, else by its rule.
    void checkRuleIsUsed(const std::string& name, const std::string& path, const Json::Value& at) {
        if (const auto it = mTargets.find(name); it != mTargets.end()) {
            add("rule-never-used", path, at,
                quoted(name) + " is a target layer (" + element("target_layers", it->second) +
                        "); a layer is classified as a target first, so this rule is never used",
                "remove the rule, or the target");
        } else if (const auto ignored = mIgnored.find(name); ignored != mIgnored.end()) {
            add("rule-never-used", path, at,
                quoted(name) + " is an ignored name (" + ignored->second.path +
                        "); ignored names are classified before exception rules, so this rule "
                        "is never used (beside other targets the layer meets the general rule)",
                "remove the name from ignore_names, or remove this rule");
        }
    }

    std::optional<EntryShape> lintEntry(const Json::Value& entry, Json::ArrayIndex index,
                                        const std::string& path) {
        EntryShape shape;
        shape.index = index;
        const Json::Value& ratio = entry["layer_screen_size_ratio"];
        if (isPresent(ratio)) {
            if (!ratio.isObject()) return std::nullopt;
            shape.ratio = lintRatio(ratio, child(path, "layer_screen_size_ratio"));
            if (!shape.ratio) return std::nullopt;
        }
        const Json::Value& focus = entry["focus"];
        if (isPresent(focus)) {
            if (!isBoolLike(focus)) return std::nullopt;
            shape.focus = focus.asBool();
        }
        const Json::Value& alwaysTrue = entry["always_true"];
        if (isPresent(alwaysTrue)) {
            if (!isBoolLike(alwaysTrue)) return std::nullopt;
            shape.alwaysTrue = alwaysTrue.asBool();
        }
        if (shape.alwaysTrue && (shape.ratio || shape.focus)) {
            add("conditions-ignored", child(path, "always_true"), alwaysTrue,
                "always_true is true, so the entry matches every layer and its other "
                "conditions are never looked at",
                "remove always_true, or the other conditions");
        } else if (!shape.alwaysTrue && !shape.ratio && !shape.focus) {
            add("no-condition", path, entry,
                "the entry has no condition and always_true is not true: it never matches, and "
                "the library logs \"no rule in this entry\" each time a layer reaches it",
                "give it layer_screen_size_ratio, focus or \"always_true\": true, or remove it");
        }
        return shape;
    }

    // The ratio condition as the library accepts it; nothing when the library
    // rejects it (the loader reports that itself).
    std::optional<Interval> lintRatio(const Json::Value& ratio, const std::string& path) {
        checkKeys(ratio, path, kRatioLevel);
        const std::optional<Ratio> parsed = readRatio(ratio);
        if (!parsed) return std::nullopt;
        checkConditionLabel(*parsed, ratio["condition"], path);
        if (parsed->hasValue2 && parsed->type != 2) {
            add("value2-ignored", child(path, "value2"), ratio["value2"],
                "only \"2 in_range\" reads value2; with " + quoted(parsed->typeText()) +
                        " it is stored and never used",
                "remove value2, or use \"2 in_range\"");
        }
        bool outOfRange = checkBound(*parsed, parsed->value1, "value1", ratio["value1"], path);
        if (parsed->type == 2) {
            outOfRange = checkBound(*parsed, parsed->value2, "value2", ratio["value2"], path) ||
                    outOfRange;
        }
        const Interval interval = parsed->interval();
        if (interval.empty()) {
            add("never-matches", path, ratio,
                "the range (" + number(parsed->value1) + ", " + number(parsed->value2) +
                        ") is empty: both bounds are excluded, so no ratio lies inside",
                "widen it, or use \"3 equal\" for exactly " + number(parsed->value1) + " %");
        } else if (parsed->type == 0 && parsed->value1 <= 0.0f && !outOfRange) {
            add("never-matches", path, ratio,
                "no layer covers less than 0 % of the screen, so this never matches",
                "use a bound above 0");
        }
        return interval;
    }

    // A "condition" whose words name another type than its leading number.
    void checkConditionLabel(const Ratio& ratio, const Json::Value& condition,
                             const std::string& path) {
        for (int other = 0; other < 4; ++other) {
            if (other == ratio.type || folded(ratio.label) != folded(kConditionNames[other])) {
                continue;
            }
            add("condition-label", child(path, "condition"), condition,
                "the leading number decides: type " + std::to_string(ratio.type) + " is " +
                        quoted(kConditionNames[ratio.type]) + ", although the text says " +
                        quoted(ratio.label),
                "write " + quoted(std::to_string(other) + " " + kConditionNames[other]) + " or " +
                        quoted(ratio.typeText()));
        }
    }

    // Warns about a bound outside 0 to 100 %; true when it is.
    bool checkBound(const Ratio& ratio, float value, const char* key, const Json::Value& at,
                    const std::string& path) {
        if (value >= 0.0f && value <= kWholeScreen) return false;
        std::string message = number(value) + " % is outside the screen's 0 to 100 %";
        if (ratio.type == 1 && value > kWholeScreen) {
            message += ": only a layer larger than the screen is bigger than that";
        } else if (ratio.type == 0 && value > kWholeScreen) {
            message += ": every layer on the screen is smaller, so the condition always holds";
        }
        add("ratio-out-of-range", child(path, key), at, message,
            "the ratio is a percentage of the screen's area: write 0 to 100 (50 is half the "
            "screen)");
        return true;
    }

    // An entry that matches only layers an earlier entry of the same rule
    // matches already never decides anything.
    void lintShadowing(const std::vector<EntryShape>& entries) {
        for (size_t j = 1; j < entries.size(); ++j) {
            if (entries[j].matchesNothing()) continue;
            for (size_t i = 0; i < j; ++i) {
                if (entries[i].matchesNothing() || !entries[i].covers(entries[j])) continue;
                const std::string path = element("exception_rule", entries[j].index);
                const std::string earlier = element("exception_rule", entries[i].index);
                add("shadowed-entry", path, mFile.root()["exception_rule"][entries[j].index],
                    "every layer this entry matches is matched already by " + earlier +
                            ", which comes first in the same rule, so this entry never decides "
                            "anything",
                    "remove it, or narrow " + earlier);
                break;
            }
        }
    }

    const RuleFileText& mFile;
    std::vector<Finding> mFindings;
    std::map<std::string, Json::ArrayIndex> mTargets; // name -> index of its last element
    std::map<std::string, Listing> mIgnored;          // name -> its last listing
};

} // namespace

std::vector<Finding> lintRuleFile(const RuleFileText& file) {
    std::vector<Finding> findings = Linter(file).run();
    // In file order, as a reader goes through it.
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return findings;
}

} // namespace android::tools
