#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeCompositor.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::dumpedState;
using test::FakeCompositor;
using test::LogCapture;
using test::ScopedRuleFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr unsigned int kScreen = 10000;

// Layer pointers: the compositor's own, only compared and printed.
const void* const kVideo = reinterpret_cast<const void*>(0x1000);
const void* const kGame = reinterpret_cast<const void*>(0x2000);
const void* const kSubtitle = reinterpret_cast<const void*>(0x3000);
const void* const kHud = reinterpret_cast<const void*>(0x4000);
const void* const kKeyboard = reinterpret_cast<const void*>(0x5000);
const void* const kStatusBar = reinterpret_cast<const void*>(0x6000);
const void* const kStranger = reinterpret_cast<const void*>(0x7000);

std::string rules(bool alwaysOn, const std::string& exceptionRules) {
    return std::string(R"({
      "target_layers": [
        { "name": "video", "ignore_names": ["subtitle"] },
        { "name": "game", "ignore_names": ["hud"] }
      ],
      "general_rule": { "on_when_has_other_layer": )") +
            (alwaysOn ? "true" : "false") + R"(, "use_adaptive_timeout": true },
      "exception_rule": [ )" +
            exceptionRules + "]}";
}

// Not always-on: other layers must be under 10 % of the screen, and the
// keyboard must not have focus, for the mode to stay on.
const std::string kMayStayOnRules = rules(false, R"(
    { "layer_screen_size_ratio": { "condition": "0", "value1": 10 } },
    { "name": "keyboard", "focus": false })");

class PeltoCompositionTest : public ::testing::Test {
protected:
    void start(const std::string& ruleText) {
        mRules = std::make_unique<ScopedRuleFile>(ruleText);
        mController = mHost.create(/*useList=*/true, mRules->platform());
        mController->registerLayer(kVideo, "video#0");
        mController->registerLayer(kGame, "game#1");
        mController->registerLayer(kSubtitle, "subtitle#0");
        mController->registerLayer(kHud, "hud#0");
        mController->registerLayer(kKeyboard, "keyboard#0");
        mController->registerLayer(kStatusBar, "StatusBar#0");
    }

    std::string show(std::vector<FakeCompositor::VisibleLayer> visible) {
        mHost.setVisibleBufferLayers(std::move(visible));
        mController->composite(false, false, kScreen);
        return dumpedState(*mController);
    }

    FakeCompositor mHost;
    std::unique_ptr<ScopedRuleFile> mRules;
    std::unique_ptr<PeltoController> mController;
};

TEST_F(PeltoCompositionTest, listModeOutcomesInTheirOrder) {
    start(kMayStayOnRules);

    EXPECT_EQ(show({{kVideo, 5000}}), "On 551");
    EXPECT_THAT(mHost.hwcCalls(), ElementsAre("on"));

    // A small other layer matches the general rule: the mode may stay on.
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 500}}), "On 551");
    // A large one does not.
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 2000}}), "Temp Off 518");
    EXPECT_THAT(mHost.hwcCalls(), ElementsAre("on", "off"));

    // The active target's own ignore layer is dropped, whatever its size.
    EXPECT_EQ(show({{kVideo, 5000}, {kSubtitle, 9000}}), "On 551");
    // Another target's ignore layer counts as an other layer.
    EXPECT_EQ(show({{kVideo, 5000}, {kHud, 9000}}), "Temp Off 518");

    // The keyboard's own rule: allowed without focus, not with it.
    EXPECT_EQ(show({{kVideo, 5000}, {kKeyboard, 3000, false}}), "On 551");
    EXPECT_EQ(show({{kVideo, 5000}, {kKeyboard, 3000, true}}), "Temp Off 547");
    // The general rule is tried first: 518 wins over 547. (Temp Off to Temp
    // Off is no change, so go through On to see the reason.)
    EXPECT_EQ(show({{kVideo, 5000}}), "On 551");
    EXPECT_EQ(show({{kVideo, 5000}, {kKeyboard, 3000, true}, {kStatusBar, 2000}}), "Temp Off 518");

    EXPECT_EQ(show({{kStatusBar, 500}}), "Off 455");
    EXPECT_EQ(show({{kVideo, 5000}}), "On 551");

    mController->composite(/*forceOff=*/true, false, kScreen);
    EXPECT_EQ(dumpedState(*mController), "Off 360");

    EXPECT_EQ(show({{kVideo, 5000}}), "On 551");
    mController->destroyLayer(kVideo);
    mController->destroyLayer(kGame);
    EXPECT_EQ(show({{kVideo, 5000}}), "Off 413");
    EXPECT_THAT(mHost.hwcCalls(),
                ElementsAre("on", "off", "on", "off", "on", "off", "on", "off", "on", "off", "on",
                            "off"));
}

