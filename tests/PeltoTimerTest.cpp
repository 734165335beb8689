#include <pthread.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scheduler/PeltoTimer.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"

namespace android::scheduler {
namespace {

using test::counter;
using test::FakeTrace;
using test::LogCapture;
using test::ScopedFakeTrace;
using test::TraceEvent;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kTag = "SchedulerTimer";
constexpr nsecs_t kMillisecond = 1'000'000;
constexpr nsecs_t kHour = 3'600'000 * kMillisecond;
// Only a broken timer makes a test wait this long.
constexpr auto kTimeout = std::chrono::seconds(10);

// The calls that tests can make fail.
enum class Call { TimerfdSettime, EpollCtl, EpollWait, Pipe2, Count };

// The timer's kernel calls: the real ones, except that a test can make one of them fail with a
// given errno, `count` times (kForever: always) after `skip` calls that succeed. Also counts
// the dispatch thread's entries into epoll_wait, where it is idle.
class Kernel {
public:
    static constexpr int kForever = -1;

    static Kernel& instance() {
        static Kernel kernel;
        return kernel;
    }

    static TimerSyscalls syscalls() {
        TimerSyscalls calls = realTimerSyscalls();
        calls.timerfd_settime = [](int fd, int flags, const itimerspec* newValue,
                                   itimerspec* oldValue) {
            return instance().failOr(Call::TimerfdSettime, [&] {
                return realTimerSyscalls().timerfd_settime(fd, flags, newValue, oldValue);
            });
        };
        calls.epoll_ctl = [](int epollFd, int op, int fd, epoll_event* event) {
            return instance().failOr(Call::EpollCtl, [&] {
                return realTimerSyscalls().epoll_ctl(epollFd, op, fd, event);
            });
        };
        calls.epoll_wait = [](int epollFd, epoll_event* events, int maxEvents, int timeout) {
            instance().enterEpollWait();
            return instance().failOr(Call::EpollWait, [&] {
                return realTimerSyscalls().epoll_wait(epollFd, events, maxEvents, timeout);
            });
        };
        calls.pipe2 = [](int fds[2], int flags) {
            return instance().failOr(Call::Pipe2,
                                     [&] { return realTimerSyscalls().pipe2(fds, flags); });
        };
        return calls;
    }

    void fail(Call call, int error, int count = 1, int skip = 0) {
        std::lock_guard lock(mMutex);
        mFaults[static_cast<size_t>(call)] = {error, count, skip, 0};
    }

    void clear() {
        std::lock_guard lock(mMutex);
        mFaults = {};
        mEpollWaits = 0;
    }

    bool waitForEpollWaits(int count) {
        std::unique_lock lock(mMutex);
        return mCondition.wait_for(lock, kTimeout,
                                   [&]() REQUIRES(mMutex) { return mEpollWaits >= count; });
    }

    bool waitForFailures(Call call, int count) {
        std::unique_lock lock(mMutex);
        return mCondition.wait_for(lock, kTimeout, [&]() REQUIRES(mMutex) {
            return mFaults[static_cast<size_t>(call)].failed >= count;
        });
    }

private:
    struct Fault {
        int error = 0;
        int count = 0;
        int skip = 0;
        int failed = 0;
    };

    template <typename F>
    int failOr(Call call, F realCall) {
        int error = 0;
        {
            std::lock_guard lock(mMutex);
            Fault& fault = mFaults[static_cast<size_t>(call)];
            if (fault.skip > 0) {
                fault.skip--;
            } else if (fault.count != 0) {
                if (fault.count > 0) fault.count--;
                fault.failed++;
                error = fault.error;
            }
        }
        mCondition.notify_all();
        if (error != 0) {
            errno = error;
            return -1;
        }
        return realCall();
    }

