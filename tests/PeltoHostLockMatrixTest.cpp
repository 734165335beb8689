// A host may take its own locks inside any callback, and hold them while it
// calls any entry point that does not itself call that callback: the matrix
// below tries every such pair. For each callback, a driver thread runs an entry
// point that calls it; inside the callback the host waits for its lock H while
// another thread holds H and calls the entry point of the column. A controller
// that keeps one of its own locks across the callback, and needs it in that
// entry point, deadlocks: the callback's bounded wait for H ends instead, and
// the pair is reported. Run under ThreadSanitizer too (the tsan preset).
#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "controller/PeltoEntryPoints.h"
#include "support/FakeCompositor.h"
#include "support/RuleFile.h"

namespace android {
namespace {

using test::FakeCompositor;
using test::ScopedRuleFile;

// Longer than any entry point takes under a sanitizer on a loaded machine; a
// pair that needs it has deadlocked.
constexpr auto kWatchdog = std::chrono::seconds(5);

enum class Callback {
    GetLayerPtrFromHandle,
    GetBufferCountFromHandle,
    TraverseVisibleLayers,
    TraverseVisibleBufferLayers,
    GetCurrentVsyncPeriod,
    TriggerVsyncCallback,
    SetHwcPeltoOn,
    SetHwcPeltoOff,
};

const char* nameOf(Callback callback) {
    switch (callback) {
        case Callback::GetLayerPtrFromHandle:
            return "mGetLayerPtrFromHandle";
        case Callback::GetBufferCountFromHandle:
            return "mGetBufferCountFromHandle";
        case Callback::TraverseVisibleLayers:
            return "mTraverseVisibleLayers";
        case Callback::TraverseVisibleBufferLayers:
            return "mTraverseVisibleBufferLayers";
        case Callback::GetCurrentVsyncPeriod:
            return "mGetCurrentVsyncPeriod";
        case Callback::TriggerVsyncCallback:
            return "mTriggerVsyncCallback";
        case Callback::SetHwcPeltoOn:
            return "mSetHwcPeltoOn";
        case Callback::SetHwcPeltoOff:
            return "mSetHwcPeltoOff";
    }
    return "?";
}

// The host's own lock, whose wait can be bounded. Built on a condition
// variable: ThreadSanitizer cannot follow std::timed_mutex's timed wait.
class HostLock {
public:
    void lock() {
        std::unique_lock lock(mMutex);
        mCondition.wait(lock, [this] { return !mHeld; });
        mHeld = true;
    }
    // Takes the lock if it comes free within `limit`.
    bool tryLockFor(std::chrono::seconds limit) {
        std::unique_lock lock(mMutex);
        if (!mCondition.wait_for(lock, limit, [this] { return !mHeld; })) return false;
        mHeld = true;
        return true;
    }
    void unlock() {
        {
            std::lock_guard lock(mMutex);
            mHeld = false;
        }
        mCondition.notify_all();
    }

private:
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mHeld = false;
};

// The fake compositor's answers, with one callback armed: on the driver
// thread, its first call signals that it has started and then waits, bounded,
// for the host lock.
class LockingHost {
public:
    std::unique_ptr<PeltoController> create(bool useList,
                                            const PeltoController::PlatformCalls& platform) {
        return std::make_unique<PeltoController>(
                useList, wrap(Callback::GetLayerPtrFromHandle, mFake.getLayerPtrFromHandle()),
                wrap(Callback::GetBufferCountFromHandle, mFake.getBufferCountFromHandle()),
                wrap(Callback::TraverseVisibleLayers, mFake.traverseVisibleLayers()),
                wrap(Callback::TraverseVisibleBufferLayers, mFake.traverseVisibleBufferLayers()),
                wrap(Callback::GetCurrentVsyncPeriod, mFake.getCurrentVsyncPeriod()),
                wrap(Callback::TriggerVsyncCallback, mFake.triggerVsyncCallback()),
                mFake.triggerEventQueueInvalidate(),
                wrap(Callback::SetHwcPeltoOn, mFake.setHwcPeltoOn()),
                wrap(Callback::SetHwcPeltoOff, mFake.setHwcPeltoOff()), platform);
    }
    FakeCompositor& fake() { return mFake; }

