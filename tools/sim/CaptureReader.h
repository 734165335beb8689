#pragma once

#include <string>
#include <vector>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// What a device capture (Android systrace/atrace text, in any column layout
// and with atrace's own lines before it, a systrace HTML report, a Perfetto
// protobuf trace, or gzip of any of them) says about the display and the app layers. Times are
// nanoseconds from the capture's first event.
struct Capture {
    struct Layer {
        std::string name;
        std::vector<SimTime> buffers; // in time order
        std::string source;           // which signal gave the buffer times
    };
    std::string path;
    int compositorPid = -1;
    std::string vsyncSource;            // which signal gave the refresh period
    std::vector<RefreshChange> refresh; // the first at 0
    double medianPeriodMs = 0;          // of the vsync signal, as measured
    // False when the rate comes from a signal that ticks only when there is
    // work (VSYNC-sf or VSYNC-app on a few vsyncs, compositions, FrameTimeline):
    // its fastest steady rate is then a floor for the panel's.
    bool refreshTrusted = true;
    bool vsyncSparse = false;
    std::string refreshWarning; // why the rate is not trusted
    // "FILE line N: " of a vsync tick at the time of the one before it in
    // the signal the rate came from (a period of zero), in a text capture.
    std::string zeroPeriodAt;
    std::vector<std::string> skippedCounters; // compositor counters not taken for layers
    std::vector<Layer> layers;
    SimTime duration = 0;
    int64_t lines = 0;
    std::string unit = "lines";     // what `lines` counts: "packets" in a Perfetto trace
    std::vector<std::string> notes; // what the reader left out, for the run's assumptions
};

// Streams the file once ("-": standard input). False, with *error naming the
// file (and the line where there is one), when it is not a capture the
// simulator can play.
// What it keeps (vsync ticks, slices, buffer times, names) is bounded by
// maxKept bytes, so a huge capture is refused rather than filling memory.
bool readCapture(const std::string& path, Capture* capture, std::string* error,
                 int64_t maxKept = int64_t{256} << 20);

} // namespace android::tools::sim
