#include "bench/BenchHost.h"

#include <inttypes.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <cutils/trace.h>
#include <log/log.h>
#include <utils/Timers.h>

namespace android::bench {
namespace {

// Compositions that bring a fresh controller to its steady decision.
constexpr int kWarmUpCompositions = 4;

std::atomic<uint64_t> sLoggedLines{0};
std::atomic<uint64_t> sEnabledTags{0};
// Numbers each rule file, so that rigs alive at once keep files apart.
std::atomic<int> sRuleFiles{0};

void countingLogger(const struct __android_logger_data*, const char*) {
    sLoggedLines.fetch_add(1, std::memory_order_relaxed);
}

// The platform writes "B|pid|name", "E|pid" and "C|pid|name|value" to the
// trace buffer; here the text is made and dropped.
template <typename... Args>
void formatTraceEvent(const char* format, Args... args) {
    char buffer[1024];
    benchmark::DoNotOptimize(snprintf(buffer, sizeof(buffer), format, args...));
    benchmark::ClobberMemory();
}

} // namespace

RuleFileOnDisk::RuleFileOnDisk(const std::string& json)
      : mPath("/tmp/pelto_bench_" + std::to_string(getpid()) + "_" +
              std::to_string(sRuleFiles.fetch_add(1)) + ".json") {
    std::ofstream(mPath, std::ios::trunc) << json;
}

RuleFileOnDisk::~RuleFileOnDisk() {
    std::remove(mPath.c_str());
}

ListModeRig::ListModeRig(size_t registered, size_t visible)
      : scene(test::makeLayerScene(registered, visible)), rules(scene.ruleFile) {
    host.setVisibleBufferLayers(scene.visible);
    PeltoController::PlatformCalls platform;
    platform.ruleFilePath = rules.path();
    controller = host.create(/*useList=*/true, platform);
    for (const auto& registration : scene.registrations) {
        controller->registerLayer(registration.layerPtr, registration.name);
    }
    for (int i = 0; i < kWarmUpCompositions; ++i) {
        composite();
    }
    LOG_ALWAYS_FATAL_IF(!controller->isOn(), "the scene did not settle On");
}

void ListModeRig::composite() const {
    controller->composite(/*forceOff=*/false, /*compositeFlag=*/true,
                          test::LayerScene::kScreenArea);
}

ApiModeRig::ApiModeRig(size_t visible) {
    std::vector<const void*> layers;
    for (size_t i = 0; i < visible; ++i) {
        layers.push_back(reinterpret_cast<const void*>(uintptr_t{0x5a000000} + i * 0x400));
    }
    host.setVisibleLayers(layers);
    controller = host.create(/*useList=*/false);
    // The target is the last one visited, as a video surface under the UI.
    controller->setTargetLayer(layers.back());
    controller->setPeltoEnable(true);
    for (int i = 0; i < kWarmUpCompositions; ++i) {
        composite();
    }
    LOG_ALWAYS_FATAL_IF(!controller->isOn(), "the API-mode controller did not turn On");
}

void ApiModeRig::composite() const {
    controller->composite(/*forceOff=*/false, /*compositeFlag=*/true, 0);
}

const char* targetAtName(TargetAt at) {
    switch (at) {
        case TargetAt::First:
            return "first";
        case TargetAt::Last:
            return "last";
        case TargetAt::Absent:
            return "absent";
    }
    return "?";
}

Transaction::Transaction(ListModeRig& rig, size_t batch, TargetAt at)
      : mLookups(at == TargetAt::First ? 1 : batch),
        mHasTarget(at != TargetAt::Absent),
        mTimestamp(systemTime(SYSTEM_TIME_MONOTONIC) - test::LeanCompositor::kPeriod60Hz),
        mGetLayerPtrFromHandle(rig.host.getLayerPtrFromHandle()),
        mGetBufferCountFromHandle(rig.host.getBufferCountFromHandle()),
        mGetCurrentVsyncPeriod(rig.host.getCurrentVsyncPeriod()),
        mTriggerVsyncCallback(rig.host.triggerVsyncCallback()) {
    const sp<Fence> fence = new Fence();
    const size_t others = at == TargetAt::Absent ? batch : batch - 1;
    LOG_ALWAYS_FATAL_IF(others > rig.scene.visibleNonTargets.size(), "batch too large");
    for (size_t i = 0; i < others; ++i) {
        mStates.emplace_back(test::LeanCompositor::handleFor(rig.scene.visibleNonTargets[i]), true,
                             false, fence);
    }
    if (mHasTarget) {
        const auto position = at == TargetAt::First ? mStates.begin() : mStates.end();
        mStates.emplace(position, test::LeanCompositor::handleFor(rig.scene.activeTarget), true,
                        false, fence);
    }
}

void Transaction::run(PeltoController& controller) const {
    controller.setTransactionState(mStates, mTimestamp);
}

void Transaction::runFloor() const {
    void* layerPtr = nullptr;
    for (size_t i = 0; i < mLookups; ++i) {
        layerPtr = mGetLayerPtrFromHandle(std::get<0>(mStates[i]));
        benchmark::DoNotOptimize(layerPtr);
    }
    if (!mHasTarget) {
        return;
    }
    const sp<IBinder>& handle = std::get<0>(mStates[mLookups - 1]);
    nsecs_t sampled = systemTime(SYSTEM_TIME_MONOTONIC);
    benchmark::DoNotOptimize(sampled);
    const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    const long period = mGetCurrentVsyncPeriod();
    const int bufferCount = mGetBufferCountFromHandle(handle);
    if (bufferCount <= 1 && now - mTimestamp >= period / 10 * 9) {
        mTriggerVsyncCallback(true);
    }
}

void traverseBufferLayersFloor(const PeltoController::TraverseVisibleBufferLayers& traverse) {
    traverse([](const void*, float, bool) {});
}

void traverseLayersFloor(const PeltoController::TraverseVisibleLayers& traverse) {
    traverse([](const void*) {});
}

void installCountingLogger() {
    __android_log_set_logger(countingLogger);
}

uint64_t loggedLines() {
    return sLoggedLines.load(std::memory_order_relaxed);
}

void setGraphicsTracing(bool enabled) {
    sEnabledTags.store(enabled ? ATRACE_TAG_GRAPHICS : 0, std::memory_order_relaxed);
}

} // namespace android::bench

// The platform's trace entry points, as the library calls them.
extern "C" {

uint64_t atrace_get_enabled_tags() {
    return android::bench::sEnabledTags.load(std::memory_order_relaxed);
}

void atrace_begin_body(const char* name) {
    android::bench::formatTraceEvent("B|%d|%s", getpid(), name);
}

void atrace_end_body() {
    android::bench::formatTraceEvent("E|%d", getpid());
}

void atrace_int64_body(const char* name, int64_t value) {
    android::bench::formatTraceEvent("C|%d|%s|%" PRId64, getpid(), name, value);
}

} // extern "C"
