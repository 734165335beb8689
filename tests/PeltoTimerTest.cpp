#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scheduler/PeltoTimer.h"
#include "support/FakeTrace.h"
#include "support/LogCapture.h"

namespace android::scheduler {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kTag = "SchedulerTimer";
constexpr nsecs_t kMillisecond = 1'000'000;
// Only a broken timer makes a test wait this long.
constexpr auto kTimeout = std::chrono::seconds(10);

// The kernel calls that a test can make fail.
enum Call { kSettime, kEpollCtl, kEpollWait, kPipe2, kTimerfdCreate, kEpollCreate, kCallKinds };

// What the fake kernel and the actions share with the test.
struct State {
    // The errno for each coming call of a kind (0: the real call); a negative one stays.
    std::deque<int> faults[kCallKinds];
    int calls[kCallKinds] = {}; // made, failed or not
    std::vector<int> ran;       // ids of the actions run, in order
    std::vector<int> ready;     // events ready as each epoll wait began
    bool held = false;          // whether holding actions wait
    bool destroyed = false;
};
std::mutex gMutex;
std::condition_variable gChanged;
State gState GUARDED_BY(gMutex);

// Notifies under the lock, so that no waiter can return and end the program before it.
template <typename F>
void update(F change) {
    std::lock_guard lock(gMutex);
    change();
    gChanged.notify_all();
}

template <typename F>
bool waitUntil(F done) {
    std::unique_lock lock(gMutex);
    return gChanged.wait_for(lock, kTimeout, done);
}

bool waitForRuns(size_t n) {
    return waitUntil([n]() REQUIRES(gMutex) { return gState.ran.size() >= n; });
}

bool waitForCalls(Call call, int n) {
    return waitUntil([=]() REQUIRES(gMutex) { return gState.calls[call] >= n; });
}

int calls(Call call) {
    std::lock_guard lock(gMutex);
    return gState.calls[call];
}

size_t openDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

// While it lives, every new thread asks for a stack larger than any address space, so that
// starting a thread fails as it does when a process has run out of memory or threads. Mapping
// it fails at once whatever the kernel's overcommit policy; a size that fit in the address
// space would be reserved first (qemu's user-mode emulator then books every page of it, tens
// of gigabytes for 2^46 bytes).
class ScopedThreadsRefused {
public:
    ScopedThreadsRefused() {
        pthread_getattr_default_np(&mSaved);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, size_t{1} << 60);
        EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
        pthread_attr_destroy(&huge);
    }
    ~ScopedThreadsRefused() {
        pthread_setattr_default_np(&mSaved);
        pthread_attr_destroy(&mSaved);
    }

private:
    pthread_attr_t mSaved;
};

// A kernel call that fails as the test asked, or else is the platform's own.
template <Call kind, auto member>
auto faulty() {
    return [](auto... args) {
        int error = 0;
        update([&]() REQUIRES(gMutex) {
            gState.calls[kind]++;
            std::deque<int>& faults = gState.faults[kind];
            error = faults.empty() ? 0 : faults.front();
            if (error >= 0 && !faults.empty()) faults.pop_front();
        });
        errno = std::abs(error);
        return error != 0 ? -1 : (realTimerSyscalls().*member)(args...);
    };
}

// An action that records `id`, checks that it runs on the dispatch thread, then runs `body`.
std::function<void()> action(int id, std::function<void()> body = {}) {
    return [id, body] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        EXPECT_STREQ(name, "TimerDispatch");
        update([&]() REQUIRES(gMutex) { gState.ran.push_back(id); });
        if (body) body();
    };
}

// An action that records `id`, then holds the dispatch thread until release(). Made only
// while no other holds it.
std::function<void()> holding(int id) {
    update([]() REQUIRES(gMutex) { gState.held = true; });
    return action(id, [] { waitUntil([]() REQUIRES(gMutex) { return !gState.held; }); });
}

void release() {
    update([]() REQUIRES(gMutex) { gState.held = false; });
}

class PeltoTimerTest : public ::testing::Test {
protected:
    PeltoTimerTest() { reset(); }

    // Forgets the calls and the runs, and sets the faults of one kind of call.
    static void reset(Call call = kSettime, std::deque<int> faults = {}) {
        update([&]() REQUIRES(gMutex) {
            gState = {};
            gState.faults[call] = std::move(faults);
        });
    }

