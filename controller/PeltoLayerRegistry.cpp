#define LOG_TAG "PeltoController"

#include <log/log.h>

#include "controller/PeltoController.h"

namespace android {

std::string PeltoController::lookupKey(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name : name.substr(0, hash);
}

void PeltoController::registerLayer(const void* layerPtr, const std::string& name) {
    if (!mUseList) {
        return;
    }
    if (layerPtr == nullptr) {
        ALOGE("%s(), layerPtr == null", "registerLayer");
        return;
    }
    // The record and its lookup key are made before the lock is taken; the
    // record's list node is then moved into the registry without a copy.
    std::list<PeltoLayer> node;
    node.push_back(PeltoLayer{layerPtr, name});
    PeltoLayer& record = node.front();
    const std::string key = lookupKey(name);

    std::lock_guard lock(mLayerMutex);
    if (mConfig == nullptr) {
        return;
    }
    classify(*mConfig, key, record);
    ++mRegistryGeneration;
    if (record.type == static_cast<int32_t>(PeltoLayerType::TargetLayer)) {
        ++mTargetCandidateCount;
    }
    mLayers.splice(mLayers.end(), node);
    // A pointer registered again keeps its first record as the one found.
    const auto [indexed, added] =
            mLayerIndex.try_emplace(layerPtr, LayerIndexEntry{std::prev(mLayers.end()), 0});
    ++indexed->second.records;
}

void PeltoController::classify(const PeltoConfig& config, const std::string& key,
                               PeltoLayer& record) {
    if (config.isTargetLayer(key, &record.targetInfo)) {
        record.type = static_cast<int32_t>(PeltoLayerType::TargetLayer);
    } else if (config.isTargetIgnoreLayer(key, &record.targetIgnoreInfo)) {
        record.type = static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer);
    } else if (config.isExceptionLayer(key, &record.exceptionRule)) {
        record.type = static_cast<int32_t>(PeltoLayerType::ExceptionLayer);
    }
}

void PeltoController::destroyLayer(const void* layerPtr) {
    if (!mUseList) {
        return;
    }
    // A reload reclassifies records in place under this lock, so a destroy
    // is applied either before or after it and is never undone by it.
    std::lock_guard lock(mLayerMutex);
    const auto indexed = mLayerIndex.find(layerPtr);
    if (indexed == mLayerIndex.end()) {
        return;
    }
    // No record of this pointer comes before the first one, which the index
    // holds, and the walk ends with the last of its records.
    auto it = indexed->second.first;
    size_t remaining = indexed->second.records;
    mLayerIndex.erase(indexed);
    ++mRegistryGeneration;
    if (mActiveTargetLayerPtr.load() == layerPtr) {
        mActiveTargetLayerPtr = nullptr;
    }
    while (remaining > 0 && it != mLayers.end()) {
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
        --remaining;
    }
}

bool PeltoController::isActiveTargetLayer(const void* layerPtr) const {
    if (!mUseList) {
        return layerPtr == mTargetLayer.load();
    }
    return layerPtr != nullptr && layerPtr == mActiveTargetLayerPtr.load();
}

} // namespace android
