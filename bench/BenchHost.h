#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "controller/PeltoController.h"
#include "support/LayerScene.h"
#include "support/LeanCompositor.h"

namespace android::bench {

// The rule file of a scene, written to a temporary file of its own, which is
// removed when this goes.
class RuleFileOnDisk {
public:
    explicit RuleFileOnDisk(const std::string& json);
    ~RuleFileOnDisk();

    RuleFileOnDisk(const RuleFileOnDisk&) = delete;
    RuleFileOnDisk& operator=(const RuleFileOnDisk&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
};

// A list-mode controller on the lean host with a scene registered, composited
// until the decision is steady (On, the active target settled). The
// controller loads and reloads the rig's own rule file.
struct ListModeRig {
    ListModeRig(size_t registered, size_t visible);
    void composite() const;

    const test::LayerScene scene;
    RuleFileOnDisk rules;
    test::LeanCompositor host;
    std::unique_ptr<PeltoController> controller;
};

// An API-mode controller whose target is among `visible` layers and enabled,
// composited until On.
struct ApiModeRig {
    explicit ApiModeRig(size_t visible);
    void composite() const;

    test::LeanCompositor host;
    std::unique_ptr<PeltoController> controller;
};

// Where the active target's element stands in a transaction.
enum class TargetAt : int64_t { First = 0, Last = 1, Absent = 2 };
const char* targetAtName(TargetAt at);

// One transaction of `batch` elements of the rig's visible layers, with the
// active target's element at `at`, and what the host itself must do for it:
// the handle callbacks the controller calls, two clock reads and the vsync
// request. That is the floor that setTransactionState is measured against.
class Transaction {
public:
    Transaction(ListModeRig& rig, size_t batch, TargetAt at);

    void run(PeltoController& controller) const;
    void runFloor() const;

private:
    std::vector<PeltoTransactionState> mStates;
    size_t mLookups; // elements up to and including the target's
    bool mHasTarget;
    long mTimestamp; // one vsync before setup, so each call asks for a vsync
    PeltoController::GetLayerPtrFromHandle mGetLayerPtrFromHandle;
    PeltoController::GetBufferCountFromHandle mGetBufferCountFromHandle;
    PeltoController::GetCurrentVsyncPeriod mGetCurrentVsyncPeriod;
    PeltoController::TriggerVsyncCallback mTriggerVsyncCallback;
};

// The host's list-mode traversal with a visitor that does nothing, and the
// API-mode one: the floor that composite() is measured against.
void traverseBufferLayersFloor(const PeltoController::TraverseVisibleBufferLayers& traverse);
void traverseLayersFloor(const PeltoController::TraverseVisibleLayers& traverse);

// Drops every log line and counts them, so that a benchmark can tell whether
// its timed loop logged.
void installCountingLogger();
uint64_t loggedLines();

// The program defines the platform's atrace entry points, as the test program
// does, so graphics tracing can be turned on here. An event is formatted as the
// platform formats it for the trace buffer, then dropped: the cost shown is the
// library's and the formatting, not the write to the kernel's buffer.
void setGraphicsTracing(bool enabled);

} // namespace android::bench