    static std::vector<int> get(std::vector<int> State::*member) {
        std::lock_guard lock(gMutex);
        return gState.*member;
    }

    // A timer named "Test" on the fake kernel.
    void startTimer() {
        TimerSyscalls calls = realTimerSyscalls();
        calls.timerfd_settime = faulty<kSettime, &TimerSyscalls::timerfd_settime>();
        calls.epoll_ctl = faulty<kEpollCtl, &TimerSyscalls::epoll_ctl>();
        calls.epoll_wait = [](int epollFd, epoll_event* events, int max, int timeout) {
            const int ready = realTimerSyscalls().epoll_wait(epollFd, events, max, 0);
            update([&]() REQUIRES(gMutex) { gState.ready.push_back(ready); });
            return faulty<kEpollWait, &TimerSyscalls::epoll_wait>()(epollFd, events, max, timeout);
        };
        calls.pipe2 = faulty<kPipe2, &TimerSyscalls::pipe2>();
        calls.timerfd_create = faulty<kTimerfdCreate, &TimerSyscalls::timerfd_create>();
        calls.epoll_create1 = faulty<kEpollCreate, &TimerSyscalls::epoll_create1>();
        mTimer = std::make_unique<PeltoTimer>("Test", calls);
    }

    // Destroys the timer on another thread, so that a destructor that never returns fails the
    // test instead of hanging it.
    void destroyTimer() {
        std::thread([timer = std::move(mTimer)]() mutable {
            timer.reset();
            update([]() REQUIRES(gMutex) { gState.destroyed = true; });
        }).detach();
        EXPECT_TRUE(waitUntil([]() REQUIRES(gMutex) { return gState.destroyed; })) << "hangs";
    }

    nsecs_t past() const { return mTimer->now() - kMillisecond; }
    nsecs_t farFuture() const { return mTimer->now() + 3'600'000 * kMillisecond; }

    static std::vector<int64_t> counter(const std::string& name) {
        std::vector<int64_t> values;
        for (const auto& e : test::FakeTrace::instance().counters(name)) values.push_back(e.value);
        return values;
    }

    // The sections traced, each name cut after "TimerIteration": " #0 #1".
    static std::string iterations() {
        std::string numbers;
        for (const auto& e : test::FakeTrace::instance().events()) {
            if (e.kind == test::TraceEvent::Kind::Begin) numbers += e.name.substr(14);
        }
        return numbers;
    }

    std::vector<std::string> errors() const {
        std::vector<std::string> messages;
        for (const auto& line : mLog.lines(kTag)) {
            if (line.priority == ANDROID_LOG_ERROR) messages.push_back(line.message);
        }
        return messages;
    }

    std::string dump() const {
        std::string result;
        mTimer->dump(result);
        return result;
    }

    test::LogCapture mLog;
    test::ScopedFakeTrace mTrace{true};
    std::unique_ptr<PeltoTimer> mTimer; // last, so that its thread ends first
};

TEST_F(PeltoTimerTest, platformCallsRunAPastDeadlineAndDestructionDropsAnArmedOne) {
    mTimer = std::make_unique<PeltoTimer>("Test");
    const nsecs_t before = systemTime(SYSTEM_TIME_MONOTONIC), now = mTimer->now();
    EXPECT_TRUE(before <= now && now <= systemTime(SYSTEM_TIME_MONOTONIC));
    mTimer->alarmAt(action(1), now - kMillisecond);
    ASSERT_TRUE(waitForRuns(1));
    mTimer->alarmAt(action(2), -1); // the kernel itself refuses a negative time
    const nsecs_t far = farFuture();
    mTimer->alarmAt(action(3), far);
    mTimer.reset();
    EXPECT_THAT(get(&State::ran), ElementsAre(1));
    EXPECT_THAT(errors(), ElementsAre("Terminated"));
    EXPECT_TRUE(
            mLog.contains(ANDROID_LOG_WARN, kTag, "Failed to set timerfd Invalid argument (22)"));
    EXPECT_THAT(counter("TestAlarmState"), ElementsAre(0, 1, 2, 1, 1));
    EXPECT_THAT(counter("TestFireIn"), ElementsAre(now - kMillisecond, -1, far));
}

