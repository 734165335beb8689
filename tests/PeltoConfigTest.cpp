#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PeltoConfig.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::configError;
using test::configInfo;
using test::configWarning;
using test::LogLine;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::StartsWith;

constexpr const char* kBothSwitchesOn =
        R"("general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true})";

// Each file is loaded as a reload over a clean file that turned both switches
// off, so that a case shows which switches it sets and which it keeps.
class PeltoConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_RULE_FILE_PATH();
        reset();
    }

    // A fresh config loaded from the clean file, with an empty log.
    void reset() {
        mFile.write(R"({"target_layers": [{"name": "old"}],
                        "general_rule": {"on_when_has_other_layer": 0,
                                         "use_adaptive_timeout": false}})");
        mConfig = std::make_unique<PeltoConfig>();
        ASSERT_TRUE(mConfig->loadConfigSucceeded());
        ASSERT_FALSE(mConfig->isAlwaysOn());
        mLog.clear();
    }

    int reload(const std::string& json) {
        mFile.write(json);
        return mConfig->loadConfig(true);
    }

    std::vector<LogLine> log() const { return mLog.lines("PeltoConfig"); }

    test::ScopedRuleFile mFile;
    test::LogCapture mLog;
    std::unique_ptr<PeltoConfig> mConfig;
};

struct LoadCase {
    const char* label;
    std::string json;
    int result;
    bool succeeded;
    bool alwaysOn;
    bool adaptiveTimeout;
    std::vector<LogLine> log;
};

TEST_F(PeltoConfigTest, fileLevelProblemsAreLoggedAndAbsorbed) {
    const LogLine failed = configError("loadConfig failed, ret -5");
    const LoadCase cases[] = {
            {"root not an object", R"(["target_layers"])", -5, false, false, false,
             {configError("root is not an object"), failed}},
            {"no targets", std::string(R"({"target_layers": [], )") + kBothSwitchesOn + "}", -5,
             false, false, false, {configError("targetLayers.empty()"), failed}},
            {"targets an object", R"({"target_layers": {"name": "t"}})", -5, false, false, false,
             {configError("target_layers is not an array"), failed}},
            {"targets a string", R"({"target_layers": "t"})", -5, false, false, false,
             {configError("target_layers is not an array"), failed}},
            {"bad target elements",
             std::string(R"({"target_layers": ["t", {"name": ["a"]},
                            {"name": "u", "ignore_names": "v"},
                            {"name": "w", "ignore_names": ["x", {}, 7]}], )") +
                     kBothSwitchesOn + "}",
             0, false, true, true,
             {configError("target_layers[0] is not an object"),
              configError("target_layers[1].name is not a string"),
              configError("target_layers[2].ignore_names is not an array"),
              configInfo("target layer id 3, name w"), configInfo("\tignore layer id 3, name x"),
              configError("target_layers[3].ignore_names[1] is not a string"),
              configInfo("\tignore layer id 3, name 7"), configInfo("stayOnWhenHasOtherLayer 1"),
              configWarning("exceptions.empty()")}},
            {"no general rule", R"({"target_layers": [{"name": "t"}]})", 0, false, true, true,
             {configInfo("target layer id 0, name t"),
              configWarning("generalRule.empty(), stayOnWhenHasOtherLayer = true"),
              configWarning("exceptions.empty()")}},
            {"empty general rule", R"({"target_layers": [{}], "general_rule": {}})", 0, false,
             true, true,
             {configInfo("target layer id 0, name "),
              configWarning("generalRule.empty(), stayOnWhenHasOtherLayer = true"),
              configWarning("exceptions.empty()")}},
            {"general rule an array", R"({"target_layers": [{}], "general_rule": [false]})", 0,
             false, true, true,
             {configInfo("target layer id 0, name "), configError("general_rule is not an object"),
              configWarning("exceptions.empty()")}},
            {"switches missing", R"({"target_layers": [{}], "general_rule": {"x": 0}})", 0, false,
             true, true,
             {configInfo("target layer id 0, name "),
              configWarning("no on_when_has_other_layer, default on"),
              configWarning("no use_adaptive_timeout, default on"),
              configWarning("exceptions.empty()")}},
            {"switches as strings",
             R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": "false",
                                                        "use_adaptive_timeout": "false"}})",
             0, false, true, true,
             {configInfo("target layer id 0, name "),
              configError("on_when_has_other_layer, type not convertible to boolean"),
              configError("use_adaptive_timeout, type not convertible to boolean"),
              configWarning("exceptions.empty()")}},
            {"switches as numbers",
             R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": 0.5,
                                                        "use_adaptive_timeout": 0}})",
             0, true, true, false,
             {configInfo("target layer id 0, name "), configInfo("stayOnWhenHasOtherLayer 1"),
              configWarning("exceptions.empty()")}},
            {"exceptions an object",
             std::string(R"({"target_layers": [{}], "exception_rule": {"focus": true}, )") +
                     kBothSwitchesOn + "}",
             0, false, true, true,
             {configInfo("target layer id 0, name "), configInfo("stayOnWhenHasOtherLayer 1"),
              configError("exception_rule is not an array")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        reset();
        EXPECT_EQ(reload(c.json), c.result);
        EXPECT_EQ(mConfig->loadConfigSucceeded(), c.succeeded);
        EXPECT_EQ(mConfig->isAlwaysOn(), c.alwaysOn);
        EXPECT_EQ(mConfig->useAdaptiveTimeout(), c.adaptiveTimeout);
        EXPECT_FALSE(mConfig->isTargetLayer("old", nullptr));
        EXPECT_EQ(log(), c.log);
    }
}

