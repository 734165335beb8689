#include "tools/sim/SystraceWriter.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
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

// Stable ids: the main thread is the process; the others in name order.
std::map<pid_t, std::pair<pid_t, std::string>> threadIds(const std::map<pid_t, std::string>& names,
                                                         pid_t mainTid) {
    std::set<std::pair<std::string, pid_t>> others;
    for (const auto& [tid, name] : names) {
        if (tid != mainTid) others.insert({name.empty() ? "thread" : name, tid});
    }
    std::map<pid_t, std::pair<pid_t, std::string>> ids;
    ids[mainTid] = {kProcessId, kProcessName};
    pid_t next = kProcessId + 1;
    for (const auto& [name, tid] : others) ids[tid] = {next++, name};
    return ids;
}

void writeHeader(std::ostream& os, uint64_t count) {
    os << "# tracer: nop\n"
       << "#\n"
       << "# entries-in-buffer/entries-written: " << count << "/" << count << "   #P:1\n"
       << "#\n"
       << "#                                      _-----=> irqs-off\n"
       << "#                                     / _----=> need-resched\n"
       << "#                                    | / _---=> hardirq/softirq\n"
       << "#                                    || / _--=> preempt-depth\n"
       << "#                                    ||| /     delay\n"
       << "#           TASK-PID    TGID   CPU#  ||||    TIMESTAMP  FUNCTION\n"
       << "#              | |        |      |   ||||       |         |\n";
}

// One event's line; `name` is already on one line.
void writeLine(std::ostream& os, const std::pair<pid_t, std::string>& id, TraceEvent::Kind kind,
               int64_t time, const std::string& name, int64_t value) {
    const auto& [tid, task] = id;
    const int64_t micros = time / 1000;
    char prefix[96];
    snprintf(prefix, sizeof(prefix),
             "%16s-%-5d (%5d) [000] ...1 %5" PRId64 ".%06" PRId64 ": tracing_mark_write: ",
             task.c_str(), tid, kProcessId, micros / 1'000'000, micros % 1'000'000);
    os << prefix;
    switch (kind) {
        case TraceEvent::Kind::Begin:
            os << "B|" << kProcessId << "|" << name << "\n";
            break;
        case TraceEvent::Kind::End:
            os << "E|" << kProcessId << "\n";
            break;
        case TraceEvent::Kind::Counter:
            os << "C|" << kProcessId << "|" << name << "|" << value << "\n";
            break;
    }
}

} // namespace

void writeSystrace(std::ostream& os, const std::vector<TraceEvent>& events, pid_t mainTid) {
    std::map<pid_t, std::string> names;
    for (const TraceEvent& e : events) names.emplace(e.tid, e.thread);
    auto ids = threadIds(names, mainTid);
    writeHeader(os, events.size());
    for (const TraceEvent& e : events) {
        writeLine(os, ids[e.tid], e.kind, e.time, oneLine(e.name), e.value);
    }
}

void writeSpooledEvent(std::FILE* spool, const TraceEvent& event) {
    const char kind = event.kind == TraceEvent::Kind::Begin ? 'B'
            : event.kind == TraceEvent::Kind::End           ? 'E'
                                                            : 'C';
    fprintf(spool, "%d %c %" PRId64 " %" PRId64 " %s\n", event.tid, kind, event.time, event.value,
            oneLine(event.name).c_str());
}

bool writeSystraceSpool(const std::string& path, std::FILE* spool,
                        const std::map<pid_t, std::string>& threads, uint64_t count, pid_t mainTid,
                        std::string* error) {
    std::ofstream file(path);
    auto ids = threadIds(threads, mainTid);
    if (file) writeHeader(file, count);
    const bool readable = fflush(spool) == 0 && fseek(spool, 0, SEEK_SET) == 0;
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length = 0;
    while (file && readable && (length = getline(&line, &capacity, spool)) > 0) {
        int tid = 0;
        char kind = 0;
        int64_t time = 0;
        int64_t value = 0;
        int used = 0;
        if (sscanf(line, "%d %c %" SCNd64 " %" SCNd64 "%n", &tid, &kind, &time, &value, &used) <
            4) {
            continue;
        }
        // One space, then the name as it was written.
        if (line[used] == ' ') ++used;
        std::string name(line + used, static_cast<size_t>(length - used));
        if (!name.empty() && name.back() == '\n') name.pop_back();
        writeLine(file, ids[tid],
                  kind == 'B'           ? TraceEvent::Kind::Begin
                          : kind == 'E' ? TraceEvent::Kind::End
                                        : TraceEvent::Kind::Counter,
                  time, name, value);
    }
    free(line);
    if (!file || !readable || ferror(spool)) {
        *error = "cannot write the trace to " + path;
        return false;
    }
    return true;
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
