#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/thread_annotations.h>
#include <binder/IBinder.h>

#include "tools/host/PeltoLibrary.h"
#include "tools/sim/Scenario.h"

namespace android::tools::sim {

// One layer as the compositor holds it; its address is the layerPtr.
struct SimLayer {
    const LayerScript* scenario = nullptr; // what the scenario says of the layer
    sp<IBinder> handle;
    bool registered = false;
    std::string kind;          // how the rule file classifies it, from the library's dump
    SimTime registeredAt = -1; // its last registration, for the time of its first class
    // As it was at the last composition in state On: a layer that was on
    // screen then, as large and as focused, did not end that state.
    bool shownWhileOn = false;
    float areaWhileOn = 0;
    bool focusedWhileOn = false;
};

// The compositor side of the callbacks the library is handed at creation:
// it finds layers by handle, walks the layers on screen, tells the vsync
// period, and counts the library's vsync-callback and invalidate requests.
// The HWC switches go to the listener.
class SimHost {
public:
    using HwcListener = std::function<void(bool on)>;

    SimHost(const std::vector<SimLayer>& layers, HwcListener hwc);

    SimHost(const SimHost&) = delete;
    SimHost& operator=(const SimHost&) = delete;

    // createPeltoController with this host's callbacks.
    PeltoController* createController(PeltoLibrary& library, bool listMode);

    bool isVisible(const SimLayer& layer) const;
    void setVsyncPeriod(int64_t period) { mVsyncPeriod = period; }
    int64_t vsyncPeriod() const { return mVsyncPeriod.load(); }

    // What the library asked for over the run.
    struct Requests {
        std::vector<SimTime> vsyncCallbacks; // the first kMaxKeptEntries
        int64_t vsyncCallbackCount = 0;
        int invalidateCalls = 0;
    };
    Requests requests();

private:
    void requestVsyncCallback();

    const std::vector<SimLayer>& mLayers;
    const HwcListener mHwc;

    // Asked from the library's threads as well as from the simulation loop.
    std::atomic<int64_t> mVsyncPeriod{0};

    // The fence loop may call the vsync callback from its own thread.
    std::mutex mCallbackMutex;
    Requests mRequests GUARDED_BY(mCallbackMutex);
};

} // namespace android::tools::sim
