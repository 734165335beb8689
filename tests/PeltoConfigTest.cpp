#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PeltoConfig.h"
#include "support/AllocationCounter.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A complete rule file (one target "t", both switches on) around the given "exception_rule"
// elements.
std::string withExceptions(const std::string& elements) {
    return R"({"target_layers": [{"name": "t"}], "general_rule": {"on_when_has_other_layer": 1,
               "use_adaptive_timeout": true}, "exception_rule": [)" +
            elements + "]}";
}

// Repeated names, each kind of condition, a rule whose only element fails, names that sort apart
// by bytes and by letters, and some longer than any small-string buffer.
constexpr const char* kRules = R"({
    "target_layers": [{"name": "example.player/VideoSurface", "ignore_names": ["orphan", "z"]},
                      {"name": "a", "ignore_names": ["z", "example.player/Subtitles"]},
                      {"name": "example.player/VideoSurface"}, {"name": "Z"}, {"name": "\u00e9"},
                      {}],
    "general_rule": {"on_when_has_other_layer": 0, "use_adaptive_timeout": 1},
    "exception_rule": [
        {"layer_screen_size_ratio": {"condition": "0", "value1": 12.345678, "value2": 0.5},
         "focus": false},
        {"always_true": true}, {"name": "failed", "focus": "yes"}, {"name": "on", "always_true": 1},
        {"name": "example.keyboard/InputPanel",
         "layer_screen_size_ratio": {"condition": 1, "value1": 1e6}},
        {"name": "empty", "focus": true}, {"name": "empty"},
        {"name": "example.keyboard/InputPanel",
         "layer_screen_size_ratio": {"condition": "2", "value1": 5, "value2": 5}, "focus": 0,
         "always_true": 1}]})";

// Each file is loaded as a reload over a clean file that turned both switches off, so that a case
// shows which switches it sets and which it keeps.
class PeltoConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        mFile.write(R"({"target_layers": [{"name": "old"}], "general_rule":
                        {"on_when_has_other_layer": 0, "use_adaptive_timeout": false}})");
        mConfig = std::make_unique<PeltoConfig>(mFile.path());
        ASSERT_TRUE(mConfig->loadConfigSucceeded());
        ASSERT_FALSE(mConfig->isAlwaysOn() || mConfig->useAdaptiveTimeout());
        mLog.clear();
    }

    // Reloads from `json`, or from no file at all when it is empty.
    int reload(const std::string& json) {
        json.empty() ? mFile.remove() : mFile.write(json);
        return mConfig->loadConfig(true);
    }

    int targetId(const std::string& name) const {
        const PeltoTargetLayerInfo* info = nullptr;
        return mConfig->isTargetLayer(name, &info) ? info->id : -1;
    }

    // The lines logged, each as "<priority letter> <message>", e.g. "E no value1".
    std::vector<std::string> log() const {
        std::vector<std::string> lines;
        for (const test::LogLine& line : mLog.lines("PeltoConfig")) {
            lines.push_back(std::string(1, "??VDIWEF"[line.priority & 7]) + " " + line.message);
        }
        return lines;
    }

    test::ScopedRuleFile mFile;
    test::LogCapture mLog;
    std::unique_ptr<PeltoConfig> mConfig;
};

using PeltoRuleMatchTest = PeltoConfigTest;
using PeltoConfigDumpTest = PeltoConfigTest;

struct LoadCase {
    std::string json;
    int result;
    bool succeeded, alwaysOn, adaptiveTimeout;
    std::vector<std::string> log;
};

