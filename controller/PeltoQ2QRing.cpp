#define LOG_TAG "PeltoController"

#include "controller/PeltoQ2QRing.h"

#include <cmath>
#include <limits>

#include "controller/SaturatingSub.h"
#include "trace/PeltoTraceLog.h"

namespace android {
namespace {

int64_t pauseThreshold(int64_t period) {
    int64_t threshold;
    if (__builtin_mul_overflow(period, PeltoQ2QRing::kPausePeriods, &threshold)) {
        return period < 0 ? std::numeric_limits<int64_t>::min()
                          : std::numeric_limits<int64_t>::max();
    }
    return threshold;
}

} // namespace

PeltoQ2QRing::PeltoQ2QRing() : mQ2QFps("Pelto2-Q2QFps", 0) {}

uint64_t PeltoQ2QRing::capacityFor(int64_t period) {
    if (period <= 0) {
        return 0;
    }
    const float perSecond = 1e9f / static_cast<float>(period);
    if (!(perSecond < 18446744073709551616.0f)) { // 2^64
        return 0;
    }
    return static_cast<uint64_t>(perSecond) >> 1;
}

void PeltoQ2QRing::reset(int64_t period) {
    std::lock_guard lock(mQ2QMutex);
    traceLog("pelto2_sf_lib: resetFpsLocked");
    resetLocked(period);
}

void PeltoQ2QRing::resetLocked(int64_t period) {
    mAvgQ2QPeriod = 0;
    mQ2QDurations.clear(); // keeps the allocation
    mCurrentPeriod = period;
    mLastQueueTime = -1;
    mQ2QIndex = 0;
    mMaxQueueCount = capacityFor(period);
}

bool PeltoQ2QRing::pausedBefore(int64_t now) const {
    // Clock differences saturate instead of overflowing.
    return saturatingSub(now, mLastQueueTime) > pauseThreshold(mCurrentPeriod);
}

void PeltoQ2QRing::sample(int64_t now, const GetPeriod& getPeriod) {
    {
        std::lock_guard lock(mQ2QMutex);
        if (!pausedBefore(now)) {
            sampleLocked(now);
            return;
        }
    }
    // A pause: the ring starts afresh, sized for the period the host reports
    // now. The host is asked with the lock released; a reset by another
    // thread in the meantime changes nothing, since this one follows it.
    const int64_t period = getPeriod();
    std::lock_guard lock(mQ2QMutex);
    traceLog("pelto2_sf_lib: resetFpsLocked");
    resetLocked(period);
    sampleLocked(now);
}

void PeltoQ2QRing::sampleLocked(int64_t now) {
    if (mLastQueueTime < 0) {
        mLastQueueTime = now;
        mQ2QFps = 0;
        return;
    }

    const int64_t duration = saturatingSub(now, mLastQueueTime);
    mLastQueueTime = now;

    // A zero capacity (no usable vsync period) keeps no durations.
    if (mMaxQueueCount > 0) {
        if (mQ2QDurations.size() != mMaxQueueCount) {
            mQ2QDurations.push_back(duration);
            mQ2QIndex = (mQ2QIndex + 1) % mQ2QDurations.size();
        } else {
            mQ2QIndex = (mQ2QIndex + 1) % mQ2QDurations.size();
            mQ2QDurations[mQ2QIndex] = duration;
        }
    }

    int64_t fps = 0;
    if (mQ2QDurations.size() >= kMinDurationsForAverage) {
        int64_t sum = 0;
        for (const int64_t d : mQ2QDurations) {
            sum += d;
        }
        mAvgQ2QPeriod = sum / static_cast<int64_t>(mQ2QDurations.size());
        if (mAvgQ2QPeriod != 0) {
            const float rate = 1e9f / static_cast<float>(mAvgQ2QPeriod);
            fps = std::isfinite(rate) ? static_cast<int64_t>(rate) : 0;
        }
    } else {
        mAvgQ2QPeriod = 0;
    }
    mQ2QFps = fps;
}

int64_t PeltoQ2QRing::avgPeriod() const {
    std::lock_guard lock(mQ2QMutex);
    return mAvgQ2QPeriod;
}

bool PeltoQ2QRing::keepsUp(int64_t period, int64_t avgPeriod) {
    return static_cast<double>(period) * kKeepsUpFactor > static_cast<double>(avgPeriod);
}

bool PeltoQ2QRing::keepsUpOrIdle() const {
    std::lock_guard lock(mQ2QMutex);
    return keepsUp(mCurrentPeriod, mAvgQ2QPeriod) || mLastQueueTime == -1;
}

void PeltoQ2QRing::dump(std::ostream& os) const {
    std::lock_guard lock(mQ2QMutex);
    const float avgFps = mAvgQ2QPeriod != 0 ? 1e9f / static_cast<float>(mAvgQ2QPeriod) : 0.0f;
    os << "\tqueueCount: " << mQ2QDurations.size() << "\n";
    os << "\tmaxQueueCount: " << mMaxQueueCount << "\n";
    os << "\tavgPeriod: " << mAvgQ2QPeriod << " avgFps: " << avgFps << "\n";
    os << "\tcurrentPeriod: " << mCurrentPeriod << "\n";
}

} // namespace android
