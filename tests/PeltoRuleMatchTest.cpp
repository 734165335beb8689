#include <limits>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/PeltoConfig.h"
#include "support/AllocationCounter.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::configWarning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

class PeltoRuleMatchTest : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_RULE_FILE_PATH(); }

    // A config loaded from a file with the given "exception_rule" elements.
    std::unique_ptr<PeltoConfig> configWith(const std::string& elements) {
        mFile.write(test::ruleFileWithExceptions(elements));
        auto config = std::make_unique<PeltoConfig>();
        mLog.clear();
        return config;
    }

    std::vector<test::LogLine> log() const { return mLog.lines("PeltoConfig"); }

    test::ScopedRuleFile mFile;
    test::LogCapture mLog;
};

struct MatchCase {
    const char* entry;
    float ratio;
    bool focus;
    bool matches;
};

TEST_F(PeltoRuleMatchTest, generalEntryMatchesByTypeWithStrictSinglePrecisionBounds) {
    constexpr const char* kSmaller30 =
            R"({"layer_screen_size_ratio": {"condition": "0", "value1": 30}})";
    // A JSON number is a condition type too.
    constexpr const char* kBigger30 =
            R"({"layer_screen_size_ratio": {"condition": 1, "value1": 30}})";
    constexpr const char* kInRange =
            R"({"layer_screen_size_ratio": {"condition": "2 in_range", "value1": 10,
                                            "value2": 50}})";
    constexpr const char* kEmptyRange =
            R"({"layer_screen_size_ratio": {"condition": "2", "value1": 5, "value2": 5}})";
    // value2 is stored for "equal" but not consulted.
    constexpr const char* kEqual100 =
            R"({"layer_screen_size_ratio": {"condition": "3", "value1": 100, "value2": 1}})";
    // Both bounds round to 30.0f: only single-precision comparisons see them as 30.
    constexpr const char* kEqualNear30 =
            R"({"layer_screen_size_ratio": {"condition": "3", "value1": 30.0000005}})";
    constexpr const char* kBiggerNear30 =
            R"({"layer_screen_size_ratio": {"condition": "1", "value1": 29.9999999}})";
    constexpr const char* kNoFocus = R"({"focus": false})";
    constexpr const char* kBigFocused =
            R"({"layer_screen_size_ratio": {"condition": "1", "value1": 30}, "focus": true})";
    constexpr const char* kAlways =
            R"({"layer_screen_size_ratio": {"condition": "0", "value1": 0}, "always_true": 1})";

    const MatchCase cases[] = {
            {kSmaller30, 29.9f, false, true},   {kSmaller30, 30.0f, false, false},
            {kSmaller30, 0.0f, false, true},    {kSmaller30, kNaN, false, false},
            {kBigger30, 30.0f, false, false},   {kBigger30, 30.5f, false, true},
            {kBigger30, kNaN, false, false},    {kInRange, 10.0f, false, false},
            {kInRange, 10.5f, false, true},     {kInRange, 49.9f, false, true},
            {kInRange, 50.0f, false, false},    {kInRange, kNaN, false, false},
            {kEmptyRange, 5.0f, false, false},  {kEqual100, 100.0f, false, true},
            {kEqual100, 99.99999f, false, false}, {kEqual100, 1.0f, false, false},
            {kEqual100, kNaN, false, false},    {kEqualNear30, 30.0f, false, true},
            {kBiggerNear30, 30.0f, false, false}, {kNoFocus, 50.0f, false, true},
            {kNoFocus, 50.0f, true, false},     {kBigFocused, 50.0f, true, true},
            {kBigFocused, 50.0f, false, false}, {kBigFocused, 10.0f, true, false},
            {kAlways, 50.0f, false, true},      {kAlways, kNaN, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.entry << " ratio " << c.ratio << " focus " << c.focus);
        const auto config = configWith(c.entry);
        ASSERT_TRUE(config->loadConfigSucceeded());
        ASSERT_TRUE(config->hasExceptionGeneralRule());
        EXPECT_EQ(config->checkExceptionGeneralRuleMatch({c.ratio, c.focus}), c.matches);
        EXPECT_THAT(log(), IsEmpty());
    }
}

TEST_F(PeltoRuleMatchTest, firstMatchingEntryEndsTheSearch) {
    const auto config = configWith(R"({"focus": true}, {}, {"always_true": true})");
    EXPECT_TRUE(config->checkExceptionGeneralRuleMatch({0.0f, true}));
    EXPECT_THAT(log(), IsEmpty());

    // The condition-less entry is passed over with a warning; a later one still matches.
    EXPECT_TRUE(config->checkExceptionGeneralRuleMatch({0.0f, false}));
    EXPECT_THAT(log(), ElementsAre(configWarning("no rule in this entry")));
}

