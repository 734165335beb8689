#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace android::test {

// One event that the code under test sent to the system trace.
struct TraceEvent {
    enum class Kind { Begin, End, Counter };
    Kind kind;
    std::string name;  // section or counter name; empty for End
    int64_t value = 0; // counter value

    bool operator==(const TraceEvent& o) const {
        return kind == o.kind && name == o.name && value == o.value;
    }
};

TraceEvent counter(const std::string& name, int64_t value);
TraceEvent begin(const std::string& name);
TraceEvent end();

std::ostream& operator<<(std::ostream& os, const TraceEvent& e);

// Records what the atrace entry points receive. The test program defines those
// entry points itself, so every trace call of the library lands here; tracing
// is reported as off until a test turns it on.
class FakeTrace {
public:
    static FakeTrace& instance();

    void setEnabledTags(uint64_t tags);
    void setGraphicsEnabled(bool enabled);
    uint64_t enabledTags() const;

    // Turns graphics tracing off after this many more counter emissions (-1: never).
    void disableAfterCounters(int count);

    void record(TraceEvent event);
    std::vector<TraceEvent> events() const;
    std::vector<TraceEvent> counters(const std::string& name) const;
    void clear();

private:
    mutable std::mutex mMutex;
    uint64_t mTags = 0;
    int mDisableAfter = -1;
    std::vector<TraceEvent> mEvents;
};

// Clears the recorder and sets graphics tracing for the life of a test.
class ScopedFakeTrace {
public:
    explicit ScopedFakeTrace(bool graphicsEnabled);
    ~ScopedFakeTrace();
};

} // namespace android::test
