#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <binder/IBinder.h>

#include "controller/PeltoController.h"

namespace android::test {

// Plays the compositor where cost matters: for allocation checks and for
// benchmarks. Its callbacks allocate nothing, take no lock and look nothing
// up: the traversals iterate preallocated arrays, and a handle carries its own
// layer pointer and buffer count. They keep no thread-safe records, so a
// controller built on it is called from one thread only, and the visible
// layers are changed only between calls.
class LeanCompositor {
public:
    struct BufferLayer {
        const void* layerPtr = nullptr;
        float area = 0.0f;
        bool focused = false;
    };

    static constexpr long kPeriod60Hz = 16'666'666;

    // The controller in the given mode with all nine callbacks, built with `platform`.
    std::unique_ptr<PeltoController> create(bool useList,
                                            const PeltoController::PlatformCalls& platform = {});

    // The nine callbacks, for a caller that wraps one or calls them itself.
    PeltoController::GetLayerPtrFromHandle getLayerPtrFromHandle() const;
    PeltoController::GetBufferCountFromHandle getBufferCountFromHandle() const;
    PeltoController::TraverseVisibleLayers traverseVisibleLayers() const;
    PeltoController::TraverseVisibleBufferLayers traverseVisibleBufferLayers() const;
    PeltoController::GetCurrentVsyncPeriod getCurrentVsyncPeriod() const;
    PeltoController::TriggerVsyncCallback triggerVsyncCallback();
    PeltoController::HostCallback triggerEventQueueInvalidate();
    PeltoController::HostCallback setHwcPeltoOn();
    PeltoController::HostCallback setHwcPeltoOff();

    // Visible buffer layers (list mode) and visible layers (API mode), in
    // traversal order.
    void setVisibleBufferLayers(std::vector<BufferLayer> layers);
    void setVisibleLayers(std::vector<const void*> layers);

    // A handle that names layerPtr and reports bufferCount buffers queued.
    static sp<IBinder> handleFor(const void* layerPtr, int bufferCount = 1);

    // What the controller asked for.
    int vsyncCallbacks() const { return mVsyncCallbacks; }
    int hwcOnCalls() const { return mHwcOnCalls; }
    int hwcOffCalls() const { return mHwcOffCalls; }

private:
    std::vector<BufferLayer> mVisibleBufferLayers;
    std::vector<const void*> mVisibleLayers;
    int mVsyncCallbacks = 0;
    int mHwcOnCalls = 0;
    int mHwcOffCalls = 0;
};

} // namespace android::test
