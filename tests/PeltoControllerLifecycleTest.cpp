#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeCompositor.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"
#include "support/RuleFile.h"
#include "support/SanitizedBuild.h"

namespace android {
namespace {

using test::counter;
using test::FakeCompositor;
using test::FakeTrace;
using test::LogCapture;
using test::ScopedFakeTrace;
using test::ScopedRuleFile;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

// Names of this process's threads, from /proc.
std::multiset<std::string> threadNames() {
    std::multiset<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return names;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        names.insert(name);
    }
    closedir(dir);
    return names;
}

// Waits, bounded, until `condition` holds; for what another thread or the
// kernel finishes on its own time.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

constexpr const char* kRules = R"({
  "target_layers": [ { "name": "video" } ],
  "general_rule": { "on_when_has_other_layer": true, "use_adaptive_timeout": false }
})";

TEST(PeltoControllerLifecycleTest, startsBothThreadsAndJoinsThemAtTeardown) {
    FakeCompositor host;
    const auto before = threadNames();
    ASSERT_EQ(before.count("PeltoFenceLoop"), 0u);
    {
        auto controller = host.create(/*useList=*/false);
        // The constructor names the fence thread; the timer's thread names
        // itself once it runs.
        EXPECT_EQ(threadNames().count("PeltoFenceLoop"), 1u);
        EXPECT_TRUE(eventually([] { return threadNames().count("TimerDispatch") == 1; }));
    }
    // Joined threads leave /proc a moment after the join returns.
    EXPECT_TRUE(eventually([] {
        const auto after = threadNames();
        return after.count("PeltoFenceLoop") == 0 && after.count("TimerDispatch") == 0;
    }));
}

TEST(PeltoControllerLifecycleTest, teardownWhileOnCallsNoCallback) {
    FakeCompositor host;
    auto controller = host.create(/*useList=*/false);
    int target = 0;
    host.setVisibleLayers({&target});
    controller->setTargetLayer(&target);
    controller->setPeltoEnable(true);
    controller->composite(false, false, 0);
    ASSERT_THAT(host.hwcCalls(), ElementsAre("on"));
    host.clearRecords();
    controller.reset();
    EXPECT_THAT(host.timeline(), IsEmpty());
    EXPECT_EQ(host.otherCalls(), 0);
}

TEST(PeltoControllerLifecycleTest, constructionCallsOnlyTheVsyncPeriodOnceAndTracesFourCounters) {
    ScopedFakeTrace trace(true);
    ScopedRuleFile rules(kRules);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true, rules.platform());

    EXPECT_EQ(host.vsyncPeriodCalls(), 1);
    EXPECT_EQ(host.otherCalls(), 0);
    EXPECT_THAT(host.vsyncCallbacks(), IsEmpty());
    EXPECT_THAT(host.hwcCalls(), IsEmpty());
    EXPECT_FALSE(controller->isOn());

    for (const char* name :
         {"PeltoHasPendingBuf", "PeltoState", "Pelto2-Q2QFps", "PeltoHasOtherUI"}) {
        EXPECT_THAT(FakeTrace::instance().counters(name), ElementsAre(counter(name, 0))) << name;
    }
    // The timer's alarm state is traced too, under the timer's name.
    EXPECT_THAT(FakeTrace::instance().counters("PeltoAlarmState"),
                ElementsAre(counter("PeltoAlarmState", 0)));

    std::string out;
    controller->dump(out);
    EXPECT_THAT(out, ::testing::HasSubstr("Pelto State: Off\nPelto State Reason: -1\n"));
}

TEST(PeltoControllerLifecycleTest, theOtherModesTraversalMayBeEmpty) {
    FakeCompositor host;
    PeltoController list(true, host.getLayerPtrFromHandle(), host.getBufferCountFromHandle(),
                         nullptr, host.traverseVisibleBufferLayers(), host.getCurrentVsyncPeriod(),
                         host.triggerVsyncCallback(), host.triggerEventQueueInvalidate(),
                         host.setHwcPeltoOn(), host.setHwcPeltoOff());
    PeltoController api(false, host.getLayerPtrFromHandle(), host.getBufferCountFromHandle(),
                        host.traverseVisibleLayers(), nullptr, host.getCurrentVsyncPeriod(),
                        host.triggerVsyncCallback(), host.triggerEventQueueInvalidate(),
                        host.setHwcPeltoOn(), host.setHwcPeltoOff());
    list.composite(false, false, 100);
    api.composite(false, false, 100);
    EXPECT_FALSE(list.isOn());
    EXPECT_FALSE(api.isOn());
}

