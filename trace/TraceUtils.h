#pragma once

#include <cstdarg>
#include <cstddef>

namespace android {

class TraceUtils {
public:
    // Longest section name, in characters; longer text is cut.
    static constexpr size_t kMaxSectionNameLength = 255;

    // Opens a graphics trace section named by the formatted text. The caller
    // closes it with ATRACE_END() when the graphics tag is enabled.
    static void atraceFormatBegin(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void atraceFormatBeginV(const char* format, va_list args);
};

} // namespace android