TEST_F(PeltoConfigTest, problemsAreLoggedAndTheRestOfTheFileStillLoads) {
    const std::string failed = "E loadConfig failed, ret -5", target = "I target layer id 0, name ";
    const std::string none = "W exceptions.empty()";
    std::vector<LoadCase> cases = {
            // A missing file empties the rules, and keeps the switches and the flag.
            {"", -5, true, false, false, {"W failed to open " + mFile.path()}},
            {R"(["target_layers"])", -5, false, false, false, {"E root is not an object", failed}},
            {R"({"target_layers": [], "general_rule": {"on_when_has_other_layer": 1}})",
             -5,
             false,
             false,
             false,
             {"E targetLayers.empty()", failed}},
            {R"({"target_layers": {"name": "t"}})",
             -5,
             false,
             false,
             false,
             {"E target_layers is not an array", failed}},
            {R"({"target_layers": ["t", {"name": ["a"]}, {"ignore_names": "v"},
                                  {"name": "w", "ignore_names": ["x", {}, 7]}],
                 "general_rule": {"on_when_has_other_layer": 1, "use_adaptive_timeout": 1}})",
             0,
             false,
             true,
             true,
             {"E target_layers[0] is not an object", "E target_layers[1].name is not a string",
              "E target_layers[2].ignore_names is not an array", "I target layer id 3, name w",
              "I \tignore layer id 3, name x", "E target_layers[3].ignore_names[1] is not a string",
              "I \tignore layer id 3, name 7", "I stayOnWhenHasOtherLayer 1", none}},
            {R"({"target_layers": [{}], "general_rule": {}})",
             0,
             false,
             true,
             true,
             {target, "W generalRule.empty(), stayOnWhenHasOtherLayer = true", none}},
            {R"({"target_layers": [{}], "general_rule": [false]})",
             0,
             false,
             true,
             true,
             {target, "E general_rule is not an object", none}},
            {R"({"target_layers": [{}], "general_rule": {"use_adaptive_timeout": "0"}})",
             0,
             false,
             true,
             true,
             {target, "W no on_when_has_other_layer, default on",
              "E use_adaptive_timeout, type not convertible to boolean", none}},
            {R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": 0.5,
                                                        "use_adaptive_timeout": 0}})",
             0,
             true,
             true,
             false,
             {target, "I stayOnWhenHasOtherLayer 1", none}},
            {R"({"target_layers": [{}], "exception_rule": {"focus": true},
                 "general_rule": {"on_when_has_other_layer": 0, "use_adaptive_timeout": 1}})",
             0,
             false,
             false,
             true,
             {target, "I stayOnWhenHasOtherLayer 0", "E exception_rule is not an array"}},
    };
    // Exception elements that are dropped, each with the reason logged.
    const std::string noType = "condition should start with condition type number, ";
    const std::pair<std::string, std::string> ratios[] = {
            {R"("value1": 1)", "no condition"},
            {R"("condition": "bigger", "value1": 1)", noType + "bigger"},
            {R"("condition": -1, "value1": 1)", noType + "-1"},
            {R"("condition": "7")", "invalid rule.conditionType 7, 7"},
            {R"("condition": "12abc")", "invalid rule.conditionType 12, 12abc"},
            {R"("condition": "2147483647")", "invalid rule.conditionType 2147483647, 2147483647"},
            {R"("condition": "2147483648")", "invalid rule.conditionType -1, 2147483648"},
            {R"("condition": ["1"], "value1": 1)",
             "exception_rule[0].layer_screen_size_ratio.condition is not a string"},
            {R"("condition": "1")", "no value1"},
            {R"("condition": "1", "value1": "30")", "value1 is not numeric"},
            {R"("condition": "1", "value1": true)", "value1 is not numeric"},
            {R"("condition": "1", "value1": 1, "value2": "2")", "value2 is not numeric"},
            {R"("condition": "2", "value1": 1)", "condition in_range, but no value2"},
            {R"("condition": "2", "value1": 5, "value2": 4.5)", "value1 > value2"},
    };
    std::vector<std::pair<std::string, std::string>> elements = {
            {R"({"layer_screen_size_ratio": "1"})",
             "exception_rule[0].layer_screen_size_ratio is not an object"},
            {R"({"focus": "yes"})", "focus, type not convertible to boolean"},
            {R"({"always_true": "x"})", "always_true, type not convertible to boolean"},
            // The first problem ends the entry: the focus is not looked at.
            {R"({"layer_screen_size_ratio": {"condition": "x"}, "focus": "yes"})", noType + "x"},
            {R"("t")", "exception_rule[0] is not an object"},
            {R"({"name": [1], "always_true": true})", "exception_rule[0].name is not a string"},
    };
    for (const auto& [ratio, error] : ratios) {
        elements.emplace_back(R"({"layer_screen_size_ratio": {)" + ratio + "}}", error);
    }
    for (const auto& [element, error] : elements) {
        cases.push_back({withExceptions(element),
                         0,
                         false,
                         true,
                         true,
                         {"I target layer id 0, name t", "I stayOnWhenHasOtherLayer 1",
                          "E " + error, "I excpetion rule entry load fail, i 0"}});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        SetUp();
        EXPECT_EQ(reload(c.json), c.result);
        EXPECT_EQ(mConfig->loadConfigSucceeded(), c.succeeded);
        EXPECT_EQ(mConfig->isAlwaysOn(), c.alwaysOn);
        EXPECT_EQ(mConfig->useAdaptiveTimeout(), c.adaptiveTimeout);
        EXPECT_FALSE(mConfig->isTargetLayer("old", nullptr) || mConfig->hasExceptionGeneralRule());
        EXPECT_EQ(log(), c.log);
    }
    // Unbalanced, and nested deeper than the parser's limit.
    for (const std::string& json : {std::string("{"), std::string(2000, '[')}) {
        SetUp();
        EXPECT_EQ(reload(json), -5);
        EXPECT_FALSE(mConfig->loadConfigSucceeded());
        EXPECT_THAT(log(), ElementsAre(StartsWith("E parse fail, "), failed));
    }
}

