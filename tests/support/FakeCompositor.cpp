#include "support/FakeCompositor.h"

namespace android::test {

FakeCompositor::FakeCompositor() = default;

std::unique_ptr<PeltoController> FakeCompositor::create(
        bool useList, const PeltoController::PlatformCalls& platform) {
    return std::make_unique<PeltoController>(
            useList, getLayerPtrFromHandle(), getBufferCountFromHandle(), traverseVisibleLayers(),
            traverseVisibleBufferLayers(), getCurrentVsyncPeriod(), triggerVsyncCallback(),
            triggerEventQueueInvalidate(), setHwcPeltoOn(), setHwcPeltoOff(), platform);
}

PeltoController::GetLayerPtrFromHandle FakeCompositor::getLayerPtrFromHandle() {
    return [this](const sp<IBinder>& handle) -> void* {
        std::lock_guard lock(mMutex);
        ++mOtherCalls;
        const auto it = mHandles.find(handle.get());
        return it == mHandles.end() ? nullptr : const_cast<void*>(it->second.first);
    };
}

PeltoController::GetBufferCountFromHandle FakeCompositor::getBufferCountFromHandle() {
    return [this](const sp<IBinder>& handle) {
        std::lock_guard lock(mMutex);
        ++mOtherCalls;
        const auto it = mHandles.find(handle.get());
        return it == mHandles.end() ? 0 : it->second.second;
    };
}

PeltoController::TraverseVisibleLayers FakeCompositor::traverseVisibleLayers() {
    return [this](const PeltoController::LayerVisitor& visitor) {
        std::vector<const void*> layers;
        {
            std::lock_guard lock(mMutex);
            ++mOtherCalls;
            layers = mVisibleLayers;
        }
        for (const void* layer : layers) visitor(layer);
    };
}

PeltoController::TraverseVisibleBufferLayers FakeCompositor::traverseVisibleBufferLayers() {
    return [this](const PeltoController::BufferLayerVisitor& visitor) {
        std::vector<VisibleLayer> layers;
        {
            std::lock_guard lock(mMutex);
            ++mOtherCalls;
            layers = mVisibleBufferLayers;
        }
        for (const auto& layer : layers) visitor(layer.layerPtr, layer.area, layer.focused);
    };
}

PeltoController::GetCurrentVsyncPeriod FakeCompositor::getCurrentVsyncPeriod() {
    return [this] {
        std::lock_guard lock(mMutex);
        ++mVsyncPeriodCalls;
        mTimeline.push_back("period");
        return mPeriod;
    };
}

PeltoController::TriggerVsyncCallback FakeCompositor::triggerVsyncCallback() {
    return [this](bool enable) {
        std::lock_guard lock(mMutex);
        mVsyncCallbacks.push_back(enable);
        mTimeline.push_back("vsync");
        mCondition.notify_all();
    };
}

PeltoController::HostCallback FakeCompositor::triggerEventQueueInvalidate() {
    return [this] {
        std::lock_guard lock(mMutex);
        ++mOtherCalls;
    };
}

PeltoController::HostCallback FakeCompositor::setHwcPeltoOn() {
    return [this] {
        std::lock_guard lock(mMutex);
        mHwcCalls.push_back("on");
        mTimeline.push_back("on");
    };
}

PeltoController::HostCallback FakeCompositor::setHwcPeltoOff() {
    return [this] {
        std::lock_guard lock(mMutex);
        mHwcCalls.push_back("off");
        mTimeline.push_back("off");
    };
}

void FakeCompositor::setVsyncPeriod(long period) {
    std::lock_guard lock(mMutex);
    mPeriod = period;
}

void FakeCompositor::setVisibleBufferLayers(std::vector<VisibleLayer> layers) {
    std::lock_guard lock(mMutex);
    mVisibleBufferLayers = std::move(layers);
}

void FakeCompositor::setVisibleLayers(std::vector<const void*> layers) {
    std::lock_guard lock(mMutex);
    mVisibleLayers = std::move(layers);
}

sp<IBinder> FakeCompositor::handleFor(const void* layerPtr, int bufferCount) {
    sp<IBinder> handle = new BBinder();
    std::lock_guard lock(mMutex);
    mHandles[handle.get()] = {layerPtr, bufferCount};
    return handle;
}

void FakeCompositor::setBufferCount(const sp<IBinder>& handle, int bufferCount) {
    std::lock_guard lock(mMutex);
    mHandles[handle.get()].second = bufferCount;
}

int FakeCompositor::vsyncPeriodCalls() const {
    std::lock_guard lock(mMutex);
    return mVsyncPeriodCalls;
}

std::vector<bool> FakeCompositor::vsyncCallbacks() const {
    std::lock_guard lock(mMutex);
    return mVsyncCallbacks;
}

std::vector<std::string> FakeCompositor::hwcCalls() const {
    std::lock_guard lock(mMutex);
    return mHwcCalls;
}

std::vector<std::string> FakeCompositor::timeline() const {
    std::lock_guard lock(mMutex);
    return mTimeline;
}

int FakeCompositor::otherCalls() const {
    std::lock_guard lock(mMutex);
    return mOtherCalls;
}

bool FakeCompositor::waitForVsyncCallbacks(size_t n, std::chrono::seconds limit) {
    std::unique_lock lock(mMutex);
    return mCondition.wait_for(lock, limit, [&] { return mVsyncCallbacks.size() >= n; });
}

void FakeCompositor::clearRecords() {
    std::lock_guard lock(mMutex);
    mVsyncPeriodCalls = 0;
    mOtherCalls = 0;
    mVsyncCallbacks.clear();
    mHwcCalls.clear();
    mTimeline.clear();
}

std::string dumpedState(const PeltoController& controller) {
    std::string out;
    controller.dump(out);
    const std::string stateLabel = "Pelto State: ";
    const std::string reasonLabel = "Pelto State Reason: ";
    const size_t state = out.find(stateLabel);
    const size_t reason = out.find(reasonLabel);
    if (state == std::string::npos || reason == std::string::npos) return "?";
    const size_t stateEnd = out.find('\n', state);
    const size_t reasonEnd = out.find('\n', reason);
    return out.substr(state + stateLabel.size(), stateEnd - state - stateLabel.size()) + " " +
            out.substr(reason + reasonLabel.size(), reasonEnd - reason - reasonLabel.size());
}

} // namespace android::test
