// The input carries everything a controller sees: the mode, the rule file, the
// debug switch, faults for the fence thread's and the timer's platform calls, and two scripts of
// entry-point calls with the host's answers (visible layers that repeat or
// were never registered, buffer counts of any sign, vsync periods of any
// value, fences that wait or fail). The first script runs on the fuzzing
// thread and alone composes; the second runs at the same time on a second
// thread (transactions, hints, reloads, dumps). The invariants a compositor
// can observe are checked after every composition and at the end of each input.
//
// Layout: a setup byte (mode, debug switch, rule file present, timer faults),
// a construction byte, the rule file's text, "\n%%\n", the
// composing script, "\n%%\n", the second thread's script (each part may be
// empty). A script is a list of calls: an opcode byte and its arguments (Op).
//
// A controller is built once per mode and reused: each input starts by bringing
// it back to what a new controller shows (no layers, the input's rules, Off with
// reason -1, no pending buffer, no hints), so the input still decides everything. Set
// PELTO_FUZZ_COMPARE_FRESH=1 to check that claim: every input is then also run
// against a new controller, both scripts on one thread, and what the two runs
// showed must be the same.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/properties.h>
#include <ui/Fence.h>

#include "config/PeltoConfig.h"
#include "controller/FenceThreadCalls.h"
#include "controller/PeltoEntryPoints.h"
#include "fuzz/FuzzHost.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/FuzzWorker.h"
#include "trace/PeltoTraceLog.h"

namespace android::fuzz {
namespace {

constexpr size_t kMaxCalls = 256; // per script
// A reload reads and parses the file: the costliest call by far. Past this
// many in a script, Reload does nothing.
constexpr int kMaxReloads = 4;
constexpr int64_t kClockStart = 1'000'000'000'000;
constexpr unsigned int kScreenArea = 1920 * 1080;
constexpr std::string_view kSeparator = "\n%%\n";
constexpr const char* kDebugProperty = "vendor.debug.sf.show_pelto2_trace";

// Reloaded before the input's own rules. A rule file rejected whole leaves
// the general switches as they were, so they are first put back where a new
// controller's configuration has them: both on.
constexpr std::string_view kBaselineRules =
        R"({"target_layers": [{}], "general_rule": {"on_when_has_other_layer": true,
            "use_adaptive_timeout": true}})";

// The setup byte.
constexpr uint8_t kSetupListMode = 1 << 0;
constexpr uint8_t kSetupDebug = 1 << 1;
constexpr uint8_t kSetupNoRuleFile = 1 << 2;
// Bits 3-5 name a timer call that fails during the input (0: none; see
// kTimerFaultCalls), bits 6-7 how many times in a row, less one.
constexpr int kSetupTimerFaultShift = 3;
// The construction byte that follows it: from this value up, the input gets a
// controller of its own, built while the fence thread's platform calls named
// by bits 0-3 fail (naming, SCHED_FIFO, niceness, foreground group).
// Construction starts and joins two threads, which costs ten inputs on a
// reused controller, so only one value in sixteen asks for it.
constexpr uint8_t kNewControllerFrom = 0xf0;

const char* const kFixedNames[] = {"video#0", "video#7", "game#1",   "subtitle#0", "keyboard#0",
                                   "other#0", "video",   "game#1#2", "",           "#"};
constexpr size_t kMaxRuleNames = 6;
constexpr size_t kMaxRuleNameLength = 64;

const float kAreas[] = {0.0f,
                        1.0f,
                        100.0f,
                        200'000.0f,
                        700'000.0f,
                        static_cast<float>(kScreenArea),
                        4'000'000.0f,
                        -5.0f,
                        std::numeric_limits<float>::quiet_NaN(),
                        std::numeric_limits<float>::infinity(),
                        -std::numeric_limits<float>::infinity(),
                        std::numeric_limits<float>::max(),
                        std::numeric_limits<float>::denorm_min(),
                        1e-3f,
                        1e30f}; // index 15: a raw f32 follows

const long kPeriods[] = {16'666'666,
                         8'333'333,
                         11'111'111,
                         33'333'333,
                         0,
                         -1,
                         1,
                         500'000'000,
                         500'000'001,
                         std::numeric_limits<long>::max(),
                         std::numeric_limits<long>::min()};

const int kBufferCounts[] = {
        0, 1, 2, 3, -1, -2, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};

