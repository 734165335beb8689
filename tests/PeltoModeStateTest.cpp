#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeCompositor.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"
#include "trace/PeltoTraceLog.h"

#include <android-base/properties.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

namespace android {
namespace {

using test::counter;
using test::dumpedState;
using test::FakeCompositor;
using test::FakeTrace;
using test::LogCapture;
using test::ScopedFakeTrace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// An API-mode controller whose target is visible; the test moves it through
// the states with the calls a compositor makes.
class PeltoModeStateTest : public ::testing::Test {
protected:
    PeltoModeStateTest() {
        mController->setTargetLayer(&mTarget);
        mHost.setVisibleLayers({&mTarget});
    }
    // Composites with the target visible or not, and enabled or not.
    void compositeWith(bool visible, bool enabled) {
        mHost.setVisibleLayers(visible ? std::vector<const void*>{&mTarget}
                                       : std::vector<const void*>{});
        mController->setPeltoEnable(enabled);
        mController->composite(false, false, 0);
    }

    int mTarget = 0;
    FakeCompositor mHost;
    std::unique_ptr<PeltoController> mController = mHost.create(/*useList=*/false);
};

TEST_F(PeltoModeStateTest, transitionsCallTheHwcOnlyWhenCrossingOn) {
    LogCapture log;
    ScopedFakeTrace trace(true);
    mHost.clearRecords();

    compositeWith(true, false); // Off -> Temp Off: nothing else
    EXPECT_THAT(mHost.timeline(), IsEmpty());
    EXPECT_EQ(dumpedState(*mController), "Temp Off 391");

    compositeWith(true, true); // Temp Off -> On
    EXPECT_THAT(mHost.timeline(), ElementsAre("on"));
    EXPECT_TRUE(mController->isOn());
    compositeWith(true, true); // same state: nothing at all
    EXPECT_THAT(mHost.timeline(), ElementsAre("on"));

    compositeWith(true, false); // On -> Temp Off: HWC off, no reset
    EXPECT_THAT(mHost.timeline(), ElementsAre("on", "off"));

    compositeWith(false, false); // Temp Off -> Off: nothing else
    EXPECT_THAT(mHost.timeline(), ElementsAre("on", "off"));

    compositeWith(true, true); // Off -> On
    mHost.clearRecords();
    mController->composite(true, false, 0); // On -> Off: reset, then HWC off
    EXPECT_THAT(mHost.timeline(), ElementsAre("period", "off"));
    EXPECT_EQ(dumpedState(*mController), "Off 360");

    EXPECT_THAT(
            log.messages("PeltoController"),
            ElementsAre("setPeltoState, Off -> Temp Off, 391\n",
                        "setPeltoState, Temp Off -> On, 389\n",
                        "setPeltoState, On -> Temp Off, 391\n",
                        "setPeltoState, Temp Off -> Off, 394\n", "setPeltoState, Off -> On, 389\n",
                        "setPeltoState, On -> Off, 360\n", "from on to off, re-register vsync\n"));
    EXPECT_THAT(FakeTrace::instance().counters("PeltoState"),
                ElementsAre(counter("PeltoState", 2), counter("PeltoState", 1),
                            counter("PeltoState", 2), counter("PeltoState", 0),
                            counter("PeltoState", 1), counter("PeltoState", 0)));
}

TEST_F(PeltoModeStateTest, pendingBufferFlagFollowsTheTargetAndCommitWhileOn) {
    int layer = 0;
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    ScopedFakeTrace trace(true);
    // No target yet: a null handle equals the null target.
    controller->setHasPendingBuffer(nullptr);
    controller->setTargetLayer(&layer);
    controller->setHasPendingBuffer(&layer);
    controller->setHasPendingBuffer(&mHost); // another layer: ignored
    controller->commit();                    // Off: unchanged
    host.setVisibleLayers({&layer});
    controller->setPeltoEnable(true);
    controller->composite(false, false, 0); // On
    controller->commit();
    controller->commit(); // traced again even though already false
    EXPECT_THAT(FakeTrace::instance().counters("PeltoHasPendingBuf"),
                ElementsAre(counter("PeltoHasPendingBuf", 1), counter("PeltoHasPendingBuf", 1),
                            counter("PeltoHasPendingBuf", 0), counter("PeltoHasPendingBuf", 0)));

    controller->setHasOtherUI(true);
    EXPECT_THAT(FakeTrace::instance().counters("PeltoHasOtherUI"),
                ElementsAre(counter("PeltoHasOtherUI", 1)));
    std::string out;
    controller->dump(out);
    EXPECT_THAT(out, ::testing::HasSubstr("HasOtherUI: 1\n"));
}

TEST_F(PeltoModeStateTest, setTargetLayerResetsThePaceOnlyForANewLayer) {
    int b = 0;
    mHost.clearRecords();
    mController->setTargetLayer(&mTarget); // the target it already has
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 0);
    mController->setTargetLayer(&b);
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 1);
    mController->setTargetLayer(&mTarget);
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 2);

    mController->triggerVsyncCallback(false);
    mController->triggerVsyncCallback(true);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(false, true));
}

TEST(PeltoModeStateListTest, apiCallsUnderListModeLogAnErrorButStoreTheirValue) {
    test::ScopedRuleFile rules(R"({"target_layers": [{"name": "video"}],
        "general_rule": {"on_when_has_other_layer": false, "use_adaptive_timeout": true}})");
    LogCapture log;
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true, rules.platform());
    int layer = 0;
    host.clearRecords();
    controller->setPeltoEnable(true);
    controller->setTargetLayer(&layer);
    EXPECT_EQ(log.count("PeltoController", "api no effect under use list"), 2u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "PeltoController", "api no effect under use list"));
    // The stored target still counts for the pending-buffer hint, and the
    // new target still reset the pace.
    EXPECT_EQ(host.vsyncPeriodCalls(), 1);
    ScopedFakeTrace trace(true);
    controller->setHasPendingBuffer(&layer);
    EXPECT_THAT(FakeTrace::instance().counters("PeltoHasPendingBuf"),
                ElementsAre(counter("PeltoHasPendingBuf", 1)));
}