TEST_F(PeltoTimerTest, laterCallsReplaceOrCancelTheAlarmEvenFromItsOwnAction) {
    startTimer();
    mTimer->alarmCancel(); // never armed
    ASSERT_TRUE(waitForCalls(kEpollWait, 1));
    EXPECT_EQ(dump(), "\t\tDebugState: Waiting\n");
    // While the dispatch thread is held in an action, expiries can only pile up in the kernel.
    mTimer->alarmAt(holding(0), past());
    ASSERT_TRUE(waitForRuns(1));
    EXPECT_EQ(dump(), "\t\tDebugState: InCallback\n");
    mTimer->alarmAt(action(1), past());
    mTimer->alarmAt(action(2), farFuture());
    release();
    ASSERT_TRUE(waitForCalls(kEpollWait, 2));
    EXPECT_EQ(dump(), "\t\tDebugState: Waiting\n");

    mTimer->alarmAt(holding(3), past());
    ASSERT_TRUE(waitForRuns(2));
    mTimer->alarmAt(action(4), past());
    mTimer->alarmCancel();
    release();
    ASSERT_TRUE(waitForCalls(kEpollWait, 3));
    EXPECT_THAT(get(&State::ready), ElementsAre(0, 0, 0)); // nothing was left armed
    mTimer->alarmAt(action(5), farFuture());
    mTimer->alarmAt(action(6), past());
    ASSERT_TRUE(waitForRuns(3));

    auto cancelling = action(8, [this] { mTimer->alarmCancel(); });
    mTimer->alarmAt(action(7, [this, cancelling] { mTimer->alarmAt(cancelling, past()); }), past());
    ASSERT_TRUE(waitForRuns(5));
    EXPECT_THAT(get(&State::ran), ElementsAre(0, 3, 6, 7, 8));
    EXPECT_EQ(mLog.count(kTag, "Failed to disarm timerfd"), 0u);

    // Failures to arm and disarm are warnings, and still move the state.
    reset(kSettime, {EBADF, EBADF});
    mTimer->alarmAt(action(9), farFuture());
    mTimer->alarmCancel();
    mTimer.reset();
    EXPECT_TRUE(
            mLog.contains(ANDROID_LOG_WARN, kTag, "Failed to set timerfd Bad file descriptor (9)"));
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_WARN, kTag, "Failed to disarm timerfd"));
    EXPECT_THAT(counter("TestAlarmState"),
                ElementsAre(0, 0, 1, 2, 1, 1, 1, 2, 1, 0, 1, 1, 2, 1, 2, 1, 2, 0, 1, 0));
}

TEST_F(PeltoTimerTest, failedSetupOrWaitIsLoggedAndTheLoopRebuilt) {
    const struct {
        Call call;
        std::deque<int> faults;
        int waits; // epoll waits made once the rebuilt loop is idle
        std::string iterations;
        std::vector<std::string> errors;
    } cases[] = {
            {kEpollCtl, {EBADF}, 1, " #0", {"Error adding timer fd to epoll dispatch loop"}},
            {kEpollCtl, {0, EBADF}, 1, " #0", {"Error adding control fd to dispatch loop"}},
            // Without a timerfd or an epoll set, epoll refuses to add the timer.
            {kTimerfdCreate, {EMFILE}, 1, " #0", {"Error adding timer fd to epoll dispatch loop"}},
            {kEpollCreate, {EMFILE}, 1, " #0", {"Error adding timer fd to epoll dispatch loop"}},
            // Without a pipe the control fd is -1, which epoll refuses.
            {kPipe2,
             {EBADF},
             1,
             " #0",
             {"could not create TimerDispatch mPipes", "Error adding control fd to dispatch loop"}},
            // An interrupted wait goes on; a failed one rebuilds the loop, and its count restarts.
            {kEpollWait,
             {EINTR, EIO},
             3,
             " #0 #1 #0",
             {"Error waiting on epoll: Input/output error"}},
    };
    for (const auto& c : cases) {
        reset(c.call, c.faults);
        mLog.clear();
        test::FakeTrace::instance().clear();
        startTimer();
        ASSERT_TRUE(waitForCalls(kEpollWait, c.waits));
        EXPECT_EQ(errors(), c.errors);
        mTimer->alarmAt(action(1), past());
        ASSERT_TRUE(waitForRuns(1));
        EXPECT_EQ(iterations(), c.iterations);
        mTimer.reset();
        EXPECT_EQ(errors().back(), "Terminated");
    }
}

