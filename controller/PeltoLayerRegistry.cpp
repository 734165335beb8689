#define LOG_TAG "PeltoController"

#include <log/log.h>

#include "controller/PeltoController.h"

namespace android {
namespace {

// Layer names carry a '#' suffix that the rule file leaves out: the rule file
// is searched with the name up to its last '#'.
std::string lookupKey(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name : name.substr(0, hash);
}

} // namespace

void PeltoController::registerLayer(const void* layerPtr, const std::string& name) {
    if (!mUseList) {
        return;
    }
    if (layerPtr == nullptr) {
        ALOGE("%s(), layerPtr == null", "registerLayer");
        return;
    }
    std::lock_guard config(mConfigMutex);
    registerLayerLocked(layerPtr, name);
}

void PeltoController::registerLayerLocked(const void* layerPtr, const std::string& name) {
    if (mConfig == nullptr) {
        return;
    }

    PeltoLayer record;
    record.layerPtr = layerPtr;
    record.name = name;

    // Classified outside mLayerMutex: the lookups hash the name.
    const std::string key = lookupKey(name);
    if (mConfig->isTargetLayer(key, &record.targetInfo)) {
        record.type = static_cast<int32_t>(PeltoLayerType::TargetLayer);
    } else if (mConfig->isTargetIgnoreLayer(key, &record.targetIgnoreInfo)) {
        record.type = static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer);
    } else if (mConfig->isExceptionLayer(key, &record.exceptionRule)) {
        record.type = static_cast<int32_t>(PeltoLayerType::ExceptionLayer);
    }
    const bool isTarget = record.type == static_cast<int32_t>(PeltoLayerType::TargetLayer);

    std::lock_guard lock(mLayerMutex);
    const auto it = mLayers.insert(mLayers.end(), std::move(record));
    // A pointer registered again keeps its first record as the one found.
    mLayerIndex.emplace(layerPtr, it);
    if (isTarget) {
        ++mTargetCandidateCount;
    }
}

void PeltoController::destroyLayer(const void* layerPtr) {
    if (!mUseList) {
        return;
    }
    // A destroy that arrives during a reload waits for it and is then applied,
    // so the reload cannot bring the layer back.
    std::lock_guard config(mConfigMutex);
    std::lock_guard lock(mLayerMutex);
    const auto indexed = mLayerIndex.find(layerPtr);
    if (indexed == mLayerIndex.end()) {
        return;
    }
    // No record of this pointer comes before the first one, which the index holds.
    auto it = indexed->second;
    mLayerIndex.erase(indexed);
    if (mActiveTargetLayerPtr.load() == layerPtr) {
        mActiveTargetLayerPtr = nullptr;
    }
    while (it != mLayers.end()) {
        if (it->layerPtr != layerPtr) {
            ++it;
            continue;
        }
        if (it->type == static_cast<int32_t>(PeltoLayerType::TargetLayer)) {
            if (mTargetCandidateCount > 0) {
                --mTargetCandidateCount;
            } else {
                ALOGE("mTargetCandidateCount < 0");
            }
        }
        it = mLayers.erase(it);
    }
}

bool PeltoController::isActiveTargetLayer(const void* layerPtr) const {
    if (!mUseList) {
        return layerPtr == mTargetLayer.load();
    }
    return layerPtr != nullptr && layerPtr == mActiveTargetLayerPtr.load();
}

} // namespace android
