#define LOG_TAG "PeltoController"

#include <sstream>
#include <vector>

#include "controller/PeltoController.h"

namespace android {
namespace {

constexpr const char* kSeparator = "==========\n";

} // namespace

void PeltoController::dump(std::string& out) const {
    // Held throughout, so the text shows one configuration, never a mix of
    // the rules before and after a reload.
    std::lock_guard config(mConfigMutex);
    if (mConfig != nullptr) {
        mConfig->dump(out);
    }

    std::ostringstream os;
    if (mUseList) {
        std::lock_guard lock(mLayerMutex);
        dumpLayersLocked(os);
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
    if (!mUseList || mConfig == nullptr) {
        return;
    }
    // No composition, registration, destroy or dump runs until the rules are
    // replaced and every layer is classified again.
    std::lock_guard config(mConfigMutex);

    out += mConfig->loadConfig(true) == PeltoConfig::kLoadOk ? "Reload Succeeded\n"
                                                             : "Reload Failed\n";
    mConfig->dump(out);

    std::vector<const void*> layerPtrs;
    std::vector<std::string> names;
    {
        std::lock_guard lock(mLayerMutex);
        layerPtrs.reserve(mLayers.size());
        names.reserve(mLayers.size());
        for (const PeltoLayer& layer : mLayers) {
            layerPtrs.push_back(layer.layerPtr);
            names.push_back(layer.name);
        }
        mLayers.clear();
        mLayerIndex.clear();
        mActiveTargetLayerPtr = nullptr;
        mTargetCandidateCount = 0;
    }
    for (size_t i = 0; i < layerPtrs.size(); ++i) {
        registerLayerLocked(layerPtrs[i], names[i]);
    }
}

} // namespace android
