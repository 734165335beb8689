#define LOG_TAG "PeltoController"

#include "trace/PeltoTraceLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include <android-base/properties.h>
#include <android/log.h>
#include <cutils/trace.h>

#include "trace/TraceUtils.h"

namespace android {
namespace {

constexpr const char* kDebugProperty = "vendor.debug.sf.show_pelto2_trace";

enum DebugSwitch : uint8_t { kUnread = 0, kOff = 1, kOn = 2 };

// One byte holds both "read yet" and the value, so the steady-state test is a
// single load. Two threads that race to the first read both store the same value.
std::atomic<uint8_t> sDebugSwitch{kUnread};

} // namespace

bool peltoDebugEnabled() {
    uint8_t state = sDebugSwitch.load(std::memory_order_acquire);
    if (__builtin_expect(state == kUnread, 0)) {
        state = base::GetBoolProperty(kDebugProperty, false) ? kOn : kOff;
        sDebugSwitch.store(state, std::memory_order_release);
    }
    return state == kOn;
}

void traceLog(const char* format, ...) {
    if (!peltoDebugEnabled()) {
        return;
    }
    const bool tracing = ATRACE_ENABLED();
    va_list args;
    va_start(args, format);
    if (tracing) {
        va_list traceArgs;
        va_copy(traceArgs, args);
        TraceUtils::atraceFormatBeginV(format, traceArgs);
        va_end(traceArgs);
    }
    __android_log_vprint(ANDROID_LOG_INFO, LOG_TAG, format, args);
    va_end(args);
    if (tracing) {
        ATRACE_END();
    }
}

namespace pelto_testing {
void resetDebugSwitch() {
    sDebugSwitch.store(kUnread, std::memory_order_release);
}
} // namespace pelto_testing

} // namespace android
