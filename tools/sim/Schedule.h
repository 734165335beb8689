#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// Something that happens at a point of scenario time.
struct Step {
    // At one instant the steps run in this order.
    enum class Kind {
        Register,      // registerLayer
        Destroy,       // destroyLayer
        RefreshChange, // the display's new rate; onActiveModeUpdated
        Note,          // a change on screen, shown in the timeline only
        Event,         // one of the scenario's events
        Vsync,         // commit, composite, isQ2QFull
        Buffer,        // a layer queues a buffer: setTransactionState
    };
    SimTime at = 0;
    Kind kind = Kind::Note;
    size_t index = 0; // the layer, refresh change or event
    std::string note;
};

// The buffers one layer queues, in time order, made as they are needed.
class FrameStream {
public:
    virtual ~FrameStream() = default;
    // The next buffer's time; false when there are no more.
    virtual bool next(SimTime* at) = 0;
    // Why the stream stopped early (a frame-times file that changed or
    // broke since it was checked), or empty.
    virtual std::string error() const { return {}; }
};

// Everything a scenario makes happen, in the order the simulation plays it:
// by time, and at one instant by kind. A buffer queued at the very instant of
// a vsync is latched by the next one. Vsyncs and buffers are made one at a
// time, so a run of millions of frames holds only a few of them at once.
class Schedule {
public:
    explicit Schedule(const Scenario& scenario);
    ~Schedule();

    // The next step; false at the end of the run.
    bool next(Step* step);
    // Why the buffers of a layer stopped early, or empty.
    const std::string& error() const { return mError; }
    // Buffers that were played, and measured times that fell outside the
    // layer's visible spans, its pauses or the run.
    int64_t buffersPlayed() const { return mBuffersPlayed; }
    int64_t framesSkipped() const { return mFramesSkipped; }

private:
    struct Pending {
        SimTime at;
        Step::Kind kind;
        size_t index;
        bool operator>(const Pending& o) const {
            if (at != o.at) return at > o.at;
            if (kind != o.kind) return kind > o.kind;
            return index > o.index;
        }
    };
    void pullBuffer(size_t layer);
    SimTime nextVsyncAfter(SimTime t) const;

    const Scenario& mScenario;
    std::vector<Step> mFixed; // everything but vsyncs and buffers, sorted
    size_t mFixedNext = 0;
    std::vector<std::unique_ptr<FrameStream>> mStreams; // per layer; null without frames
    std::priority_queue<Pending, std::vector<Pending>, std::greater<Pending>> mMoving;
    std::string mError;
    int64_t mBuffersPlayed = 0;
    int64_t mFramesSkipped = 0;
};

// The vsync period of a refresh rate, in whole nanoseconds (60 Hz: 16666666).
int64_t vsyncPeriodOf(double refreshHz);

} // namespace android::tools::sim