TEST_F(PeltoRuleMatchTest, namedRuleMatchesThroughItsLookup) {
    const auto config = configWith(R"({"name": "bad", "focus": "yes"},
                                      {"name": "entries", "focus": true},
                                      {"name": "entries", "always_true": false})");
    const PeltoExceptionRule* bad = nullptr;
    const PeltoExceptionRule* entries = nullptr;
    ASSERT_TRUE(config->isExceptionLayer("bad", &bad));
    ASSERT_TRUE(config->isExceptionLayer("entries", &entries));
    EXPECT_FALSE(config->hasExceptionGeneralRule());

    // A rule whose only element failed never matches and says nothing.
    EXPECT_FALSE(config->checkRuleMatch({100.0f, true}, *bad));
    EXPECT_THAT(log(), IsEmpty());

    EXPECT_TRUE(config->checkRuleMatch({0.0f, true}, *entries));
    EXPECT_FALSE(config->checkRuleMatch({0.0f, false}, *entries));
    EXPECT_FALSE(config->checkRuleMatch({0.0f, false}, *entries));
    EXPECT_EQ(mLog.count("PeltoConfig", "no rule in this entry"), 2u);
}

TEST_F(PeltoRuleMatchTest, entryWithoutPredicateIsSkippedWithAWarning) {
    const auto config = configWith("");
    PeltoExceptionRuleEntry noRatioFunc;
    noRatioFunc.ruleLayerScreenSizeRatio.emplace();
    noRatioFunc.ruleFocus = makeBoolCondition(false);  // would match, but is not examined
    PeltoExceptionRuleEntry noFocusFunc;
    noFocusFunc.ruleFocus.emplace();
    PeltoExceptionRuleEntry unknownType;
    unknownType.ruleLayerScreenSizeRatio = makeNumericCondition(7, 0.0f, std::optional(100.0f));
    PeltoExceptionRuleEntry rangeWithoutEnd;
    rangeWithoutEnd.ruleLayerScreenSizeRatio =
            makeNumericCondition(int32_t{kConditionInRange}, 0.0f, std::optional<float>());

    PeltoExceptionRule rule{{noRatioFunc, noFocusFunc, unknownType, rangeWithoutEnd}};
    EXPECT_FALSE(config->checkRuleMatch({50.0f, false}, rule));
    EXPECT_THAT(log(),
                ElementsAre(configWarning("entry.ruleLayerScreenSizeRatio->func == nullpltr"),
                            configWarning("entry.ruleFocus->func == nullpltr")));

    PeltoExceptionRuleEntry smaller;
    smaller.ruleLayerScreenSizeRatio =
            makeNumericCondition(int32_t{kConditionSmaller}, 100.0f, std::optional<float>());
    rule.entries.push_back(smaller);
    EXPECT_TRUE(config->checkRuleMatch({50.0f, false}, rule));
}

TEST_F(PeltoRuleMatchTest, lookupsAndMatchingAllocateNothing) {
    mFile.write(test::kExampleRuleFile);
    PeltoConfig config;
    // Names longer than any small-string buffer, made before counting.
    const std::string target = "example.player/VideoSurface";
    const std::string ignore = "example.player/Subtitles";
    const std::string exception = "example.keyboard/InputPanel";
    const std::string missing = "example.player/VideoSurface(BLAST)";
    const PeltoExceptionRule* rule = nullptr;
    ASSERT_TRUE(config.isExceptionLayer(exception, &rule));
    const PeltoExceptionRuleInput inputs[] = {{20.0f, true}, {60.0f, false}, {kNaN, true}};

    int hits = 0;
    test::AllocationCounter counter;
    for (const auto& input : inputs) {
        const PeltoTargetLayerInfo* targetInfo = nullptr;
        const PeltoTargetIgnoreInfo* ignoreInfo = nullptr;
        hits += config.isTargetLayer(target, &targetInfo) + config.isTargetLayer(missing, nullptr);
        hits += config.isTargetIgnoreLayer(ignore, &ignoreInfo);
        hits += config.isExceptionLayer(missing, &rule) + config.isExceptionLayer(exception, nullptr);
        hits += config.hasExceptionGeneralRule() + config.isAlwaysOn() + config.useAdaptiveTimeout();
        hits += config.checkRuleMatch(input, *rule) + config.checkExceptionGeneralRuleMatch(input);
    }
    const size_t allocations = counter.allocations();
    EXPECT_EQ(allocations, 0u);
    // 20 % focused matches the keyboard rule, 60 % the general one.
    EXPECT_EQ(hits, 3 * 5 + 2);

    // The counter does see the library's allocations.
    EXPECT_EQ(config.loadConfig(true), 0);
    EXPECT_GT(counter.allocations(), 0u);
}

} // namespace
} // namespace android
