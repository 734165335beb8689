#define LOG_TAG "SchedulerTimer"

#include "scheduler/PeltoTimer.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <android-base/stringprintf.h>
#include <cutils/trace.h>
#include <log/log.h>

namespace android::scheduler {
namespace {

constexpr nsecs_t kNanosPerSecond = 1'000'000'000;

// Values of the "<name>AlarmState" counter.
constexpr int32_t kAlarmCancelled = 0;
constexpr int32_t kAlarmArmed = 1;
constexpr int32_t kAlarmFired = 2;

// Tags in the epoll event data.
constexpr uint32_t kTimerTag = 0;
constexpr uint32_t kTerminateTag = 1;

constexpr int kDispatchPriority = 2;
constexpr int kMaxEvents = 2;
constexpr size_t kIterationNameSize = 36;

// Pause between two runs of a failing dispatch loop: doubles from the first to the last.
// Without it a thread at real-time priority spins while, say, no descriptor is free.
constexpr std::chrono::milliseconds kFirstRetryDelay{1};
constexpr std::chrono::milliseconds kLastRetryDelay{1000};
// Beyond the powers of two, a streak of failed runs is reported every this many runs: about
// once a minute once the pause has reached kLastRetryDelay.
constexpr uint64_t kFailedRunsReportPeriod = 64;

std::chrono::milliseconds retryDelay(uint64_t failedRuns) {
    // Past 10 doublings the pause is capped anyway; this keeps the shift small.
    const uint64_t doublings = std::min<uint64_t>(failedRuns - 1, 10);
    return std::min(kFirstRetryDelay * (int64_t{1} << doublings), kLastRetryDelay);
}

constexpr const char* kDebugStateNames[] = {"Reset",   "Running",    "Waiting",
                                            "Reading", "InCallback", "Terminated"};

void prepareDispatchThread() {
    sched_param param = {};
    param.sched_priority = kDispatchPriority;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0) {
        ALOGW("Failed to set SCHED_FIFO on dispatch thread");
    }
    if (pthread_setname_np(pthread_self(), "TimerDispatch") != 0) {
        ALOGW("Failed to set thread name on dispatch thread");
    }
}

// Marks one wakeup of the dispatch loop in the trace. Only traced wakeups are numbered.
void traceIteration(uint64_t& iteration) {
    if (ATRACE_ENABLED()) {
        char name[kIterationNameSize];
        snprintf(name, sizeof(name), "%s%lu", "TimerIteration #", iteration++);
        ATRACE_BEGIN(name);
        ATRACE_END();
    }
}

} // namespace

PeltoTimer::PeltoTimer(const char* name) : PeltoTimer(name, realTimerSyscalls()) {}

PeltoTimer::PeltoTimer(const char* name, const TimerSyscalls& syscalls)
      : mName(name), mAlarmState(mName + "AlarmState", kAlarmCancelled), mSyscalls(syscalls) {
    reset();
    mThread = std::thread(&PeltoTimer::threadMain, this);
}

PeltoTimer::~PeltoTimer() {
    endDispatch();
    mThread.join();
    cleanup();
}

