#define LOG_TAG "PeltoController"

#include "controller/PeltoLayerRegistry.h"

#include <iterator>
#include <utility>

#include <log/log.h>

namespace android {
namespace {

constexpr int32_t kTarget = static_cast<int32_t>(PeltoLayerType::TargetLayer);

} // namespace

size_t PeltoLayerRegistry::lookupKeyLength(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name.size() : hash;
}

std::string PeltoLayerRegistry::lookupKey(const std::string& name) {
    return name.substr(0, lookupKeyLength(name));
}

PeltoLayerRegistry::RuleFields PeltoLayerRegistry::classify(const PeltoConfig& rules,
                                                            const std::string& key) {
    RuleFields fields;
    if (rules.isTargetLayer(key, &fields.targetInfo)) {
        fields.type = kTarget;
    } else if (rules.isTargetIgnoreLayer(key, &fields.targetIgnoreInfo)) {
        fields.type = static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer);
    } else if (rules.isExceptionLayer(key, &fields.exceptionRule)) {
        fields.type = static_cast<int32_t>(PeltoLayerType::ExceptionLayer);
    }
    return fields;
}

void PeltoLayerRegistry::setRuleFields(PeltoLayer& record, const RuleFields& fields) {
    record.type = fields.type;
    record.targetInfo = fields.targetInfo;
    record.targetIgnoreInfo = fields.targetIgnoreInfo;
    record.exceptionRule = fields.exceptionRule;
}

template <typename Visit>
void PeltoLayerRegistry::forEachRecordOf(const void* layerPtr, const IndexEntry& entry,
                                         Visit visit) {
    // No record of this pointer comes before its first one, and the walk ends
    // with the last of its records.
    auto it = entry.first;
    size_t remaining = entry.records;
    while (remaining > 0 && it != mLayers.end()) {
        if (it->layerPtr != layerPtr) {
            ++it;
            continue;
        }
        --remaining;
        it = visit(it);
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
    setRuleFields(record, classify(rules, pending.key));
    if (record.type == kTarget) {
        ++mTargetCount;
    }
    const void* layerPtr = record.layerPtr;
    ++mChanges;
    mLayers.splice(mLayers.end(), pending.node);
    const auto [indexed, added] =
            mIndex.try_emplace(layerPtr, IndexEntry{std::prev(mLayers.end()), 0});
    ++indexed->second.records;
    ++mGeneration;
}

std::list<PeltoLayer> PeltoLayerRegistry::remove(const void* layerPtr) {
    std::list<PeltoLayer> removed;
    const auto indexed = mIndex.find(layerPtr);
    if (indexed == mIndex.end()) {
        return removed;
    }
    const IndexEntry entry = indexed->second;
    mIndex.erase(indexed);
    ++mGeneration;
    ++mChanges;
    if (mActiveTarget.load() == layerPtr) {
        mActiveTarget = nullptr;
    }
    forEachRecordOf(layerPtr, entry, [this, &removed](auto record) {
        if (record->type == kTarget) {
            if (mTargetCount > 0) {
                --mTargetCount;
            } else {
                ALOGE("mTargetCandidateCount < 0");
            }
        }
        const auto next = std::next(record);
        removed.splice(removed.end(), mLayers, record);
        return next;
    });
    return removed;
}

PeltoLayer* PeltoLayerRegistry::find(const void* layerPtr) {
    const auto indexed = mIndex.find(layerPtr);
    return indexed == mIndex.end() ? nullptr : &*indexed->second.first;
}

PeltoLayerRegistry::Flagged PeltoLayerRegistry::flagTargetRecords(const void* layerPtr,
                                                                  bool active) {
    Flagged flagged;
    const auto indexed = mIndex.find(layerPtr);
    if (indexed == mIndex.end()) {
        return flagged;
    }
    const auto first = indexed->second.first;
    forEachRecordOf(layerPtr, indexed->second, [&flagged, first, active](auto record) {
        if (record->type == kTarget) {
            record->isActiveTarget = active;
            flagged.any = true;
            flagged.first = flagged.first || record == first;
        }
        return std::next(record);
    });
    return flagged;
}

void PeltoLayerRegistry::setActiveTarget(const void* layerPtr) {
    // Only the flagged pointer's records can carry the flag, so the change
    // touches its records and the new target's, not the whole list: this
    // runs in the first composition after every reload.
    if (mFlagged != nullptr) {
        flagTargetRecords(mFlagged, false);
    }
    const Flagged flagged = flagTargetRecords(layerPtr, true);
    ++mChanges;
    mFlagged = flagged.any ? layerPtr : nullptr;
    mActiveTarget = flagged.first ? layerPtr : nullptr;
}

bool PeltoLayerRegistry::isActiveTarget(const void* layerPtr) const {
    return layerPtr != nullptr && layerPtr == mActiveTarget.load();
}

PeltoLayerRegistry::Reclassification PeltoLayerRegistry::snapshot() const {
    Reclassification reclassification;
    reclassification.generation = mGeneration;
    reclassification.keyEnds.reserve(mLayers.size());
    for (const PeltoLayer& record : mLayers) {
        reclassification.keys.append(record.name, 0, lookupKeyLength(record.name));
        reclassification.keyEnds.push_back(reclassification.keys.size());
    }
    return reclassification;
}

void PeltoLayerRegistry::classify(Reclassification& reclassification, const PeltoConfig& rules) {
    reclassification.classified.clear();
    reclassification.classified.reserve(reclassification.keyEnds.size());
    size_t begin = 0;
    for (const size_t end : reclassification.keyEnds) {
        reclassification.classified.push_back(
                classify(rules, reclassification.keys.substr(begin, end - begin)));
        begin = end;
    }
}

void PeltoLayerRegistry::apply(Reclassification&& reclassification, const PeltoConfig& rules) {
    const bool unchanged = reclassification.generation == mGeneration &&
            reclassification.classified.size() == mLayers.size();
    mTargetCount = 0;
    mActiveTarget = nullptr;
    ++mChanges;
    auto classified = reclassification.classified.begin();
    for (PeltoLayer& record : mLayers) {
        // Records keep their places and names, so the index and the list
        // order stand; everything else starts afresh.
        setRuleFields(record, unchanged ? *classified++ : classify(rules, lookupKey(record.name)));
        record.isActiveTarget = false;
        record.area = 0.0f;
        record.focused = false;
        if (record.type == kTarget) {
            ++mTargetCount;
        }
    }
}

PeltoLayerRegistry::DumpStep PeltoLayerRegistry::copyDumpChunk(DumpCursor& cursor, DumpChunk& chunk,
                                                               size_t limit) const {
    chunk.names.clear();
    chunk.records.clear();
    if (!cursor.started) {
        cursor = {mLayers.begin(), mChanges, true};
    } else if (cursor.changes != mChanges) {
        // The cursor's record may be gone; the sections start again.
        cursor.started = false;
        return DumpStep::Changed;
    }
    for (; cursor.next != mLayers.end() && chunk.records.size() < limit; ++cursor.next) {
        const PeltoLayer& layer = *cursor.next;
        DumpChunk::Record record{layer.type, false,         0, layer.isActiveTarget,
                                 layer.area, layer.focused, 0};
        if (layer.type == kTarget && layer.targetInfo != nullptr) {
            record.hasId = true;
            record.id = layer.targetInfo->id;
        } else if (layer.type == static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer) &&
                   layer.targetIgnoreInfo != nullptr) {
            record.hasId = true;
            record.id = layer.targetIgnoreInfo->id;
        }
        chunk.names += layer.name;
        record.nameEnd = chunk.names.size();
        chunk.records.push_back(record);
    }
    return cursor.next == mLayers.end() ? DumpStep::Done : DumpStep::More;
}

