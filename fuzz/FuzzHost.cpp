#include "fuzz/FuzzHost.h"

#include <utils/Timers.h>

#include "controller/PeltoEntryPoints.h"
#include "fuzz/FuzzSupport.h"

namespace android::fuzz {
namespace {

std::atomic<int64_t> sNow{0};

} // namespace

void setClock(int64_t now) {
    sNow = now;
}

int64_t clockNow() {
    return sNow;
}

PeltoController* FuzzHost::create(bool useList) {
    auto layerPtr = [this](const sp<IBinder>& handle) -> void* {
        const auto it = mHandles.find(handle.get());
        return it == mHandles.end() ? nullptr : const_cast<void*>(it->second.first);
    };
    auto bufferCount = [this](const sp<IBinder>& handle) {
        const auto it = mHandles.find(handle.get());
        return it == mHandles.end() ? 0 : it->second.second;
    };
    auto traverseLayers = [this](const PeltoController::LayerVisitor& visitor) {
        for (const VisibleLayer& layer : mVisible) visitor(layer.layerPtr);
    };
    auto traverseBufferLayers = [this](const PeltoController::BufferLayerVisitor& visitor) {
        for (const VisibleLayer& layer : mVisible) {
            visitor(layer.layerPtr, layer.area, layer.focused);
        }
    };
    auto period = [this]() -> long { return mPeriod; };
    auto vsync = [this](bool) { ++mVsyncCallbacks; };
    auto invalidate = [] { check(false, "the event-queue invalidate callback was called"); };
    auto hwcOn = [this] {
        check(!mHwcOn, "HWC mode switched on twice in a row");
        mHwcOn = true;
    };
    auto hwcOff = [this] {
        check(mHwcOn, "HWC mode switched off while not on");
        mHwcOn = false;
    };
    return createPeltoController(useList, layerPtr, bufferCount, traverseLayers,
                                 traverseBufferLayers, period, vsync, invalidate, hwcOn, hwcOff);
}

sp<IBinder> FuzzHost::makeHandle(const void* layerPtr) {
    sp<IBinder> handle = new BBinder();
    mHandles[handle.get()] = {layerPtr, 1};
    return handle;
}

void FuzzHost::setBufferCount(const sp<IBinder>& handle, int bufferCount) {
    const auto it = mHandles.find(handle.get());
    if (it != mHandles.end()) {
        it->second.second = bufferCount;
    }
}

} // namespace android::fuzz

nsecs_t systemTime(int /*clock*/) {
    return android::fuzz::sNow;
}
