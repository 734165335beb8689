#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace android::tools::sim {

// What pelto-sim takes from a Perfetto protobuf trace: the atrace marks of
// ftrace print events and of TrackEvent slices and counters (atrace through
// the Perfetto SDK), process and thread names, and SurfaceFlinger's
// FrameTimeline. Times are BOOTTIME nanoseconds, each list in time order.
struct PerfettoTrace {
    struct Mark {
        int64_t time = 0;
        int32_t tid = 0;  // the thread that wrote it
        std::string text; // "B|pid|name" or "C|pid|name|value", without its line end
    };
    // The start of one composition (an actual display frame).
    struct DisplayFrame {
        int64_t time = 0;
        int32_t pid = 0;
    };
    // One buffer of a layer (an actual surface frame with a buffer): when its
    // frame ended, or began where the end is missing.
    struct SurfaceFrame {
        int64_t time = 0;
        int32_t pid = 0;
        std::string layer;
    };
    std::vector<Mark> marks;
    std::vector<DisplayFrame> displayFrames;
    std::vector<SurfaceFrame> surfaceFrames;
    std::map<int32_t, std::string> processNames; // pid -> its command line's first word
    std::map<int32_t, std::string> threadNames;  // tid -> comm
    int64_t packets = 0;
    int64_t bytes = 0; // of the trace, after inflating
    // Events left out: on a clock the trace gives no conversion for, on a
    // track it does not describe, or needing a sequence's state after a loss.
    int64_t unreadEvents = 0;
    int64_t zstdBundles = 0; // zstd-compressed packets (Perfetto v58 on), not read
};

struct PerfettoLimits {
    int64_t maxBytes = int64_t{1} << 30;     // the whole trace, inflated
    uint64_t maxPacket = uint64_t{64} << 20; // one packet, or one inflated bundle
    int64_t maxKept = int64_t{256} << 20;    // what is kept of it, roughly in bytes
};

// Reads up to `size` bytes into `buffer`: the count, 0 at the end, or -1
// with *error set.
using ReadBytes = std::function<long(uint8_t* buffer, size_t size, std::string* error)>;

// Reads the whole trace from `read`. False, with *error naming `name`, the
// packet and its byte offset, and the reason, when the bytes are not a trace
// or pass a limit.
bool readPerfetto(const ReadBytes& read, const std::string& name, PerfettoTrace* trace,
                  std::string* error, const PerfettoLimits& limits = {});

// True when the first bytes of a file start a Perfetto trace (a packet
// field) and are not text.
bool looksLikePerfetto(const uint8_t* head, size_t size);

} // namespace android::tools::sim