const int64_t kClockSteps[] = {0,          1'000'000,   4'000'000,     8'333'333,     16'666'666,
                               33'333'333, 100'000'000, 1'000'000'000, 10'000'000'000};

// Opcodes (a byte modulo the count). The first group runs on either thread,
// the second only on the composing one. Arguments follow as listed; "slot" is
// a byte modulo kSlots, the last slot being the null pointer.
enum class Op : uint8_t {
    SetTransactionState,     // count (modulo 9), per element: slot in bits 0-2, bit 3 null
                             // handle, bit 4 has buffer, bit 5 the unused flag, bits 6-7
                             // fence kind; then the timestamp selector (9: a u64 follows)
    SetBufferCount,          // slot, then an index into kBufferCounts (8 and up: a u32)
    SetHasPendingBuffer,     // slot
    SetHasOtherUI,           // bit 0
    SetPreviousPresentFence, // fence kind
    SetSFInProgress,         // bit 0
    OnActiveModeUpdated,
    IsQ2QFull,
    IsOn,
    Commit,
    Dump,
    Reload,         // at most kMaxReloads per script
    AdvanceClock,   // index into kClockSteps, or a u32 of microseconds
    SetVsyncPeriod, // index into kPeriods, or a u64
    QueueFence,     // fence kind
    CalculateTimeout,
    TimeoutCallback,
    SharedCount,
    Register = SharedCount, // slot, then name: bits 0-3 the name, bit 4 "#digit" appended
    Destroy,                // slot
    Composite,              // bit 0 forceOff, bit 1 compositeFlag, bits 2-3 screen
                            // (full, 0, 1, or a u32 that follows)
    SetVisible,             // count (modulo 17), per entry: slot in bits 0-2, area in
                            // bits 3-6 (15: an f32 follows), bit 7 focused
    SetTargetLayer,         // slot
    SetPeltoEnable,         // bit 0
    Count,
};

std::string lookupKey(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name : name.substr(0, hash);
}

int64_t wrappingAdd(int64_t a, int64_t b) {
    int64_t result;
    __builtin_add_overflow(a, b, &result);
    return result;
}

int64_t wrappingSub(int64_t a, int64_t b) {
    int64_t result;
    __builtin_sub_overflow(a, b, &result);
    return result;
}

// Fence kinds: none, NO_FENCE, a signalled pipe, a descriptor that cannot be waited on.
sp<Fence> makeFence(uint8_t kind) {
    switch (kind % 4) {
        case 0:
            return nullptr;
        case 1:
            return Fence::NO_FENCE;
        case 2: {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0) return Fence::NO_FENCE;
            close(fds[1]);
            return sp<Fence>(new Fence(fds[0]));
        }
        default:
            return sp<Fence>(new Fence(std::numeric_limits<int>::max()));
    }
}

// Faults for the fence thread's platform calls, read when a controller is built.
std::atomic<unsigned> sFenceFaults{0};

const FenceThreadCalls kFaultyFenceCalls = {
        [](pthread_t thread, const char* name) {
            return (sFenceFaults & 1) != 0 ? ERANGE : realFenceThreadCalls().setName(thread, name);
        },
        [](pthread_t thread, int priority) {
            return (sFenceFaults & 2) != 0
                    ? EPERM
                    : realFenceThreadCalls().setFifoPriority(thread, priority);
        },
        [](int tid, int nice) {
            return (sFenceFaults & 4) != 0 ? -1 : realFenceThreadCalls().setNice(tid, nice);
        },
        [](int tid, SchedPolicy policy) {
            return (sFenceFaults & 8) != 0 ? -EPERM
                                           : realFenceThreadCalls().setSchedPolicy(tid, policy);
        },
};

// Faults for the timer's descriptor calls, armed at the start of each input
// and cleared at its end. A new controller meets them while its timer builds
// its loop and starts its first wait; its thread then retries, backing off,
// while the input runs and after.
enum TimerFaultCall : unsigned {
    kNoTimerFault,
    kTimerfdCreate,
    kEpollCreate,
    kPipe2,
    kEpollCtl,
    kTimerfdSettime,
    kEpollWait,
    kTimerRead,
};
std::atomic<unsigned> sTimerFaultCall{kNoTimerFault};
std::atomic<int> sTimerFaultsLeft{0};

void armTimerFaults(uint8_t setup) {
    sTimerFaultsLeft = 1 + (setup >> 6);
    sTimerFaultCall = (setup >> kSetupTimerFaultShift) & 7;
}

