#pragma once

#include <functional>
#include <mutex>
#include <string>

#include <android-base/thread_annotations.h>

namespace android::tools {

// One line that the library wrote through liblog, trailing newline removed.
struct LogLine {
    int priority; // android_LogPriority
    std::string tag;
    std::string message;
};

// 'V', 'D', 'I', 'W', 'E', 'F', or '?'.
char priorityLetter(int priority);

// While it lives, every liblog line of the process (the library's included,
// from any thread) goes to `sink` instead of stderr, one line at a time.
class LogSink {
public:
    using Sink = std::function<void(const LogLine&)>;

    explicit LogSink(Sink sink);
    ~LogSink();

    LogSink(const LogSink&) = delete;
    LogSink& operator=(const LogSink&) = delete;

    void deliver(LogLine line) EXCLUDES(mMutex);

private:
    std::mutex mMutex;
    Sink mSink GUARDED_BY(mMutex);
};

} // namespace android::tools