TEST_F(PeltoConfigTest, pathComesFromTheEnvironmentAndTheShippedExampleLoadsCleanly) {
    setenv("PELTO_CONFIG_PATH", "", 1);
    EXPECT_EQ(PeltoConfig::configPath(), "/system/etc/pelto_config.json");
    unsetenv("PELTO_CONFIG_PATH");
    EXPECT_EQ(PeltoConfig::configPath(), "/system/etc/pelto_config.json");

    const std::string source = __FILE__;
    std::ifstream example(source.substr(0, source.rfind("/tests/")) +
                          "/config/examples/pelto_config.json");
    EXPECT_EQ(mConfig->loadConfig(example), 0);
    EXPECT_TRUE(mConfig->loadConfigSucceeded() && mConfig->hasExceptionGeneralRule());
    for (const std::string& line : log()) EXPECT_EQ(line[0], 'I') << line;
    EXPECT_EQ(targetId("SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)"),
              0);
}

TEST_F(PeltoConfigTest, aConfigurationReadsItsOwnPathAndOnlyTheDevicePathFollowsTheEnvironment) {
    const std::string elsewhere = mFile.path() + ".elsewhere";
    std::ofstream(elsewhere, std::ios::trunc) << R"({"target_layers": [{"name": "elsewhere"}]})";
    setenv("PELTO_CONFIG_PATH", elsewhere.c_str(), 1);

    // The path given at construction, and again by a reload built from it.
    EXPECT_EQ(reload(R"({"target_layers": [{"name": "own"}]})"), 0);
    EXPECT_EQ(targetId("own"), 0);
    const std::unique_ptr<PeltoConfig> reloaded = PeltoConfig::makeReloadOf(*mConfig);
    EXPECT_EQ(reloaded->loadConfig(true), 0);
    EXPECT_TRUE(reloaded->isTargetLayer("own", nullptr));
    EXPECT_FALSE(reloaded->isTargetLayer("elsewhere", nullptr));

#ifdef __ANDROID__
    EXPECT_EQ(PeltoConfig::configPath(), PeltoConfig::kDefaultPath);
#else
    // A host program that only has the exported entry points names the file
    // read for the device path, at each load.
    EXPECT_EQ(PeltoConfig::configPath(), elsewhere);
    PeltoConfig devicePath(PeltoConfig::kDefaultPath);
    EXPECT_TRUE(devicePath.isTargetLayer("elsewhere", nullptr));
    setenv("PELTO_CONFIG_PATH", mFile.path().c_str(), 1);
    EXPECT_EQ(devicePath.loadConfig(true), 0);
    EXPECT_TRUE(devicePath.isTargetLayer("own", nullptr));
    EXPECT_FALSE(devicePath.isTargetLayer("elsewhere", nullptr));
#endif
    unsetenv("PELTO_CONFIG_PATH");
    std::remove(elsewhere.c_str());
}

