#pragma once

#include <cstdint>
#include <string>

#include "tools/sim/ProtoWire.h"

namespace android::tools::sim {

// Display and GPU drivers write atrace-like marks (begin, end, counter) as
// kernel tracepoints with fields of their own, not as print text. These read
// them in a Perfetto trace's ftrace events.

// True for the FtraceEvent fields that hold such a tracepoint.
bool isDriverMark(uint32_t eventField);

// The mark as print text: "B|pid|name", "E|pid" or "C|pid|name|value".
// False, with *damage set, when the payload is not a message; *text is
// empty when the event carries no mark the reader can use.
bool driverMarkText(uint32_t eventField, const proto::Field& payload, std::string* text,
                    const char** damage);

} // namespace android::tools::sim