void clearTimerFaults() {
    sTimerFaultCall = kNoTimerFault;
}

// Whether this call of `call` fails; sets errno when it does.
bool timerCallFails(TimerFaultCall call) {
    if (sTimerFaultCall.load() != call || sTimerFaultsLeft.fetch_sub(1) <= 0) return false;
    errno = call == kEpollWait ? EINTR : EMFILE;
    return true;
}

const scheduler::TimerSyscalls& real() {
    return scheduler::realTimerSyscalls();
}

scheduler::TimerSyscalls faultyTimerSyscalls() {
    scheduler::TimerSyscalls calls;
    calls.timerfd_create = [](int clockId, int flags) {
        return timerCallFails(kTimerfdCreate) ? -1 : real().timerfd_create(clockId, flags);
    };
    calls.timerfd_settime = [](int fd, int flags, const itimerspec* value, itimerspec* old) {
        return timerCallFails(kTimerfdSettime) ? -1 : real().timerfd_settime(fd, flags, value, old);
    };
    calls.epoll_create1 = [](int flags) {
        return timerCallFails(kEpollCreate) ? -1 : real().epoll_create1(flags);
    };
    calls.epoll_ctl = [](int epollFd, int op, int fd, epoll_event* event) {
        return timerCallFails(kEpollCtl) ? -1 : real().epoll_ctl(epollFd, op, fd, event);
    };
    calls.epoll_wait = [](int epollFd, epoll_event* events, int max, int timeout) {
        return timerCallFails(kEpollWait) ? -1 : real().epoll_wait(epollFd, events, max, timeout);
    };
    calls.pipe2 = [](int fds[2], int flags) {
        return timerCallFails(kPipe2) ? -1 : real().pipe2(fds, flags);
    };
    calls.read = [](int fd, void* buffer, size_t count) -> ssize_t {
        return timerCallFails(kTimerRead) ? -1 : real().read(fd, buffer, count);
    };
    calls.write = real().write; // the destructor's wake-up
    return calls;
}

// What the controller's dump says, as far as the invariants need it.
struct DumpView {
    std::string state;
    int reason = 0;
    bool hasLayers = false;
    // Record names by section: TargetLayer, TargetIgnoreLayer, ExceptionLayer, Nobody.
    std::array<std::vector<std::string>, 4> sections;
};

// The state block is the last one; the layer sections come just before it,
// after the configuration's own text (which may hold anything a rule file
// names). Registered names never hold a line break or a tab, so the sections
// are found from the end.
DumpView parseDump(const std::string& dump) {
    static constexpr std::string_view kState = "==========\nPelto State: ";
    static constexpr std::string_view kReason = "Pelto State Reason: ";
    static constexpr std::string_view kLayers = "==========\nTargetLayer:\n";
    static const char* const kHeadings[] = {
            "TargetLayer:", "TargetIgnoreLayer:", "ExceptionLayer:", "Nobody:"};
    DumpView view;
    const size_t stateAt = dump.rfind(kState);
    check(stateAt != std::string::npos, "the dump has no state block");
    const size_t stateFrom = stateAt + kState.size();
    const size_t stateEnd = dump.find('\n', stateFrom);
    check(stateEnd != std::string::npos, "the dump ends inside its state block");
    view.state = dump.substr(stateFrom, stateEnd - stateFrom);
    check(dump.compare(stateEnd + 1, kReason.size(), kReason) == 0,
          "the dump's state is not followed by its reason");
    view.reason = std::atoi(dump.c_str() + stateEnd + 1 + kReason.size());

    const size_t layersAt = dump.rfind(kLayers, stateAt);
    if (layersAt == std::string::npos) return view;
    view.hasLayers = true;
    int section = -1;
    for (size_t line = layersAt + std::strlen("==========\n"); line < stateAt;) {
        const size_t end = dump.find('\n', line);
        const std::string_view text(dump.data() + line, end - line);
        line = end + 1;
        if (text.substr(0, 2) == "\t\t") continue;
        if (text.substr(0, 1) == "\t") {
            check(section >= 0, "a layer record before any section heading");
            view.sections[section].emplace_back(text.substr(1));
            continue;
        }
        const auto heading = std::find(std::begin(kHeadings), std::end(kHeadings), text);
        check(heading != std::end(kHeadings), "an unknown line among the layer sections");
        section = static_cast<int>(heading - std::begin(kHeadings));
    }
    return view;
}