TEST_F(PeltoConfigDumpTest, lookupsFindExactNamesWithTheLastIdAndTheDumpSortsThem) {
    ASSERT_EQ(reload(kRules), 0);
    EXPECT_EQ(targetId("example.player/VideoSurface"), 2);
    for (const char* miss : {"A", "a ", "z", "empty"}) EXPECT_EQ(targetId(miss), -1) << miss;
    // An ignored name keeps the index of its own element, though its target was named again.
    const PeltoTargetIgnoreInfo* ignore = nullptr;
    ASSERT_TRUE(mConfig->isTargetIgnoreLayer("orphan", &ignore));
    const PeltoTargetIgnoreInfo* const orphan = ignore;
    EXPECT_FALSE(mConfig->isTargetIgnoreLayer("a", &ignore));
    EXPECT_EQ(ignore, orphan); // a miss writes nothing
    EXPECT_EQ(orphan->id, 0);

    std::string out = "before\n";
    mConfig->dump(out);
    EXPECT_EQ(out,
              "before\nmLoadConfigSucceeded: 0\nGeneral Rule:\n\tstayOnWhenHasOtherLayer 0\n"
              "\tuseAdaptiveTimeout 1\n==========\nTarget Layer\n5: \n3: Z\n1: a\n"
              "\tignore name: example.player/Subtitles\n\tignore name: z\n"
              "2: example.player/VideoSurface\n4: \u00e9\n==========\nException Rule\n"
              "Exception General Rule\n>\tcondition: smaller\n\tvalue1: 12.3457\n\tvalue2: 0.5\n"
              "\tfocus: false\n\talways true: true\nempty\n>\tfocus: true\n"
              "example.keyboard/InputPanel\n>\tcondition: bigger\n\tvalue1: 1e+06\n"
              "\tcondition: in_range\n\tvalue1: 5\n\tvalue2: 5\n\tfocus: false\n"
              "\talways true: true\nfailed\n>\non\n>\talways true: true\n");

    // A reload empties the rules; once a load has failed, a clean file does not restore the flag.
    EXPECT_EQ(reload(withExceptions("")), 0);
    EXPECT_FALSE(mConfig->loadConfigSucceeded());
    EXPECT_EQ(targetId("t"), 0);
    EXPECT_EQ(targetId("a"), -1);
    EXPECT_FALSE(mConfig->isTargetIgnoreLayer("z", nullptr));
    EXPECT_FALSE(mConfig->isExceptionLayer("empty", nullptr) || mConfig->hasExceptionGeneralRule());
    // Without a file, the defaults.
    mFile.remove();
    PeltoConfig defaults(mFile.path());
    EXPECT_TRUE(defaults.loadConfigSucceeded() && defaults.isAlwaysOn() &&
                defaults.useAdaptiveTimeout() && !defaults.isTargetLayer("t", nullptr));
}

TEST_F(PeltoRuleMatchTest, generalEntryMatchesByTypeWithStrictSinglePrecisionBounds) {
    struct Probe {
        float ratio;
        bool focus, matches;
    };
    const std::pair<std::string, std::vector<Probe>> cases[] = {
            {R"("0", "value1": 30})", {{29.9f, 0, 1}, {30.0f, 0, 0}, {0.0f, 0, 1}, {kNaN, 0, 0}}},
            // A JSON number is a condition type too.
            {R"(1, "value1": 30})", {{30.0f, 0, 0}, {30.5f, 0, 1}, {kNaN, 0, 0}}},
            {R"("2 in_range", "value1": 10, "value2": 50})",
             {{10.0f, 0, 0}, {10.5f, 0, 1}, {49.9f, 0, 1}, {50.0f, 0, 0}, {kNaN, 0, 0}}},
            {R"("2", "value1": 5, "value2": 5})", {{5.0f, 0, 0}}},
            // value2 is stored for "equal" but not consulted.
            {R"("3", "value1": 100, "value2": 1})",
             {{100.0f, 0, 1}, {99.99999f, 0, 0}, {1.0f, 0, 0}, {150.0f, 0, 0}, {kNaN, 0, 0}}},
            // Both bounds round to 30.0f: only single-precision comparisons see them as 30.
            {R"("3", "value1": 30.0000005})", {{30.0f, 0, 1}}},
            {R"("1", "value1": 29.9999999})", {{30.0f, 0, 0}}},
            {R"("1", "value1": 30}, "focus": true)", {{50.0f, 1, 1}, {50.0f, 0, 0}, {10.0f, 1, 0}}},
            {R"("1", "value1": 30}, "focus": false)", {{50.0f, 0, 1}, {50.0f, 1, 0}}},
            {R"("0", "value1": 0}, "always_true": 1)", {{50.0f, 0, 1}, {kNaN, 1, 1}}},
    };
    for (const auto& [ratio, probes] : cases) {
        const std::string entry = R"({"layer_screen_size_ratio": {"condition": )" + ratio + "}";
        ASSERT_EQ(reload(withExceptions(entry)), 0);
        mLog.clear();
        for (const auto& p : probes) {
            EXPECT_EQ(mConfig->checkExceptionGeneralRuleMatch({p.ratio, p.focus}), p.matches)
                    << ratio << " ratio " << p.ratio << " focus " << p.focus;
        }
        EXPECT_THAT(log(), IsEmpty());
    }
}

