#include <limits>

#include <android-base/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeClock.h"
#include "support/FakeCompositor.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"
#include "trace/PeltoTraceLog.h"

namespace android {
namespace {

using test::counter;
using test::FakeClock;
using test::FakeCompositor;
using test::FakeTrace;
using test::LogCapture;
using test::ScopedFakeTrace;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr int64_t k60Hz = 16'666'666;

// Reads one "\t<label>: <number>" line of the pacing block of the dump.
int64_t dumpedNumber(const PeltoController& controller, const std::string& label) {
    std::string out;
    controller.dump(out);
    const size_t at = out.find("\t" + label + ": ");
    if (at == std::string::npos) return std::numeric_limits<int64_t>::min();
    return std::stoll(out.substr(at + label.size() + 3));
}

// An API-mode controller whose target is visible and enabled, so that the
// first composition turns the mode On; time runs on a fake clock.
class PeltoPacingTest : public ::testing::Test {
protected:
    PeltoPacingTest() {
        mController->setTargetLayer(&mTarget);
        mController->setPeltoEnable(true);
        mHost.setVisibleLayers({&mTarget});
        mController->composite(false, false, 0);
        EXPECT_TRUE(mController->isOn());
    }

    // One transaction of the target, queued `age` ns before now.
    void queue(int64_t age = 0) {
        mController->setTransactionState({{mHandle, true, false, nullptr}}, mClock.now() - age);
    }

    // Samples at the given intervals, starting from an empty ring.
    void queueEvery(int64_t interval, int count) {
        for (int i = 0; i < count; ++i) {
            mClock.advance(interval);
            queue();
        }
    }

    FakeClock mClock;
    FakeCompositor mHost;
    int mTarget = 0;
    sp<IBinder> mHandle = mHost.handleFor(&mTarget);
    std::unique_ptr<PeltoController> mController = mHost.create(/*useList=*/false);
};

TEST_F(PeltoPacingTest, ringCapacityIsHalfTheRefreshRateInSinglePrecision) {
    const std::pair<long, int64_t> table[] = {
            {33'333'333, 15},
            {16'666'666, 30},
            {11'111'111, 45},
            {8'333'333, 60},
            {8'333'334, 59},
            {6'944'444, 72},
            {500'000'000, 1},
            {600'000'000, 0},
            {0, 0},
            {-16'666'666, 0},
            {std::numeric_limits<long>::max(), 0},
            {1, 500'000'000},
    };
    for (const auto& [period, capacity] : table) {
        mHost.setVsyncPeriod(period);
        mController->onActiveModeUpdated();
        EXPECT_EQ(dumpedNumber(*mController, "maxQueueCount"), capacity) << period;
        EXPECT_EQ(dumpedNumber(*mController, "currentPeriod"), period);
    }
}

TEST_F(PeltoPacingTest, averageNeedsFiveDurationsAndTheFirstSampleOnlyStoresItsTime) {
    ScopedFakeTrace trace(true);
    mHost.clearRecords();
    queueEvery(k60Hz, 1); // first sample: no duration, rate traced as 0
    // The first sample after a reset also passes the pause test once more.
    EXPECT_EQ(mHost.vsyncPeriodCalls(), 1 /*reset*/ + 1 /*threshold*/);
    queueEvery(k60Hz, 3);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 3);
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), 0);
    EXPECT_FALSE(mController->isQ2QFull());

    queueEvery(k60Hz, 1); // five samples, four durations
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), 0);
    queueEvery(k60Hz, 1); // the sixth gives the first average
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), k60Hz);
    EXPECT_TRUE(mController->isQ2QFull());
    EXPECT_THAT(FakeTrace::instance().counters("Pelto2-Q2QFps"),
                ElementsAre(counter("Pelto2-Q2QFps", 0), counter("Pelto2-Q2QFps", 0),
                            counter("Pelto2-Q2QFps", 0), counter("Pelto2-Q2QFps", 0),
                            counter("Pelto2-Q2QFps", 0), counter("Pelto2-Q2QFps", 60)));
    std::string out;
    mController->dump(out);
    EXPECT_THAT(out, HasSubstr("\tavgPeriod: 16666666 avgFps: 60\n"));
}

TEST_F(PeltoPacingTest, rateFollowsTheIntegerAverage) {
    ScopedFakeTrace trace(true);
    const std::pair<int64_t, int64_t> rates[] = {
            {18'333'333, 54}, {20'000'000, 50}, {33'333'333, 30}};
    for (const auto& [interval, fps] : rates) {
        mController->onActiveModeUpdated();
        queueEvery(interval, 6);
        EXPECT_EQ(FakeTrace::instance().counters("Pelto2-Q2QFps").back(),
                  counter("Pelto2-Q2QFps", fps));
    }
}

TEST_F(PeltoPacingTest, ringWrapsAtCapacityAndAveragesTheLatest) {
    queueEvery(20'000'000, 1);
    queueEvery(20'000'000, 2); // two slow durations, about to be overwritten
    queueEvery(k60Hz, 28);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 30);
    EXPECT_GT(dumpedNumber(*mController, "avgPeriod"), k60Hz);
    queueEvery(k60Hz, 1); // overwrites the oldest slow duration
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 30);
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), (20'000'000 + 29 * k60Hz) / 30);
    queueEvery(k60Hz, 1);
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), k60Hz);
}

TEST_F(PeltoPacingTest, aPauseOfMoreThanTenPeriodsRestartsTheRing) {
    queueEvery(k60Hz, 7);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 6);
    queueEvery(10 * k60Hz, 1); // exactly ten periods: kept
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 7);
    queueEvery(10 * k60Hz + 1, 1); // one nanosecond more: restarted
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 0);
    EXPECT_EQ(dumpedNumber(*mController, "avgPeriod"), 0);
}

