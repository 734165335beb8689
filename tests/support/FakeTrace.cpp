#include "support/FakeTrace.h"

#include <ostream>

#include <cutils/trace.h>

namespace android::test {

TraceEvent counter(const std::string& name, int64_t value) {
    return {TraceEvent::Kind::Counter, name, value};
}
TraceEvent begin(const std::string& name) {
    return {TraceEvent::Kind::Begin, name, 0};
}
TraceEvent end() {
    return {TraceEvent::Kind::End, "", 0};
}

std::ostream& operator<<(std::ostream& os, const TraceEvent& e) {
    switch (e.kind) {
        case TraceEvent::Kind::Begin:
            return os << "B|" << e.name;
        case TraceEvent::Kind::End:
            return os << "E";
        case TraceEvent::Kind::Counter:
            return os << "C|" << e.name << "|" << e.value;
    }
    return os;
}

FakeTrace& FakeTrace::instance() {
    static FakeTrace trace;
    return trace;
}

void FakeTrace::setEnabledTags(uint64_t tags) {
    std::lock_guard lock(mMutex);
    mTags = tags;
}

void FakeTrace::setGraphicsEnabled(bool enabled) {
    setEnabledTags(enabled ? ATRACE_TAG_GRAPHICS : 0);
}

uint64_t FakeTrace::enabledTags() const {
    std::lock_guard lock(mMutex);
    return mTags;
}

void FakeTrace::disableAfterCounters(int count) {
    std::lock_guard lock(mMutex);
    mDisableAfter = count;
}

void FakeTrace::record(TraceEvent event) {
    std::lock_guard lock(mMutex);
    if (event.kind == TraceEvent::Kind::Counter && mDisableAfter >= 0) {
        if (mDisableAfter == 0) {
            return;
        }
        if (--mDisableAfter == 0) {
            mTags = 0;
        }
    }
    mEvents.push_back(std::move(event));
}

std::vector<TraceEvent> FakeTrace::events() const {
    std::lock_guard lock(mMutex);
    return mEvents;
}

std::vector<TraceEvent> FakeTrace::counters(const std::string& name) const {
    std::lock_guard lock(mMutex);
    std::vector<TraceEvent> out;
    for (const auto& e : mEvents) {
        if (e.kind == TraceEvent::Kind::Counter && e.name == name) out.push_back(e);
    }
    return out;
}

void FakeTrace::clear() {
    std::lock_guard lock(mMutex);
    mEvents.clear();
    mDisableAfter = -1;
}

ScopedFakeTrace::ScopedFakeTrace(bool graphicsEnabled) {
    FakeTrace::instance().clear();
    FakeTrace::instance().setGraphicsEnabled(graphicsEnabled);
}

ScopedFakeTrace::~ScopedFakeTrace() {
    FakeTrace::instance().setGraphicsEnabled(false);
    FakeTrace::instance().clear();
}

} // namespace android::test

// The platform's trace entry points, as the library calls them.
extern "C" {

uint64_t atrace_get_enabled_tags() {
    return android::test::FakeTrace::instance().enabledTags();
}

void atrace_begin_body(const char* name) {
    android::test::FakeTrace::instance().record(android::test::begin(name));
}

void atrace_end_body() {
    android::test::FakeTrace::instance().record(android::test::end());
}

void atrace_int64_body(const char* name, int64_t value) {
    android::test::FakeTrace::instance().record(android::test::counter(name, value));
}

} // extern "C"
