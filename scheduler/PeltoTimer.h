#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <utils/Timers.h>

#include "scheduler/TimerSyscalls.h"
#include "trace/PeltoTracedOrdinal.h"

namespace android::scheduler {

// A one-shot alarm with a dispatch thread of its own, "TimerDispatch". alarmAt() arms a
// timerfd for an absolute time on CLOCK_MONOTONIC; when it expires, the dispatch thread runs
// the action. The thread waits in epoll on the timerfd and on a control pipe, and ends when the
// destructor writes a byte into that pipe.
//
// When the loop cannot be built or its wait fails, the thread rebuilds it on new descriptors,
// waiting between attempts: 1 ms after the first failed run, doubling up to 1 s. The first
// failure of a streak is logged in full; the rest only as a count, now and then, when the loop
// runs again and when the timer is destroyed. The destructor cuts a wait short.
//
// The alarm state is published as the counter "<name>AlarmState" (0 cancelled, 1 armed,
// 2 fired) and each deadline as "<name>FireIn".
//
// Locking: mMutex guards the action, both states, the stop request and the descriptors.
// It is the timer's only lock and is never held while the action runs, so the action may call
// alarmAt() or alarmCancel() on its own timer. Lock order: mMutex, then mAlarmState's own lock
// (taken by assigning it); nothing else is taken under mMutex.
class PeltoTimer {
public:
    // What the dispatch thread is doing, for dump(). Terminated is never entered.
    enum class DebugState : int32_t { Reset, Running, Waiting, Reading, InCallback, Terminated };

    // Creates the descriptors and starts the dispatch thread. A thread that cannot be started
    // leaves as std::system_error, with every descriptor closed.
    explicit PeltoTimer(const char* name);
    // As above, with every descriptor call made through `syscalls`.
    PeltoTimer(const char* name, const TimerSyscalls& syscalls);
    // Ends and joins the dispatch thread. An alarm still armed never runs.
    virtual ~PeltoTimer();

    PeltoTimer(const PeltoTimer&) = delete;
    PeltoTimer& operator=(const PeltoTimer&) = delete;
    PeltoTimer(PeltoTimer&&) = delete;
    PeltoTimer& operator=(PeltoTimer&&) = delete;

    // The current time on the monotonic clock.
    virtual nsecs_t now() const;

    // Runs `callback` on the dispatch thread at the absolute monotonic `time`. Replaces both the
    // deadline and the action of an earlier call; a time already past fires at once.
    virtual void alarmAt(const std::function<void()>& callback, nsecs_t time) EXCLUDES(mMutex);

    // Disarms the alarm. The action is kept.
    virtual void alarmCancel() EXCLUDES(mMutex);

    // Appends the dispatch thread's debug state.
    virtual void dump(std::string& result) const EXCLUDES(mMutex);

private:
    // The descriptors of one run of the dispatch loop.
    struct LoopFds {
        int alarm;
        int epoll;
        int control;
    };

    // Closes the descriptors and creates new ones.
    void reset() EXCLUDES(mMutex);
    void resetLocked() REQUIRES(mMutex);
    // Asks the dispatch thread to end: sets mStopRequested, wakes a retry wait and writes a byte
    // into the pipe.
    void endDispatch() EXCLUDES(mMutex);
    // Closes the descriptors.
    void cleanup() EXCLUDES(mMutex);
    void cleanupLocked() REQUIRES(mMutex);
    void setDebugState(DebugState state) EXCLUDES(mMutex);
    void threadMain() EXCLUDES(mMutex);
    // One run of the dispatch loop. Returns true when the loop must be rebuilt on new
    // descriptors, false when the thread was told to end.
    bool dispatch() EXCLUDES(mMutex);
    // Copies the descriptors for one run of the dispatch loop.
    LoopFds loopFds() const EXCLUDES(mMutex);
    // Adds the timerfd and the read end of the pipe to the epoll set. Returns false on failure.
    bool setUpEpoll(const LoopFds& fds);
    bool addToEpoll(int epollFd, int fd, uint32_t tag, const char* failure);
    // Waits and handles events until a wait fails or the thread is told to end. Returns as
    // dispatch() does.
    bool runLoop(const LoopFds& fds) EXCLUDES(mMutex);
    // One epoll wait. Returns the number of events, or -1 with the wait's errno in `error`.
    int waitForEvents(int epollFd, epoll_event* events, int& error) EXCLUDES(mMutex);
    // Returns false when one of the events tells the thread to end.
    bool handleEvents(const epoll_event* events, int eventCount, int alarmFd) EXCLUDES(mMutex);
    // Drains the timerfd and runs the action.
    void handleExpiry(int alarmFd) EXCLUDES(mMutex);
    // Logs a streak of failed runs as over, once the loop has woken up from a wait.
    void endFailureStreak();
    // Logs an error, unless it comes within a streak of failed runs: only the first failure of
    // a streak is told in full.
    void logFirstFailure(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    // Counts a failed run of the dispatch loop and waits before the next one. Returns false
    // when the thread was told to end meanwhile.
    bool waitToRetry() EXCLUDES(mMutex);
    const char* strDebugState(DebugState state) const;

    // Replaced only by the dispatch thread (in resetLocked()) and by construction and
    // destruction, always under mMutex; the dispatch thread copies them once per run. Owned
    // here, so that a constructor that throws closes them too.
    base::unique_fd mAlarmFd GUARDED_BY(mMutex);
    base::unique_fd mEpollFd GUARDED_BY(mMutex);
    // [0] is the read end, watched by the dispatch thread; [1] is written to end it.
    base::unique_fd mPipes[2] GUARDED_BY(mMutex);

    std::thread mThread;

    mutable std::mutex mMutex;
    std::function<void()> mCallback GUARDED_BY(mMutex);
    DebugState mDebugState GUARDED_BY(mMutex) = DebugState::Reset;

    const std::string mName;
    PeltoTracedOrdinal<int32_t> mAlarmState GUARDED_BY(mMutex);

    const TimerSyscalls mSyscalls;
    // Set by endDispatch(). The dispatch thread checks it before every rebuild of its loop,
    // since the termination byte may have gone into a pipe that the rebuild would close.
    bool mStopRequested GUARDED_BY(mMutex) = false;
    // Signalled by endDispatch(), to end a wait between two runs of the dispatch loop.
    std::condition_variable mStopCondition;

    // Failed runs of the dispatch loop since it last woke up from a wait. Touched by the
    // constructor before the dispatch thread starts, then by that thread alone.
    uint64_t mFailedRuns = 0;
};

} // namespace android::scheduler
