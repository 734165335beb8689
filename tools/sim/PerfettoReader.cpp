#include "tools/sim/PerfettoReader.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "tools/sim/DriverMarks.h"
#include "tools/sim/ProtoWire.h"

// The decoder follows the messages it knows, so nesting is as deep as they
// are (five levels at most) whatever the input; compressed packets add one
// level, once. Unknown fields are skipped without being looked into.

namespace android::tools::sim {
namespace {

using proto::Field;
using proto::Reader;

// TracePacket fields read here; every other field is skipped.
constexpr uint32_t kFtraceEvents = 1;
constexpr uint32_t kProcessTree = 2;
constexpr uint32_t kClockSnapshot = 6;
constexpr uint32_t kTimestamp = 8;
constexpr uint32_t kSequenceId = 10;
constexpr uint32_t kTrackEvent = 11;
constexpr uint32_t kInternedData = 12;
constexpr uint32_t kSequenceFlags = 13;
constexpr uint32_t kIncrementalStateCleared = 41;
constexpr uint32_t kPreviousPacketDropped = 42;
constexpr uint32_t kCompressedPackets = 50;
constexpr uint32_t kTimestampClockId = 58;
constexpr uint32_t kPacketDefaults = 59;
constexpr uint32_t kTrackDescriptor = 60;
constexpr uint32_t kFrameTimeline = 76;
constexpr uint32_t kZstdCompressedPackets = 133;
// TrackEvent types read here.
constexpr uint64_t kSliceBegin = 1;
constexpr uint64_t kCounter = 4;

// Built-in clocks; 64 and up are a sequence's own (the SDK's).
constexpr uint64_t kMonotonicRaw = 5;
constexpr uint64_t kBootTime = 6;
constexpr uint64_t kFirstSequenceClock = 64;
// Times at or past 2^62 ns (146 years) are damage: the arithmetic on them
// stays inside 64 bits.
constexpr uint64_t kMaxTime = uint64_t{1} << 62;
constexpr size_t kMaxSnapshots = 4096;

bool isVarint(const Field& f) {
    return f.wire == proto::kVarint;
}
bool isBytes(const Field& f) {
    return f.wire == proto::kBytes;
}

struct RawTime {
    uint64_t clock = kBootTime;
    uint64_t t = 0;
};

class TraceDecoder {
public:
    TraceDecoder(const std::string& name, PerfettoTrace* trace, const PerfettoLimits& limits)
          : mName(name), mTrace(*trace), mLimits(limits) {}

    // One TracePacket at `offset` in the (inflated) trace.
    bool packet(const uint8_t* data, size_t size, int64_t offset, bool inflated);
    bool finish();
    bool fail(const std::string& what);

    std::string error;
    int64_t inflatedBytes = 0;

private:
    // Calls onField for each field of a nested message; false on damage.
    template <typename OnField>
    bool fields(const Field& message, const char* what, OnField&& onField);
    bool keep(size_t bytes);
    bool ftraceBundle(const Field& bundle);
    bool ftraceEvent(const Field& event, int64_t offset, uint64_t clock);
    bool processTree(const Field& tree);
    struct Sequence;
    // The fields of one TracePacket that the reader uses.
    struct Packet {
        RawTime time;
        bool hasTime = false;
        bool hasClock = false;
        bool cleared = false;
        bool needsState = false;
        uint64_t dropped = 0;
        uint64_t sequence = 0;
        Field ftrace, tree, snapshot, packed, defaults, frame, event, interned, descriptor;
        void keepPayload(const Field& f);
    };
    bool readPacket(const uint8_t* data, size_t size, Packet* p);
    Sequence* sequenceOf(const Packet& p);
    bool internedNames(const Field& interned, Sequence& seq);
    bool clockSnapshot(const Field& snapshot, Sequence& sequence);
    bool sequenceTime(Sequence& sequence, RawTime* time) const;
    bool frameTimeline(const Field& event, RawTime time);
    bool trackDescriptor(const Field& descriptor);
    bool trackEvent(const Field& event, const Sequence& sequence, RawTime time);
    void trackEventMarks();
    bool compressed(const Field& packets);
    bool toBoot(RawTime time, int64_t* boot) const;

