#include "tools/sim/SimHost.h"

#include "tools/sim/RunRecord.h"
#include "tools/sim/SimClock.h"
#include "tools/sim/Simulation.h"
#include "tools/sim/TraceRecorder.h"

namespace android::tools::sim {

SimHost::SimHost(const std::vector<SimLayer>& layers, HwcListener hwc)
      : mLayers(layers), mHwc(std::move(hwc)) {}

bool SimHost::isVisible(const SimLayer& layer) const {
    return layer.registered &&
            inAnyWindow(layer.scenario->visible, virtualTime() - kVirtualBootOffset);
}

void SimHost::requestVsyncCallback() {
    TraceRecorder::instance().begin("vsync callback requested");
    TraceRecorder::instance().end();
    std::lock_guard lock(mCallbackMutex);
    if (mRequests.vsyncCallbacks.size() < kMaxKeptEntries) {
        mRequests.vsyncCallbacks.push_back(virtualTime() - kVirtualBootOffset);
    }
    ++mRequests.vsyncCallbackCount;
}

SimHost::Requests SimHost::requests() {
    std::lock_guard lock(mCallbackMutex);
    return mRequests;
}

PeltoController* SimHost::createController(PeltoLibrary& library, bool listMode) {
    return library.createPeltoController(
            listMode,
            [this](const sp<IBinder>& handle) -> void* {
                for (const SimLayer& layer : mLayers) {
                    if (layer.handle == handle) return const_cast<SimLayer*>(&layer);
                }
                return nullptr;
            },
            [this](const sp<IBinder>& handle) {
                for (const SimLayer& layer : mLayers) {
                    if (layer.handle == handle) return layer.scenario->bufferCount;
                }
                return 0;
            },
            [this](const PeltoController::LayerVisitor& visit) {
                for (const SimLayer& layer : mLayers) {
                    if (isVisible(layer)) visit(&layer);
                }
            },
            [this](const PeltoController::BufferLayerVisitor& visit) {
                const SimTime now = virtualTime() - kVirtualBootOffset;
                for (const SimLayer& layer : mLayers) {
                    if (!isVisible(layer) || !layer.scenario->hasBuffer) continue;
                    visit(&layer, layer.scenario->areaAt(now),
                          inAnyWindow(layer.scenario->focused, now));
                }
            },
            [this] { return static_cast<long>(mVsyncPeriod.load()); },
            [this](bool) { requestVsyncCallback(); },
            [this] {
                std::lock_guard lock(mCallbackMutex);
                ++mRequests.invalidateCalls;
            },
            [this] { mHwc(true); }, [this] { mHwc(false); });
}

} // namespace android::tools::sim
