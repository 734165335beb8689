#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeTrace.h"
#include "trace/PeltoTracedOrdinal.h"
#include "trace/TraceUtils.h"

namespace android {
namespace {

using test::counter;
using test::FakeTrace;
using test::ScopedFakeTrace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(PeltoTracedOrdinalTest, tracesOnceAtConstructionAndOnEveryAssignment) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<int32_t> v("PeltoState", 0);
    v = 1;
    v = 1; // the same value is traced again
    EXPECT_EQ(v.get(), 1);
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(counter("PeltoState", 0), counter("PeltoState", 1),
                            counter("PeltoState", 1)));
}

TEST(PeltoTracedOrdinalTest, negativeValuesGoToTheCompanionCounter) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<int32_t> v("X", 0);
    FakeTrace::instance().clear();
    v = 5;
    v = -3;
    v = 2;
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(counter("X", 5), counter("XNegative", 3), counter("X", 0),
                            counter("X", 2), counter("XNegative", 0)));
}

TEST(PeltoTracedOrdinalTest, mostNegativeValuesAreNegatedWithoutOverflow) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<int32_t> i32("I", 0);
    PeltoTracedOrdinal<int64_t> i64("L", 0);
    FakeTrace::instance().clear();
    i32 = std::numeric_limits<int32_t>::min();
    i64 = -std::numeric_limits<int64_t>::max();
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(counter("INegative", 2147483648LL), counter("I", 0),
                            counter("LNegative", std::numeric_limits<int64_t>::max()),
                            counter("L", 0)));
}

TEST(PeltoTracedOrdinalTest, boolNeverUsesTheCompanionCounter) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<bool> b("PeltoHasOtherUI", false);
    b = true;
    b = false;
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(counter("PeltoHasOtherUI", 0), counter("PeltoHasOtherUI", 1),
                            counter("PeltoHasOtherUI", 0)));
}

TEST(PeltoTracedOrdinalTest, tracingOffChangesTheValueAndEmitsNothing) {
    ScopedFakeTrace trace(false);
    PeltoTracedOrdinal<int64_t> v("Pelto2-Q2QFps", 0);
    v = -7;
    EXPECT_EQ(v.get(), -7);
    EXPECT_THAT(FakeTrace::instance().events(), IsEmpty());

    // everNegative was recorded while tracing was off: the first traced
    // non-negative value still resets the companion counter.
    FakeTrace::instance().setGraphicsEnabled(true);
    v = 60;
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(counter("Pelto2-Q2QFps", 60), counter("Pelto2-Q2QFpsNegative", 0)));
}

TEST(PeltoTracedOrdinalTest, tagSwitchedOffMidwayStopsTheRestOfTheEmission) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<int32_t> v("S", 0);
    FakeTrace::instance().clear();
    FakeTrace::instance().disableAfterCounters(1);
    v = -1;
    EXPECT_THAT(FakeTrace::instance().events(), ElementsAre(counter("SNegative", 1)));
}

TEST(PeltoTracedOrdinalTest, concurrentAssignmentsLeaveOneValueAndEachIsTraced) {
    ScopedFakeTrace trace(true);
    PeltoTracedOrdinal<int32_t> v("C", 0);
    FakeTrace::instance().clear();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&v, t] {
            for (int i = 0; i < kPerThread; ++i) v = (t % 2 == 0) ? t + 1 : -(t + 1);
        });
    }
    for (auto& th : threads) th.join();
    const int32_t last = v.get();
    EXPECT_TRUE(last == 1 || last == -2 || last == 3 || last == -4) << last;
    // Every assignment emitted its primary counter (0 for negatives) exactly once.
    EXPECT_EQ(FakeTrace::instance().counters("C").size(), size_t{kThreads * kPerThread});
}

TEST(TraceUtilsTest, atraceFormatBeginCutsLongNamesAt255Characters) {
    ScopedFakeTrace trace(true);
    const std::string longName(300, 'x');
    TraceUtils::atraceFormatBegin("%s-%d", longName.c_str(), 7);
    TraceUtils::atraceFormatBegin("short %d", 7);
    FakeTrace::instance().setGraphicsEnabled(false);
    TraceUtils::atraceFormatBegin("%s", "not traced");
    EXPECT_THAT(FakeTrace::instance().events(),
                ElementsAre(test::begin(std::string(255, 'x')), test::begin("short 7")));
}

} // namespace
} // namespace android
