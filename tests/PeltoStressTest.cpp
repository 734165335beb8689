// Eight host threads call every entry point at once for a bounded number of
// operations, as a compositor's threads may. Under ThreadSanitizer (the tsan
// preset) this also checks for data races; a watchdog turns a deadlock into a
// failure instead of a hung run. Fences are real ones, so their last release
// happens on whichever thread drops them last, as on a device.
#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/FakeCompositor.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::dumpedState;
using test::FakeCompositor;
using test::ScopedRuleFile;

constexpr const char* kRulesA = R"({"target_layers": [{"name": "video", "ignore_names": ["sub"]}],
    "general_rule": {"on_when_has_other_layer": false, "use_adaptive_timeout": true},
    "exception_rule": [{"layer_screen_size_ratio": {"condition": "0", "value1": 20}},
                       {"name": "kbd", "focus": false}]})";
constexpr const char* kRulesB = R"({"target_layers": [{"name": "game"}, {"name": "video"}],
    "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": false},
    "exception_rule": [{"layer_screen_size_ratio": {"condition": "1", "value1": 90}}]})";

constexpr int kOperations = 400; // per worker thread

// A fence that has already signalled: an eventfd whose counter is not zero.
sp<Fence> signalledFence() {
    return new Fence(eventfd(1, EFD_CLOEXEC));
}
constexpr auto kWatchdogLimit = std::chrono::seconds(120);

// Aborts the test program if the workers have not finished in time.
class Watchdog {
public:
    Watchdog() : mThread([this] { watch(); }) {}
    ~Watchdog() {
        {
            std::lock_guard lock(mMutex);
            mDone = true;
        }
        mCondition.notify_all();
        mThread.join();
    }

private:
    void watch() {
        std::unique_lock lock(mMutex);
        if (!mCondition.wait_for(lock, kWatchdogLimit, [this] { return mDone; })) {
            fprintf(stderr, "watchdog: workers did not finish, a deadlock is likely\n");
            abort();
        }
    }
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mDone = false;
    std::thread mThread;
};

TEST(PeltoStressTest, everyEntryPointFromEightThreadsKeepsTheInvariants) {
    ScopedRuleFile rules(kRulesA);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true, rules.platform());
    static const char* const kNames[] = {"video#0", "game#0", "sub#0", "kbd#0", "bar#0", "game#1"};
    int layers[6] = {};
    std::vector<sp<IBinder>> handles;
    for (int& layer : layers) handles.push_back(host.handleFor(&layer));

    std::atomic<int> workersLeft{7};
    std::vector<std::thread> threads;
    auto worker = [&](auto body) {
        threads.emplace_back([&, body] {
            for (int i = 0; i < kOperations; ++i) body(i);
            --workersLeft;
        });
    };
    {
        Watchdog watchdog;
        // The composition thread runs until every worker is done.
        threads.emplace_back([&] {
            while (workersLeft > 0) {
                controller->composite(false, false, 1000);
                controller->commit();
            }
        });
        worker([&](int i) { // reloads alternate between two rule files
            rules.write(i % 2 ? kRulesA : kRulesB);
            std::string out;
            controller->reloadConfigThenDump(out);
        });
        worker([&](int i) { // registrations and destroys
            const int k = i % 6;
            if ((i / 6) % 2 == 0) {
                controller->registerLayer(&layers[k], kNames[k]);
            } else {
                controller->destroyLayer(&layers[k]);
            }
        });
        worker([&](int i) { // what the host shows
            std::vector<FakeCompositor::VisibleLayer> visible;
            for (int k = 0; k < 6; ++k) {
                if ((i >> k) & 1) visible.push_back({&layers[k], 100.0f * k, k == 3});
            }
            host.setVisibleBufferLayers(visible);
        });
        worker([&](int i) { // transactions
            controller->setTransactionState({{handles[i % 6], true, false, signalledFence()},
                                             {handles[(i + 1) % 6], false, false, nullptr}},
                                            i);
        });
        worker([&](int i) { // hints
            controller->setHasOtherUI(i % 2);
            controller->setHasPendingBuffer(&layers[i % 6]);
            controller->setSFInProgress(i % 3 == 0);
            const sp<Fence> fences[] = {Fence::NO_FENCE, signalledFence(), nullptr};
            controller->setPreviousPresentFence(fences[i % 3]);
            controller->queueFence(signalledFence()); // the fence thread drops it
        });
        worker([&](int) { // queries and dumps
            std::string out;
            controller->dump(out);
            controller->isOn();
            controller->isQ2QFull();
        });
        worker([&](int i) { // display mode changes, including unusable periods
            static const long kPeriods[] = {16'666'666, 8'333'333, 0, -1, 11'111'111};
            host.setVsyncPeriod(kPeriods[i % 5]);
            controller->onActiveModeUpdated();
        });
        for (auto& t : threads) t.join();
    }

    // HWC callbacks alternate strictly, starting with on.
    const auto hwc = host.hwcCalls();
    for (size_t i = 0; i < hwc.size(); ++i) {
        ASSERT_EQ(hwc[i], i % 2 == 0 ? "on" : "off") << "call " << i;
    }
    const std::string state = dumpedState(*controller);
    EXPECT_THAT(state, ::testing::MatchesRegex("(Off|On|Temp Off) [0-9-]+"));

    // The target count agrees with the TargetLayer records: with nothing
    // visible, a composition says 413 exactly when there is no target record.
    // A probe target ("video" is one under both rule files) first moves the
    // state away from Off, so that the composition's reason shows.
    int probe = 0;
    host.setVsyncPeriod(16'666'666);
    controller->registerLayer(&probe, "video#probe");
    host.setVisibleBufferLayers({{&probe, 10}});
    controller->composite(false, false, 1000);
    ASSERT_EQ(dumpedState(*controller), "On 551");
    controller->destroyLayer(&probe);
    std::string out;
    controller->dump(out);
    const size_t from = out.find("TargetLayer:\n") + 13;
    const bool hasTargetRecord = out.compare(from, 18, "TargetIgnoreLayer:") != 0;
    host.setVisibleBufferLayers({});
    controller->composite(false, false, 1000);
    EXPECT_EQ(dumpedState(*controller), hasTargetRecord ? "Off 455" : "Off 413") << out;
}

} // namespace
} // namespace android
