#define LOG_TAG "PeltoController"

#include <log/log.h>

#include "controller/PeltoController.h"

namespace android {

void PeltoController::registerLayer(const void* layerPtr, const std::string& name) {
    if (!mUseList) {
        return;
    }
    if (layerPtr == nullptr) {
        ALOGE("%s(), layerPtr == null", "registerLayer");
        return;
    }
    // Allocations and the key are made before the lock is taken.
    PeltoLayerRegistry::Pending pending = PeltoLayerRegistry::prepare(layerPtr, name);
    std::lock_guard lock(mLayerMutex);
    if (mConfig != nullptr) {
        mRegistry.add(std::move(pending), *mConfig);
    }
}

void PeltoController::destroyLayer(const void* layerPtr) {
    if (!mUseList) {
        return;
    }
    // A reload reclassifies records in place under this lock, so a destroy
    // is applied either before or after it and is never undone by it. The
    // records are freed after the lock is released.
    std::list<PeltoLayer> removed;
    {
        std::lock_guard lock(mLayerMutex);
        removed = mRegistry.remove(layerPtr);
    }
}

bool PeltoController::isActiveTargetLayer(const void* layerPtr) const {
    if (!mUseList) {
        return layerPtr == mTargetLayer.load();
    }
    return registryLockFree().isActiveTarget(layerPtr);
}

} // namespace android
