#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/thread_annotations.h>

namespace android::tools::sim {

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
    // the counter listener, so a long run holds no trace in memory.
    void restart(bool keep) EXCLUDES(mMutex);

private:
    void record(TraceEvent::Kind kind, const std::string& name, int64_t value) EXCLUDES(mMutex);

    std::atomic<bool> mKeep{true};
    mutable std::mutex mMutex;
    std::vector<TraceEvent> mEvents GUARDED_BY(mMutex);
    CounterListener mListener GUARDED_BY(mMutex);
};

} // namespace android::tools::sim