bool legalPair(bool useList, const std::string& state, int reason) {
    const auto in = [reason](std::initializer_list<int> reasons) {
        return std::find(reasons.begin(), reasons.end(), reason) != reasons.end();
    };
    if (useList) {
        if (state == "Off") return in({-1, 360, 413, 455});
        if (state == "On") return in({551});
        if (state == "Temp Off") return in({511, 518, 547});
    } else {
        if (state == "Off") return in({-1, 360, 375, 394});
        if (state == "On") return in({389});
        if (state == "Temp Off") return in({391});
    }
    return false;
}

// What one input shares between its two scripts; set before they start.
struct Run {
    PeltoController* controller = nullptr;
    FuzzHost* host = nullptr;
    bool useList = false;
    const PeltoConfig* rules = nullptr; // the input's rules as a new loader reads them
    const char* reloadLine = nullptr;   // what a reload must print first (list mode)
    std::vector<std::string> names;     // names the scripts register
    std::string* transcript = nullptr;  // what the composing script saw (compare mode)
};

// One script: its own input span and its own record of what it did.
class Script {
public:
    Script(const Run& run, std::string_view bytes, bool composing)
          : mRun(run), mInput(bytes), mComposing(composing) {}

    void run() {
        const auto count = static_cast<uint8_t>(mComposing ? Op::Count : Op::SharedCount);
        for (size_t call = 0; call < kMaxCalls && !mInput.empty(); ++call) {
            const auto op = static_cast<Op>(mInput.byte() % count);
            if (op == Op::Composite) {
                composite();
                continue;
            }
            runOne(op);
            if (mComposing) {
                // Only a composition changes the state, and the HWC follows it at once.
                const bool on = ::isOn(mRun.controller);
                check(on == mOn, "the state changed outside a composition");
                check(on == mRun.host->hwcOn(), "the HWC mode disagrees with isOn()");
            }
        }
    }

    // The end of the input, once the other script has finished too.
    void checkFinal() {
        std::string out;
        ::dump(mRun.controller, out);
        record(out);
        const DumpView view = parseDump(out);
        check(legalPair(mRun.useList, view.state, view.reason),
              "the state and its reason are not a pair this mode can give");
        const bool on = ::isOn(mRun.controller);
        check(on == (view.state == "On"), "isOn() disagrees with the dump");
        check(on == mRun.host->hwcOn(), "the HWC mode disagrees with isOn()");
        if (mRun.useList) {
            check(view.hasLayers, "list mode: the dump has no layer sections");
            std::array<std::vector<std::string>, 4> expected;
            for (const Record& record : mRegistry) {
                expected[expectedType(record.name)].push_back(record.name);
            }
            for (size_t type = 0; type < expected.size(); ++type) {
                std::vector<std::string> dumped = view.sections[type];
                std::sort(dumped.begin(), dumped.end());
                std::sort(expected[type].begin(), expected[type].end());
                check(dumped == expected[type],
                      type == 0 ? "the dump's target records are not the registered targets"
                                : "the dump's records are not the registered layers, each "
                                  "classified by the current rules");
            }
        } else {
            check(!view.hasLayers && out.find("TargetLayer:") == std::string::npos,
                  "API mode: the dump lists layers");
        }

        // The last composition of every input is forced off, which leaves the
        // controller Off for the next one.
        ::composite(mRun.controller, true, false, kScreenArea);
        out.clear();
        ::dump(mRun.controller, out);
        check(parseDump(out).state == "Off", "a forced-off composition left the mode not Off");
        check(!::isOn(mRun.controller) && !mRun.host->hwcOn(),
              "after a forced-off composition the HWC mode is still on");
    }

private:
    struct Record {
        const void* layerPtr;
        std::string name;
    };

    // The section a name's record belongs in under the input's rules.
    size_t expectedType(const std::string& name) const {
        const std::string key = lookupKey(name);
        if (mRun.rules->isTargetLayer(key, nullptr)) return 0;
        if (mRun.rules->isTargetIgnoreLayer(key, nullptr)) return 1;
        if (mRun.rules->isExceptionLayer(key, nullptr)) return 2;
        return 3;
    }

    int registeredTargets() const {
        int count = 0;
        for (const Record& record : mRegistry) count += expectedType(record.name) == 0 ? 1 : 0;
        return count;
    }

