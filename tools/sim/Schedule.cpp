#include "tools/sim/Schedule.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

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
    uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
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

// Buffers of one layer: steady frames over its visible spans, moved by the
// jitter, kept in order and inside their span.
void addFrames(const Scenario& scenario, size_t layerIndex, std::vector<Step>* steps) {
    const LayerSpec& layer = scenario.layers[layerIndex];
    if (!layer.frames || !layer.hasBuffer) return;
    const FrameSpec& frames = *layer.frames;
    const double interval = 1e9 / frames.fps;
    Jitter jitter(scenario.seed ^ hashName(layer.name));
    SimTime previous = -1;
    for (const Window& window : layer.visible) {
        for (int64_t k = 0;; ++k) {
            const SimTime nominal = window.from + frames.phase + std::llround(k * interval);
            if (nominal >= window.to || nominal >= scenario.duration) break;
            if (inAnyWindow(frames.pauses, nominal)) continue;
            SimTime at = nominal + std::llround(jitter.next() * frames.jitter);
            at = std::clamp(at, std::max(window.from, previous + 1), window.to - 1);
            if (at >= scenario.duration) break;
            steps->push_back({at, Step::Kind::Buffer, layerIndex, {}});
            previous = at;
        }
    }
}

} // namespace

std::vector<Step> buildSchedule(const Scenario& scenario) {
    std::vector<Step> steps;
    const SimTime end = scenario.duration;
    const uint32_t screenArea = scenario.display.screenArea();
    for (size_t i = 0; i < scenario.layers.size(); ++i) {
        const LayerSpec& layer = scenario.layers[i];
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
        addFrames(scenario, i, &steps);
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
    // Vsyncs at the period in force at each one.
    for (SimTime t = 0; t < end;) {
        steps.push_back({t, Step::Kind::Vsync, 0, {}});
        double hz = scenario.display.refreshHz;
        for (const RefreshChange& change : changes) {
            if (change.at <= t) hz = change.refreshHz;
        }
        t += vsyncPeriodOf(hz);
    }
    // By time, then by kind; steps of one kind at one instant keep their order.
    std::stable_sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) {
        return a.at != b.at ? a.at < b.at : a.kind < b.kind;
    });
    return steps;
}

int64_t vsyncPeriodOf(double refreshHz) {
    return static_cast<int64_t>(1e9 / refreshHz);
}

} // namespace android::tools::sim