    void enterEpollWait() {
        {
            std::lock_guard lock(mMutex);
            mEpollWaits++;
        }
        mCondition.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mCondition;
    std::array<Fault, static_cast<size_t>(Call::Count)> mFaults GUARDED_BY(mMutex);
    int mEpollWaits GUARDED_BY(mMutex) = 0;
};

// Records the actions that a timer runs, in order, with the thread each ran on.
class ActionRecorder {
public:
    // An action that runs `body`, then records `id`.
    std::function<void()> action(int id, std::function<void()> body = {}) {
        return [this, id, body] {
            if (body) body();
            record(id);
        };
    }

    // An action that records `id`, then holds the dispatch thread until the next release().
    std::function<void()> holdingAction(int id) {
        int hold;
        {
            std::lock_guard lock(mMutex);
            hold = ++mHolds;
        }
        return [this, id, hold] {
            record(id);
            std::unique_lock lock(mMutex);
            mCondition.wait_for(lock, kTimeout,
                                [&]() REQUIRES(mMutex) { return mReleases >= hold; });
        };
    }

    void release() {
        {
            std::lock_guard lock(mMutex);
            mReleases++;
        }
        mCondition.notify_all();
    }

    bool waitForCalls(size_t count) {
        std::unique_lock lock(mMutex);
        return mCondition.wait_for(lock, kTimeout,
                                   [&]() REQUIRES(mMutex) { return mCalls.size() >= count; });
    }

    std::vector<int> calls() const {
        std::lock_guard lock(mMutex);
        return mCalls;
    }

    std::vector<std::string> threadNames() const {
        std::lock_guard lock(mMutex);
        return mThreadNames;
    }

private:
    void record(int id) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        {
            std::lock_guard lock(mMutex);
            mCalls.push_back(id);
            mThreadNames.emplace_back(name);
        }
        mCondition.notify_all();
    }

    mutable std::mutex mMutex;
    std::condition_variable mCondition;
    std::vector<int> mCalls GUARDED_BY(mMutex);
    std::vector<std::string> mThreadNames GUARDED_BY(mMutex);
    int mHolds GUARDED_BY(mMutex) = 0;
    int mReleases GUARDED_BY(mMutex) = 0;
};

class PeltoTimerTest : public ::testing::Test {
protected:
    PeltoTimerTest() { Kernel::instance().clear(); }

    // Starts a timer named "Test" on the kernel calls above; faults set before take effect
    // from its first descriptor call.
    void startTimer() { mTimer = std::make_unique<PeltoTimer>("Test", Kernel::syscalls()); }

    // Destroys the timer on another thread, so that a destructor that never returns fails the
    // test instead of hanging it.
    void destroyTimer() {
        auto destroyed = std::make_shared<std::promise<void>>();
        std::future<void> done = destroyed->get_future();
        std::thread([timer = std::move(mTimer), destroyed]() mutable {
            timer.reset();
            destroyed->set_value();
        }).detach();
        ASSERT_EQ(done.wait_for(kTimeout), std::future_status::ready) << "destructor hangs";
    }

    nsecs_t past() const { return mTimer->now() - kMillisecond; }
    nsecs_t farFuture() const { return mTimer->now() + kHour; }

    static std::vector<int64_t> alarmStates() {
        std::vector<int64_t> values;
        for (const TraceEvent& e : FakeTrace::instance().counters("TestAlarmState")) {
            values.push_back(e.value);
        }
        return values;
    }

    static std::vector<std::string> iterationSections() {
        std::vector<std::string> names;
        for (const TraceEvent& e : FakeTrace::instance().events()) {
            if (e.kind == TraceEvent::Kind::Begin && e.name.rfind("TimerIteration #", 0) == 0) {
                names.push_back(e.name);
            }
        }
        return names;
    }

    std::string dump() const {
        std::string result = "Timer:\n";
        mTimer->dump(result);
        return result;
    }