TEST_F(PeltoPacingTest, q2qFullBelowOnePointOnePeriods) {
    queueEvery(18'333'332, 6);
    EXPECT_TRUE(mController->isQ2QFull());
    mController->onActiveModeUpdated();
    EXPECT_FALSE(mController->isQ2QFull()); // until five new durations
    queueEvery(18'333'333, 6);
    EXPECT_FALSE(mController->isQ2QFull());
    // The period is read afresh, not taken from the last reset.
    mHost.setVsyncPeriod(20'000'000);
    EXPECT_TRUE(mController->isQ2QFull());
}

TEST_F(PeltoPacingTest, vsyncIsRequestedWhenTheBufferIsOldEnoughAndAlone) {
    // 0.9 periods in single precision: 14,999,999 ns at 60 Hz.
    queue(14'999'999);
    queue(14'999'998);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(true));

    mHost.setBufferCount(mHandle, 2);
    queue(50'000'000);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(true));
    mHost.setBufferCount(mHandle, 0);
    queue(50'000'000);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(true, true));

    mHost.setVsyncPeriod(11'111'111); // threshold 10,000,000
    queue(10'000'000);
    queue(9'999'999);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(true, true, true));
}

TEST_F(PeltoPacingTest, onlyTheFirstElementOfTheTargetIsJudged) {
    int other = 0;
    const sp<IBinder> otherHandle = mHost.handleFor(&other);
    const sp<IBinder> unknownHandle = mHost.handleFor(nullptr);
    queueEvery(k60Hz, 1);
    mClock.advance(k60Hz);
    mController->setTransactionState({{nullptr, true, false, nullptr},
                                      {unknownHandle, true, false, nullptr},
                                      {otherHandle, true, false, nullptr},
                                      {mHandle, true, false, nullptr},
                                      {mHandle, true, false, nullptr}},
                                     mClock.now() - k60Hz);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 1);
    EXPECT_THAT(mHost.vsyncCallbacks(), ElementsAre(true));
}

TEST_F(PeltoPacingTest, nothingIsSampledUnlessOnAndTempOffKeepsTheAverage) {
    LogCapture log;
    queueEvery(k60Hz, 6);
    mController->setPeltoEnable(false);
    mController->composite(false, false, 0); // Temp Off 391
    EXPECT_TRUE(mController->isQ2QFull());   // no reset on the way to Temp Off
    queueEvery(k60Hz, 3);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 5);
    EXPECT_THAT(mHost.vsyncCallbacks(), IsEmpty());

    mController->setPeltoEnable(true);
    mController->composite(false, false, 0); // On
    mController->composite(true, false, 0);  // forced Off: the ring restarts
    EXPECT_FALSE(mController->isQ2QFull());
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 0);
}

TEST_F(PeltoPacingTest, aZeroPeriodStoresNothingAndNeverDivides) {
    mHost.setVsyncPeriod(0);
    mController->onActiveModeUpdated();
    queueEvery(k60Hz, 10);
    EXPECT_EQ(dumpedNumber(*mController, "queueCount"), 0);
    EXPECT_FALSE(mController->isQ2QFull());
    // Every transaction is at least 0 ns old: the threshold is 0.
    EXPECT_EQ(mHost.vsyncCallbacks().size(), 10u);
}

TEST_F(PeltoPacingTest, gatedLinesTellWhatTheTransactionPathDecided) {
    LogCapture log;
    base::SetProperty("vendor.debug.sf.show_pelto2_trace", "true");
    pelto_testing::resetDebugSwitch();

    queueEvery(k60Hz, 6);
    log.clear();
    mClock.advance(k60Hz);
    queue(15'000'000);
    mController->setTransactionState({{nullptr, false, false, nullptr}}, mClock.now());
    mController->isQ2QFull();
    EXPECT_THAT(log.messages("PeltoController"),
                ElementsAre("pelto2_sf_lib: setTransactionState, enter",
                            "pelto2_sf_lib: setTransactionState, duration=15000000, "
                            "periodThreshold=14999999, q2QThreshold=14166666, bufferCount=1",
                            "pelto2_sf_lib: setTransactionState, leave with triggerVsyncCallback",
                            "pelto2_sf_lib: setTransactionState, enter",
                            "pelto2_sf_lib: setTransactionState, no layerPtr",
                            "pelto2_sf_lib: setTransactionState, leave",
                            "pelto2_sf_lib: isQ2QFull, return true, avgQ2QPeriod=16666666"));

    base::SetProperty("vendor.debug.sf.show_pelto2_trace", "false");
    pelto_testing::resetDebugSwitch();
}

TEST(PeltoPacingListTest, onlyTheActiveTargetOfTheRegistryIsSampled) {
    test::ScopedRuleFile rules(R"({"target_layers": [{"name": "video"}, {"name": "game"}],
        "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true}})");
    FakeClock clock;
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true, rules.platform());
    int video = 0;
    int game = 0;
    controller->registerLayer(&video, "video#0");
    controller->registerLayer(&game, "game#0");
    host.setVisibleBufferLayers({{&video, 100}, {&game, 100}});
    controller->composite(false, false, 1000);
    ASSERT_TRUE(controller->isOn());

    const sp<IBinder> videoHandle = host.handleFor(&video);
    const sp<IBinder> gameHandle = host.handleFor(&game);
    for (int i = 0; i < 3; ++i) {
        clock.advance(k60Hz);
        controller->setTransactionState({{gameHandle, true, false, nullptr}}, clock.now());
        controller->setTransactionState({{videoHandle, true, false, nullptr}}, clock.now());
    }
    EXPECT_EQ(dumpedNumber(*controller, "queueCount"), 2);
}

} // namespace
} // namespace android
