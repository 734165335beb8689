#define LOG_TAG "PeltoController"

#include <sstream>
#include <vector>

#include "controller/PeltoController.h"

namespace android {
namespace {

constexpr const char* kSeparator = "==========\n";

} // namespace

void PeltoController::dump(std::string& out) const {
    // The rules and the records are taken under one hold of the lock, so they
    // show one configuration; both are formatted after it is released, so a
    // composition never waits for the text, however many layers there are.
    std::shared_ptr<const PeltoConfig> config;
    PeltoLayerRegistry::DumpSnapshot layers;
    {
        std::lock_guard lock(mLayerMutex);
        config = mConfig;
        if (mUseList) {
            mRegistry.snapshotForDump(layers);
        }
    }
    if (config != nullptr) {
        config->dump(out);
    }

    std::ostringstream os;
    if (mUseList) {
        os << kSeparator;
        PeltoLayerRegistry::dump(layers, os);
    }

    os << kSeparator;
    const uint64_t stateAndReason = mStateAndReason.load();
    os << "Pelto State: " << peltoStateName(static_cast<int32_t>(stateAndReason >> 32)) << "\n";
    os << "Pelto State Reason: " << static_cast<int32_t>(static_cast<uint32_t>(stateAndReason))
       << "\n";
    os << "HasOtherUI: " << mHasOtherUI.get() << "\n";
    os << "Fps: \n";
    mQ2QRing.dump(os);
    out += os.str();
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
    PeltoLayerRegistry::Reclassification reclassification;
    {
        std::lock_guard lock(mLayerMutex);
        reclassification = mRegistry.snapshot();
    }
    PeltoLayerRegistry::classify(reclassification, *reloaded);
    rules = std::move(reloaded);
    {
        // The new rules and every record's new classification appear at once.
        std::lock_guard lock(mLayerMutex);
        mConfig.swap(rules);
        mRegistry.apply(std::move(reclassification), *mConfig);
    }
    out += text;
    // `rules` now holds the replaced configuration; it is freed here, outside
    // the lock, or by the last dump still formatting it.
}

} // namespace android
