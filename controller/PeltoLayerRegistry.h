#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <ostream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/PeltoConfig.h"
#include "controller/PeltoLayer.h"

namespace android {

// The layers the compositor registered, in registration order, each
// classified by the rules in use through its name cut before the last '#'.
//
// Has no lock of its own: its owner guards it, together with the rules its
// records point into, and holds that lock for every call but the two marked
// lock-free.
class PeltoLayerRegistry {
public:
    // A record prepared before the owner's lock is taken: its list node and
    // the name the rules are searched with.
    struct Pending {
        std::list<PeltoLayer> node;
        std::string key;
    };
    static Pending prepare(const void* layerPtr, const std::string& name);

    // Classifies the record under `rules` and appends it. A pointer added
    // again gets a second record; lookups keep finding its first.
    void add(Pending&& pending, const PeltoConfig& rules);
    // Removes every record of `layerPtr`; nothing when it has none. The
    // records are handed back, so that the caller frees them (and their
    // names) after releasing its lock.
    std::list<PeltoLayer> remove(const void* layerPtr);
    // The first record of `layerPtr`, or null.
    PeltoLayer* find(const void* layerPtr);

    // Records of type TargetLayer.
    int32_t targetCount() const { return mTargetCount; }
    // Changes with every addition and removal: while it stands, find() gives
    // the same answer for every pointer.
    uint64_t generation() const { return mGeneration; }
    const std::list<PeltoLayer>& records() const { return mLayers; }

    // Makes `layerPtr`'s target records the active ones, and no other.
    void setActiveTarget(const void* layerPtr);
    // Whether the first record of `layerPtr` is an active target. Lock-free:
    // the answer is published wherever it changes, under the owner's lock.
    bool isActiveTarget(const void* layerPtr) const;

    // What the rules say of one record.
    struct RuleFields {
        int32_t type = static_cast<int32_t>(PeltoLayerType::Nobody);
        const PeltoTargetLayerInfo* targetInfo = nullptr;
        const PeltoTargetIgnoreInfo* targetIgnoreInfo = nullptr;
        const PeltoExceptionRule* exceptionRule = nullptr;
    };

    // A reload in three steps, so that the owner holds its lock for the copy
    // and the swap only: snapshot() under the lock, classify() without it,
    // apply() under it with the same rules. apply() classifies again under
    // the lock when layers came or went since the snapshot. Every record
    // starts afresh: no area, no focus, no active target.
    struct Reclassification {
        // Every record's lookup key, back to back, and where each ends: one
        // allocation for the copy under the lock instead of one per name.
        std::string keys;
        std::vector<size_t> keyEnds;
        std::vector<RuleFields> classified;
        uint64_t generation = 0;
    };
    Reclassification snapshot() const;
    static void classify(Reclassification& reclassification, const PeltoConfig& rules);
    void apply(Reclassification&& reclassification, const PeltoConfig& rules);

    // The dump's layer sections, built a few records at a time: each chunk is
    // copied under the owner's lock and formatted after it is released, so a
    // composition waits at most for one chunk's copy, however many layers
    // there are. A change to the registry between two chunks starts the
    // sections again from the first record.
    struct DumpChunk {
        struct Record {
            int32_t type;
            // The target's id (TargetLayer) or the id of the target it
            // belongs to (TargetIgnoreLayer), when the record has its rule.
            bool hasId;
            int32_t id;
            bool isActiveTarget;
            float area;
            bool focused;
            // Where the record's name ends in `names`.
            size_t nameEnd;
        };
        // The chunk's names back to back: no allocation per name.
        std::string names;
        std::vector<Record> records;
    };
    struct DumpCursor {
        std::list<PeltoLayer>::const_iterator next;
        // The registry's change count when the first chunk was copied.
        uint64_t changes = 0;
        bool started = false;
    };
    enum class DumpStep { More, Done, Changed };
    // Copies up to `limit` records, from where `cursor` stopped, into
    // `chunk`. Changed: the registry changed since the cursor started; it is
    // reset, and the next call copies the first chunk again.
    DumpStep copyDumpChunk(DumpCursor& cursor, DumpChunk& chunk, size_t limit) const;

    // The four sections, one per type, records in registration order.
    class DumpSections {
    public:
        void append(const DumpChunk& chunk);
        void clear();
        void writeTo(std::ostream& os) const;

    private:
        std::ostringstream mByType[4];
    };

private:
    static std::string lookupKey(const std::string& name);
    static size_t lookupKeyLength(const std::string& name);
    static RuleFields classify(const PeltoConfig& rules, const std::string& key);
    static void setRuleFields(PeltoLayer& record, const RuleFields& fields);

    struct IndexEntry;
    // Calls `visit` on each of the entry's records, in list order. `visit`
    // returns the iterator to go on from, so that it may erase the record.
    template <typename Visit>
    void forEachRecordOf(const void* layerPtr, const IndexEntry& entry, Visit visit);
    // Sets isActiveTarget on `layerPtr`'s target records. Returns whether any
    // record was flagged and whether the first one was.
    struct Flagged {
        bool any = false;
        bool first = false;
    };
    Flagged flagTargetRecords(const void* layerPtr, bool active);

    std::list<PeltoLayer> mLayers;
    // First record of each pointer and how many it has, so that per-frame
    // lookups and removals do not walk the list.
    struct IndexEntry {
        std::list<PeltoLayer>::iterator first;
        size_t records;
    };
    std::unordered_map<const void*, IndexEntry> mIndex;
    int32_t mTargetCount = 0;
    // Counts additions and removals, so apply() can tell whether the records
    // classified aside are still the registry's.
    uint64_t mGeneration = 0;
    // Counts every change a dump shows but the areas and focus flags that
    // compositions store, so that a dump in chunks can tell it must start again.
    uint64_t mChanges = 0;
    // The last pointer made active: no other pointer's records carry
    // isActiveTarget (a removal or a reload may have cleared its own since).
    const void* mFlagged = nullptr;
    // The pointer whose first record carries isActiveTarget, or null.
    std::atomic<const void*> mActiveTarget{nullptr};
};

} // namespace android