    // A visible layer is a candidate when the first record of its pointer is a target.
    bool targetVisible() const {
        for (const auto& layer : mVisible) {
            for (const Record& record : mRegistry) {
                if (record.layerPtr == layer.layerPtr) {
                    if (expectedType(record.name) == 0) return true;
                    break;
                }
            }
        }
        return false;
    }

    bool apiTargetVisible() const {
        for (const auto& layer : mVisible) {
            if (layer.layerPtr == mApiTarget) return true;
        }
        return false;
    }

    void record(const std::string& text) {
        if (mRun.transcript != nullptr) *mRun.transcript += text;
    }

    long timestamp(uint8_t selector) {
        const int64_t now = clockNow();
        const int64_t period = mRun.host->vsyncPeriod();
        switch (selector % 10) {
            case 0:
                return now;
            case 1:
                return wrappingSub(now, period);
            case 2:
                return wrappingSub(now, wrappingAdd(period, period));
            case 3:
                return wrappingSub(now, period / 2);
            case 4:
                return wrappingAdd(now, period);
            case 5:
                return 0;
            case 6:
                return -1;
            case 7:
                return std::numeric_limits<long>::min();
            case 8:
                return std::numeric_limits<long>::max();
            default:
                return static_cast<long>(mInput.u64());
        }
    }

    float area(uint8_t selector) {
        return selector < std::size(kAreas) ? kAreas[selector] : mInput.f32();
    }

    std::string name(uint8_t selector) {
        std::string name = mRun.names[(selector & 0x0f) % mRun.names.size()];
        if ((selector & 0x10) != 0) name += "#" + std::to_string(selector >> 5);
        return name;
    }

    void runOne(Op op) {
        PeltoController* const ctl = mRun.controller;
        switch (op) {
            case Op::SetTransactionState: {
                std::vector<PeltoTransactionState> states;
                const size_t count = mInput.byte() % 9;
                for (size_t i = 0; i < count; ++i) {
                    const uint8_t b = mInput.byte();
                    const sp<IBinder>& handle = mRun.host->handle(b);
                    states.emplace_back((b & 0x08) != 0 ? nullptr : handle, (b & 0x10) != 0,
                                        (b & 0x20) != 0, makeFence(b >> 6));
                }
                ::setTransactionState(ctl, states, timestamp(mInput.byte()));
                return;
            }
            case Op::SetBufferCount: {
                const uint8_t slot = mInput.byte();
                const uint8_t index = mInput.byte();
                mRun.host->setBufferCount(slot,
                                          index < std::size(kBufferCounts)
                                                  ? kBufferCounts[index]
                                                  : static_cast<int>(mInput.u32()));
                return;
            }
            case Op::SetHasPendingBuffer:
                ::setHasPendingBuffer(ctl, slotPointer(mInput.byte()));
                return;
            case Op::SetHasOtherUI:
                ::setHasOtherUI(ctl, (mInput.byte() & 1) != 0);
                return;
            case Op::SetPreviousPresentFence:
                ::setPreviousPresentFence(ctl, makeFence(mInput.byte()));
                return;
            case Op::SetSFInProgress:
                ::setSFInProgress(ctl, (mInput.byte() & 1) != 0);
                return;
            case Op::OnActiveModeUpdated:
                ::onActiveModeUpdated(ctl);
                return;
            case Op::IsQ2QFull:
                ::isQ2QFull(ctl);
                return;
            case Op::IsOn:
                ::isOn(ctl);
                return;
            case Op::Commit:
                ::commit(ctl);
                return;
            case Op::Dump: {
                std::string out;
                ::dump(ctl, out);
                record(out);
                return;
            }
            case Op::Reload: {
                if (++mReloads > kMaxReloads) return;
                std::string out;
                ::reloadConfigThenDump(ctl, out);
                record(out);
                if (mRun.useList) {
                    check(out.rfind(mRun.reloadLine, 0) == 0,
                          "the reload's first line does not match the file");
                } else {
                    check(out.empty(), "API mode: a reload printed something");
                }
                return;
            }
            case Op::AdvanceClock: {
                // The monotonic clock never goes back.
                const size_t index = mInput.byte();
                advanceClock(index < std::size(kClockSteps)
                                     ? kClockSteps[index]
                                     : static_cast<int64_t>(mInput.u32()) * 1000);
                return;
            }
            case Op::SetVsyncPeriod: {
                const size_t index = mInput.byte();
                mRun.host->setVsyncPeriod(index < std::size(kPeriods)
                                                  ? kPeriods[index]
                                                  : static_cast<long>(mInput.u64()));
                return;
            }
            case Op::QueueFence:
                ctl->queueFence(makeFence(mInput.byte()));
                return;
            case Op::CalculateTimeout:
                ctl->calculateTimeout();
                return;
            case Op::TimeoutCallback:
                ctl->timeoutCallback();
                return;
            case Op::Register: {
                const void* layerPtr = slotPointer(mInput.byte());
                const std::string layerName = name(mInput.byte());
                ::registerLayer(ctl, layerPtr, layerName);
                if (mRun.useList && layerPtr != nullptr) mRegistry.push_back({layerPtr, layerName});
                return;
            }
            case Op::Destroy: {
                const void* layerPtr = slotPointer(mInput.byte());
                ::destroyLayer(ctl, layerPtr);
                mRegistry.erase(std::remove_if(mRegistry.begin(), mRegistry.end(),
                                               [layerPtr](const Record& r) {
                                                   return r.layerPtr == layerPtr;
                                               }),
                                mRegistry.end());
                return;
            }
            case Op::SetVisible: {
                const size_t count = mInput.byte() % 17;
                mVisible.clear();
                for (size_t i = 0; i < count; ++i) {
                    const uint8_t b = mInput.byte();
                    mVisible.push_back({slotPointer(b), area((b >> 3) & 0x0f), (b & 0x80) != 0});
                }
                mRun.host->setVisibleLayers(mVisible);
                return;
            }
            case Op::SetTargetLayer:
                mApiTarget = slotPointer(mInput.byte());
                ::setTargetLayer(ctl, mApiTarget);
                return;
            case Op::SetPeltoEnable:
                mApiEnable = (mInput.byte() & 1) != 0;
                ::setPeltoEnable(ctl, mApiEnable);
                return;
            case Op::Composite:
            case Op::Count:
                return;
        }
    }

