#define LOG_TAG "PeltoController"

#include <sstream>
#include <vector>

#include "controller/PeltoController.h"

namespace android {
namespace {

constexpr const char* kSeparator = "==========\n";
// Records a dump copies per hold of the registry lock (about a microsecond),
// and room for their names.
constexpr size_t kDumpChunkRecords = 64;
constexpr size_t kDumpChunkNameBytes = 4096;
// Fresh starts after registry changes before a dump copies the rest in one hold.
constexpr int kDumpRestarts = 3;

} // namespace

void PeltoController::dump(std::string& out) const {
    // The rules are taken with the first chunk of records and formatted after
    // the lock is released, however large they are; a reload between two
    // chunks starts the records again, so the text shows one configuration.
    std::shared_ptr<const PeltoConfig> config;
    std::ostringstream os;
    if (mUseList) {
        PeltoLayerRegistry::DumpSections sections;
        PeltoLayerRegistry::DumpChunk chunk;
        chunk.records.reserve(kDumpChunkRecords);
        chunk.names.reserve(kDumpChunkNameBytes);
        PeltoLayerRegistry::DumpCursor cursor;
        // A registry that keeps changing is copied whole at the last try.
        for (int restarts = 0;;) {
            const size_t limit = restarts < kDumpRestarts ? kDumpChunkRecords : SIZE_MAX;
            PeltoLayerRegistry::DumpStep step;
            {
                std::lock_guard lock(mLayerMutex);
                if (!cursor.started) {
                    config = mConfig;
                }
                step = mRegistry.copyDumpChunk(cursor, chunk, limit);
            }
            if (step == PeltoLayerRegistry::DumpStep::Changed) {
                sections.clear();
                ++restarts;
                continue;
            }
            sections.append(chunk);
            if (step == PeltoLayerRegistry::DumpStep::Done) {
                break;
            }
        }
        os << kSeparator;
        sections.writeTo(os);
    } else {
        std::lock_guard lock(mLayerMutex);
        config = mConfig;
    }
    if (config != nullptr) {
        config->dump(out);
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
