#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

#include "controller/PeltoController.h"

namespace android::fuzz {

// The fuzz program defines systemTime(): its monotonic clock is this value,
// which only the fuzz input moves, so that a run can be replayed exactly.
void setClock(int64_t now);
int64_t clockNow();

// A lean compositor for the controller fuzzer: answers the nine callbacks
// from state the input sets, and checks that the HWC mode is switched on and
// off strictly in turn, starting with on. All of its state is touched on the
// fuzzing thread, except the vsync-callback count and the vsync period, which
// the controller's own threads may read or bump.
class FuzzHost {
public:
    struct VisibleLayer {
        const void* layerPtr = nullptr;
        float area = 0.0f;
        bool focused = false;
    };

    FuzzHost() = default;
    FuzzHost(const FuzzHost&) = delete;
    FuzzHost& operator=(const FuzzHost&) = delete;

    // A controller made through the exported entry point, with all nine callbacks.
    PeltoController* create(bool useList);

    void setVisibleLayers(std::vector<VisibleLayer> layers) { mVisible = std::move(layers); }
    void setVsyncPeriod(long period) { mPeriod = period; }
    long vsyncPeriod() const { return mPeriod; }
    // A handle that names layerPtr (null: a handle of no layer).
    sp<IBinder> makeHandle(const void* layerPtr);
    void setBufferCount(const sp<IBinder>& handle, int bufferCount);

    // Whether the last HWC call was "on" (false before any).
    bool hwcOn() const { return mHwcOn; }

private:
    std::vector<VisibleLayer> mVisible;
    std::atomic<long> mPeriod{16'666'666};
    std::map<const IBinder*, std::pair<const void*, int>> mHandles;
    std::atomic<int> mVsyncCallbacks{0};
    bool mHwcOn = false;
};

} // namespace android::fuzz
