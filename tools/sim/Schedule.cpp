#include "tools/sim/Schedule.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/sim/FrameTimesReader.h"

namespace android::tools::sim {
namespace {

// A small, fixed pseudo-random sequence (splitmix64): the same scenario
// jitters the same way on every machine.
class Jitter {
public:
    explicit Jitter(uint64_t seed) : mState(seed) {}
    // A value in [-1, 1].
    double next() {
        uint64_t z = (mState += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        z ^= z >> 31;
        return static_cast<double>(z >> 11) / static_cast<double>(1ULL << 52) - 1.0;
    }

private:
    uint64_t mState;
};

uint64_t hashName(const std::string& name) {
    uint64_t hash = 0xcbf29ce484222325ULL; // FNV-1a
    for (unsigned char c : name) {
        hash = (hash ^ c) * 0x100000001b3ULL;
    }
    return hash;
}

std::string percentOfScreen(float area, uint32_t screenArea) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f%%", screenArea == 0 ? 0.0 : area * 100.0 / screenArea);
    return text;
}

// Steady frames over the visible spans, moved by the jitter, kept in order
// and inside their span.
class SteadyFrames : public FrameStream {
public:
    SteadyFrames(const Scenario& scenario, const LayerScript& layer)
          : mLayer(layer),
            mFrames(*layer.frames),
            mEnd(scenario.duration),
            mInterval(1e9 / mFrames.fps),
            mJitter(scenario.seed ^ hashName(layer.name)) {}

    bool next(SimTime* at) override {
        while (mWindow < mLayer.visible.size()) {
            const Window& window = mLayer.visible[mWindow];
            const SimTime nominal = window.from + mFrames.phase + std::llround(mK++ * mInterval);
            if (nominal >= window.to || nominal >= mEnd) {
                ++mWindow;
                mK = 0;
                continue;
            }
            if (inAnyWindow(mFrames.pauses, nominal)) continue;
            SimTime t = nominal + std::llround(mJitter.next() * mFrames.jitter);
            t = std::clamp(t, std::max(window.from, mPrevious + 1), window.to - 1);
            if (t >= mEnd) return false;
            mPrevious = t;
            *at = t;
            return true;
        }
        return false;
    }

private:
    const LayerScript& mLayer;
    const FrameScript& mFrames;
    const SimTime mEnd;
    const double mInterval;
    Jitter mJitter;
    size_t mWindow = 0;
    int64_t mK = 0;
    SimTime mPrevious = -1;
};

// Measured times, those that fall in a visible span, outside the pauses and
// before the end.
class MeasuredFrames : public FrameStream {
public:
    MeasuredFrames(const Scenario& scenario, const LayerScript& layer, int64_t* skipped)
          : mLayer(layer),
            mEnd(scenario.duration),
            mReader(*layer.frames->times),
            mSkipped(*skipped) {
        std::string error;
        mOpen = mReader.open(&error);
        if (!mOpen) mError = error;
    }