    void arm(Callback callback, std::thread::id driver) {
        mArmed = callback;
        mDriver = driver;
    }
    HostLock& hostLock() { return mHostLock; }
    // Waits (bounded) until the armed callback has started on the driver thread.
    bool waitUntilEntered() {
        std::unique_lock lock(mMutex);
        return mCondition.wait_for(lock, kWatchdog, [this] { return mEntered; });
    }
    bool timedOut() const { return mTimedOut; }

private:
    void enter(Callback callback) {
        if (callback != mArmed.load() || std::this_thread::get_id() != mDriver.load()) return;
        {
            std::lock_guard lock(mMutex);
            if (mEntered) return;
            mEntered = true;
        }
        mCondition.notify_all();
        if (mHostLock.tryLockFor(kWatchdog)) {
            mHostLock.unlock();
        } else {
            mTimedOut = true;
        }
    }
    template <typename Fn>
    Fn wrap(Callback callback, Fn inner) {
        return [this, callback, inner](auto&&... args) {
            enter(callback);
            return inner(std::forward<decltype(args)>(args)...);
        };
    }

    FakeCompositor mFake;
    HostLock mHostLock;
    std::atomic<Callback> mArmed{Callback::GetLayerPtrFromHandle};
    std::atomic<std::thread::id> mDriver{};
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mEntered = false;
    std::atomic<bool> mTimedOut{false};
};

constexpr const char* kRules = R"({"target_layers": [{"name": "video"}],
    "general_rule": {"on_when_has_other_layer": true}})";
constexpr unsigned int kScreenArea = 1000;

// The layers every scene registers or names.
struct Layers {
    int video = 0;
    int spare = 0;
    int extra = 0;
};

// An entry point that runs the armed callback: the controller it needs, the
// state it starts from, and the call.
struct Driver {
    const char* name;
    bool useList;
    std::vector<Callback> calls; // the callbacks the call makes
    std::function<void(PeltoController*, LockingHost&, const Layers&)> setUp;
    std::function<void(PeltoController*, LockingHost&, const Layers&)> drive;
};

void registerScene(PeltoController* ctl, LockingHost& host, const Layers& layers) {
    ::registerLayer(ctl, &layers.video, "video#1");
    ::registerLayer(ctl, &layers.spare, "spare#2");
    host.fake().setVisibleBufferLayers({{&layers.video, 100}});
}

std::vector<Driver> drivers() {
    return {
            {"composite choosing a new target (list)",
             true,
             {Callback::TraverseVisibleBufferLayers, Callback::GetCurrentVsyncPeriod,
              Callback::SetHwcPeltoOn},
             registerScene,
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::composite(ctl, false, false, kScreenArea);
             }},
            {"composite from On to Off (list)",
             true,
             {Callback::GetCurrentVsyncPeriod, Callback::SetHwcPeltoOff},
             [](PeltoController* ctl, LockingHost& host, const Layers& layers) {
                 registerScene(ctl, host, layers);
                 ::composite(ctl, false, false, kScreenArea);
             },
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::composite(ctl, true, false, kScreenArea);
             }},
            {"composite (API)",
             false,
             {Callback::TraverseVisibleLayers, Callback::SetHwcPeltoOn},
             [](PeltoController* ctl, LockingHost& host, const Layers& layers) {
                 ::setTargetLayer(ctl, &layers.video);
                 ::setPeltoEnable(ctl, true);
                 host.fake().setVisibleLayers({&layers.video});
             },
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::composite(ctl, false, false, kScreenArea);
             }},
            {"setTransactionState of the active target (list)",
             true,
             {Callback::GetLayerPtrFromHandle, Callback::GetCurrentVsyncPeriod,
              Callback::GetBufferCountFromHandle, Callback::TriggerVsyncCallback},
             [](PeltoController* ctl, LockingHost& host, const Layers& layers) {
                 registerScene(ctl, host, layers);
                 ::composite(ctl, false, false, kScreenArea);
             },
             [](PeltoController* ctl, LockingHost& host, const Layers& layers) {
                 ::setTransactionState(
                         ctl, {{host.fake().handleFor(&layers.video), true, false, nullptr}}, 0);
             }},
    };
}

// An exported entry point, called by the thread that holds the host lock.
struct EntryPoint {
    const char* name;
    std::set<Callback> calls; // the callbacks it may call on the caller's thread
    std::function<void(PeltoController*, LockingHost&, const Layers&)> call;
};

