#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <map>
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

// A long run's events go to a spool file as they are made, one line each
// ("tid kind time value name"), so the run holds no trace in memory; the
// trace file is written from the spool at the end, when the threads (for
// the ids above) and the count (for the header) are known.
void writeSpooledEvent(std::FILE* spool, const TraceEvent& event);
bool writeSystraceSpool(const std::string& path, std::FILE* spool,
                        const std::map<pid_t, std::string>& threads, uint64_t count, pid_t mainTid,
                        std::string* error);

} // namespace android::tools::sim
