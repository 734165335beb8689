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

// Each file is loaded as a reload over a clean file that turned both switches
// off, so that a case shows which switches it sets and which it keeps.
class PeltoConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_RULE_FILE_PATH();
        reset();
    }

    void reset() {
        mFile.write(R"({"target_layers": [{"name": "old"}], "general_rule":
                        {"on_when_has_other_layer": 0, "use_adaptive_timeout": false}})");
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
    std::string json;
    int result;
    bool succeeded;
    bool alwaysOn;
    bool adaptiveTimeout;
    std::vector<LogLine> log;
};

TEST_F(PeltoConfigTest, fileLevelProblemsAreLoggedAndAbsorbed) {
    const LogLine failed = configError("loadConfig failed, ret -5");
    const LogLine target = configInfo("target layer id 0, name ");
    const LogLine noExceptions = configWarning("exceptions.empty()");
    const LoadCase cases[] = {
            {R"(["target_layers"])", -5, false, false, false,
             {configError("root is not an object"), failed}},
            {R"({"target_layers": [], "general_rule": {"on_when_has_other_layer": 1}})", -5, false,
             false, false, {configError("targetLayers.empty()"), failed}},
            {R"({"target_layers": {"name": "t"}})", -5, false, false, false,
             {configError("target_layers is not an array"), failed}},
            {R"({"target_layers": ["t", {"name": ["a"]}, {"ignore_names": "v"},
                                  {"name": "w", "ignore_names": ["x", {}, 7]}],
                 "general_rule": {"on_when_has_other_layer": 1, "use_adaptive_timeout": 1}})",
             0, false, true, true,
             {configError("target_layers[0] is not an object"),
              configError("target_layers[1].name is not a string"),
              configError("target_layers[2].ignore_names is not an array"),
              configInfo("target layer id 3, name w"), configInfo("\tignore layer id 3, name x"),
              configError("target_layers[3].ignore_names[1] is not a string"),
              configInfo("\tignore layer id 3, name 7"), configInfo("stayOnWhenHasOtherLayer 1"),
              noExceptions}},
            {R"({"target_layers": [{}], "general_rule": {}})", 0, false, true, true,
             {target, configWarning("generalRule.empty(), stayOnWhenHasOtherLayer = true"),
              noExceptions}},
            {R"({"target_layers": [{}], "general_rule": [false]})", 0, false, true, true,
             {target, configError("general_rule is not an object"), noExceptions}},
            {R"({"target_layers": [{}], "general_rule": {"x": 0}})", 0, false, true, true,
             {target, configWarning("no on_when_has_other_layer, default on"),
              configWarning("no use_adaptive_timeout, default on"), noExceptions}},
            {R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": "false",
                                                        "use_adaptive_timeout": "false"}})",
             0, false, true, true,
             {target, configError("on_when_has_other_layer, type not convertible to boolean"),
              configError("use_adaptive_timeout, type not convertible to boolean"), noExceptions}},
            {R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": 0.5,
                                                        "use_adaptive_timeout": 0}})",
             0, true, true, false, {target, configInfo("stayOnWhenHasOtherLayer 1"), noExceptions}},
            {R"({"target_layers": [{}], "exception_rule": {"focus": true},
                 "general_rule": {"on_when_has_other_layer": 0, "use_adaptive_timeout": 1}})",
             0, false, false, true,
             {target, configInfo("stayOnWhenHasOtherLayer 0"),
              configError("exception_rule is not an array")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
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
        EXPECT_THAT(log(), ElementsAre(Field(&LogLine::message, StartsWith("parse fail, ")),
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
            {R"({"layer_screen_size_ratio": {"condition": "7"}})",
             "invalid rule.conditionType 7, 7"},
            {R"({"layer_screen_size_ratio": {"condition": "12abc"}})",
             "invalid rule.conditionType 12, 12abc"},
            {R"({"layer_screen_size_ratio": {"condition": "2147483647"}})",
             "invalid rule.conditionType 2147483647, 2147483647"},
            {R"({"layer_screen_size_ratio": {"condition": "2147483648"}})",
             "invalid rule.conditionType -1, 2147483648"},
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
        EXPECT_THAT(log(),
                    ElementsAre(configInfo("target layer id 0, name t"),
                                configInfo("stayOnWhenHasOtherLayer 1"), configError(c.error),
                                configInfo("excpetion rule entry load fail, i 0")));
    }
}

TEST_F(PeltoConfigTest, lookupsFindExactNamesWithTheLastId) {
    ASSERT_EQ(reload(R"({"target_layers": [{"name": "a", "ignore_names": ["i", "shared"]},
                                           {"name": "b", "ignore_names": ["shared"]},
                                           {"name": "a"}, {}],
                         "exception_rule": [{"name": "x", "focus": "yes"}]})"),
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
    // The failed element still created its rule.
    const PeltoExceptionRule* rule = nullptr;
    ASSERT_TRUE(mConfig->isExceptionLayer("x", &rule));
    EXPECT_TRUE(rule->entries.empty());

    // Misses leave the out-pointer alone; names are compared byte for byte.
    const PeltoTargetLayerInfo* const found = target;
    for (const char* miss : {"A", "a ", "b#1", "i"}) {
        EXPECT_FALSE(mConfig->isTargetLayer(miss, &target)) << miss;
    }
    EXPECT_EQ(target, found);
    EXPECT_FALSE(mConfig->isExceptionLayer("a", &rule));
    EXPECT_TRUE(mConfig->isExceptionLayer("x", nullptr));
    EXPECT_TRUE(mConfig->isTargetIgnoreLayer("shared", nullptr));
    EXPECT_FALSE(mConfig->isTargetIgnoreLayer("a", nullptr));
}

TEST_F(PeltoConfigTest, reloadEmptiesRulesAndKeepsSwitchesAndFlag) {
    ASSERT_EQ(reload(test::ruleFileWithExceptions(R"({"name": "e", "focus": 1}, {"focus": 1})")),
              0);
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