std::vector<EntryPoint> entryPoints() {
    using C = Callback;
    return {
            {"dump",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 std::string out;
                 ::dump(ctl, out);
             }},
            {"reloadConfigThenDump",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 std::string out;
                 ::reloadConfigThenDump(ctl, out);
             }},
            {"registerLayer",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers& layers) {
                 ::registerLayer(ctl, &layers.extra, "extra#3");
             }},
            {"destroyLayer",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers& layers) {
                 ::destroyLayer(ctl, &layers.spare);
             }},
            {"commit",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) { ::commit(ctl); }},
            {"composite",
             {C::TraverseVisibleLayers, C::TraverseVisibleBufferLayers, C::GetCurrentVsyncPeriod,
              C::SetHwcPeltoOn, C::SetHwcPeltoOff},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::composite(ctl, false, false, kScreenArea);
             }},
            {"setTransactionState",
             {C::GetLayerPtrFromHandle, C::GetBufferCountFromHandle, C::GetCurrentVsyncPeriod,
              C::TriggerVsyncCallback},
             [](PeltoController* ctl, LockingHost& host, const Layers& layers) {
                 ::setTransactionState(
                         ctl, {{host.fake().handleFor(&layers.video), true, false, nullptr}}, 0);
             }},
            {"onActiveModeUpdated",
             {C::GetCurrentVsyncPeriod},
             [](PeltoController* ctl, LockingHost&, const Layers&) { ::onActiveModeUpdated(ctl); }},
            {"setHasPendingBuffer",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers& layers) {
                 ::setHasPendingBuffer(ctl, &layers.video);
             }},
            {"isOn", {}, [](PeltoController* ctl, LockingHost&, const Layers&) { ::isOn(ctl); }},
            {"setPeltoEnable",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::setPeltoEnable(ctl, true);
             }},
            {"setTargetLayer",
             {C::GetCurrentVsyncPeriod},
             [](PeltoController* ctl, LockingHost&, const Layers& layers) {
                 ::setTargetLayer(ctl, &layers.spare);
             }},
            {"setHasOtherUI",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) { ::setHasOtherUI(ctl, true); }},
            {"setPreviousPresentFence",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::setPreviousPresentFence(ctl, new Fence(eventfd(1, EFD_CLOEXEC)));
             }},
            {"setSFInProgress",
             {},
             [](PeltoController* ctl, LockingHost&, const Layers&) {
                 ::setSFInProgress(ctl, true);
             }},
            {"isQ2QFull",
             {C::GetCurrentVsyncPeriod},
             [](PeltoController* ctl, LockingHost&, const Layers&) { ::isQ2QFull(ctl); }},
    };
}

// Runs one pair; returns "" when it finished without the watchdog, or what went wrong.
std::string runPair(const Driver& driver, Callback callback, const EntryPoint& entry,
                    const ScopedRuleFile& rules) {
    LockingHost host;
    Layers layers;
    std::unique_ptr<PeltoController> ctl = host.create(driver.useList, rules.platform());
    driver.setUp(ctl.get(), host, layers);

    std::unique_lock hold(host.hostLock());
    std::thread driving([&] {
        host.arm(callback, std::this_thread::get_id());
        driver.drive(ctl.get(), host, layers);
    });
    const bool entered = host.waitUntilEntered();
    if (entered) entry.call(ctl.get(), host, layers);
    hold.unlock();
    driving.join();
    if (!entered) return "the driver never called the callback";
    return host.timedOut() ? "deadlock (the callback's wait for the host lock timed out)" : "";
}

TEST(PeltoHostLockMatrixTest, everyCallbackMayTakeAHostLockThatOtherEntryPointsRunUnder) {
    ScopedRuleFile rules(kRules);
    std::vector<std::string> failures;
    int pairs = 0;
    for (const Driver& driver : drivers()) {
        for (const Callback callback : driver.calls) {
            for (const EntryPoint& entry : entryPoints()) {
                if (entry.calls.count(callback) != 0) continue;
                ++pairs;
                const std::string failure = runPair(driver, callback, entry, rules);
                if (!failure.empty()) {
                    failures.push_back(std::string(nameOf(callback)) + " in " + driver.name +
                                       ", host lock held across " + entry.name + ": " + failure);
                }
            }
        }
    }
    std::string report;
    for (const std::string& failure : failures) report += "  " + failure + "\n";
    EXPECT_TRUE(failures.empty()) << failures.size() << " of " << pairs << " pairs failed:\n"
                                  << report;
    EXPECT_GT(pairs, 100);
}

} // namespace
} // namespace android