TEST_F(PeltoTimerTest, persistentFaultsNeitherRaceWithCallersNorHangDestructionNorLeak) {
    const size_t descriptors = openDescriptors();
    for (Call call : {kEpollCtl, kEpollWait, kPipe2, kTimerfdCreate}) {
        reset(call, {-EBADF});
        startTimer();
        // The thread replaces its descriptors five times while this thread arms, cancels and
        // dumps (ThreadSanitizer checks the sharing). However slow the thread (an emulator, a
        // busy machine), the loop ends by the deadline, and what each pass logs and traces is
        // dropped, as nothing here reads it.
        const auto deadline = std::chrono::steady_clock::now() + kTimeout;
        for (int i = 0; calls(call) < 6 && std::chrono::steady_clock::now() < deadline; i++) {
            mTimer->alarmAt(action(i), farFuture());
            mTimer->alarmCancel();
            dump();
            mLog.clear();
            test::FakeTrace::instance().clear();
        }
        EXPECT_GE(calls(call), 6) << "the dispatch thread stalled";
        destroyTimer();
        EXPECT_THAT(get(&State::ran), IsEmpty());
    }
#if defined(__cpp_exceptions)
    // A timer whose thread cannot start closes what it had opened. (Without
    // exceptions, as on a device, the failed start ends the process.)
    for (int i = 0; i < 3; i++) {
        ScopedThreadsRefused refused;
        EXPECT_THROW(PeltoTimer("Test"), std::system_error);
    }
#endif
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(PeltoTimerTest, failedRunsAreRetriedAfterGrowingPausesAndLoggedAsACount) {
    // Four failed runs, as while no descriptor is free, then the loop runs again.
    reset(kTimerfdCreate, {EMFILE, EMFILE, EMFILE, EMFILE});
    startTimer();
    ASSERT_TRUE(waitForCalls(kEpollWait, 1));
    mTimer->alarmAt(action(1), past());
    ASSERT_TRUE(waitForRuns(1));
    EXPECT_THAT(errors(),
                ElementsAre("Error adding timer fd to epoll dispatch loop",
                            "Dispatch loop failed 2 times in a row; next attempt in 2 ms",
                            "Dispatch loop failed 4 times in a row; next attempt in 8 ms"));
    EXPECT_TRUE(mLog.contains(ANDROID_LOG_INFO, kTag,
                              "Dispatch loop running again after 4 failed runs"));
    mTimer.reset();

    // A failure that lasts: pauses of 1, 2, 4 ... ms up to 1 s come between the runs (which,
    // retried at once, would number thousands), and a count only at powers of two.
    reset(kTimerfdCreate, {-EMFILE});
    mLog.clear();
    const auto start = std::chrono::steady_clock::now();
    startTimer();
    ASSERT_TRUE(waitForCalls(kTimerfdCreate, 9));
    destroyTimer(); // cuts the pause short
    using std::chrono::milliseconds;
    const auto elapsed =
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    const int runs = calls(kTimerfdCreate);
    milliseconds pauses{0}; // the least time that many runs can take
    for (int n = 1; n < runs; n++) pauses += milliseconds(std::min(1 << std::min(n - 1, 10), 1000));
    EXPECT_LE(pauses.count(), elapsed.count()) << runs << " runs";
    const std::vector<std::string> lines = errors();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "Error adding timer fd to epoll dispatch loop");
    EXPECT_EQ(lines.size(), 1 + static_cast<size_t>(std::log2(runs))) << runs << " runs";
    EXPECT_THAT(lines, Contains("Dispatch loop failed 8 times in a row; next attempt in 128 ms"));
    EXPECT_TRUE(mLog.contains(
            ANDROID_LOG_WARN, kTag,
            "Dispatch loop stopped after " + std::to_string(runs) + " failed runs in a row"));
}

} // namespace
} // namespace android::scheduler
