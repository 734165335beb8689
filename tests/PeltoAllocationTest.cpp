// The per-frame paths allocate nothing once warm: a composition in either mode
// and a transaction of the active target. Checked with the counting allocator
// on a compositor whose own callbacks allocate nothing.
#include <vector>

#include <gtest/gtest.h>

#include "controller/PeltoController.h"
#include "support/AllocationCounter.h"
#include "support/FakeClock.h"
#include "support/LayerScene.h"
#include "support/LeanCompositor.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::AllocationCounter;
using test::FakeClock;
using test::LayerScene;
using test::LeanCompositor;
using test::ScopedRuleFile;

constexpr int kWarmUp = 4;
constexpr int kSteady = 100;
constexpr int64_t k60Hz = LeanCompositor::kPeriod60Hz;
// More than the ring holds at 60 Hz, so that it has stopped growing.
constexpr int kTransactionsToFillRing = 40;

class PeltoAllocationTest : public ::testing::Test {
protected:
    // A list-mode controller with the scene registered and composited until On.
    void startListMode(size_t registered, size_t visible) {
        mScene = test::makeLayerScene(registered, visible);
        mRules = std::make_unique<ScopedRuleFile>(mScene.ruleFile);
        mHost.setVisibleBufferLayers(mScene.visible);
        mController = mHost.create(/*useList=*/true, mRules->platform());
        for (const auto& registration : mScene.registrations) {
            mController->registerLayer(registration.layerPtr, registration.name);
        }
        for (int i = 0; i < kWarmUp; ++i) {
            compositeOnce();
        }
        ASSERT_TRUE(mController->isOn());
        ASSERT_EQ(mHost.hwcOnCalls(), 1);
    }

    void compositeOnce() {
        mController->composite(/*forceOff=*/false, /*compositeFlag=*/true, LayerScene::kScreenArea);
    }

    // One transaction per vsync, each asking for a vsync callback.
    void transact(const std::vector<PeltoTransactionState>& states) {
        mClock.advance(k60Hz);
        mController->setTransactionState(states, mClock.now() - k60Hz);
    }

    FakeClock mClock;
    LeanCompositor mHost;
    LayerScene mScene;
    std::unique_ptr<ScopedRuleFile> mRules;
    std::unique_ptr<PeltoController> mController;
};

TEST_F(PeltoAllocationTest, steadyListCompositionAllocatesNothing) {
    startListMode(256, 64);

    AllocationCounter counter;
    for (int i = 0; i < kSteady; ++i) {
        compositeOnce();
    }
    EXPECT_EQ(counter.allocations(), 0u);
    EXPECT_TRUE(mController->isOn());
    EXPECT_EQ(mHost.hwcOnCalls(), 1);

    // The counter does see the library's allocations.
    mController->registerLayer(&counter, "com.example.late/com.example.late.MainActivity#1");
    EXPECT_GT(counter.allocations(), 0u);
}

TEST_F(PeltoAllocationTest, steadyApiCompositionAllocatesNothing) {
    const LayerScene scene = test::makeLayerScene(64, 64);
    std::vector<const void*> visible;
    for (const auto& layer : scene.visible) {
        visible.push_back(layer.layerPtr);
    }
    mHost.setVisibleLayers(visible);
    mController = mHost.create(/*useList=*/false);
    mController->setTargetLayer(scene.activeTarget);
    mController->setPeltoEnable(true);
    for (int i = 0; i < kWarmUp; ++i) {
        compositeOnce();
    }
    ASSERT_TRUE(mController->isOn());

    AllocationCounter counter;
    for (int i = 0; i < kSteady; ++i) {
        compositeOnce();
    }
    EXPECT_EQ(counter.allocations(), 0u);
    EXPECT_TRUE(mController->isOn());
}

TEST_F(PeltoAllocationTest, activeTargetTransactionsAllocateNothingOnceTheRingIsFull) {
    startListMode(256, 64);
    const sp<IBinder> target = LeanCompositor::handleFor(mScene.activeTarget);
    const sp<Fence> fence = new Fence();
    std::vector<PeltoTransactionState> alone = {{target, true, false, fence}};
    std::vector<PeltoTransactionState> first;
    std::vector<PeltoTransactionState> last;
    std::vector<PeltoTransactionState> absent;
    first.emplace_back(target, true, false, fence);
    for (size_t i = 0; i < 15; ++i) {
        const sp<IBinder> other = LeanCompositor::handleFor(mScene.visibleNonTargets[i]);
        first.emplace_back(other, true, false, fence);
        last.emplace_back(other, true, false, fence);
        absent.emplace_back(other, true, false, fence);
    }
    last.emplace_back(target, true, false, fence);
    absent.emplace_back(LeanCompositor::handleFor(mScene.visibleNonTargets[15]), true, false,
                        fence);

    for (int i = 0; i < kTransactionsToFillRing; ++i) {
        transact(alone);
    }
    const int vsyncCallbacksBefore = mHost.vsyncCallbacks();

    AllocationCounter counter;
    for (int i = 0; i < kSteady; ++i) {
        transact(alone);
        transact(first);
        transact(last);
        transact(absent);
    }
    EXPECT_EQ(counter.allocations(), 0u);
    // Every batch but the absent one reached the end of the path.
    EXPECT_EQ(mHost.vsyncCallbacks() - vsyncCallbacksBefore, 3 * kSteady);
    std::string dump;
    mController->dump(dump);
    EXPECT_NE(dump.find("queueCount: 30\n"), std::string::npos) << dump;
}

} // namespace
} // namespace android