TEST(PeltoControllerLifecycleTest, threadSetupRefusalsAreLoggedAndConstructionCompletes) {
    static std::atomic<int> attempts{0};
    PeltoController::PlatformCalls refuseAll;
    refuseAll.fenceThread = {
            [](pthread_t, const char*) { return ++attempts, ERANGE; },
            [](pthread_t, int) { return ++attempts, EPERM; },
            [](int, int) { return ++attempts, -1; },
            [](int, SchedPolicy) { return ++attempts, -1; },
    };
    // The timer cannot make its loop either: its thread keeps retrying.
    refuseAll.timer.pipe2 = [](int*, int) { return errno = EMFILE, -1; };
    LogCapture log;
    FakeCompositor host;
    auto refused = host.create(/*useList=*/false, refuseAll);

    EXPECT_EQ(attempts, 4); // every step is tried after a refusal
    EXPECT_THAT(
            log.lines("PeltoController"),
            ElementsAre(
                    test::LogLine{ANDROID_LOG_INFO, "PeltoController", "pthread_setname_np fail"},
                    test::LogLine{ANDROID_LOG_ERROR, "PeltoController",
                                  "Couldn't set SCHED_FIFO for pelto_fence_loop"},
                    test::LogLine{ANDROID_LOG_ERROR, "PeltoController",
                                  "set HAL_PRIORITY_URGENT_DISPLAY fail"},
                    test::LogLine{ANDROID_LOG_ERROR, "PeltoController", "set SP_FOREGROUND fail"}));
    EXPECT_THAT(log.lines("SchedulerTimer"),
                Contains(Field(&test::LogLine::message, "could not create TimerDispatch mPipes")));
    // The fence loop runs all the same, and teardown does not wait for the
    // timer's next attempt.
    refused->timeoutCallback();
    EXPECT_THAT(host.vsyncCallbacks(), ElementsAre(true));
    refused.reset();
}

// Builds a controller with the callback at `missing` (0-based, factory order)
// left empty; a second index may be left empty too.
void constructWithout(bool useList, int missing, int alsoMissing = -1) {
    FakeCompositor host;
    auto pick = [&](int index, auto callback) {
        return index == missing || index == alsoMissing ? decltype(callback)() : callback;
    };
    PeltoController controller(
            useList, pick(0, host.getLayerPtrFromHandle()),
            pick(1, host.getBufferCountFromHandle()), pick(2, host.traverseVisibleLayers()),
            pick(3, host.traverseVisibleBufferLayers()), pick(4, host.getCurrentVsyncPeriod()),
            pick(5, host.triggerVsyncCallback()), pick(6, host.triggerEventQueueInvalidate()),
            pick(7, host.setHwcPeltoOn()), pick(8, host.setHwcPeltoOff()));
}

TEST(PeltoControllerLifecycleDeathTest, eachRequiredCallbackIsAssertedWithItsTexts) {
    // The child re-executes the program to die from a clean start. Under an emulator the
    // kernel cannot execute the target's binary, so there the child is a plain fork, which is
    // safe as this thread is the only one when it forks (gtest still warns there, as it cannot
    // count the threads under the emulator).
    ::testing::FLAGS_gtest_death_test_style = test::kEmulatedBuild ? "fast" : "threadsafe";
    struct Case {
        bool useList;
        int missing;
        const char* cond;
        const char* msg;
    };
    const Case cases[] = {
            {true, 0, "mGetLayerPtrFromHandle == nullptr", "mGetLayerPtrFromHandle is nullptr"},
            {true, 1, "mGetBufferCountFromHandle == nullptr",
             "mGetBufferCountFromHandle is nullptr"},
            {true, 3, "mUseList && mTraverseVisibleBufferLayers == nullptr",
             "mTraverseVisibleBufferLayers is nullptr"},
            {false, 2, "!mUseList && mTraverseVisibleLayers == nullptr",
             "mTraverseVisibleLayers is nullptr"},
            {true, 4, "mGetCurrentVsyncPeriod == nullptr", "mGetCurrentVsyncPeriod is nullptr"},
            {true, 5, "mTriggerVsyncCallback == nullptr", "mTriggerVsyncCallback is nullptr"},
            {true, 6, "mTriggerEventQueueInvalidate == nullptr",
             "mTriggerEventQueueInvalidate is nullptr"},
            {true, 7, "mSetHwcPeltoOn == nullptr", "mSetHwcPeltoOn is nullptr"},
            {false, 8, "mSetHwcPeltoOff == nullptr", "mSetHwcPeltoOff is nullptr"},
    };
    for (const Case& c : cases) {
        // The brackets around the texts are matched with '.'.
        const std::string pattern =
                std::string("tag=PeltoController cond=.") + c.cond + ". msg=." + c.msg + ".";
        EXPECT_DEATH(constructWithout(c.useList, c.missing), pattern) << c.msg;
    }
    // Only the first failing check is reported.
    EXPECT_DEATH(constructWithout(true, 8, 0), "msg=.mGetLayerPtrFromHandle is nullptr.");
}

} // namespace
} // namespace android