    void composite() {
        const uint8_t flags = mInput.byte();
        const bool forceOff = (flags & 1) != 0;
        unsigned int screenArea = kScreenArea;
        switch ((flags >> 2) & 3) {
            case 1:
                screenArea = 0;
                break;
            case 2:
                screenArea = 1;
                break;
            case 3:
                screenArea = mInput.u32();
                break;
            default:
                break;
        }
        ::composite(mRun.controller, forceOff, (flags & 2) != 0, screenArea);

        std::string out;
        ::dump(mRun.controller, out);
        record(out);
        const DumpView view = parseDump(out);
        check(legalPair(mRun.useList, view.state, view.reason),
              "the state and its reason are not a pair this mode can give");
        mOn = ::isOn(mRun.controller);
        check(mOn == (view.state == "On"), "isOn() disagrees with the dump");
        check(mOn == mRun.host->hwcOn(), "the HWC mode disagrees with isOn()");
        const bool changed = view.state != mState;
        mState = view.state;
        if (forceOff) {
            check(view.state == "Off", "a forced-off composition left the mode not Off");
        } else if (mRun.useList) {
            const int targets = registeredTargets();
            check((view.state == "Off") == (targets == 0 || !targetVisible()),
                  "list mode: Off is not exactly 'no target registered or none visible'");
            if (changed && view.state == "Off") {
                check((view.reason == 413) == (targets == 0),
                      "list mode: reason 413 is not exactly 'no target registered'");
            }
        } else {
            const char* expected = mApiTarget == nullptr || !apiTargetVisible() ? "Off"
                    : mApiEnable                                                ? "On"
                                                                                : "Temp Off";
            check(view.state == expected, "API mode: the state does not follow target and enable");
        }
    }

    const Run& mRun;
    FuzzInput mInput;
    const bool mComposing;
    bool mOn = false;
    int mReloads = 0;
    std::string mState = "Off";
    std::vector<Record> mRegistry;
    std::vector<FuzzHost::VisibleLayer> mVisible;
    const void* mApiTarget = nullptr;
    bool mApiEnable = false;
};

