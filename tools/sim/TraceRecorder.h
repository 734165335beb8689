#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/thread_annotations.h>

namespace android::tools::sim {

// The most events a trace file holds (about 2 GB of text); a longer run's
// trace stops there, and the tool says when.
constexpr uint64_t kMaxTraceEvents = 20000000;

// One event of the system trace, stamped with virtual time.
struct TraceEvent {
    enum class Kind { Begin, End, Counter };
    Kind kind = Kind::Begin;
    int64_t time = 0; // virtual monotonic time, ns
    pid_t tid = 0;
    std::string thread; // the thread's name when the event was made
    std::string name;   // section or counter name; empty for End
    int64_t value = 0;  // counter value
};

// Collects the trace. The simulator defines the platform's atrace entry
// points, so the library's counters and sections land here, next to the
// simulator's own events; graphics tracing reads as enabled, as in a capture
// with the gfx category.
class TraceRecorder {
public:
    static TraceRecorder& instance();

    void begin(const std::string& name) EXCLUDES(mMutex);
    void end() EXCLUDES(mMutex);
    void counter(const std::string& name, int64_t value) EXCLUDES(mMutex);

    // Called after each counter is recorded, on the thread that traced it.
    using CounterListener = std::function<void(const std::string& name, int64_t value)>;
    void setCounterListener(CounterListener listener) EXCLUDES(mMutex);

    std::vector<TraceEvent> events() const EXCLUDES(mMutex);
    // Forgets the events so far; with keep false, later events only reach
    // the counter listener, so a long run holds no trace in memory. With a
    // `spool`, kept events are written to it as they are made (see
    // SystraceWriter.h) instead of held, up to kMaxTraceEvents.
    void restart(bool keep, std::FILE* spool = nullptr) EXCLUDES(mMutex);

    // Of a spooled run: the events written, each thread's first name, and
    // the virtual time at which the cap stopped the trace (-1 if it did not).
    uint64_t spooledEvents() const EXCLUDES(mMutex);
    std::map<pid_t, std::string> threadNames() const EXCLUDES(mMutex);
    int64_t spoolCutAt() const EXCLUDES(mMutex);

private:
    void record(TraceEvent::Kind kind, const std::string& name, int64_t value) EXCLUDES(mMutex);
    void spool(const TraceEvent& event) REQUIRES(mMutex);

    std::atomic<bool> mKeep{true};
    mutable std::mutex mMutex;
    std::vector<TraceEvent> mEvents GUARDED_BY(mMutex);
    std::FILE* mSpool GUARDED_BY(mMutex) = nullptr;
    uint64_t mSpooled GUARDED_BY(mMutex) = 0;
    int64_t mSpoolCutAt GUARDED_BY(mMutex) = -1;
    std::map<pid_t, std::string> mThreads GUARDED_BY(mMutex);
    CounterListener mListener GUARDED_BY(mMutex);
};

} // namespace android::tools::sim
