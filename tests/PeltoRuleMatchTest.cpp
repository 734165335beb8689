#include <limits>
#include <memory>
#include <string>
#include <vector>

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

std::string ratio(const std::string& condition, const std::string& extra = "") {
    return R"({"layer_screen_size_ratio": {"condition": )" + condition + "}" + extra + "}";
}

struct Probe {
    float ratio;
    bool focus;
    bool matches;
};

struct MatchCase {
    std::string entry;
    std::vector<Probe> probes;
};

TEST_F(PeltoRuleMatchTest, generalEntryMatchesByTypeWithStrictSinglePrecisionBounds) {
    const MatchCase cases[] = {
            {ratio(R"("0", "value1": 30)"),
             {{29.9f, 0, 1}, {30.0f, 0, 0}, {0.0f, 0, 1}, {kNaN, 0, 0}}},
            // A JSON number is a condition type too.
            {ratio(R"(1, "value1": 30)"), {{30.0f, 0, 0}, {30.5f, 0, 1}, {kNaN, 0, 0}}},
            {ratio(R"("2 in_range", "value1": 10, "value2": 50)"),
             {{10.0f, 0, 0}, {10.5f, 0, 1}, {49.9f, 0, 1}, {50.0f, 0, 0}, {kNaN, 0, 0}}},
            {ratio(R"("2", "value1": 5, "value2": 5)"), {{5.0f, 0, 0}}},
            // value2 is stored for "equal" but not consulted.
            {ratio(R"("3", "value1": 100, "value2": 1)"),
             {{100.0f, 0, 1}, {99.99999f, 0, 0}, {1.0f, 0, 0}, {kNaN, 0, 0}}},
            // Both bounds round to 30.0f: only single-precision comparisons see them as 30.
            {ratio(R"("3", "value1": 30.0000005)"), {{30.0f, 0, 1}}},
            {ratio(R"("1", "value1": 29.9999999)"), {{30.0f, 0, 0}}},
            {R"({"focus": false})", {{50.0f, 0, 1}, {50.0f, 1, 0}}},
            {ratio(R"("1", "value1": 30)", R"(, "focus": true)"),
             {{50.0f, 1, 1}, {50.0f, 0, 0}, {10.0f, 1, 0}}},
            {ratio(R"("0", "value1": 0)", R"(, "always_true": 1)"), {{50.0f, 0, 1}, {kNaN, 1, 1}}},
    };
    for (const auto& c : cases) {
        const auto config = configWith(c.entry);
        ASSERT_TRUE(config->loadConfigSucceeded() && config->hasExceptionGeneralRule()) << c.entry;
        for (const auto& p : c.probes) {
            EXPECT_EQ(config->checkExceptionGeneralRuleMatch({p.ratio, p.focus}), p.matches)
                    << c.entry << " ratio " << p.ratio << " focus " << p.focus;
        }
        EXPECT_THAT(log(), IsEmpty());
    }
}

TEST_F(PeltoRuleMatchTest, firstMatchingEntryEndsTheSearch) {
    const auto config = configWith(R"({"focus": true}, {}, {"always_true": true},
                                      {"name": "bad", "focus": "yes"}, {"name": "n", "focus": true},
                                      {"name": "n", "always_true": false})");
    EXPECT_TRUE(config->checkExceptionGeneralRuleMatch({0.0f, true}));
    EXPECT_THAT(log(), IsEmpty());
    // The condition-less entry is passed over with a warning; a later one still matches.
    EXPECT_TRUE(config->checkExceptionGeneralRuleMatch({0.0f, false}));
    EXPECT_THAT(log(), ElementsAre(configWarning("no rule in this entry")));

    // A rule whose only element failed never matches and says nothing.
    mLog.clear();
    const PeltoExceptionRule* bad = nullptr;
    const PeltoExceptionRule* named = nullptr;
    ASSERT_TRUE(config->isExceptionLayer("bad", &bad) && config->isExceptionLayer("n", &named));
    EXPECT_FALSE(config->checkRuleMatch({100.0f, true}, *bad));
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_TRUE(config->checkRuleMatch({0.0f, true}, *named));
    EXPECT_FALSE(config->checkRuleMatch({0.0f, false}, *named));
    EXPECT_FALSE(config->checkRuleMatch({0.0f, false}, *named));
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
        hits += config.isExceptionLayer(missing, &rule);
        hits += config.isExceptionLayer(exception, nullptr);
        hits += config.hasExceptionGeneralRule() + config.isAlwaysOn();
        hits += config.useAdaptiveTimeout();
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
