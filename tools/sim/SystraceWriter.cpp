#include "tools/sim/SystraceWriter.h"

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>

namespace android::tools::sim {
namespace {

constexpr pid_t kProcessId = 1000;
constexpr const char* kProcessName = "surfaceflinger";

// A marker is one line: a newline inside a name would end it early.
std::string oneLine(const std::string& name) {
    std::string out = name;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    for (char& c : out) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return out;
}

} // namespace

void writeSystrace(std::ostream& os, const std::vector<TraceEvent>& events, pid_t mainTid) {
    // Stable ids: the main thread is the process; the others in name order.
    std::map<pid_t, std::string> names;
    for (const TraceEvent& e : events) names.emplace(e.tid, e.thread);
    std::set<std::pair<std::string, pid_t>> others;
    for (const auto& [tid, name] : names) {
        if (tid != mainTid) others.insert({name.empty() ? "thread" : name, tid});
    }
    std::map<pid_t, std::pair<pid_t, std::string>> ids;
    ids[mainTid] = {kProcessId, kProcessName};
    pid_t next = kProcessId + 1;
    for (const auto& [name, tid] : others) ids[tid] = {next++, name};

    os << "# tracer: nop\n"
       << "#\n"
       << "# entries-in-buffer/entries-written: " << events.size() << "/" << events.size()
       << "   #P:1\n"
       << "#\n"
       << "#                                      _-----=> irqs-off\n"
       << "#                                     / _----=> need-resched\n"
       << "#                                    | / _---=> hardirq/softirq\n"
       << "#                                    || / _--=> preempt-depth\n"
       << "#                                    ||| /     delay\n"
       << "#           TASK-PID    TGID   CPU#  ||||    TIMESTAMP  FUNCTION\n"
       << "#              | |        |      |   ||||       |         |\n";
    char prefix[96];
    for (const TraceEvent& e : events) {
        const auto& [tid, task] = ids[e.tid];
        const int64_t micros = e.time / 1000;
        snprintf(prefix, sizeof(prefix),
                 "%16s-%-5d (%5d) [000] ...1 %5" PRId64 ".%06" PRId64 ": tracing_mark_write: ",
                 task.c_str(), tid, kProcessId, micros / 1'000'000, micros % 1'000'000);
        os << prefix;
        switch (e.kind) {
            case TraceEvent::Kind::Begin:
                os << "B|" << kProcessId << "|" << oneLine(e.name) << "\n";
                break;
            case TraceEvent::Kind::End:
                os << "E|" << kProcessId << "\n";
                break;
            case TraceEvent::Kind::Counter:
                os << "C|" << kProcessId << "|" << oneLine(e.name) << "|" << e.value << "\n";
                break;
        }
    }
}

bool writeSystraceFile(const std::string& path, const std::vector<TraceEvent>& events,
                       pid_t mainTid, std::string* error) {
    std::ofstream file(path);
    if (file) writeSystrace(file, events, mainTid);
    if (!file) {
        *error = "cannot write the trace to " + path;
        return false;
    }
    return true;
}

} // namespace android::tools::sim