// The names the scripts register: fixed ones, then text between double quotes
// in the rule file (escapes not decoded), so that names the file holds are used.
std::vector<std::string> namesFor(std::string_view rules) {
    std::vector<std::string> names(std::begin(kFixedNames), std::end(kFixedNames));
    size_t start = std::string_view::npos;
    size_t taken = 0;
    for (size_t i = 0; i < rules.size() && taken < kMaxRuleNames; ++i) {
        if (rules[i] != '"') continue;
        if (start == std::string_view::npos) {
            start = i + 1;
            continue;
        }
        const std::string_view text = rules.substr(start, i - start);
        start = std::string_view::npos;
        if (text.size() <= kMaxRuleNameLength && text.find_first_of("\n\t") == text.npos) {
            names.emplace_back(text);
            ++taken;
        }
    }
    return names;
}

// The controllers kept across inputs (list mode, API mode) and their host.
struct Cache {
    FuzzHost host;
    std::array<PeltoController*, 2> controllers{};
    // The rules each controller last reloaded (or was built with).
    std::array<std::string, 2> controllerText;
    std::array<bool, 2> controllerPresent{};
    std::unique_ptr<PeltoConfig> defaults; // switches and status of a new configuration
    std::unique_ptr<PeltoConfig> model;    // the last input's rules, freshly loaded
    std::string modelText;
    bool modelPresent = false;
    bool modelLoads = false;
    FuzzWorker worker;
    bool compareFresh = false;
};

Cache& cache() {
    static Cache* cache = new Cache(); // never destroyed: its threads outlive exit handlers
    return *cache;
}

void writeRules(std::string_view rules, bool present) {
    writeRuleFile(present ? reinterpret_cast<const uint8_t*>(rules.data()) : nullptr, rules.size());
}

PeltoController* buildController(FuzzHost& host, bool useList, unsigned faults) {
    sFenceFaults = faults;
    PeltoController::PlatformCalls platform;
    platform.fenceThread = kFaultyFenceCalls;
    platform.timer = faultyTimerSyscalls();
    platform.ruleFilePath = ruleFilePath();
    return host.create(useList, platform);
}

// Brings a used controller back to what a new one shows under the input's
// rules, which the rule file holds already; `loads`: whether they load.
void resetController(PeltoController* ctl, std::string_view rules, bool present, bool loads,
                     bool reload) {
    for (size_t slot = 0; slot < kSlots; ++slot) ::destroyLayer(ctl, slotPointer(slot));
    ::setHasOtherUI(ctl, false);
    ::setTargetLayer(ctl, nullptr);
    ::setPeltoEnable(ctl, false);
    ::onActiveModeUpdated(ctl);
    // Off with reason -1, as at construction, through On, as only a change is
    // recorded; while On, a commit clears the pending-buffer flag.
    ::composite(ctl, true, false, kScreenArea);
    ctl->setPeltoState(static_cast<int32_t>(PeltoState::On), 551);
    ::commit(ctl);
    ctl->setPeltoState(static_cast<int32_t>(PeltoState::Off), -1);
    if (!reload) return;
    std::string out;
    if (!loads) {
        // Rules that load set both switches; rules rejected whole set neither.
        writeRules(kBaselineRules, true);
        ::reloadConfigThenDump(ctl, out);
        writeRules(rules, present);
    }
    ::reloadConfigThenDump(ctl, out);
}

// Runs both scripts, concurrently unless `serial`, then the final checks.
void runScripts(const Run& run, std::string_view main, std::string_view second, bool serial) {
    Script composing(run, main, true);
    Script other(run, second, false);
    if (serial || second.empty()) {
        composing.run();
        other.run();
    } else {
        FuzzWorker& worker = cache().worker;
        worker.start([&other] { other.run(); });
        composing.run();
        worker.wait();
    }
    composing.checkFinal();
}

// Drops the lines a reused controller may show differently without the input
// having a say: the load status, which once cleared stays cleared for the
// controller's life and is read by nothing but the dump.
std::string normalised(const std::string& transcript) {
    std::string out;
    size_t line = 0;
    while (line < transcript.size()) {
        size_t end = transcript.find('\n', line);
        end = end == std::string::npos ? transcript.size() : end + 1;
        if (transcript.compare(line, 22, "mLoadConfigSucceeded: ") != 0) {
            out.append(transcript, line, end - line);
        }
        line = end;
    }
    return out;
}

} // namespace
} // namespace android::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    using namespace android::fuzz;
    silenceLog();
    ruleFilePath();
    Cache& c = cache();
    const char* compare = std::getenv("PELTO_FUZZ_COMPARE_FRESH");
    c.compareFresh = compare != nullptr && compare[0] == '1';
    writeRules(kBaselineRules, false);
    c.defaults = std::make_unique<android::PeltoConfig>(ruleFilePath());
    return 0;
}