nsecs_t PeltoTimer::now() const {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

void PeltoTimer::reset() {
    std::lock_guard lock(mMutex);
    resetLocked();
}

void PeltoTimer::resetLocked() {
    cleanupLocked();
    // Failures to create the timerfd or the epoll set leave -1 behind; the next dispatch()
    // then fails to register it and asks for another reset.
    mAlarmFd.reset(mSyscalls.timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    mEpollFd.reset(mSyscalls.epoll_create1(EPOLL_CLOEXEC));
    int pipes[2];
    if (mSyscalls.pipe2(pipes, O_NONBLOCK | O_CLOEXEC) != 0) {
        logFirstFailure("could not create TimerDispatch mPipes");
        return;
    }
    mPipes[0].reset(pipes[0]);
    mPipes[1].reset(pipes[1]);
    mDebugState = DebugState::Reset;
}

void PeltoTimer::cleanup() {
    std::lock_guard lock(mMutex);
    cleanupLocked();
}

void PeltoTimer::cleanupLocked() {
    for (base::unique_fd* fd : {&mAlarmFd, &mEpollFd, &mPipes[0], &mPipes[1]}) {
        fd->reset();
    }
}

void PeltoTimer::endDispatch() {
    std::lock_guard lock(mMutex);
    mStopRequested = true;
    mStopCondition.notify_all();
    static constexpr char kEnd = 'e';
    // Nothing to do on failure: without a pipe the dispatch loop cannot run, and it stops at
    // the next rebuild on seeing mStopRequested.
    mSyscalls.write(mPipes[1].get(), &kEnd, sizeof(kEnd));
}

void PeltoTimer::alarmAt(const std::function<void()>& callback, nsecs_t time) {
    std::lock_guard lock(mMutex);
    mCallback = callback;

    itimerspec newTimer = {};
    newTimer.it_value.tv_sec = static_cast<time_t>(time / kNanosPerSecond);
    newTimer.it_value.tv_nsec = static_cast<long>(time % kNanosPerSecond);
    itimerspec oldTimer = {};
    if (mSyscalls.timerfd_settime(mAlarmFd.get(), TFD_TIMER_ABSTIME, &newTimer, &oldTimer) != 0) {
        const int error = errno;
        ALOGW("Failed to set timerfd %s (%i)", strerror(error), error);
    }
    mAlarmState = kAlarmArmed;

    if (ATRACE_ENABLED()) {
        ATRACE_INT64((mName + "FireIn").c_str(), time);
    }
}

void PeltoTimer::alarmCancel() {
    std::lock_guard lock(mMutex);
    itimerspec disarm = {};
    itimerspec oldTimer = {};
    if (mSyscalls.timerfd_settime(mAlarmFd.get(), 0, &disarm, &oldTimer) != 0) {
        ALOGW("Failed to disarm timerfd");
    }
    mAlarmState = kAlarmCancelled;
}

void PeltoTimer::setDebugState(DebugState state) {
    std::lock_guard lock(mMutex);
    mDebugState = state;
}

const char* PeltoTimer::strDebugState(DebugState state) const {
    return kDebugStateNames[static_cast<int32_t>(state)];
}

void PeltoTimer::dump(std::string& result) const {
    std::lock_guard lock(mMutex);
    base::StringAppendF(&result, "\t\tDebugState: %s\n", strDebugState(mDebugState));
}

void PeltoTimer::threadMain() {
    while (dispatch()) {
        if (!waitToRetry()) {
            return;
        }
    }
}

bool PeltoTimer::waitToRetry() {
    ++mFailedRuns;
    const std::chrono::milliseconds delay = retryDelay(mFailedRuns);
    // The first failure was logged by the step that failed; after it, a count at every power
    // of two and then periodically keeps the log short however long the failure lasts.
    const bool powerOfTwo = (mFailedRuns & (mFailedRuns - 1)) == 0;
    if (mFailedRuns > 1 && (powerOfTwo || mFailedRuns % kFailedRunsReportPeriod == 0)) {
        ALOGE("Dispatch loop failed %" PRIu64 " times in a row; next attempt in %" PRId64 " ms",
              mFailedRuns, static_cast<int64_t>(delay.count()));
    }

    std::unique_lock lock(mMutex);
    base::ScopedLockAssertion assumeLocked(mMutex);
    // endDispatch() cuts the pause short. The check and the reset are one step under the
    // lock: endDispatch() either comes first and is seen here, or writes its byte into the
    // new pipe.
    const auto stopRequested = [this]() REQUIRES(mMutex) { return mStopRequested; };
    if (mStopCondition.wait_for(lock, delay, stopRequested)) {
        ALOGW("Dispatch loop stopped after %" PRIu64 " failed runs in a row", mFailedRuns);
        return false;
    }
    resetLocked();
    return true;
}

bool PeltoTimer::dispatch() {
    setDebugState(DebugState::Running);
    prepareDispatchThread();
    const LoopFds fds = loopFds();
    if (!setUpEpoll(fds)) {
        return true;
    }
    return runLoop(fds);
}

PeltoTimer::LoopFds PeltoTimer::loopFds() const {
    // Only this thread replaces the descriptors, and not during a run, so copies stay valid.
    std::lock_guard lock(mMutex);
    return {mAlarmFd.get(), mEpollFd.get(), mPipes[0].get()};
}

bool PeltoTimer::setUpEpoll(const LoopFds& fds) {
    return addToEpoll(fds.epoll, fds.alarm, kTimerTag,
                      "Error adding timer fd to epoll dispatch loop") &&
            addToEpoll(fds.epoll, fds.control, kTerminateTag,
                       "Error adding control fd to dispatch loop");
}

bool PeltoTimer::addToEpoll(int epollFd, int fd, uint32_t tag, const char* failure) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u32 = tag;
    if (mSyscalls.epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == -1) {
        logFirstFailure("%s", failure);
        return false;
    }
    return true;
}

bool PeltoTimer::runLoop(const LoopFds& fds) {
    uint64_t iteration = 0;
    while (true) {
        epoll_event events[kMaxEvents];
        int error = 0;
        const int eventCount = waitForEvents(fds.epoll, events, error);
        traceIteration(iteration);

        if (eventCount == -1) {
            if (error == EINTR) {
                continue;
            }
            logFirstFailure("Error waiting on epoll: %s", strerror(error));
            return true;
        }
        endFailureStreak();
        if (!handleEvents(events, eventCount, fds.alarm)) {
            return false;
        }
    }
}

int PeltoTimer::waitForEvents(int epollFd, epoll_event* events, int& error) {
    setDebugState(DebugState::Waiting);
    const int eventCount = mSyscalls.epoll_wait(epollFd, events, kMaxEvents, -1);
    error = errno;
    setDebugState(DebugState::Running);
    return eventCount;
}

bool PeltoTimer::handleEvents(const epoll_event* events, int eventCount, int alarmFd) {
    for (int i = 0; i < eventCount; i++) {
        switch (events[i].data.u32) {
            case kTimerTag:
                handleExpiry(alarmFd);
                break;
            case kTerminateTag:
                ALOGE("Terminated");
                setDebugState(DebugState::Running);
                return false;
        }
    }
    return true;
}

void PeltoTimer::handleExpiry(int alarmFd) {
    setDebugState(DebugState::Reading);
    // Drains the expiry count; its value does not matter, each wakeup runs the action once.
    uint64_t expirations;
    mSyscalls.read(alarmFd, &expirations, sizeof(expirations));
    setDebugState(DebugState::Running);

    std::function<void()> callback;
    {
        std::lock_guard lock(mMutex);
        callback = mCallback;
        mAlarmState = kAlarmFired;
    }
    if (callback) {
        setDebugState(DebugState::InCallback);
        callback();
        setDebugState(DebugState::Running);
    }
}

void PeltoTimer::endFailureStreak() {
    if (mFailedRuns != 0) {
        ALOGI("Dispatch loop running again after %" PRIu64 " failed runs", mFailedRuns);
        mFailedRuns = 0;
    }
}

void PeltoTimer::logFirstFailure(const char* format, ...) const {
    // Within a streak of failed runs only the first failure is told in full.
    if (mFailedRuns != 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    __android_log_vprint(ANDROID_LOG_ERROR, LOG_TAG, format, args);
    va_end(args);
}

} // namespace android::scheduler
