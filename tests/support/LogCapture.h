#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <android/log.h>

namespace android::test {

struct LogLine {
    int priority;
    std::string tag;
    std::string message;

    bool operator==(const LogLine& o) const {
        return priority == o.priority && tag == o.tag && message == o.message;
    }
};

std::ostream& operator<<(std::ostream& os, const LogLine& line);

// Captures every line written through liblog while it lives (installed with
// __android_log_set_logger); lines still reach stderr for a failing test's output.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    std::vector<LogLine> lines(const std::string& tag) const;
    // Messages logged under `tag`, in order.
    std::vector<std::string> messages(const std::string& tag) const;
    // How many lines under `tag` carry exactly `message`.
    size_t count(const std::string& tag, const std::string& message) const;
    bool contains(int priority, const std::string& tag, const std::string& message) const;
    void clear();

    void add(LogLine line);

private:
    mutable std::mutex mMutex;
    std::vector<LogLine> mLines;
};

} // namespace android::test
