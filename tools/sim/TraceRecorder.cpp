#include "tools/sim/TraceRecorder.h"

#include <pthread.h>
#include <unistd.h>

#include <cutils/trace.h>

#include "tools/sim/SimClock.h"
#include "tools/sim/SystraceWriter.h"

namespace android::tools::sim {
namespace {

std::string currentThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

} // namespace

TraceRecorder& TraceRecorder::instance() {
    static TraceRecorder recorder;
    return recorder;
}

void TraceRecorder::record(TraceEvent::Kind kind, const std::string& name, int64_t value) {
    if (!mKeep.load()) {
        if (kind != TraceEvent::Kind::Counter) return;
        CounterListener listener;
        {
            std::lock_guard lock(mMutex);
            listener = mListener;
        }
        if (listener) listener(name, value);
        return;
    }
    TraceEvent event;
    event.kind = kind;
    event.tid = gettid();
    event.thread = currentThreadName();
    event.name = name;
    event.value = value;
    CounterListener listener;
    {
        std::lock_guard lock(mMutex);
        // Read under the lock, so the list stays in time order across threads.
        event.time = virtualTime();
        if (mSpool != nullptr) {
            spool(event);
        } else {
            mEvents.push_back(std::move(event));
        }
        if (kind == TraceEvent::Kind::Counter) listener = mListener;
    }
    if (listener) listener(name, value);
}

void TraceRecorder::begin(const std::string& name) {
    record(TraceEvent::Kind::Begin, name, 0);
}

void TraceRecorder::end() {
    record(TraceEvent::Kind::End, "", 0);
}

void TraceRecorder::counter(const std::string& name, int64_t value) {
    record(TraceEvent::Kind::Counter, name, value);
}

void TraceRecorder::setCounterListener(CounterListener listener) {
    std::lock_guard lock(mMutex);
    mListener = std::move(listener);
}

void TraceRecorder::spool(const TraceEvent& event) {
    if (mSpoolCutAt >= 0) return;
    if (mSpooled >= kMaxTraceEvents) {
        mSpoolCutAt = event.time;
        return;
    }
    mThreads.emplace(event.tid, event.thread);
    writeSpooledEvent(mSpool, event);
    ++mSpooled;
}

void TraceRecorder::restart(bool keep, std::FILE* spool) {
    std::lock_guard lock(mMutex);
    mEvents.clear();
    mKeep = keep;
    mSpool = spool;
    mSpooled = 0;
    mSpoolCutAt = -1;
    mThreads.clear();
}

uint64_t TraceRecorder::spooledEvents() const {
    std::lock_guard lock(mMutex);
    return mSpooled;
}

std::map<pid_t, std::string> TraceRecorder::threadNames() const {
    std::lock_guard lock(mMutex);
    return mThreads;
}

int64_t TraceRecorder::spoolCutAt() const {
    std::lock_guard lock(mMutex);
    return mSpoolCutAt;
}

std::vector<TraceEvent> TraceRecorder::events() const {
    std::lock_guard lock(mMutex);
    return mEvents;
}

} // namespace android::tools::sim

// The platform's trace entry points, defined by the simulator and exported
// from it, so that the library's trace calls land in the recorder.
extern "C" {

uint64_t atrace_get_enabled_tags() {
    return ATRACE_TAG_GRAPHICS;
}

void atrace_begin_body(const char* name) {
    android::tools::sim::TraceRecorder::instance().begin(name);
}

void atrace_end_body() {
    android::tools::sim::TraceRecorder::instance().end();
}

void atrace_int64_body(const char* name, int64_t value) {
    android::tools::sim::TraceRecorder::instance().counter(name, value);
}

} // extern "C"