    struct RawMark {
        RawTime time;
        int32_t tid;
        std::string text;
    };
    struct RawDisplayFrame {
        RawTime time;
        int32_t pid;
    };
    struct RawSurfaceFrame {
        RawTime start;
        RawTime end;
        bool ended;
        int32_t pid;
        std::string layer;
    };
    // A clock of one sequence (the Perfetto SDK's 64, incremental, and 65).
    struct SequenceClock {
        uint64_t snapshot; // its value at the snapshot
        uint64_t boot;     // BOOTTIME then
        uint64_t unit;     // ns per tick
        bool incremental;  // packets give deltas
        uint64_t last;     // the running value of an incremental clock
    };
    // What one writer's packets share; cleared when its state is.
    struct Sequence {
        bool valid = false;
        bool hasClock = false;
        uint64_t clock = kBootTime;            // TracePacketDefaults
        uint64_t track = 0;                    // TrackEventDefaults
        std::map<uint64_t, std::string> names; // interned event names
        std::map<uint64_t, SequenceClock> clocks;
    };
    struct Track {
        int32_t pid = -1;
        int32_t tid = -1;
        uint64_t parent = 0;
        std::string name;
    };
    // A TrackEvent slice begin or counter, placed on its track at the end.
    struct RawTrackEvent {
        RawTime time;
        bool counter;
        uint64_t track;
        std::string name;
        int64_t value;
    };