TEST_F(PeltoRuleMatchTest, entryWithoutPredicateIsSkippedWithAWarning) {
    PeltoExceptionRule rule{std::vector<PeltoExceptionRuleEntry>(4)};
    rule.entries[0].ruleLayerScreenSizeRatio.emplace();
    rule.entries[0].ruleFocus = makeBoolCondition(false); // would match, but is not examined
    rule.entries[1].ruleFocus.emplace();
    rule.entries[2].ruleLayerScreenSizeRatio = makeNumericCondition(7, 0.0f, std::optional(100.0f));
    rule.entries[3].ruleLayerScreenSizeRatio =
            makeNumericCondition(int32_t{kConditionInRange}, 0.0f, std::optional<float>());
    EXPECT_FALSE(mConfig->checkRuleMatch({50.0f, false}, rule));
    EXPECT_THAT(log(),
                ElementsAre("W entry.ruleLayerScreenSizeRatio->func == nullpltr",
                            "W entry.ruleFocus->func == nullpltr"));
    rule.entries[3].ruleLayerScreenSizeRatio =
            makeNumericCondition(int32_t{kConditionSmaller}, 100.0f, std::optional<float>());
    EXPECT_TRUE(mConfig->checkRuleMatch({50.0f, false}, rule));
}

TEST_F(PeltoRuleMatchTest, firstMatchingEntryEndsTheSearchAndNothingAllocates) {
    ASSERT_EQ(reload(kRules), 0);
    const std::string target = "example.player/VideoSurface", ignore = "example.player/Subtitles";
    const std::string exception = "example.keyboard/InputPanel", missing = target + "(BLAST)";
    const PeltoExceptionRule *keyboard = nullptr, *failed = nullptr, *empty = nullptr;
    ASSERT_TRUE(mConfig->isExceptionLayer(exception, &keyboard) &&
                mConfig->isExceptionLayer("failed", &failed) &&
                mConfig->isExceptionLayer("empty", &empty));
    const PeltoExceptionRuleInput inputs[] = {{60.0f, true}, {2e6f, true}, {kNaN, true}};
    const PeltoConfig& config = *mConfig;
    mLog.clear();
    int hits = 0;
    test::AllocationCounter counter;
    for (const auto& input : inputs) {
        const PeltoTargetLayerInfo* targetInfo = nullptr;
        const PeltoTargetIgnoreInfo* ignoreInfo = nullptr;
        hits += config.isTargetLayer(target, &targetInfo) + config.isTargetLayer(missing, nullptr);
        hits += config.isTargetIgnoreLayer(ignore, &ignoreInfo) + config.isAlwaysOn();
        hits += config.isExceptionLayer(missing, &keyboard) + config.hasExceptionGeneralRule();
        hits += config.isExceptionLayer(exception, nullptr) + config.useAdaptiveTimeout();
        // The condition-less second entry of "empty" is never reached; "failed" has no entry.
        hits += config.checkExceptionGeneralRuleMatch(input) + config.checkRuleMatch(input, *empty);
        hits += config.checkRuleMatch(input, *keyboard) + config.checkRuleMatch(input, *failed);
    }
    const size_t allocations = counter.allocations();
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(hits, 3 * 8);
    EXPECT_THAT(log(), IsEmpty());
    // Reached, the condition-less entry is passed over with a warning.
    EXPECT_FALSE(config.checkRuleMatch({0.0f, false}, *empty));
    EXPECT_THAT(log(), ElementsAre("W no rule in this entry"));
    // The counter does see the library's allocations.
    EXPECT_EQ(mConfig->loadConfig(true), 0);
    EXPECT_GT(counter.allocations(), 0u);
}

} // namespace
} // namespace android
