#define LOG_TAG "PeltoController"

#include <sstream>
#include <vector>

#include "controller/PeltoController.h"

namespace android {
namespace {

constexpr const char* kSeparator = "==========\n";

} // namespace

void PeltoController::dump(std::string& out) const {
    // The rules and the layer sections are taken under one hold of the lock,
    // so they show one configuration; the rules are formatted after it is
    // released, from the reference taken, however large they are.
    std::shared_ptr<const PeltoConfig> config;
    std::ostringstream os;
    {
        std::lock_guard lock(mLayerMutex);
        config = mConfig;
        if (mUseList) {
            dumpLayersLocked(os);
        }
    }
    if (config != nullptr) {
        config->dump(out);
    }

    os << kSeparator;
    os << "Pelto State: " << peltoStateName(mState.get()) << "\n";
    os << "Pelto State Reason: " << mStateReason.load() << "\n";
    os << "HasOtherUI: " << mHasOtherUI.get() << "\n";
    os << "Fps: \n";
    {
        std::lock_guard lock(mQ2QMutex);
        const float avgFps =
                mAvgQ2QPeriod != 0 ? 1e9f / static_cast<float>(mAvgQ2QPeriod) : 0.0f;
        os << "\tqueueCount: " << mQ2QDurations.size() << "\n";
        os << "\tmaxQueueCount: " << mMaxQueueCount << "\n";
        os << "\tavgPeriod: " << mAvgQ2QPeriod << " avgFps: " << avgFps << "\n";
        os << "\tcurrentPeriod: " << mCurrentPeriod << "\n";
    }
    out += os.str();
}

void PeltoController::dumpLayersLocked(std::ostream& os) const {
    // One section per type; each walks the whole list, so records keep their
    // registration order. `details` writes the type's own lines of a record.
    const auto section = [&os](const std::list<PeltoLayer>& layers, const char* heading,
                               PeltoLayerType type, auto details) {
        os << heading << "\n";
        for (const PeltoLayer& layer : layers) {
            if (layer.type != static_cast<int32_t>(type)) continue;
            os << "\t" << layer.name << "\n";
            details(layer);
            os << "\t\tarea: " << layer.area << " focused: " << layer.focused << "\n";
        }
    };

    os << kSeparator;
    section(mLayers, "TargetLayer:", PeltoLayerType::TargetLayer, [&os](const PeltoLayer& layer) {
        if (layer.targetInfo != nullptr) {
            os << "\t\tid: " << layer.targetInfo->id << "\n";
        }
        if (layer.isActiveTarget) {
            os << "\t\tcurrent active\n";
        }
    });
    section(mLayers, "TargetIgnoreLayer:", PeltoLayerType::TargetIgnoreLayer, [&os](const PeltoLayer& layer) {
        if (layer.targetIgnoreInfo != nullptr) {
            os << "\t\ttargetId: " << layer.targetIgnoreInfo->id << "\n";
        }
    });
    section(mLayers, "ExceptionLayer:", PeltoLayerType::ExceptionLayer, [](const PeltoLayer&) {});
    section(mLayers, "Nobody:", PeltoLayerType::Nobody, [](const PeltoLayer&) {});
}

void PeltoController::reloadConfigThenDump(std::string& out) {
    if (!mUseList) {
        return;
    }
    // Each reload starts from the switches and load status the last one left.
    std::lock_guard reload(mReloadMutex);
    std::shared_ptr<const PeltoConfig> rules;
    {
        std::lock_guard lock(mLayerMutex);
        rules = mConfig;
    }
    if (rules == nullptr) {
        return;
    }

    // The file is read, parsed and dumped with no lock that a composition,
    // a registration or a dump needs.
    std::unique_ptr<PeltoConfig> reloaded = PeltoConfig::makeReloadOf(*rules);
    std::string text = reloaded->loadConfig(true) == PeltoConfig::kLoadOk ? "Reload Succeeded\n"
                                                                          : "Reload Failed\n";
    reloaded->dump(text);

    // Every record is classified under the new rules aside too, from copies
    // of the registry's names, so the lock is held for the copy and the swap.
    std::vector<PeltoLayer> records;
    uint64_t generation;
    {
        std::lock_guard lock(mLayerMutex);
        generation = mRegistryGeneration;
        records.reserve(mLayers.size());
        for (const PeltoLayer& record : mLayers) {
            records.push_back(PeltoLayer{record.layerPtr, record.name});
        }
    }
    for (PeltoLayer& record : records) {
        classify(*reloaded, lookupKey(record.name), record);
    }
    rules = std::move(reloaded);

    {
        // The new rules and every record's new classification appear at once.
        // Records keep their places, so the index and the list order stand.
        std::lock_guard lock(mLayerMutex);
        mConfig.swap(rules);
        const bool unchanged = generation == mRegistryGeneration;
        mTargetCandidateCount = 0;
        mActiveTargetLayerPtr = nullptr;
        auto classified = records.begin();
        for (PeltoLayer& record : mLayers) {
            // Area, focus and the active flag start afresh with the new rules.
            std::string name = std::move(record.name);
            if (unchanged) {
                record = std::move(*classified++);
            } else {
                // Layers came or went meanwhile: classified here instead.
                record = PeltoLayer{record.layerPtr, {}};
                classify(*mConfig, lookupKey(name), record);
            }
            record.name = std::move(name);
            if (record.type == static_cast<int32_t>(PeltoLayerType::TargetLayer)) {
                ++mTargetCandidateCount;
            }
        }
    }
    out += text;
    // `rules` now holds the replaced configuration; it is freed here, outside
    // the lock, or by the last dump still formatting it.
}

} // namespace android