TEST(PeltoTraceLogTest, debugSwitchIsReadOnceAndGatesTheTraceLines) {
    LogCapture log;
    ScopedFakeTrace trace(true);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);

    // Switch off at the first read: later changes of the property are ignored.
    base::SetProperty("vendor.debug.sf.show_pelto2_trace", "false");
    pelto_testing::resetDebugSwitch();
    controller->onActiveModeUpdated();
    base::SetProperty("vendor.debug.sf.show_pelto2_trace", "true");
    controller->onActiveModeUpdated();
    EXPECT_EQ(log.count("PeltoController", "pelto2_sf_lib: onActiveModeUpdated"), 0u);

    int target = 0;
    controller->setTargetLayer(&target);
    controller->setPeltoEnable(true);
    host.setVisibleLayers({&target});
    // Switch on at the first read: each line is logged inside a section of its text.
    pelto_testing::resetDebugSwitch();
    FakeTrace::instance().clear();
    controller->composite(false, false, 0);
    EXPECT_THAT(log.messages("PeltoController"),
                ElementsAre("pelto2_sf_lib: setPeltoState, Off -> On, 389\n",
                            "setPeltoState, Off -> On, 389\n"));
    const auto events = FakeTrace::instance().events();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[0], test::begin("pelto2_sf_lib: setPeltoState, Off -> On, 389\n"));
    EXPECT_EQ(events[1], test::end());

    // With graphics tracing off the line is still logged, with no section.
    FakeTrace::instance().setGraphicsEnabled(false);
    log.clear();
    controller->onActiveModeUpdated();
    EXPECT_THAT(log.messages("PeltoController"),
                ElementsAre("pelto2_sf_lib: onActiveModeUpdated", "pelto2_sf_lib: resetFpsLocked"));
    FakeTrace::instance().setGraphicsEnabled(true);

    base::SetProperty("vendor.debug.sf.show_pelto2_trace", "false");
    pelto_testing::resetDebugSwitch();
}

TEST(PeltoThrowingHostTest, stateAndHwcAgreeAgainAfterACallbackThrows) {
#if !defined(__cpp_exceptions)
    GTEST_SKIP() << "built without exceptions: a host callback cannot throw through the library";
#else
    FakeCompositor host;
    bool throwOnHwcOn = true;
    bool throwOnPeriod = false;
    const auto period = host.getCurrentVsyncPeriod();
    const auto hwcOn = host.setHwcPeltoOn();
    PeltoController controller(
            false, host.getLayerPtrFromHandle(), host.getBufferCountFromHandle(),
            host.traverseVisibleLayers(), host.traverseVisibleBufferLayers(),
            [&] {
                if (throwOnPeriod) throw std::runtime_error("period");
                return period();
            },
            host.triggerVsyncCallback(), host.triggerEventQueueInvalidate(),
            [&] {
                if (throwOnHwcOn) throw std::runtime_error("hwc on");
                hwcOn();
            },
            host.setHwcPeltoOff());
    int target = 0;
    host.setVisibleLayers({&target});
    controller.setTargetLayer(&target);
    controller.setPeltoEnable(true);

    // The HWC refuses to switch: the state is On, and the next composition
    // asks again instead of believing the HWC is in Pelto mode.
    EXPECT_THROW(controller.composite(false, false, 0), std::runtime_error);
    EXPECT_EQ(dumpedState(controller), "On 389");
    EXPECT_THAT(host.hwcCalls(), IsEmpty());
    throwOnHwcOn = false;
    controller.composite(false, false, 0);
    EXPECT_THAT(host.hwcCalls(), ElementsAre("on"));

    // On -> Off stops in the pacing reset, before the HWC is switched off;
    // the next composition switches it off.
    host.setVisibleLayers({});
    throwOnPeriod = true;
    EXPECT_THROW(controller.composite(false, false, 0), std::runtime_error);
    EXPECT_EQ(dumpedState(controller), "Off 394");
    EXPECT_THAT(host.hwcCalls(), ElementsAre("on"));
    throwOnPeriod = false;
    controller.composite(false, false, 0);
    EXPECT_THAT(host.hwcCalls(), ElementsAre("on", "off"));
    // Nothing was left locked.
    std::string out;
    controller.dump(out);
    controller.composite(true, false, 0);
#endif
}

TEST(PeltoStatePairTest, aDumpNeverShowsAStateWithAnotherStatesReason) {
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    int target = 0;
    host.setVisibleLayers({&target});
    controller->setTargetLayer(&target);

    std::atomic<bool> done{false};
    std::thread composition([&] {
        for (bool enable = false; !done; enable = !enable) {
            controller->setPeltoEnable(enable);
            controller->composite(false, false, 0); // On 389 / Temp Off 391
        }
    });
    std::set<std::string> seen;
    for (int i = 0; i < 20000; ++i) {
        seen.insert(dumpedState(*controller));
    }
    done = true;
    composition.join();
    seen.erase("Off -1");
    for (const std::string& pair : seen) {
        EXPECT_TRUE(pair == "On 389" || pair == "Temp Off 391") << pair;
    }
}

} // namespace
} // namespace android