TEST_F(PeltoConfigTest, unparsableFileFailsTheLoad) {
    // Unbalanced, and nested deeper than the parser's limit.
    for (const std::string& json : {std::string("{"), std::string(2000, '[')}) {
        reset();
        EXPECT_EQ(reload(json), -5);
        EXPECT_FALSE(mConfig->loadConfigSucceeded());
        EXPECT_THAT(log(),
                    ElementsAre(Field(&LogLine::message, StartsWith("parse fail, ")),
                                configError("loadConfig failed, ret -5")));
        EXPECT_EQ(log()[0].priority, ANDROID_LOG_ERROR);
    }
}

struct EntryCase {
    const char* element;
    const char* error;
};

TEST_F(PeltoConfigTest, rejectedExceptionEntryIsDroppedAndTheLoadGoesOn) {
    const EntryCase cases[] = {
            {R"({"layer_screen_size_ratio": {"value1": 1}})", "no condition"},
            {R"({"layer_screen_size_ratio": {"condition": "bigger", "value1": 1}})",
             "condition should start with condition type number, bigger"},
            {R"({"layer_screen_size_ratio": {"condition": "", "value1": 1}})",
             "condition should start with condition type number, "},
            {R"({"layer_screen_size_ratio": {"condition": -1, "value1": 1}})",
             "condition should start with condition type number, -1"},
            {R"({"layer_screen_size_ratio": {"condition": "7", "value1": 1}})",
             "invalid rule.conditionType 7, 7"},
            {R"({"layer_screen_size_ratio": {"condition": "12abc", "value1": 1}})",
             "invalid rule.conditionType 12, 12abc"},
            {R"({"layer_screen_size_ratio": {"condition": "2147483647", "value1": 1}})",
             "invalid rule.conditionType 2147483647, 2147483647"},
            {R"({"layer_screen_size_ratio": {"condition": "2147483648", "value1": 1}})",
             "invalid rule.conditionType -1, 2147483648"},
            {R"({"layer_screen_size_ratio": {"condition": "99999999999 smaller", "value1": 1}})",
             "invalid rule.conditionType -1, 99999999999 smaller"},
            {R"({"layer_screen_size_ratio": {"condition": ["1"], "value1": 1}})",
             "exception_rule[0].layer_screen_size_ratio.condition is not a string"},
            {R"({"layer_screen_size_ratio": {"condition": "1"}})", "no value1"},
            {R"({"layer_screen_size_ratio": {"condition": "1", "value1": "30"}})",
             "value1 is not numeric"},
            {R"({"layer_screen_size_ratio": {"condition": "1", "value1": true}})",
             "value1 is not numeric"},
            {R"({"layer_screen_size_ratio": {"condition": "1", "value1": 1, "value2": "2"}})",
             "value2 is not numeric"},
            {R"({"layer_screen_size_ratio": {"condition": "2", "value1": 1}})",
             "condition in_range, but no value2"},
            {R"({"layer_screen_size_ratio": {"condition": "2", "value1": 5, "value2": 4.5}})",
             "value1 > value2"},
            {R"({"layer_screen_size_ratio": "1 bigger"})",
             "exception_rule[0].layer_screen_size_ratio is not an object"},
            {R"({"focus": "yes"})", "focus, type not convertible to boolean"},
            {R"({"always_true": "x", "focus": true})",
             "always_true, type not convertible to boolean"},
            // The first problem ends the entry: the focus is not looked at.
            {R"({"layer_screen_size_ratio": {"condition": "x"}, "focus": "yes"})",
             "condition should start with condition type number, x"},
            {R"("t")", "exception_rule[0] is not an object"},
            {R"({"name": {"a": "b"}, "always_true": true})",
             "exception_rule[0].name is not a string"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.element);
        reset();
        EXPECT_EQ(reload(test::ruleFileWithExceptions(c.element)), 0);
        EXPECT_FALSE(mConfig->loadConfigSucceeded());
        EXPECT_FALSE(mConfig->hasExceptionGeneralRule());
        EXPECT_TRUE(mConfig->isTargetLayer("t", nullptr));
        EXPECT_THAT(log(),
                    ElementsAre(configInfo("target layer id 0, name t"),
                                configInfo("stayOnWhenHasOtherLayer 1"), configError(c.error),
                                configInfo("excpetion rule entry load fail, i 0")));
    }
}