    bool next(SimTime* at) override {
        SimTime t = 0;
        while (mOpen && mReader.next(&t)) {
            if (t < mEnd && inAnyWindow(mLayer.visible, t) &&
                !inAnyWindow(mLayer.frames->pauses, t)) {
                *at = t;
                return true;
            }
            ++mSkipped;
        }
        if (mError.empty()) mError = mReader.error();
        return false;
    }
    std::string error() const override { return mError; }

private:
    const LayerScript& mLayer;
    const SimTime mEnd;
    FrameTimesReader mReader;
    int64_t& mSkipped;
    bool mOpen = false;
    std::string mError;
};

} // namespace

Schedule::Schedule(const Scenario& scenario) : mScenario(scenario) {
    std::vector<Step>& steps = mFixed;
    const SimTime end = scenario.duration;
    const uint32_t screenArea = scenario.display.screenArea();
    for (size_t i = 0; i < scenario.layers.size(); ++i) {
        const LayerScript& layer = scenario.layers[i];
        steps.push_back({layer.registeredAt, Step::Kind::Register, i, {}});
        if (layer.destroyedAt && *layer.destroyedAt < end) {
            steps.push_back({*layer.destroyedAt, Step::Kind::Destroy, i, {}});
        }
        for (const Window& w : layer.visible) {
            if (w.from != layer.registeredAt) {
                steps.push_back({w.from, Step::Kind::Note, i, "shown: " + layer.name});
            }
            if (w.to < end && w.to != layer.destroyedAt) {
                steps.push_back({w.to, Step::Kind::Note, i, "hidden: " + layer.name});
            }
        }
        for (size_t a = 1; a < layer.areas.size(); ++a) {
            steps.push_back({layer.areas[a].at, Step::Kind::Note, i,
                             "resized: " + layer.name + " to " +
                                     percentOfScreen(layer.areas[a].area, screenArea) +
                                     " of the screen"});
        }
        for (const Window& w : layer.focused) {
            steps.push_back({w.from, Step::Kind::Note, i, "focus gained: " + layer.name});
            if (w.to < end) {
                steps.push_back({w.to, Step::Kind::Note, i, "focus lost: " + layer.name});
            }
        }
        if (layer.frames) {
            for (const Window& w : layer.frames->pauses) {
                steps.push_back({w.from, Step::Kind::Note, i, "frames paused: " + layer.name});
                if (w.to < end) {
                    steps.push_back({w.to, Step::Kind::Note, i, "frames resumed: " + layer.name});
                }
            }
        }
        if (!layer.frames || !layer.hasBuffer) {
            mStreams.push_back(nullptr);
        } else if (layer.frames->times) {
            mStreams.push_back(std::make_unique<MeasuredFrames>(scenario, layer, &mFramesSkipped));
        } else {
            mStreams.push_back(std::make_unique<SteadyFrames>(scenario, layer));
        }
        pullBuffer(i);
    }
    const auto& changes = scenario.display.refreshChanges;
    for (size_t i = 0; i < changes.size(); ++i) {
        steps.push_back({changes[i].at, Step::Kind::RefreshChange, i, {}});
    }
    for (const Window& w : scenario.forceOff) {
        steps.push_back({w.from, Step::Kind::Note, 0, "forceOff begins"});
        if (w.to < end) steps.push_back({w.to, Step::Kind::Note, 0, "forceOff ends"});
    }
    for (size_t i = 0; i < scenario.events.size(); ++i) {
        steps.push_back({scenario.events[i].at, Step::Kind::Event, i, {}});
    }
    mMoving.push({0, Step::Kind::Vsync, 0});
    // By time, then by kind; steps of one kind at one instant keep their order.
    std::stable_sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) {
        return a.at != b.at ? a.at < b.at : a.kind < b.kind;
    });
}

Schedule::~Schedule() = default;

void Schedule::pullBuffer(size_t layer) {
    FrameStream* stream = mStreams[layer].get();
    SimTime at = 0;
    if (stream == nullptr) return;
    if (stream->next(&at)) {
        mMoving.push({at, Step::Kind::Buffer, layer});
    } else if (mError.empty() && !stream->error().empty()) {
        mError = mScenario.layers[layer].name + ": " + stream->error();
    }
}

SimTime Schedule::nextVsyncAfter(SimTime t) const {
    double hz = mScenario.display.refreshHz;
    for (const RefreshChange& change : mScenario.display.refreshChanges) {
        if (change.at <= t) hz = change.refreshHz;
    }
    return t + vsyncPeriodOf(hz);
}

bool Schedule::next(Step* step) {
    if (!mError.empty()) return false;
    const bool fixedLeft = mFixedNext < mFixed.size();
    if (fixedLeft &&
        (mMoving.empty() || mFixed[mFixedNext].at < mMoving.top().at ||
         (mFixed[mFixedNext].at == mMoving.top().at &&
          mFixed[mFixedNext].kind < mMoving.top().kind))) {
        *step = std::move(mFixed[mFixedNext++]);
        return true;
    }
    if (mMoving.empty()) return false;
    const Pending p = mMoving.top();
    mMoving.pop();
    *step = Step{p.at, p.kind, p.index, {}};
    if (p.kind == Step::Kind::Vsync) {
        const SimTime next = nextVsyncAfter(p.at);
        if (next < mScenario.duration) mMoving.push({next, Step::Kind::Vsync, 0});
    } else {
        ++mBuffersPlayed;
        pullBuffer(p.index);
    }
    return true;
}

int64_t vsyncPeriodOf(double refreshHz) {
    return static_cast<int64_t>(1e9 / refreshHz);
}

} // namespace android::tools::sim