TEST_F(PeltoCompositionTest, withoutGeneralRuleOtherLayersNeedAlwaysOn) {
    start(rules(false, R"({ "name": "keyboard", "always_true": true })"));
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 1}}), "Temp Off 511");
    // Exception layers alone do not count as other layers.
    EXPECT_EQ(show({{kVideo, 5000}, {kKeyboard, 1}}), "On 551");
}

TEST_F(PeltoCompositionTest, alwaysOnTurnsTheRulesIntoReasonsToGoOff) {
    start(rules(true, R"(
        { "layer_screen_size_ratio": { "condition": "1", "value1": 50 } },
        { "name": "keyboard", "focus": true })"));
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 4000}, {kKeyboard, 100, false}}), "On 551");
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 6000}}), "Temp Off 518");
    EXPECT_EQ(show({{kVideo, 5000}}), "On 551");
    EXPECT_EQ(show({{kVideo, 5000}, {kKeyboard, 100, true}}), "Temp Off 547");
}

TEST_F(PeltoCompositionTest, alwaysOnWithoutGeneralRuleIgnoresOtherLayers) {
    start(rules(true, ""));
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 9000}, {kHud, 9000}}), "On 551");
}

TEST_F(PeltoCompositionTest, screenAreaZeroGivesRatioZero) {
    start(kMayStayOnRules);
    mHost.setVisibleBufferLayers({{kVideo, 5000}, {kStatusBar, 1e9f}});
    mController->composite(false, false, 0);
    EXPECT_EQ(dumpedState(*mController), "On 551");

    PeltoLayer layer;
    layer.area = 2500.0f;
    layer.focused = true;
    const PeltoExceptionRuleInput input = mController->prepareExceptionInput(layer, 10000);
    EXPECT_FLOAT_EQ(input.layerScreenSizeRatio, 25.0f);
    EXPECT_TRUE(input.focus);
    EXPECT_EQ(mController->prepareExceptionInput(layer, 0).layerScreenSizeRatio, 0.0f);
}

TEST_F(PeltoCompositionTest, activeTargetSticksWhileVisibleAndMovesWithOneReset) {
    LogCapture log;
    start(kMayStayOnRules);
    mHost.clearRecords();

    show({{kVideo, 5000}, {kGame, 100}}); // video first: it becomes active
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 1);
    show({{kGame, 100}, {kVideo, 5000}}); // video still visible: stays active
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 1);
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));
    EXPECT_FALSE(mController->isActiveTargetLayer(kGame));

    show({{kGame, 100}}); // video gone: game takes over, with one reset
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 2);
    show({{kVideo, 5000}, {kGame, 100}}); // video back: game stays
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 2);
    EXPECT_TRUE(mController->isActiveTargetLayer(kGame));

    EXPECT_THAT(log.messages("PeltoController"),
                ::testing::IsSupersetOf(
                        {"active target layer: video#0", "active target layer: game#1"}));
    EXPECT_EQ(log.count("PeltoController", "active target layer: video#0"), 1u);
    EXPECT_EQ(log.count("PeltoController", "active target layer: game#1"), 1u);

    std::string out;
    mController->dump(out);
    EXPECT_THAT(out,
                HasSubstr("TargetLayer:\n\tvideo#0\n\t\tid: 0\n\t\tarea: 5000 focused: 0\n"
                          "\tgame#1\n\t\tid: 1\n\t\tcurrent active\n\t\tarea: 100 focused: 0\n"));
}

