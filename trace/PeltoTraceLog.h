#pragma once

namespace android {

// The debug switch: the boolean property "vendor.debug.sf.show_pelto2_trace",
// read on the first call in the process and cached for the life of the process.
bool peltoDebugEnabled();

// While the debug switch is on, logs the formatted text at info priority under
// "PeltoController", wrapped in a graphics trace section of the same text when
// that tag is enabled. While it is off, costs one byte test.
void traceLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace pelto_testing {
// Forgets the cached debug switch so that the next traceLog reads the property
// again. For tests, which run many cases in one process.
void resetDebugSwitch();
} // namespace pelto_testing

} // namespace android
