#define LOG_TAG "SchedulerTimer"

#include "scheduler/PeltoTimer.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>

#include <cerrno>
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

constexpr const char* kDebugStateNames[] = {"Reset",   "Running",    "Waiting",
                                            "Reading", "InCallback", "Terminated"};

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
    mAlarmFd = mSyscalls.timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    mEpollFd = mSyscalls.epoll_create1(EPOLL_CLOEXEC);
    if (mSyscalls.pipe2(mPipes, O_NONBLOCK | O_CLOEXEC) != 0) {
        ALOGE("could not create TimerDispatch mPipes");
        return;
    }
    mDebugState = DebugState::Reset;
}

void PeltoTimer::cleanup() {
    std::lock_guard lock(mMutex);
    cleanupLocked();
}

void PeltoTimer::cleanupLocked() {
    for (int* fd : {&mAlarmFd, &mEpollFd, &mPipes[0], &mPipes[1]}) {
        if (*fd != -1) {
            mSyscalls.close(*fd);
            *fd = -1;
        }
    }
}

void PeltoTimer::endDispatch() {
    std::lock_guard lock(mMutex);
    mStopRequested = true;
    static constexpr char kEnd = 'e';
    // Nothing to do on failure: without a pipe the dispatch loop cannot run, and it stops at
    // the next rebuild on seeing mStopRequested.
    mSyscalls.write(mPipes[1], &kEnd, sizeof(kEnd));
}

void PeltoTimer::alarmAt(const std::function<void()>& callback, nsecs_t time) {
    std::lock_guard lock(mMutex);
    mCallback = callback;

    itimerspec newTimer = {};
    newTimer.it_value.tv_sec = static_cast<time_t>(time / kNanosPerSecond);
    newTimer.it_value.tv_nsec = static_cast<long>(time % kNanosPerSecond);
    itimerspec oldTimer = {};
    if (mSyscalls.timerfd_settime(mAlarmFd, TFD_TIMER_ABSTIME, &newTimer, &oldTimer) != 0) {
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
    if (mSyscalls.timerfd_settime(mAlarmFd, 0, &disarm, &oldTimer) != 0) {
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
        std::lock_guard lock(mMutex);
        // The check and the reset are one step under the lock: endDispatch() either comes
        // first and is seen here, or writes its byte into the new pipe.
        if (mStopRequested) {
            return;
        }
        resetLocked();
    }
}

bool PeltoTimer::dispatch() {
    setDebugState(DebugState::Running);

    sched_param param = {};
    param.sched_priority = kDispatchPriority;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0) {
        ALOGW("Failed to set SCHED_FIFO on dispatch thread");
    }
    if (pthread_setname_np(pthread_self(), "TimerDispatch") != 0) {
        ALOGW("Failed to set thread name on dispatch thread");
    }

    // Only this thread replaces the descriptors, and not during a run, so copies stay valid.
    int alarmFd;
    int epollFd;
    int controlFd;
    {
        std::lock_guard lock(mMutex);
        alarmFd = mAlarmFd;
        epollFd = mEpollFd;
        controlFd = mPipes[0];
    }

    epoll_event timerEvent = {};
    timerEvent.events = EPOLLIN;
    timerEvent.data.u32 = kTimerTag;
    if (mSyscalls.epoll_ctl(epollFd, EPOLL_CTL_ADD, alarmFd, &timerEvent) == -1) {
        ALOGE("Error adding timer fd to epoll dispatch loop");
        return true;
    }

    epoll_event terminateEvent = {};
    terminateEvent.events = EPOLLIN;
    terminateEvent.data.u32 = kTerminateTag;
    if (mSyscalls.epoll_ctl(epollFd, EPOLL_CTL_ADD, controlFd, &terminateEvent) == -1) {
        ALOGE("Error adding control fd to dispatch loop");
        return true;
    }

    uint64_t iteration = 0;
    while (true) {
        setDebugState(DebugState::Waiting);
        epoll_event events[kMaxEvents];
        const int eventCount = mSyscalls.epoll_wait(epollFd, events, kMaxEvents, -1);
        const int error = errno;
        setDebugState(DebugState::Running);

        if (ATRACE_ENABLED()) {
            char name[kIterationNameSize];
            snprintf(name, sizeof(name), "%s%lu", "TimerIteration #", iteration++);
            ATRACE_BEGIN(name);
            ATRACE_END();
        }

        if (eventCount == -1) {
            if (error == EINTR) {
                continue;
            }
            ALOGE("Error waiting on epoll: %s", strerror(error));
            return true;
        }

        for (int i = 0; i < eventCount; i++) {
            switch (events[i].data.u32) {
                case kTimerTag: {
                    setDebugState(DebugState::Reading);
                    // Drains the expiry count; its value does not matter, each wakeup runs
                    // the action once.
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
                    break;
                }
                case kTerminateTag:
                    ALOGE("Terminated");
                    setDebugState(DebugState::Running);
                    return false;
            }
        }
    }
}

} // namespace android::scheduler
