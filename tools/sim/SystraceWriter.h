#pragma once

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include "tools/sim/TraceRecorder.h"

namespace android::tools::sim {

// Writes trace events in the systrace text format (ftrace's text output with
// tracing_mark_write lines), which Perfetto UI, trace_processor and
// chrome://tracing open. The simulator's process appears as "surfaceflinger"
// with fixed ids, so the same run gives the same file: its main thread (the
// one named `mainTid` in the events) is pid 1000; the library's threads follow
// in the order of their names.
void writeSystrace(std::ostream& os, const std::vector<TraceEvent>& events, pid_t mainTid);

// The same, to a file. False, with *error, if the file cannot be written.
bool writeSystraceFile(const std::string& path, const std::vector<TraceEvent>& events,
                       pid_t mainTid, std::string* error);

} // namespace android::tools::sim