void PeltoLayerRegistry::DumpSections::append(const DumpChunk& chunk) {
    size_t nameBegin = 0;
    for (const DumpChunk::Record& record : chunk.records) {
        const size_t begin = nameBegin;
        nameBegin = record.nameEnd;
        // A record whose type is outside the four is in no section.
        if (static_cast<uint32_t>(record.type) >= std::size(mByType)) continue;
        std::ostringstream& os = mByType[record.type];
        os << "\t";
        os.write(chunk.names.data() + begin, static_cast<std::streamsize>(record.nameEnd - begin));
        os << "\n";
        if (record.type == kTarget) {
            if (record.hasId) {
                os << "\t\tid: " << record.id << "\n";
            }
            if (record.isActiveTarget) {
                os << "\t\tcurrent active\n";
            }
        } else if (record.type == static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer) &&
                   record.hasId) {
            os << "\t\ttargetId: " << record.id << "\n";
        }
        os << "\t\tarea: " << record.area << " focused: " << record.focused << "\n";
    }
}

void PeltoLayerRegistry::DumpSections::clear() {
    for (std::ostringstream& os : mByType) {
        os.str({});
    }
}

void PeltoLayerRegistry::DumpSections::writeTo(std::ostream& os) const {
    for (const PeltoLayerType type :
         {PeltoLayerType::TargetLayer, PeltoLayerType::TargetIgnoreLayer,
          PeltoLayerType::ExceptionLayer, PeltoLayerType::Nobody}) {
        os << peltoLayerTypeName(static_cast<int32_t>(type)) << ":\n";
        os << mByType[static_cast<int32_t>(type)].str();
    }
}

} // namespace android