TEST_F(PeltoConfigTest, namedEntriesGatherInFileOrder) {
    EXPECT_EQ(reload(test::ruleFileWithExceptions(R"(
        {"name": "X", "focus": "yes"},
        {"name": "Y", "layer_screen_size_ratio": {"condition": 1, "value1": 30}},
        {"name": "Y", "layer_screen_size_ratio": {"condition": "0 smaller", "value1": 5,
                                                  "value2": 7}},
        {"name": "Z"},
        {"name": "Y", "layer_screen_size_ratio": {"condition": "2", "value1": 5, "value2": 5},
         "focus": 0, "always_true": 1})")),
              0);
    EXPECT_FALSE(mConfig->loadConfigSucceeded());
    EXPECT_FALSE(mConfig->hasExceptionGeneralRule());

    // The failed element still created its rule.
    const PeltoExceptionRule* x = nullptr;
    ASSERT_TRUE(mConfig->isExceptionLayer("X", &x));
    EXPECT_TRUE(x->entries.empty());

    const PeltoExceptionRule* z = nullptr;
    ASSERT_TRUE(mConfig->isExceptionLayer("Z", &z));
    ASSERT_EQ(z->entries.size(), 1u);
    EXPECT_FALSE(z->entries[0].ruleLayerScreenSizeRatio || z->entries[0].ruleFocus ||
                 z->entries[0].alwaysTrue);

    const PeltoExceptionRule* y = nullptr;
    ASSERT_TRUE(mConfig->isExceptionLayer("Y", &y));
    ASSERT_EQ(y->entries.size(), 3u);
    const auto& bigger = *y->entries[0].ruleLayerScreenSizeRatio;
    EXPECT_EQ(bigger.conditionType, kConditionBigger);
    EXPECT_EQ(bigger.value1, 30.0f);
    EXPECT_FALSE(bigger.value2);
    const auto& smaller = *y->entries[1].ruleLayerScreenSizeRatio;
    EXPECT_EQ(smaller.conditionType, kConditionSmaller);
    EXPECT_EQ(smaller.value2, 7.0f);
    const auto& third = y->entries[2];
    EXPECT_EQ(third.ruleLayerScreenSizeRatio->conditionType, kConditionInRange);
    EXPECT_EQ(third.ruleLayerScreenSizeRatio->value2, 5.0f);
    EXPECT_FALSE(third.ruleFocus->value);
    EXPECT_TRUE(third.alwaysTrue);
}

TEST_F(PeltoConfigTest, lookupsFindExactNamesWithTheLastId) {
    ASSERT_EQ(reload(std::string(R"({"target_layers": [
                  {"name": "a", "ignore_names": ["i", "shared"]},
                  {"name": "b", "ignore_names": ["shared"]},
                  {"name": "a"},
                  {}], )") + kBothSwitchesOn + "}"),
              0);
    const PeltoTargetLayerInfo* target = nullptr;
    ASSERT_TRUE(mConfig->isTargetLayer("a", &target));
    EXPECT_EQ(target->id, 2);
    ASSERT_TRUE(mConfig->isTargetLayer("", &target));
    EXPECT_EQ(target->id, 3);

    const PeltoTargetIgnoreInfo* ignore = nullptr;
    ASSERT_TRUE(mConfig->isTargetIgnoreLayer("i", &ignore));
    EXPECT_EQ(ignore->id, 0);  // its target was named again later; the ignore keeps index 0
    ASSERT_TRUE(mConfig->isTargetIgnoreLayer("shared", &ignore));
    EXPECT_EQ(ignore->id, 1);

    // Misses leave the out-pointer alone; names are compared byte for byte.
    const PeltoTargetLayerInfo* const untouched = target;
    for (const char* miss : {"A", "a ", "b#1", "i"}) {
        EXPECT_FALSE(mConfig->isTargetLayer(miss, &target)) << miss;
    }
    EXPECT_EQ(target, untouched);
    const PeltoExceptionRule* rule = nullptr;
    EXPECT_FALSE(mConfig->isExceptionLayer("a", &rule));
    EXPECT_EQ(rule, nullptr);

    EXPECT_TRUE(mConfig->isTargetLayer("b", nullptr));
    EXPECT_TRUE(mConfig->isTargetIgnoreLayer("shared", nullptr));
    EXPECT_FALSE(mConfig->isTargetIgnoreLayer("a", nullptr));
}