    const std::string& mName;
    PerfettoTrace& mTrace;
    const PerfettoLimits& mLimits;
    int64_t mPacketOffset = 0;
    int64_t mKept = 0;
    std::vector<RawMark> mMarks;
    std::vector<RawDisplayFrame> mDisplayFrames;
    std::vector<RawSurfaceFrame> mSurfaceFrames;
    std::map<int64_t, size_t> mOpenSurfaceFrames; // cookie -> index
    std::map<uint64_t, Sequence> mSequences;
    std::map<uint64_t, Track> mTracks; // by uuid, for the whole trace
    std::vector<RawTrackEvent> mTrackEvents;
    // Per clock, (its time, BOOTTIME) at each snapshot, in order of its time.
    std::map<uint64_t, std::vector<std::pair<uint64_t, uint64_t>>> mSnapshots;
    size_t mSnapshotCount = 0;
};

bool TraceDecoder::fail(const std::string& what) {
    error = mName + " packet " + std::to_string(mTrace.packets) + " (byte " +
            std::to_string(mPacketOffset) + "): " + what;
    return false;
}

template <typename OnField>
bool TraceDecoder::fields(const Field& message, const char* what, OnField&& onField) {
    Reader reader(message.data, message.size);
    Field f;
    while (reader.next(&f)) {
        if (!onField(f)) return false;
    }
    if (reader.error() == nullptr) return true;
    return fail(std::string(what) + ": " + reader.error() + " (byte " +
                std::to_string(reader.offset()) + " of it)");
}

bool TraceDecoder::keep(size_t bytes) {
    mKept += static_cast<int64_t>(bytes) + 48;
    if (mKept <= mLimits.maxKept) return true;
    return fail("more than " + std::to_string(mLimits.maxKept >> 20) +
                " MiB of marks, names and frames: too large a trace to play");
}

bool TraceDecoder::readPacket(const uint8_t* data, size_t size, Packet* p) {
    Reader reader(data, size);
    Field f;
    while (reader.next(&f)) {
        const bool varint = isVarint(f);
        const bool bytes = isBytes(f);
        switch (f.number) {
            case kTimestamp:
                p->hasTime = varint;
                p->time.t = f.value;
                break;
            case kTimestampClockId:
                p->hasClock = varint;
                p->time.clock = f.value;
                break;
            case kSequenceId:
                if (varint) p->sequence = f.value;
                break;
            case kSequenceFlags:
                if (varint && (f.value & 1) != 0) p->cleared = true;
                if (varint && (f.value & 2) != 0) p->needsState = true;
                break;
            case kPreviousPacketDropped:
                if (varint) p->dropped = f.value;
                break;
            case kIncrementalStateCleared:
                if (varint && f.value != 0) p->cleared = true;
                break;
            case kZstdCompressedPackets:
                ++mTrace.zstdBundles;
                break;
            default:
                if (bytes) p->keepPayload(f);
                break;
        }
    }
    if (reader.error() == nullptr) return true;
    return fail(std::string("TracePacket: ") + reader.error() + " (byte " +
                std::to_string(reader.offset()) + " of it)");
}

void TraceDecoder::Packet::keepPayload(const Field& f) {
    switch (f.number) {
        case kFtraceEvents:
            ftrace = f;
            break;
        case kProcessTree:
            tree = f;
            break;
        case kClockSnapshot:
            snapshot = f;
            break;
        case kCompressedPackets:
            packed = f;
            break;
        case kPacketDefaults:
            defaults = f;
            break;
        case kFrameTimeline:
            frame = f;
            break;
        case kTrackEvent:
            event = f;
            break;
        case kInternedData:
            interned = f;
            break;
        case kTrackDescriptor:
            descriptor = f;
            break;
        default:
            break;
    }
}

// The sequence's state: cleared, lost with dropped packets, then this
// packet's defaults and interned names (which the packet itself uses).
TraceDecoder::Sequence* TraceDecoder::sequenceOf(const Packet& p) {
    if (mSequences.count(p.sequence) == 0 && !keep(64)) return nullptr;
    Sequence& seq = mSequences[p.sequence];
    if (p.cleared) {
        seq = Sequence{};
        seq.valid = true;
    } else if (p.dropped != 0) {
        seq.valid = false;
    }
    if (p.defaults.data != nullptr &&
        !fields(p.defaults, "trace_packet_defaults", [&](const Field& d) {
            if (d.number == kTimestampClockId && isVarint(d)) {
                seq.hasClock = true;
                seq.clock = d.value;
            }
            if (d.number != 11 || !isBytes(d)) return true;
            return fields(d, "track_event_defaults", [&](const Field& t) {
                if (t.number == 11 && isVarint(t)) seq.track = t.value;
                return true;
            });
        })) {
        return nullptr;
    }
    if (p.interned.data != nullptr && !internedNames(p.interned, seq)) return nullptr;
    return &seq;
}

bool TraceDecoder::internedNames(const Field& interned, Sequence& seq) {
    return fields(interned, "interned_data", [&](const Field& i) {
        if (i.number != 2 || !isBytes(i)) return true;
        uint64_t iid = 0;
        std::string name;
        if (!fields(i, "event name", [&](const Field& n) {
                if (n.number == 1 && isVarint(n)) iid = n.value;
                if (n.number == 2 && isBytes(n)) name = n.asString();
                return true;
            })) {
            return false;
        }
        if (!keep(name.size())) return false;
        seq.names[iid] = std::move(name);
        return true;
    });
}

bool TraceDecoder::packet(const uint8_t* data, size_t size, int64_t offset, bool inflated) {
    ++mTrace.packets;
    mPacketOffset = offset;
    Packet p;
    if (!readPacket(data, size, &p)) return false;
    Sequence* seq = sequenceOf(p);
    if (seq == nullptr) return false;
    RawTime time = p.time;
    if (!p.hasClock) time.clock = seq->hasClock ? seq->clock : kBootTime;
    if (p.snapshot.data != nullptr && !clockSnapshot(p.snapshot, *seq)) return false;
    // A sequence's own clock is made BOOTTIME now, in the sequence's order,
    // as an incremental one adds up.
    const bool timed = p.hasTime && (time.clock < kFirstSequenceClock || sequenceTime(*seq, &time));
    if (p.ftrace.data != nullptr && !ftraceBundle(p.ftrace)) return false;
    if (p.tree.data != nullptr && !processTree(p.tree)) return false;
    if (p.descriptor.data != nullptr && !trackDescriptor(p.descriptor)) return false;
    if (p.frame.data != nullptr) {
        if (!timed) {
            ++mTrace.unreadEvents;
        } else if (!frameTimeline(p.frame, time)) {
            return false;
        }
    }
    if (p.event.data != nullptr) {
        // Interned names and incremental times mean nothing after a loss
        // until the state is cleared again.
        if (!timed || (p.needsState && !seq->valid)) {
            ++mTrace.unreadEvents;
        } else if (!trackEvent(p.event, *seq, time)) {
            return false;
        }
    }
    if (p.packed.data != nullptr) {
        // Perfetto never compresses twice: one level of nesting at most.
        if (inflated) return fail("compressed packets inside compressed packets");
        if (!compressed(p.packed)) return false;
    }
    return true;
}

bool TraceDecoder::ftraceBundle(const Field& bundle) {
    // The bundle's clock first: its fields may follow the events.
    uint64_t clock = 0;
    uint64_t ftraceTime = 0;
    uint64_t bootTime = 0;
    bool pair = false;
    if (!fields(bundle, "ftrace_events", [&](const Field& f) {
            if (!isVarint(f)) return true;
            if (f.number == 5) clock = f.value;
            if (f.number == 6) {
                ftraceTime = f.value;
                pair = true;
            }
            if (f.number == 7) bootTime = f.value;
            return true;
        })) {
        return false;
    }
    // 0 unset (the boot clock), 2 global and 3 local (BOOTTIME from the
    // bundle's pair of readings), 4 mono_raw.
    int64_t offset = 0;
    uint64_t eventClock = kBootTime;
    if (clock == 4) eventClock = kMonotonicRaw;
    if ((clock == 2 || clock == 3) && pair && ftraceTime < kMaxTime && bootTime < kMaxTime) {
        offset = static_cast<int64_t>(bootTime) - static_cast<int64_t>(ftraceTime);
    }
    return fields(bundle, "ftrace_events", [&](const Field& f) {
        return f.number != 2 || !isBytes(f) || ftraceEvent(f, offset, eventClock);
    });
}

bool TraceDecoder::ftraceEvent(const Field& event, int64_t offset, uint64_t clock) {
    uint64_t timestamp = 0;
    int32_t tid = 0;
    Field print;
    Field driverMark;
    if (!fields(event, "ftrace event", [&](const Field& f) {
            if (f.number == 1 && isVarint(f)) timestamp = f.value;
            if (f.number == 2 && isVarint(f)) tid = f.asInt32();
            if (f.number == 3 && isBytes(f)) print = f;
            if (isDriverMark(f.number) && isBytes(f)) driverMark = f;
            // task_newtask (pid 1, comm 2) and task_rename (pid 1, newcomm 3).
            if ((f.number == 235 || f.number == 236) && isBytes(f)) {
                int32_t pid = -1;
                std::string comm;
                const uint32_t commField = f.number == 235 ? 2 : 3;
                if (!fields(f, "task event", [&](const Field& t) {
                        if (t.number == 1 && isVarint(t)) pid = t.asInt32();
                        if (t.number == commField && isBytes(t)) comm = t.asString();
                        return true;
                    })) {
                    return false;
                }
                if (pid >= 0 && !comm.empty()) {
                    if (!keep(comm.size())) return false;
                    mTrace.threadNames[pid] = comm;
                }
            }
            return true;
        })) {
        return false;
    }
    std::string text;
    if (print.data != nullptr) {
        if (!fields(print, "print", [&](const Field& f) {
                if (f.number == 2 && isBytes(f)) text = f.asString();
                return true;
            })) {
            return false;
        }
    } else if (driverMark.data != nullptr) {
        const char* damage = nullptr;
        if (!driverMarkText(driverMark.number, driverMark, &text, &damage)) {
            return fail("driver mark " + std::to_string(driverMark.number) + ": " + damage);
        }
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
    // Only slice begins and counters matter to the player.
    if (text.size() < 2 || text[1] != '|' || (text[0] != 'B' && text[0] != 'C')) return true;
    if (timestamp >= kMaxTime) {
        ++mTrace.unreadEvents;
        return true;
    }
    const int64_t t = static_cast<int64_t>(timestamp) + offset;
    if (t < 0 || static_cast<uint64_t>(t) >= kMaxTime) {
        ++mTrace.unreadEvents;
        return true;
    }
    if (!keep(text.size())) return false;
    mMarks.push_back({{clock, static_cast<uint64_t>(t)}, tid, std::move(text)});
    return true;
}

bool TraceDecoder::processTree(const Field& tree) {
    return fields(tree, "process_tree", [&](const Field& f) {
        if (!isBytes(f) || (f.number != 1 && f.number != 2)) return true;
        const bool process = f.number == 1;
        int32_t id = -1;
        std::string name;
        bool named = false;
        if (!fields(f, process ? "process" : "thread", [&](const Field& p) {
                if (p.number == 1 && isVarint(p)) id = p.asInt32();
                // A process's first command-line word; a thread's name.
                if (p.number == (process ? 3u : 2u) && isBytes(p) && !named) {
                    name = p.asString();
                    named = true;
                }
                return true;
            })) {
            return false;
        }
        if (id < 0 || name.empty()) return true;
        if (!keep(name.size())) return false;
        (process ? mTrace.processNames : mTrace.threadNames)[id] = std::move(name);
        return true;
    });
}

bool TraceDecoder::clockSnapshot(const Field& snapshot, Sequence& sequence) {
    std::vector<std::pair<uint64_t, uint64_t>> clocks; // (id, time) of built-in clocks
    std::vector<std::pair<uint64_t, SequenceClock>> own;
    if (!fields(snapshot, "clock_snapshot", [&](const Field& f) {
            if (f.number != 1 || !isBytes(f)) return true;
            uint64_t id = 0;
            uint64_t t = 0;
            uint64_t unit = 1;
            bool incremental = false;
            if (!fields(f, "clock", [&](const Field& c) {
                    if (c.number == 1 && isVarint(c)) id = c.value;
                    if (c.number == 2 && isVarint(c)) t = c.value;
                    if (c.number == 3 && isVarint(c)) incremental = c.value != 0;
                    if (c.number == 4 && isVarint(c) && c.value != 0) unit = c.value;
                    return true;
                })) {
                return false;
            }
            if (t >= kMaxTime || id == 0) return true;
            if (id >= kFirstSequenceClock) {
                own.emplace_back(id, SequenceClock{t, 0, unit, incremental, t});
            } else if (!incremental) {
                clocks.emplace_back(id, t);
            }
            return true;
        })) {
        return false;
    }
    const auto boot = std::find_if(clocks.begin(), clocks.end(),
                                   [](const auto& c) { return c.first == kBootTime; });
    if (boot == clocks.end()) return true;
    for (auto& [id, clock] : own) {
        if (sequence.clocks.count(id) == 0 && !keep(64)) return false;
        clock.boot = boot->second;
        sequence.clocks[id] = clock;
    }
    if (mSnapshotCount >= kMaxSnapshots) return true;
    ++mSnapshotCount;
    for (const auto& [id, t] : clocks) {
        if (id != kBootTime) mSnapshots[id].emplace_back(t, boot->second);
    }
    return keep(clocks.size() * 16);
}

bool TraceDecoder::frameTimeline(const Field& event, RawTime time) {
    return fields(event, "frame_timeline_event", [&](const Field& f) {
        if (!isBytes(f)) return true;
        int64_t cookie = 0;
        int32_t pid = 0;
        std::string layer;
        bool buffer = true; // older releases do not write is_buffer
        const bool surface = f.number == 4;
        if (f.number != 2 && f.number != 4 && f.number != 5) return true;
        if (!fields(f, "frame", [&](const Field& p) {
                if (p.number == 1 && isVarint(p)) cookie = p.asInt64();
                if (f.number == 2 && p.number == 3 && isVarint(p)) pid = p.asInt32();
                if (surface && p.number == 4 && isVarint(p)) pid = p.asInt32();
                if (surface && p.number == 5 && isBytes(p)) layer = p.asString();
                if (surface && p.number == 11 && isVarint(p)) buffer = p.value != 0;
                return true;
            })) {
            return false;
        }
        if (f.number == 2) {
            if (!keep(0)) return false;
            mDisplayFrames.push_back({time, pid});
        } else if (surface && buffer && !layer.empty()) {
            if (!keep(layer.size() + 32)) return false;
            mOpenSurfaceFrames[cookie] = mSurfaceFrames.size();
            mSurfaceFrames.push_back({time, {}, false, pid, std::move(layer)});
        } else if (f.number == 5) {
            const auto it = mOpenSurfaceFrames.find(cookie);
            if (it != mOpenSurfaceFrames.end()) {
                mSurfaceFrames[it->second].end = time;
                mSurfaceFrames[it->second].ended = true;
                mOpenSurfaceFrames.erase(it);
            }
        }
        return true;
    });
}

bool TraceDecoder::sequenceTime(Sequence& sequence, RawTime* time) const {
    const auto it = sequence.clocks.find(time->clock);
    if (it == sequence.clocks.end() || time->t >= kMaxTime) return false;
    SequenceClock& clock = it->second;
    if (clock.incremental) {
        if (clock.last + time->t >= kMaxTime) return false;
        clock.last += time->t;
    }
    const uint64_t value = clock.incremental ? clock.last : time->t;
    const int64_t ticks = static_cast<int64_t>(value) - static_cast<int64_t>(clock.snapshot);
    if (clock.unit > kMaxTime ||
        (ticks < 0 ? -ticks : ticks) > static_cast<int64_t>(kMaxTime / clock.unit)) {
        return false;
    }
    const int64_t boot =
            static_cast<int64_t>(clock.boot) + ticks * static_cast<int64_t>(clock.unit);
    if (boot < 0 || static_cast<uint64_t>(boot) >= kMaxTime) return false;
    *time = {kBootTime, static_cast<uint64_t>(boot)};
    return true;
}

bool TraceDecoder::trackDescriptor(const Field& descriptor) {
    uint64_t uuid = 0;
    Track track;
    std::string atraceName;
    std::string processName;
    std::string threadName;
    if (!fields(descriptor, "track_descriptor", [&](const Field& f) {
            if (f.number == 1 && isVarint(f)) uuid = f.value;
            if (f.number == 5 && isVarint(f)) track.parent = f.value;
            if ((f.number == 2 || f.number == 10) && isBytes(f)) track.name = f.asString();
            if (f.number == 13 && isBytes(f)) atraceName = f.asString();
            if (f.number == 3 && isBytes(f)) {
                // Its name, else the first word of its command line.
                std::string cmdline;
                const bool ok = fields(f, "process descriptor", [&](const Field& p) {
                    if (p.number == 1 && isVarint(p)) track.pid = p.asInt32();
                    if (p.number == 6 && isBytes(p)) processName = p.asString();
                    if (p.number == 2 && isBytes(p) && cmdline.empty()) cmdline = p.asString();
                    return true;
                });
                if (processName.empty()) processName = std::move(cmdline);
                return ok;
            }
            if (f.number == 4 && isBytes(f)) {
                return fields(f, "thread descriptor", [&](const Field& t) {
                    if (t.number == 1 && isVarint(t)) track.pid = t.asInt32();
                    if (t.number == 2 && isVarint(t)) track.tid = t.asInt32();
                    if (t.number == 5 && isBytes(t)) threadName = t.asString();
                    return true;
                });
            }
            return true;
        })) {
        return false;
    }
    if (!atraceName.empty()) track.name = std::move(atraceName);
    if (!keep(track.name.size() + processName.size() + threadName.size() + 64)) return false;
    if (track.tid >= 0 && !threadName.empty()) mTrace.threadNames[track.tid] = threadName;
    if (track.tid < 0 && track.pid >= 0 && !processName.empty()) {
        mTrace.processNames[track.pid] = processName;
    }
    mTracks[uuid] = std::move(track);
    return true;
}

bool TraceDecoder::trackEvent(const Field& event, const Sequence& sequence, RawTime time) {
    uint64_t type = 0;
    uint64_t track = sequence.track;
    uint64_t nameIid = 0;
    bool hasName = false;
    std::string name;
    int64_t value = 0;
    bool hasValue = false;
    if (!fields(event, "track_event", [&](const Field& f) {
            if (f.number == 9 && isVarint(f)) type = f.value;
            if (f.number == 11 && isVarint(f)) track = f.value;
            if (f.number == 10 && isVarint(f)) nameIid = f.value;
            if (f.number == 23 && isBytes(f)) {
                name = f.asString();
                hasName = true;
            }
            if (f.number == 30 && isVarint(f)) {
                value = f.asInt64();
                hasValue = true;
            }
            if (f.number == 44 && f.wire == proto::kFixed64) {
                double d = 0;
                memcpy(&d, &f.value, sizeof(d));
                hasValue = std::fabs(d) < 9e18; // NaN and the infinities too
                if (hasValue) value = std::llround(d);
            }
            return true;
        })) {
        return false;
    }
    if (type == kSliceBegin) {
        if (!hasName) {
            const auto it = sequence.names.find(nameIid);
            if (it == sequence.names.end()) {
                ++mTrace.unreadEvents;
                return true;
            }
            name = it->second;
        }
        if (!keep(name.size() + 64)) return false;
        mTrackEvents.push_back({time, false, track, std::move(name), 0});
    } else if (type == kCounter && hasValue) {
        if (!keep(64)) return false;
        mTrackEvents.push_back({time, true, track, {}, value});
    }
    return true;
}

// Slice begins and counters as the atrace marks they stand for: a slice on
// a thread's track is "B|pid|name", a counter on a named track under a
// process "C|pid|name|value".
void TraceDecoder::trackEventMarks() {
    for (RawTrackEvent& e : mTrackEvents) {
        auto it = mTracks.find(e.track);
        if (it == mTracks.end()) {
            ++mTrace.unreadEvents;
            continue;
        }
        const int32_t tid = std::max(it->second.tid, 0);
        std::string name = e.counter ? it->second.name : std::move(e.name);
        // As in a print event, a name's line end is not part of it.
        while (!name.empty() && (name.back() == '\n' || name.back() == '\0')) name.pop_back();
        int32_t pid = -1;
        for (int depth = 0; depth < 8 && it != mTracks.end(); ++depth) {
            pid = it->second.pid;
            if (pid >= 0 || it->second.parent == 0) break;
            it = mTracks.find(it->second.parent);
        }
        if (pid < 0 || name.empty()) {
            ++mTrace.unreadEvents;
            continue;
        }
        std::string text = (e.counter ? "C|" : "B|") + std::to_string(pid) + "|" + name;
        if (e.counter) text += "|" + std::to_string(e.value);
        mMarks.push_back({e.time, tid, std::move(text)});
    }
    mTrackEvents.clear();
}

bool TraceDecoder::compressed(const Field& packets) {
    z_stream z{};
    if (inflateInit2(&z, 15 + 32) != Z_OK) return fail("compressed packets: cannot start zlib");
    z.next_in = const_cast<Bytef*>(packets.data);
    z.avail_in = static_cast<uInt>(std::min<size_t>(packets.size, UINT32_MAX));
    std::string out;
    unsigned char chunk[1 << 16];
    int rc = Z_OK;
    std::string problem;
    while (rc != Z_STREAM_END) {
        z.next_out = chunk;
        z.avail_out = sizeof(chunk);
        rc = inflate(&z, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END) {
            problem = rc == Z_BUF_ERROR ? "cut short" : z.msg != nullptr ? z.msg : "damaged";
            break;
        }
        const size_t n = sizeof(chunk) - z.avail_out;
        if (out.size() + n > mLimits.maxPacket ||
            inflatedBytes + static_cast<int64_t>(out.size() + n) > mLimits.maxBytes) {
            problem = "inflate to more than the limit (" +
                    std::to_string(std::min<uint64_t>(mLimits.maxPacket,
                                                      static_cast<uint64_t>(mLimits.maxBytes)) >>
                                   20) +
                    " MiB)";
            break;
        }
        out.append(reinterpret_cast<const char*>(chunk), n);
    }
    inflateEnd(&z);
    if (!problem.empty()) return fail("compressed packets: " + problem);
    inflatedBytes += static_cast<int64_t>(out.size());
    const int64_t outer = mPacketOffset;
    const auto* data = reinterpret_cast<const uint8_t*>(out.data());
    Reader reader(data, out.size());
    Field f;
    while (reader.next(&f)) {
        if (f.number == 1 && isBytes(f) && !packet(f.data, f.size, outer, /*inflated=*/true)) {
            return false;
        }
    }
    mPacketOffset = outer;
    if (reader.error() == nullptr) return true;
    return fail(std::string("compressed packets: ") + reader.error() + " (byte " +
                std::to_string(reader.offset()) + " inflated)");
}

bool TraceDecoder::toBoot(RawTime time, int64_t* boot) const {
    if (time.clock == kBootTime) {
        *boot = static_cast<int64_t>(time.t);
        return time.t < kMaxTime;
    }
    const auto it = mSnapshots.find(time.clock);
    if (it == mSnapshots.end() || it->second.empty()) return false;
    // The last snapshot at or before the time, else the first.
    const auto& points = it->second;
    auto at = std::upper_bound(points.begin(), points.end(), std::make_pair(time.t, UINT64_MAX));
    if (at != points.begin()) --at;
    const int64_t t = static_cast<int64_t>(time.t) - static_cast<int64_t>(at->first) +
            static_cast<int64_t>(at->second);
    *boot = t;
    return t >= 0 && static_cast<uint64_t>(t) < kMaxTime;
}

bool TraceDecoder::finish() {
    trackEventMarks();
    for (auto& [clock, points] : mSnapshots) std::sort(points.begin(), points.end());
    const auto byTime = [](const auto& a, const auto& b) { return a.time < b.time; };
    for (RawMark& m : mMarks) {
        PerfettoTrace::Mark mark;
        if (!toBoot(m.time, &mark.time)) {
            ++mTrace.unreadEvents;
            continue;
        }
        mark.tid = m.tid;
        mark.text = std::move(m.text);
        mTrace.marks.push_back(std::move(mark));
    }
    std::stable_sort(mTrace.marks.begin(), mTrace.marks.end(), byTime);
    for (const RawDisplayFrame& d : mDisplayFrames) {
        PerfettoTrace::DisplayFrame frame{0, d.pid};
        if (toBoot(d.time, &frame.time)) {
            mTrace.displayFrames.push_back(frame);
        } else {
            ++mTrace.unreadEvents;
        }
    }
    std::stable_sort(mTrace.displayFrames.begin(), mTrace.displayFrames.end(), byTime);
    for (RawSurfaceFrame& s : mSurfaceFrames) {
        PerfettoTrace::SurfaceFrame frame{0, s.pid, std::move(s.layer)};
        if (toBoot(s.ended ? s.end : s.start, &frame.time) ||
            (s.ended && toBoot(s.start, &frame.time))) {
            mTrace.surfaceFrames.push_back(std::move(frame));
        } else {
            ++mTrace.unreadEvents;
        }
    }
    std::stable_sort(mTrace.surfaceFrames.begin(), mTrace.surfaceFrames.end(), byTime);
    return true;
}

// The trace as it arrives, a block at a time, with its offset.
class Input {
public:
    explicit Input(const ReadBytes& read) : mRead(read) {}

    // A byte, -1 at the end, -2 on an error.
    int byte() {
        if (mPos == mSize && !fill()) return mError.empty() ? -1 : -2;
        ++mOffset;
        return mBuffer[mPos++];
    }
    // Exactly `size` bytes; false at the end or on an error.
    bool bytes(std::string* out, size_t size) {
        out->resize(size);
        size_t done = 0;
        while (done < size) {
            if (mPos == mSize && !fill()) {
                out->resize(done);
                return false;
            }
            const size_t n = std::min(size - done, mSize - mPos);
            std::copy(mBuffer + mPos, mBuffer + mPos + n, out->begin() + static_cast<long>(done));
            mPos += n;
            done += n;
            mOffset += static_cast<int64_t>(n);
        }
        return true;
    }
    int64_t offset() const { return mOffset; }
    const std::string& error() const { return mError; }

private:
    bool fill() {
        const long n = mRead(mBuffer, sizeof(mBuffer), &mError);
        if (n <= 0) return false;
        mPos = 0;
        mSize = static_cast<size_t>(n);
        return true;
    }

    const ReadBytes& mRead;
    uint8_t mBuffer[1 << 16];
    size_t mPos = 0;
    size_t mSize = 0;
    int64_t mOffset = 0;
    std::string mError;
};

// A varint from the input after its first byte; false when cut short or too long.
bool inputVarint(Input& in, int first, uint64_t* value) {
    uint64_t result = static_cast<uint64_t>(first & 0x7f);
    int byte = first;
    for (int shift = 7; byte & 0x80; shift += 7) {
        if (shift > 63) return false;
        byte = in.byte();
        if (byte < 0 || (shift == 63 && byte > 1)) return false;
        result |= static_cast<uint64_t>(byte & 0x7f) << shift;
    }
    *value = result;
    return true;
}

} // namespace

bool looksLikePerfetto(const uint8_t* head, size_t size) {
    if (size < 2 || head[0] != 0x0a) return false;
    for (size_t i = 0; i < std::min<size_t>(size, 4096); ++i) {
        const uint8_t c = head[i];
        if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return true;
    }
    return false;
}

bool readPerfetto(const ReadBytes& read, const std::string& name, PerfettoTrace* trace,
                  std::string* error, const PerfettoLimits& limits) {
    *trace = PerfettoTrace{};
    TraceDecoder decoder(name, trace, limits);
    Input in(read);
    std::string packet;
    for (;;) {
        const int64_t start = in.offset();
        const int first = in.byte();
        if (first == -1) break;
        const auto stop = [&](const std::string& what) {
            *error = in.error().empty() ? name + " byte " + std::to_string(start) + ": " + what
                                        : in.error();
            return false;
        };
        uint64_t key = 0;
        uint64_t length = 0;
        if (first < 0 || !inputVarint(in, first, &key)) return stop("a field key cut short");
        switch (key & 7) {
            case proto::kVarint: {
                const int b = in.byte();
                if (b < 0 || !inputVarint(in, b, &length)) return stop("a varint cut short");
                continue;
            }
            case proto::kFixed64:
            case proto::kFixed32:
                if (!in.bytes(&packet, (key & 7) == proto::kFixed64 ? 8 : 4)) {
                    return stop("a fixed-size field cut short");
                }
                continue;
            case proto::kBytes:
                break;
            default:
                return stop("not a Perfetto trace: a group or unknown wire type in a field key");
        }
        const int b = in.byte();
        if (b < 0 || !inputVarint(in, b, &length)) return stop("a packet length cut short");
        if (length > limits.maxPacket) {
            return stop("a packet of " + std::to_string(length) + " bytes: more than the " +
                        std::to_string(limits.maxPacket >> 20) + " MiB a packet may have");
        }
        if (in.offset() + static_cast<int64_t>(length) + decoder.inflatedBytes > limits.maxBytes) {
            return stop("more than " + std::to_string(limits.maxBytes >> 20) +
                        " MiB of trace: too large a trace to play");
        }
        if (!in.bytes(&packet, static_cast<size_t>(length))) {
            return stop("the trace is cut short: a packet of " + std::to_string(length) +
                        " bytes has " + std::to_string(packet.size()));
        }
        if (key >> 3 != 1) continue; // not a packet
        if (!decoder.packet(reinterpret_cast<const uint8_t*>(packet.data()), packet.size(), start,
                            /*inflated=*/false)) {
            *error = decoder.error;
            return false;
        }
    }
    if (!in.error().empty()) {
        *error = in.error();
        return false;
    }
    trace->bytes = in.offset() + decoder.inflatedBytes;
    return decoder.finish();
}

} // namespace android::tools::sim
