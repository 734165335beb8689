#include "support/LeanCompositor.h"

#include <utility>

namespace android::test {
namespace {

// A layer handle that carries what the handle callbacks answer, so that
// answering costs one load.
class LayerHandle : public BBinder {
public:
    LayerHandle(const void* layerPtr, int bufferCount)
          : layerPtr(layerPtr), bufferCount(bufferCount) {}

    const void* const layerPtr;
    const int bufferCount;

protected:
    ~LayerHandle() override = default;
};

const LayerHandle* asLayerHandle(const sp<IBinder>& handle) {
    return static_cast<const LayerHandle*>(handle.get());
}

} // namespace

std::unique_ptr<PeltoController> LeanCompositor::create(
        bool useList, const PeltoController::PlatformCalls& platform) {
    return std::make_unique<PeltoController>(
            useList, getLayerPtrFromHandle(), getBufferCountFromHandle(), traverseVisibleLayers(),
            traverseVisibleBufferLayers(), getCurrentVsyncPeriod(), triggerVsyncCallback(),
            triggerEventQueueInvalidate(), setHwcPeltoOn(), setHwcPeltoOff(), platform);
}

PeltoController::GetLayerPtrFromHandle LeanCompositor::getLayerPtrFromHandle() const {
    return [](const sp<IBinder>& handle) -> void* {
        return handle == nullptr ? nullptr : const_cast<void*>(asLayerHandle(handle)->layerPtr);
    };
}

PeltoController::GetBufferCountFromHandle LeanCompositor::getBufferCountFromHandle() const {
    return [](const sp<IBinder>& handle) {
        return handle == nullptr ? 0 : asLayerHandle(handle)->bufferCount;
    };
}

PeltoController::TraverseVisibleLayers LeanCompositor::traverseVisibleLayers() const {
    return [this](const PeltoController::LayerVisitor& visitor) {
        for (const void* layer : mVisibleLayers) {
            visitor(layer);
        }
    };
}

PeltoController::TraverseVisibleBufferLayers LeanCompositor::traverseVisibleBufferLayers() const {
    return [this](const PeltoController::BufferLayerVisitor& visitor) {
        for (const BufferLayer& layer : mVisibleBufferLayers) {
            visitor(layer.layerPtr, layer.area, layer.focused);
        }
    };
}

PeltoController::GetCurrentVsyncPeriod LeanCompositor::getCurrentVsyncPeriod() const {
    return [] { return kPeriod60Hz; };
}

PeltoController::TriggerVsyncCallback LeanCompositor::triggerVsyncCallback() {
    return [this](bool) { ++mVsyncCallbacks; };
}

PeltoController::HostCallback LeanCompositor::triggerEventQueueInvalidate() {
    return [] {};
}

PeltoController::HostCallback LeanCompositor::setHwcPeltoOn() {
    return [this] { ++mHwcOnCalls; };
}

PeltoController::HostCallback LeanCompositor::setHwcPeltoOff() {
    return [this] { ++mHwcOffCalls; };
}

void LeanCompositor::setVisibleBufferLayers(std::vector<BufferLayer> layers) {
    mVisibleBufferLayers = std::move(layers);
}

void LeanCompositor::setVisibleLayers(std::vector<const void*> layers) {
    mVisibleLayers = std::move(layers);
}

sp<IBinder> LeanCompositor::handleFor(const void* layerPtr, int bufferCount) {
    return sp<IBinder>(new LayerHandle(layerPtr, bufferCount));
}

} // namespace android::test
