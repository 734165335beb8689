#define LOG_TAG "PeltoController"

#include "controller/PeltoLayerRegistry.h"

#include <iterator>
#include <utility>

#include <log/log.h>

namespace android {
namespace {

constexpr int32_t kTarget = static_cast<int32_t>(PeltoLayerType::TargetLayer);

} // namespace

std::string PeltoLayerRegistry::lookupKey(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name : name.substr(0, hash);
}

void PeltoLayerRegistry::classify(const PeltoConfig& rules, const std::string& key,
                                  PeltoLayer& record) {
    if (rules.isTargetLayer(key, &record.targetInfo)) {
        record.type = kTarget;
    } else if (rules.isTargetIgnoreLayer(key, &record.targetIgnoreInfo)) {
        record.type = static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer);
    } else if (rules.isExceptionLayer(key, &record.exceptionRule)) {
        record.type = static_cast<int32_t>(PeltoLayerType::ExceptionLayer);
    }
}

PeltoLayerRegistry::Pending PeltoLayerRegistry::prepare(const void* layerPtr,
                                                        const std::string& name) {
    Pending pending;
    pending.node.push_back(PeltoLayer{layerPtr, name});
    pending.key = lookupKey(name);
    return pending;
}

void PeltoLayerRegistry::add(Pending&& pending, const PeltoConfig& rules) {
    PeltoLayer& record = pending.node.front();
    classify(rules, pending.key, record);
    if (record.type == kTarget) {
        ++mTargetCount;
    }
    const void* layerPtr = record.layerPtr;
    mLayers.splice(mLayers.end(), pending.node);
    const auto [indexed, added] =
            mIndex.try_emplace(layerPtr, IndexEntry{std::prev(mLayers.end()), 0});
    ++indexed->second.records;
    ++mGeneration;
}

void PeltoLayerRegistry::remove(const void* layerPtr) {
    const auto indexed = mIndex.find(layerPtr);
    if (indexed == mIndex.end()) {
        return;
    }
    // No record of this pointer comes before its first one, and the walk ends
    // with the last of its records.
    auto it = indexed->second.first;
    size_t remaining = indexed->second.records;
    mIndex.erase(indexed);
    ++mGeneration;
    if (mActiveTarget.load() == layerPtr) {
        mActiveTarget = nullptr;
    }
    while (remaining > 0 && it != mLayers.end()) {
        if (it->layerPtr != layerPtr) {
            ++it;
            continue;
        }
        if (it->type == kTarget) {
            if (mTargetCount > 0) {
                --mTargetCount;
            } else {
                ALOGE("mTargetCandidateCount < 0");
            }
        }
        it = mLayers.erase(it);
        --remaining;
    }
}

PeltoLayer* PeltoLayerRegistry::find(const void* layerPtr) {
    const auto indexed = mIndex.find(layerPtr);
    return indexed == mIndex.end() ? nullptr : &*indexed->second.first;
}

void PeltoLayerRegistry::setActiveTarget(const void* layerPtr) {
    for (PeltoLayer& record : mLayers) {
        if (record.type == kTarget) {
            record.isActiveTarget = record.layerPtr == layerPtr;
        }
    }
    const PeltoLayer* first = find(layerPtr);
    mActiveTarget = first != nullptr && first->isActiveTarget ? layerPtr : nullptr;
}

bool PeltoLayerRegistry::isActiveTarget(const void* layerPtr) const {
    return layerPtr != nullptr && layerPtr == mActiveTarget.load();
}

PeltoLayerRegistry::Reclassification PeltoLayerRegistry::snapshot() const {
    Reclassification reclassification;
    reclassification.generation = mGeneration;
    reclassification.records.reserve(mLayers.size());
    for (const PeltoLayer& record : mLayers) {
        reclassification.records.push_back(PeltoLayer{record.layerPtr, record.name});
    }
    return reclassification;
}

void PeltoLayerRegistry::classify(Reclassification& reclassification, const PeltoConfig& rules) {
    for (PeltoLayer& record : reclassification.records) {
        classify(rules, lookupKey(record.name), record);
    }
}

void PeltoLayerRegistry::apply(Reclassification&& reclassification, const PeltoConfig& rules) {
    const bool unchanged = reclassification.generation == mGeneration;
    mTargetCount = 0;
    mActiveTarget = nullptr;
    auto classified = reclassification.records.begin();
    for (PeltoLayer& record : mLayers) {
        // Records keep their places, so the index and the list order stand.
        std::string name = std::move(record.name);
        if (unchanged) {
            record = std::move(*classified++);
        } else {
            record = PeltoLayer{record.layerPtr, {}};
            classify(rules, lookupKey(name), record);
        }
        record.name = std::move(name);
        if (record.type == kTarget) {
            ++mTargetCount;
        }
    }
}

void PeltoLayerRegistry::dump(std::ostream& os) const {
    // One section per type; each walks the whole list, so records keep their
    // registration order. `details` writes the type's own lines of a record.
    const auto section = [&os, this](PeltoLayerType type, auto details) {
        os << peltoLayerTypeName(static_cast<int32_t>(type)) << ":\n";
        for (const PeltoLayer& layer : mLayers) {
            if (layer.type != static_cast<int32_t>(type)) continue;
            os << "\t" << layer.name << "\n";
            details(layer);
            os << "\t\tarea: " << layer.area << " focused: " << layer.focused << "\n";
        }
    };
    section(PeltoLayerType::TargetLayer, [&os](const PeltoLayer& layer) {
        if (layer.targetInfo != nullptr) {
            os << "\t\tid: " << layer.targetInfo->id << "\n";
        }
        if (layer.isActiveTarget) {
            os << "\t\tcurrent active\n";
        }
    });
    section(PeltoLayerType::TargetIgnoreLayer, [&os](const PeltoLayer& layer) {
        if (layer.targetIgnoreInfo != nullptr) {
            os << "\t\ttargetId: " << layer.targetIgnoreInfo->id << "\n";
        }
    });
    section(PeltoLayerType::ExceptionLayer, [](const PeltoLayer&) {});
    section(PeltoLayerType::Nobody, [](const PeltoLayer&) {});
}

} // namespace android
