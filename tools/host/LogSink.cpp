#include "tools/host/LogSink.h"

#include <atomic>

#include <android/log.h>

namespace android::tools {
namespace {

std::atomic<LogSink*> sActive{nullptr};

void sinkLogger(const struct __android_logger_data* data, const char* message) {
    LogSink* sink = sActive.load();
    if (sink == nullptr) {
        __android_log_stderr_logger(data, message);
        return;
    }
    std::string text = message != nullptr ? message : "";
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    sink->deliver({data->priority, data->tag != nullptr ? data->tag : "", std::move(text)});
}

} // namespace

char priorityLetter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        default:
            return '?';
    }
}

LogSink::LogSink(Sink sink) : mSink(std::move(sink)) {
    sActive.store(this);
    __android_log_set_logger(sinkLogger);
}

LogSink::~LogSink() {
    sActive.store(nullptr);
    __android_log_set_logger(__android_log_stderr_logger);
}

void LogSink::deliver(LogLine line) {
    std::lock_guard lock(mMutex);
    mSink(line);
}

} // namespace android::tools