TEST_F(PeltoConfigTest, reloadEmptiesRulesAndKeepsSwitchesAndFlag) {
    ASSERT_EQ(reload(test::ruleFileWithExceptions(R"({"name": "e", "focus": true}, {"focus": 1})")), 0);
    ASSERT_TRUE(mConfig->loadConfigSucceeded());
    ASSERT_TRUE(mConfig->hasExceptionGeneralRule());

    mFile.remove();
    mLog.clear();
    EXPECT_EQ(mConfig->loadConfig(true), -5);
    EXPECT_THAT(log(), ElementsAre(configWarning("failed to open " + mFile.path())));
    EXPECT_FALSE(mConfig->isTargetLayer("t", nullptr));
    EXPECT_FALSE(mConfig->isExceptionLayer("e", nullptr));
    EXPECT_FALSE(mConfig->hasExceptionGeneralRule());
    EXPECT_TRUE(mConfig->isAlwaysOn());
    EXPECT_TRUE(mConfig->loadConfigSucceeded());

    // Once a load has failed, a clean file does not restore the flag.
    EXPECT_EQ(reload(R"({"target_layers": []})"), -5);
    EXPECT_EQ(reload(test::ruleFileWithExceptions(R"({"focus": 1})")), 0);
    EXPECT_TRUE(mConfig->isTargetLayer("t", nullptr));
    EXPECT_FALSE(mConfig->loadConfigSucceeded());
}

TEST(PeltoConfigConstructionTest, missingFileLeavesAnEmptyConfigWithTheFlagSet) {
    SKIP_WITHOUT_RULE_FILE_PATH();
    test::ScopedRuleFile file;
    test::LogCapture log;
    PeltoConfig config;
    EXPECT_THAT(log.lines("PeltoConfig"), ElementsAre(configWarning("failed to open " + file.path())));
    EXPECT_TRUE(config.loadConfigSucceeded());
    EXPECT_TRUE(config.isAlwaysOn());
    EXPECT_TRUE(config.useAdaptiveTimeout());
    EXPECT_FALSE(config.hasExceptionGeneralRule());
    EXPECT_FALSE(config.isTargetLayer("", nullptr));
    EXPECT_EQ(config.loadConfig(false), -5);
}

TEST(PeltoConfigConstructionTest, shippedExampleLoadsCleanly) {
    SKIP_WITHOUT_RULE_FILE_PATH();
    const std::string source = __FILE__;
    const std::string example =
            source.substr(0, source.rfind("/tests/")) + "/config/examples/pelto_config.json";
    setenv("PELTO_CONFIG_PATH", example.c_str(), 1);
    test::LogCapture log;
    PeltoConfig config;
    unsetenv("PELTO_CONFIG_PATH");
    EXPECT_TRUE(config.loadConfigSucceeded());
    for (const auto& line : log.lines("PeltoConfig")) {
        EXPECT_EQ(line.priority, ANDROID_LOG_INFO) << line.message;
    }
    EXPECT_TRUE(config.isTargetLayer(
            "SurfaceView[com.example.player/com.example.player.PlayerActivity](BLAST)", nullptr));
    EXPECT_TRUE(config.hasExceptionGeneralRule());
}

TEST(PeltoConfigConstructionTest, pathComesFromTheEnvironmentOnlyWhenSetAndNotEmpty) {
    SKIP_WITHOUT_RULE_FILE_PATH();
    setenv("PELTO_CONFIG_PATH", "/tmp/rules.json", 1);
    EXPECT_EQ(PeltoConfig::configPath(), "/tmp/rules.json");
    setenv("PELTO_CONFIG_PATH", "", 1);
    EXPECT_EQ(PeltoConfig::configPath(), "/system/etc/pelto_config.json");
    unsetenv("PELTO_CONFIG_PATH");
    EXPECT_EQ(PeltoConfig::configPath(), "/system/etc/pelto_config.json");
}

} // namespace
} // namespace android
