#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

#include "controller/PeltoController.h"

namespace android::fuzz {

// The fuzz program defines systemTime(): its monotonic clock is this value,
// which only the fuzz input moves, so that a run can be replayed exactly.
void setClock(int64_t now);
void advanceClock(int64_t step);
int64_t clockNow();

// Layer slots: 0 to kSlots - 2 are layer pointers, the last one is null.
constexpr size_t kSlots = 8;
const void* slotPointer(size_t slot);

// A lean compositor for the controller fuzzer, built once and reused by every
// input: answers the nine callbacks from state the input sets, and checks that
// the HWC mode is switched on and off strictly in turn, starting with on.
// The visible set is set and read on the composing thread only; everything
// else may be touched from the fuzzer's second thread and the controller's
// own threads, so it is atomic.
class FuzzHost {
public:
    struct VisibleLayer {
        const void* layerPtr = nullptr;
        float area = 0.0f;
        bool focused = false;
    };

    static constexpr long kDefaultPeriod = 16'666'666;

    FuzzHost();
    FuzzHost(const FuzzHost&) = delete;
    FuzzHost& operator=(const FuzzHost&) = delete;

    // A controller with all nine callbacks, its threads making `platform`'s calls.
    PeltoController* create(bool useList, const PeltoController::PlatformCalls& platform);

    // Back to the state a new host starts in; the HWC record is left alone:
    // it follows the controller, which is reset separately.
    void reset();

    void setVisibleLayers(std::vector<VisibleLayer> layers) { mVisible = std::move(layers); }
    void setVsyncPeriod(long period) { mPeriod = period; }
    long vsyncPeriod() const { return mPeriod; }
    // The handle of a slot's layer; the last slot's handle names no layer.
    const sp<IBinder>& handle(size_t slot) const { return mHandles[slot % kSlots]; }
    void setBufferCount(size_t slot, int bufferCount) {
        mBufferCounts[slot % kSlots] = bufferCount;
    }

    // Whether the last HWC call was "on" (false before any).
    bool hwcOn() const { return mHwcOn; }

private:
    int slotOf(const sp<IBinder>& handle) const;

    std::vector<VisibleLayer> mVisible;
    std::atomic<long> mPeriod{kDefaultPeriod};
    std::array<sp<IBinder>, kSlots> mHandles;
    std::array<std::atomic<int>, kSlots> mBufferCounts{};
    std::atomic<int> mVsyncCallbacks{0};
    std::atomic<bool> mHwcOn{false};
};

} // namespace android::fuzz
