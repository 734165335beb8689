#include "support/LogCapture.h"

#include <algorithm>
#include <atomic>
#include <ostream>

namespace android::test {
namespace {

std::atomic<LogCapture*> sActive{nullptr};

void captureLogger(const struct __android_logger_data* data, const char* message) {
    if (LogCapture* capture = sActive.load()) {
        capture->add({data->priority, data->tag ? data->tag : "", message ? message : ""});
    }
    __android_log_stderr_logger(data, message);
}

} // namespace

std::ostream& operator<<(std::ostream& os, const LogLine& line) {
    return os << line.priority << "/" << line.tag << ": " << line.message;
}

LogCapture::LogCapture() {
    sActive.store(this);
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    sActive.store(nullptr);
}

void LogCapture::add(LogLine line) {
    std::lock_guard lock(mMutex);
    mLines.push_back(std::move(line));
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard lock(mMutex);
    return mLines;
}

std::vector<LogLine> LogCapture::lines(const std::string& tag) const {
    std::lock_guard lock(mMutex);
    std::vector<LogLine> out;
    std::copy_if(mLines.begin(), mLines.end(), std::back_inserter(out),
                 [&](const LogLine& l) { return l.tag == tag; });
    return out;
}

std::vector<std::string> LogCapture::messages(const std::string& tag) const {
    std::vector<std::string> out;
    for (const auto& l : lines(tag)) out.push_back(l.message);
    return out;
}

size_t LogCapture::count(const std::string& tag, const std::string& message) const {
    std::lock_guard lock(mMutex);
    return std::count_if(mLines.begin(), mLines.end(),
                         [&](const LogLine& l) { return l.tag == tag && l.message == message; });
}

bool LogCapture::contains(int priority, const std::string& tag, const std::string& message) const {
    std::lock_guard lock(mMutex);
    return std::find(mLines.begin(), mLines.end(), LogLine{priority, tag, message}) != mLines.end();
}

void LogCapture::clear() {
    std::lock_guard lock(mMutex);
    mLines.clear();
}

} // namespace android::test
