#include "trace/TraceUtils.h"

#include <cstdio>

#include <cutils/trace.h>

namespace android {

void TraceUtils::atraceFormatBegin(const char* format, ...) {
    va_list args;
    va_start(args, format);
    atraceFormatBeginV(format, args);
    va_end(args);
}

void TraceUtils::atraceFormatBeginV(const char* format, va_list args) {
    char name[kMaxSectionNameLength + 1] = {};
    vsnprintf(name, sizeof(name), format, args);
    ATRACE_BEGIN(name);
}

} // namespace android
