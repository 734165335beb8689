#pragma once

#include <string>

namespace android::tools::sim {

// One event line of ftrace text, in any of the layouts the kernel and atrace
// write: "task-tid [(tgid)] [cpu] [irq flags] seconds: event: payload". The
// TGID column ("(  612)", or "(-----)" when unknown) and the irq-flags column
// ("d..2", "...1.") are optional.
struct EventLine {
    std::string task;
    int tid = 0;
    double seconds = 0;
    std::string event;
    std::string payload;
};

// False when the line is not an event line (a header, a note, a line cut short).
bool parseEventLine(const std::string& line, EventLine* out);

} // namespace android::tools::sim
