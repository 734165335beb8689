#include "fuzz/FuzzHost.h"

#include <utils/Timers.h>

#include "controller/PeltoEntryPoints.h"
#include "fuzz/FuzzSupport.h"

namespace android::fuzz {
namespace {

std::atomic<int64_t> sNow{0};

char gLayers[kSlots - 1];

} // namespace

void setClock(int64_t now) {
    sNow = now;
}

void advanceClock(int64_t step) {
    sNow += step;
}

int64_t clockNow() {
    return sNow;
}

const void* slotPointer(size_t slot) {
    slot %= kSlots;
    return slot < kSlots - 1 ? &gLayers[slot] : nullptr;
}

FuzzHost::FuzzHost() {
    for (sp<IBinder>& handle : mHandles) handle = new BBinder();
    reset();
}

void FuzzHost::reset() {
    mVisible.clear();
    mPeriod = kDefaultPeriod;
    for (std::atomic<int>& count : mBufferCounts) count = 1;
}

int FuzzHost::slotOf(const sp<IBinder>& handle) const {
    for (size_t slot = 0; slot < kSlots; ++slot) {
        if (mHandles[slot] == handle) return static_cast<int>(slot);
    }
    return -1;
}

PeltoController* FuzzHost::create(bool useList, const PeltoController::PlatformCalls& platform) {
    auto layerPtr = [this](const sp<IBinder>& handle) -> void* {
        const int slot = slotOf(handle);
        return slot < 0 ? nullptr : const_cast<void*>(slotPointer(slot));
    };
    auto bufferCount = [this](const sp<IBinder>& handle) {
        const int slot = slotOf(handle);
        return slot < 0 ? 0 : mBufferCounts[slot].load();
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
    auto hwcOn = [this] { check(!mHwcOn.exchange(true), "HWC mode switched on twice in a row"); };
    auto hwcOff = [this] { check(mHwcOn.exchange(false), "HWC mode switched off while not on"); };
    // Built as createPeltoController() builds it, with the input's platform
    // calls; destroyPeltoController() deletes it.
    return new PeltoController(useList, layerPtr, bufferCount, traverseLayers, traverseBufferLayers,
                               period, vsync, invalidate, hwcOn, hwcOff, platform);
}

} // namespace android::fuzz

nsecs_t systemTime(int /*clock*/) {
    return android::fuzz::sNow;
}