namespace android::fuzz {
namespace {

// The input's rules as a new loader reads them: lookups and the reload's
// outcome. Kept while inputs bring the same rules.
bool modelRules(Cache& c, std::string_view rules, bool rulesPresent) {
    if (c.model == nullptr || c.modelText != rules || c.modelPresent != rulesPresent) {
        writeRules(rules, rulesPresent);
        c.model = android::PeltoConfig::makeReloadOf(*c.defaults);
        c.modelLoads = c.model->loadConfig(true) == android::PeltoConfig::kLoadOk;
        c.modelText = rules;
        c.modelPresent = rulesPresent;
    }
    return c.modelLoads;
}

// The mode's cached controller, brought back to its start, or a new one.
android::PeltoController* controllerFor(Cache& c, bool useList, uint8_t setup, uint8_t construction,
                                        std::string_view rules, bool rulesPresent, bool loads) {
    const size_t mode = useList ? 1 : 0;
    const unsigned faults = construction & 0x0f;
    android::PeltoController*& ctl = c.controllers[mode];
    c.host.reset();
    setClock(kClockStart);
    armTimerFaults(setup);
    if (ctl == nullptr || construction >= kNewControllerFrom) {
        destroyPeltoController(ctl); // null: nothing
        ctl = buildController(c.host, useList, faults);
    } else {
        // Rules that every reload since read from the same file need no reload.
        const bool sameRules =
                c.controllerText[mode] == rules && c.controllerPresent[mode] == rulesPresent;
        resetController(ctl, rules, rulesPresent, loads, !sameRules);
        c.host.reset();
        setClock(kClockStart);
    }
    c.controllerText[mode] = rules;
    c.controllerPresent[mode] = rulesPresent;
    return ctl;
}

// The reused controller, then a new one, each with both scripts on this
// thread; the two transcripts must match.
void compareWithFresh(Cache& c, Run& run, uint8_t setup, uint8_t construction,
                      std::string_view rules, bool rulesPresent, std::string_view mainScript,
                      std::string_view secondScript) {
    std::string reused;
    run.transcript = &reused;
    runScripts(run, mainScript, secondScript, true);

    c.host.reset();
    setClock(kClockStart);
    writeRules(rules, rulesPresent);
    armTimerFaults(setup);
    android::PeltoController* fresh = buildController(c.host, run.useList, construction & 0x0f);
    std::string fromNew;
    run.controller = fresh;
    run.transcript = &fromNew;
    runScripts(run, mainScript, secondScript, true);
    destroyPeltoController(fresh);
    check(normalised(reused) == normalised(fromNew),
          "a reused controller showed something a new one did not");
}

} // namespace
} // namespace android::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::fuzz;
    Cache& c = cache();
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    if (rest.empty()) return 0;
    const auto setup = static_cast<uint8_t>(rest[0]);
    const auto construction = static_cast<uint8_t>(rest.size() > 1 ? rest[1] : 0);
    rest.remove_prefix(std::min<size_t>(rest.size(), 2));
    const std::string_view rules = takeUntil(rest, kSeparator);
    const std::string_view mainScript = takeUntil(rest, kSeparator);
    const std::string_view secondScript = rest;

    const bool useList = (setup & kSetupListMode) != 0;
    const bool rulesPresent = (setup & kSetupNoRuleFile) == 0;
    android::base::SetProperty(kDebugProperty, (setup & kSetupDebug) != 0 ? "true" : "false");
    android::pelto_testing::resetDebugSwitch();
    const bool loads = modelRules(c, rules, rulesPresent);

    Run run;
    run.host = &c.host;
    run.useList = useList;
    run.rules = c.model.get();
    run.reloadLine = loads ? "Reload Succeeded\n" : "Reload Failed\n";
    run.names = namesFor(rules);
    run.controller = controllerFor(c, useList, setup, construction, rules, rulesPresent, loads);
    if (c.compareFresh) {
        compareWithFresh(c, run, setup, construction, rules, rulesPresent, mainScript,
                         secondScript);
    } else {
        runScripts(run, mainScript, secondScript, false);
    }
    clearTimerFaults();
    return 0;
}