TEST_F(PeltoCompositionTest, activeTargetAnswerFollowsTheLayersFirstRecord) {
    start(kMayStayOnRules);
    EXPECT_FALSE(mController->isActiveTargetLayer(kVideo)); // nothing composited yet
    EXPECT_FALSE(mController->isActiveTargetLayer(nullptr));
    show({{kVideo, 5000}});
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));
    EXPECT_FALSE(mController->isActiveTargetLayer(nullptr));

    // A second record of the active layer leaves its first record, and the answer, as they were.
    mController->registerLayer(kVideo, "video#7");
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));
    // Destroying another layer changes nothing; destroying the layer ends it.
    mController->destroyLayer(kGame);
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));
    mController->destroyLayer(kVideo);
    EXPECT_FALSE(mController->isActiveTargetLayer(kVideo));
    // Registered again, it starts without the flag until a composition picks it.
    mController->registerLayer(kVideo, "video#8");
    EXPECT_FALSE(mController->isActiveTargetLayer(kVideo));
    show({{kVideo, 5000}});
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));

    // A reload classifies every layer afresh, with no active target.
    std::string out;
    mController->reloadConfigThenDump(out);
    EXPECT_FALSE(mController->isActiveTargetLayer(kVideo));
    show({{kVideo, 5000}});
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));

    // A pointer whose first record is not a target is never the active target,
    // even with a target record behind it: the traversal sees the first record.
    mController->registerLayer(kStatusBar, "video#9");
    show({{kStatusBar, 500}});
    EXPECT_FALSE(mController->isActiveTargetLayer(kStatusBar));
    EXPECT_TRUE(mController->isActiveTargetLayer(kVideo));
}

TEST_F(PeltoCompositionTest, unregisteredVisibleLayerIsWarnedAboutAndLeftOut) {
    LogCapture log;
    start(kMayStayOnRules);
    EXPECT_EQ(show({{kStranger, 9000}, {kVideo, 5000}}), "On 551");
    char expected[64];
    snprintf(expected, sizeof(expected), "%p not found in mLayers", kStranger);
    EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, "PeltoController", expected));
}

TEST_F(PeltoCompositionTest, aLayerVisitedTwiceIsJudgedByEachVisitsOwnArea) {
    start(kMayStayOnRules);
    // The first visit (90 %) fails the general rule even though the second
    // (5 %), which the registry keeps, would pass it.
    EXPECT_EQ(show({{kVideo, 5000}, {kStatusBar, 9000}, {kStatusBar, 500}}), "Temp Off 518");
    std::string out;
    mController->dump(out);
    EXPECT_THAT(out, HasSubstr("\tStatusBar#0\n\t\tarea: 500 focused: 0\n"));
}

TEST(PeltoCompositionApiTest, apiModeDecidesFromTheNamedTargetsVisibility) {
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    int target = 0;
    int other = 0;

    controller->setTargetLayer(&target);
    host.setVisibleLayers({&other, &target});
    controller->composite(false, false, kScreen);
    EXPECT_EQ(dumpedState(*controller), "Temp Off 391");
    // Off -> Off is no change, so 375 shows after another state.
    controller->setTargetLayer(nullptr);
    controller->composite(false, false, kScreen);
    EXPECT_EQ(dumpedState(*controller), "Off 375");
    controller->setTargetLayer(&target);
    controller->setPeltoEnable(true);
    controller->composite(false, true, kScreen);
    EXPECT_EQ(dumpedState(*controller), "On 389");
    host.setVisibleLayers({&other});
    controller->composite(false, false, kScreen);
    EXPECT_EQ(dumpedState(*controller), "Off 394");
    EXPECT_THAT(host.hwcCalls(), ElementsAre("on", "off"));

    host.setVisibleLayers({&target});
    controller->composite(true, false, kScreen);
    EXPECT_EQ(dumpedState(*controller), "Off 394"); // Off already: forceOff changes nothing

    // The registry and reload do nothing in API mode.
    controller->registerLayer(&target, "video#0");
    std::string out;
    controller->reloadConfigThenDump(out);
    EXPECT_THAT(out, IsEmpty());
    controller->dump(out);
    EXPECT_THAT(out, Not(HasSubstr("TargetLayer:")));
}

} // namespace
} // namespace android
