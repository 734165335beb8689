// Several host threads at once, as a compositor calls the library. Run under
// ThreadSanitizer (the tsan preset) these also check for data races. Fences are
// real ones, released last by whichever thread drops them last.
#include <sys/eventfd.h>

#include <atomic>
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
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kRulesA = R"({"target_layers": [{"name": "video"}],
    "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true}})";
constexpr const char* kRulesB = R"({"target_layers": [{"name": "video"}, {"name": "game"}],
    "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": false},
    "exception_rule": [{"layer_screen_size_ratio": {"condition": "1", "value1": 99}}]})";

TEST(PeltoConcurrencyTest, reloadsNeverShowCompositionAHalfBuiltRegistry) {
    ScopedRuleFile rules(kRulesA);
    FakeCompositor host;
    auto controller = host.create(/*useList=*/true, rules.platform());
    int video = 0;
    int churn[8] = {};
    controller->registerLayer(&video, "video#0");
    host.setVisibleBufferLayers({{&video, 100}});
    controller->composite(false, false, 1000);
    ASSERT_EQ(dumpedState(*controller), "On 551");

    constexpr int kRounds = 300;
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    // Composition thread: both rule files keep "video" a visible target, so
    // the state must stay On throughout.
    threads.emplace_back([&] {
        while (!done) controller->composite(false, false, 1000);
    });
    // Reloads alternate between the two rule files.
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; ++i) {
            rules.write(i % 2 ? kRulesA : kRulesB);
            std::string out;
            controller->reloadConfigThenDump(out);
        }
        done = true;
    });
    // Registrations and destroys of other layers; every one is destroyed last.
    threads.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            int* layer = &churn[i % 8];
            controller->registerLayer(layer, "game#" + std::to_string(i));
            controller->destroyLayer(layer);
        }
    });
    // Transactions, hints, dumps and queries from the rest.
    threads.emplace_back([&] {
        const sp<IBinder> handle = host.handleFor(&video);
        while (!done) {
            controller->setTransactionState(
                    {{handle, true, false, new Fence(eventfd(1, EFD_CLOEXEC))}}, 0);
            controller->isQ2QFull();
            controller->setHasOtherUI(true);
            controller->commit();
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            std::string out;
            controller->dump(out);
            controller->isOn();
            controller->onActiveModeUpdated();
            controller->setSFInProgress(true);
            controller->setPreviousPresentFence(new Fence(eventfd(1, EFD_CLOEXEC)));
            // The fence thread drops these; a bounded number keeps descriptors in check.
            if (i < kRounds) controller->queueFence(new Fence(eventfd(1, EFD_CLOEXEC)));
        }
    });
    for (auto& t : threads) t.join();

    EXPECT_EQ(dumpedState(*controller), "On 551");
    EXPECT_THAT(host.hwcCalls(), ::testing::ElementsAre("on"));
    std::string out;
    controller->dump(out);
    EXPECT_THAT(out, Not(HasSubstr("game#"))); // no destroyed layer came back
}

} // namespace
} // namespace android