    LogCapture mLog;
    ScopedFakeTrace mTrace{true};
    ActionRecorder mRecorder;
    std::unique_ptr<PeltoTimer> mTimer; // last, so that its thread ends first
};

TEST_F(PeltoTimerTest, pastDeadlineFiresAtOnceOnTheDispatchThread) {
    PeltoTimer timer("Pelto"); // the platform's own calls
    EXPECT_THAT(FakeTrace::instance().counters("PeltoAlarmState"),
                ElementsAre(counter("PeltoAlarmState", 0)));

    const nsecs_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    const nsecs_t deadline = timer.now();
    EXPECT_LE(before, deadline);
    EXPECT_LE(deadline, systemTime(SYSTEM_TIME_MONOTONIC));

    timer.alarmAt(mRecorder.action(1), deadline - kMillisecond);
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    EXPECT_THAT(mRecorder.threadNames(), ElementsAre("TimerDispatch"));
    EXPECT_THAT(FakeTrace::instance().counters("PeltoAlarmState"),
                ElementsAre(counter("PeltoAlarmState", 0), counter("PeltoAlarmState", 1),
                            counter("PeltoAlarmState", 2)));
    EXPECT_THAT(FakeTrace::instance().counters("PeltoFireIn"),
                ElementsAre(counter("PeltoFireIn", deadline - kMillisecond)));
}

TEST_F(PeltoTimerTest, tracesNothingWhileTracingIsOff) {
    FakeTrace::instance().setGraphicsEnabled(false);
    startTimer();
    mTimer->alarmAt(mRecorder.action(1), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    mTimer->alarmCancel();
    mTimer.reset();
    EXPECT_THAT(FakeTrace::instance().events(), IsEmpty());
}

TEST_F(PeltoTimerTest, laterAlarmAtReplacesDeadlineAndAction) {
    startTimer();
    // While the dispatch thread is held in action 0, expiries can only pile up in the kernel.
    mTimer->alarmAt(mRecorder.holdingAction(0), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    const nsecs_t deadline1 = past();
    const nsecs_t deadline2 = farFuture();
    mTimer->alarmAt(mRecorder.action(1), deadline1);
    mTimer->alarmAt(mRecorder.action(2), deadline2);
    mRecorder.release();

    mTimer->alarmAt(mRecorder.holdingAction(3), past());
    ASSERT_TRUE(mRecorder.waitForCalls(2));
    mTimer->alarmAt(mRecorder.action(4), farFuture());
    mTimer->alarmAt(mRecorder.action(5), past());
    mRecorder.release();
    ASSERT_TRUE(mRecorder.waitForCalls(3));

    mTimer->alarmAt(mRecorder.action(6), past());
    ASSERT_TRUE(mRecorder.waitForCalls(4));
    EXPECT_THAT(mRecorder.calls(), ElementsAre(0, 3, 5, 6));
    const auto fireIn = FakeTrace::instance().counters("TestFireIn");
    ASSERT_EQ(fireIn.size(), 7u);
    EXPECT_EQ(fireIn[1], counter("TestFireIn", deadline1));
    EXPECT_EQ(fireIn[2], counter("TestFireIn", deadline2));
}

TEST_F(PeltoTimerTest, cancelledAlarmDoesNotRun) {
    startTimer();
    mTimer->alarmAt(mRecorder.holdingAction(0), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    mTimer->alarmAt(mRecorder.action(1), past()); // expires while the thread is held
    mTimer->alarmCancel();
    mRecorder.release();

    mTimer->alarmAt(mRecorder.action(2), past());
    ASSERT_TRUE(mRecorder.waitForCalls(2));
    EXPECT_THAT(mRecorder.calls(), ElementsAre(0, 2));
    EXPECT_THAT(alarmStates(), ElementsAre(0, 1, 2, 1, 0, 1, 2));
}

TEST_F(PeltoTimerTest, cancelOfAnAlarmNeverArmedTracesZeroSilently) {
    startTimer();
    mTimer->alarmCancel();
    EXPECT_THAT(alarmStates(), ElementsAre(0, 0));
    EXPECT_EQ(mLog.count(kTag, "Failed to disarm timerfd"), 0u);
}

TEST_F(PeltoTimerTest, destructionWhileArmedEndsTheThreadWithoutRunningTheAction) {
    startTimer();
    mTimer->alarmAt(mRecorder.action(1), farFuture());
    mTimer.reset();
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_ERROR, kTag, "Terminated"));
    EXPECT_THAT(mRecorder.calls(), IsEmpty());
    EXPECT_THAT(alarmStates(), ElementsAre(0, 1));
}

TEST_F(PeltoTimerTest, dumpShowsWhatTheDispatchThreadDoes) {
    startTimer();
    ASSERT_TRUE(Kernel::instance().waitForEpollWaits(1));
    EXPECT_EQ(dump(), "Timer:\n\t\tDebugState: Waiting\n");

    mTimer->alarmAt(mRecorder.holdingAction(0), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    EXPECT_EQ(dump(), "Timer:\n\t\tDebugState: InCallback\n");
    mRecorder.release();
    ASSERT_TRUE(Kernel::instance().waitForEpollWaits(2));
    EXPECT_EQ(dump(), "Timer:\n\t\tDebugState: Waiting\n");
}

TEST_F(PeltoTimerTest, actionMayRearmAndCancelItsOwnTimer) {
    startTimer();
    auto cancelling = mRecorder.action(1, [this] { mTimer->alarmCancel(); });
    mTimer->alarmAt(mRecorder.action(0, [this, cancelling] { mTimer->alarmAt(cancelling, past()); }),
                    past());
    ASSERT_TRUE(mRecorder.waitForCalls(2));
    EXPECT_THAT(mRecorder.calls(), ElementsAre(0, 1));
    EXPECT_THAT(alarmStates(), ElementsAre(0, 1, 2, 1, 2, 0));
}

TEST_F(PeltoTimerTest, iterationSectionsCountEveryWakeupIncludingInterruptions) {
    Kernel::instance().fail(Call::EpollWait, EINTR, 1, /*skip=*/1);
    startTimer();
    mTimer->alarmAt(mRecorder.action(0), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    mTimer->alarmAt(mRecorder.action(1), past());
    ASSERT_TRUE(mRecorder.waitForCalls(2));
    EXPECT_THAT(iterationSections(),
                ElementsAre("TimerIteration #0", "TimerIteration #1", "TimerIteration #2"));
    EXPECT_THAT(
            mLog.messages(kTag),
            ::testing::Not(::testing::Contains(::testing::StartsWith("Error waiting on epoll"))));
}

TEST_F(PeltoTimerTest, epollWaitErrorRebuildsTheLoopAndRestartsTheIterationCount) {
    Kernel::instance().fail(Call::EpollWait, EIO, 1, /*skip=*/1);
    startTimer();
    mTimer->alarmAt(mRecorder.action(0), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    // The second wait fails; the third is the rebuilt loop's first.
    ASSERT_TRUE(Kernel::instance().waitForEpollWaits(3));
    EXPECT_TRUE(
            mLog.contains(ANDROID_LOG_ERROR, kTag, "Error waiting on epoll: Input/output error"));

    mTimer->alarmAt(mRecorder.action(1), past());
    ASSERT_TRUE(mRecorder.waitForCalls(2));
    EXPECT_THAT(iterationSections(),
                ElementsAre("TimerIteration #0", "TimerIteration #1", "TimerIteration #0"));
    mTimer.reset();
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_ERROR, kTag, "Terminated"));
}

struct SetupFault {
    const char* name;
    Call call;
    int skip;
    std::vector<std::string> errors; // in the order logged
};

void PrintTo(const SetupFault& fault, std::ostream* os) {
    *os << fault.name;
}

class PeltoTimerSetupFaultTest : public PeltoTimerTest,
                                 public ::testing::WithParamInterface<SetupFault> {};

TEST_P(PeltoTimerSetupFaultTest, failureOnceIsLoggedAndTheLoopRebuilt) {
    Kernel::instance().fail(GetParam().call, EBADF, 1, GetParam().skip);
    startTimer();
    ASSERT_TRUE(Kernel::instance().waitForEpollWaits(1));
    std::vector<std::string> errors;
    for (const auto& line : mLog.lines(kTag)) {
        if (line.priority == ANDROID_LOG_ERROR) errors.push_back(line.message);
    }
    EXPECT_EQ(errors, GetParam().errors);

    mTimer->alarmAt(mRecorder.action(1), past());
    ASSERT_TRUE(mRecorder.waitForCalls(1));
    mTimer.reset();
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_ERROR, kTag, "Terminated"));
}

INSTANTIATE_TEST_SUITE_P(
        PeltoTimerTest, PeltoTimerSetupFaultTest,
        ::testing::Values(SetupFault{"timerFd",
                                     Call::EpollCtl,
                                     0,
                                     {"Error adding timer fd to epoll dispatch loop"}},
                          SetupFault{"controlFd",
                                     Call::EpollCtl,
                                     1,
                                     {"Error adding control fd to dispatch loop"}},
                          // Without a pipe the control fd is -1, which epoll refuses.
                          SetupFault{"pipe",
                                     Call::Pipe2,
                                     0,
                                     {"could not create TimerDispatch mPipes",
                                      "Error adding control fd to dispatch loop"}}),
        [](const auto& info) { return std::string(info.param.name); });

TEST_F(PeltoTimerTest, persistentFaultsDoNotHangDestruction) {
    for (Call call : {Call::EpollCtl, Call::EpollWait, Call::Pipe2}) {
        SCOPED_TRACE(static_cast<int>(call));
        Kernel::instance().clear();
        Kernel::instance().fail(call, EBADF, Kernel::kForever);
        startTimer();
        // The thread keeps rebuilding its loop while the fault lasts.
        ASSERT_TRUE(Kernel::instance().waitForFailures(call, 3));
        destroyTimer();
    }
}

TEST_F(PeltoTimerTest, callersRaceSafelyWithRebuildsOfTheLoop) {
    // Every wait fails, so the thread replaces its descriptors over and over while this
    // thread arms, cancels and dumps (ThreadSanitizer checks the sharing).
    Kernel::instance().fail(Call::EpollWait, EBADF, Kernel::kForever);
    startTimer();
    for (int i = 0; i < 2000; i++) {
        mTimer->alarmAt(mRecorder.action(i), farFuture());
        mTimer->alarmCancel();
        std::string unused;
        mTimer->dump(unused);
    }
    ASSERT_TRUE(Kernel::instance().waitForFailures(Call::EpollWait, 3));
    destroyTimer();
    EXPECT_THAT(mRecorder.calls(), IsEmpty());
}

TEST_F(PeltoTimerTest, armingAndDisarmingFailuresAreWarningsAndStillMoveTheState) {
    startTimer();
    Kernel::instance().fail(Call::TimerfdSettime, EINVAL);
    mTimer->alarmAt(mRecorder.action(1), farFuture());
    EXPECT_TRUE(
            mLog.contains(ANDROID_LOG_WARN, kTag, "Failed to set timerfd Invalid argument (22)"));

    Kernel::instance().fail(Call::TimerfdSettime, EBADF);
    mTimer->alarmCancel();
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_WARN, kTag, "Failed to disarm timerfd"));

    // The kernel itself refuses a negative time.
    mTimer->alarmAt(mRecorder.action(2), -1);
    EXPECT_EQ(mLog.count(kTag, "Failed to set timerfd Invalid argument (22)"), 2u);
    EXPECT_THAT(alarmStates(), ElementsAre(0, 1, 0, 1));
    EXPECT_EQ(FakeTrace::instance().counters("TestFireIn").back(), counter("TestFireIn", -1));
}

} // namespace
} // namespace android::scheduler
