// The input is a script of entry-point calls against one controller and a fake
// compositor: layers come and go from a small pool of pointers and names,
// compositions run over a visible set the input chooses, transactions arrive,
// the rules are reloaded from a few fixed files and the vsync period changes
// (0, negative and huge included). After every call the fuzzer checks what a
// compositor can observe: the dumped state, isOn(), the HWC on/off order, the
// registry's target records and the outcome of each composition.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <ui/Fence.h>

#include "controller/PeltoEntryPoints.h"
#include "fuzz/FuzzHost.h"
#include "fuzz/FuzzSupport.h"

namespace android::fuzz {
namespace {

constexpr size_t kMaxCalls = 64;
constexpr int64_t kClockStart = 1'000'000'000'000;
constexpr unsigned int kScreenArea = 1920 * 1080;

// Slots 0-6 are layers, slot 7 the null pointer.
constexpr size_t kSlots = 8;
char gLayers[kSlots - 1];

const void* slotPointer(size_t slot) {
    return slot < kSlots - 1 ? &gLayers[slot] : nullptr;
}

const char* const kNames[] = {"video#0",  "video#7", "game#1", "subtitle#0",
                              "keyboard#0", "other#0", "video",  "game#1#2"};

// The rule files the input switches between, with the names each makes targets.
struct RuleFile {
    const char* text;  // null: no file at all
    std::vector<std::string> targets;
    bool loads;
};

const RuleFile kRuleFiles[] = {
        {R"({"target_layers": [{"name": "video", "ignore_names": ["subtitle"]}, {"name": "game"}],
             "general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true},
             "exception_rule": [
               {"layer_screen_size_ratio": {"condition": "1 bigger", "value1": 30}},
               {"name": "keyboard", "focus": true, "layer_screen_size_ratio":
                 {"condition": "2 in_range", "value1": 10, "value2": 50}}]})",
         {"video", "game"},
         true},
        {R"({"target_layers": [{"name": "game", "ignore_names": ["video"]}, {"name": "game#1"}],
             "general_rule": {"on_when_has_other_layer": false, "use_adaptive_timeout": false},
             "exception_rule": [{"focus": false}, {"name": "subtitle", "always_true": true},
                                {"name": "keyboard"}]})",
         {"game", "game#1"},
         true},
        {R"({"target_layers": [{"name": "video"})", {}, false},
        {nullptr, {}, false},
};

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
                        1e30f};

const long kPeriods[] = {16'666'666, 8'333'333, 11'111'111,
                         33'333'333, 0,         -1,
                         1,          500'000'000, 500'000'001,
                         std::numeric_limits<long>::max(), std::numeric_limits<long>::min()};

const int64_t kClockSteps[] = {0,          1'000'000,   4'000'000,     8'333'333,
                               16'666'666, 33'333'333, 100'000'000,   1'000'000'000,
                               10'000'000'000};

// Input format: a setup byte (bit 0 list mode, bits 1-2 the rule file read at
// construction), then up to kMaxCalls calls, each an opcode byte (taken modulo
// Op::Count) followed by its argument bytes as listed. "slot" is a byte modulo 8.
enum class Op : uint8_t {
    Register,                 // slot in bits 0-2, name in bits 3-5
    Destroy,                  // slot
    Composite,                // bit 0 forceOff, bit 1 compositeFlag, bits 2-3 screen
                              // (full, 0, 1, or a u32 that follows)
    SetVisible,               // slot mask, then per slot: area in bits 0-3 (15: an f32
                              // follows), bit 4 focused
    SetVsyncPeriod,           // index into kPeriods, or a u64 that follows
    AdvanceClock,             // index into kClockSteps, or a u32 of microseconds
    SetTransactionState,      // count (modulo 5), per element: slot in bits 0-2, bit 3
                              // null handle, bit 4 has buffer, bits 5-6 buffer count;
                              // then the timestamp selector
    IsOn,
    IsQ2QFull,
    Commit,
    SetHasPendingBuffer,      // slot
    SetHasOtherUI,            // bit 0
    SetPreviousPresentFence,  // null, NO_FENCE or an invalid fence (modulo 3)
    SetSFInProgress,          // bit 0
    SetTargetLayer,           // slot
    SetPeltoEnable,           // bit 0
    OnActiveModeUpdated,
    Dump,
    Reload,                   // rule file (modulo 4)
    CalculateTimeout,
    TimeoutCallback,
    Count,
};

// Reads the input front to back; past its end every read gives 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool empty() const { return mPos >= mSize; }
    uint8_t byte() { return mPos < mSize ? mData[mPos++] : 0; }
    uint32_t u32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(byte()) << (8 * i);
        return value;
    }
    uint64_t u64() { return u32() | static_cast<uint64_t>(u32()) << 32; }
    float f32() {
        const uint32_t bits = u32();
        float value;
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }

private:
    const uint8_t* const mData;
    const size_t mSize;
    size_t mPos = 0;
};

int64_t wrappingSub(int64_t a, int64_t b) {
    int64_t result;
    __builtin_sub_overflow(a, b, &result);
    return result;
}

int64_t wrappingAdd(int64_t a, int64_t b) {
    int64_t result;
    __builtin_add_overflow(a, b, &result);
    return result;
}

std::string lookupKey(const std::string& name) {
    const size_t hash = name.rfind('#');
    return hash == std::string::npos ? name : name.substr(0, hash);
}

// The text after `label` up to the end of its line, or "?" when missing.
std::string dumpedField(const std::string& dump, const std::string& label) {
    const size_t start = dump.find(label);
    if (start == std::string::npos) return "?";
    const size_t from = start + label.size();
    return dump.substr(from, dump.find('\n', from) - from);
}

// Layer lines (one tab deep) between "TargetLayer:" and "TargetIgnoreLayer:", or -1.
int dumpedTargetRecords(const std::string& dump) {
    const size_t begin = dump.find("TargetLayer:\n");
    const size_t end = dump.find("TargetIgnoreLayer:\n");
    if (begin == std::string::npos || end == std::string::npos || end < begin) return -1;
    int count = 0;
    size_t line = begin + std::strlen("TargetLayer:\n");
    while (line < end) {
        if (dump.compare(line, 1, "\t") == 0 && dump.compare(line, 2, "\t\t") != 0) ++count;
        line = dump.find('\n', line) + 1;
    }
    return count;
}

// What the script has done so far, as far as the invariants need it.
class Script {
public:
    Script(FuzzHost& host, PeltoController* controller, bool useList, size_t rules)
          : mHost(host), mController(controller), mUseList(useList), mRules(rules) {
        for (size_t slot = 0; slot < kSlots; ++slot) {
            mHandles.push_back(mHost.makeHandle(slotPointer(slot)));
        }
    }

    void run(Input& input) {
        for (size_t call = 0; call < kMaxCalls && !input.empty(); ++call) {
            const auto op = static_cast<Op>(input.byte() % static_cast<uint8_t>(Op::Count));
            const std::string stateBefore = state();
            const bool composed = runOne(op, input);
            checkInvariants(composed ? nullptr : &stateBefore);
        }
    }

private:
    struct Record {
        const void* layerPtr;
        std::string name;
    };

    bool isTargetName(const std::string& name) const {
        const auto& targets = kRuleFiles[mRules].targets;
        return std::find(targets.begin(), targets.end(), lookupKey(name)) != targets.end();
    }

    int registeredTargets() const {
        int count = 0;
        for (const Record& record : mRegistry) count += isTargetName(record.name) ? 1 : 0;
        return count;
    }

    // A visible layer is a candidate when the first record of its pointer is a target.
    bool targetVisible() const {
        for (const auto& layer : mVisible) {
            for (const Record& record : mRegistry) {
                if (record.layerPtr == layer.layerPtr) {
                    if (isTargetName(record.name)) return true;
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

    std::string state() const {
        std::string out;
        ::dump(mController, out);
        return dumpedField(out, "Pelto State: ");
    }

    long timestamp(uint8_t selector) {
        const int64_t now = clockNow();
        const int64_t period = mHost.vsyncPeriod();
        switch (selector % 9) {
            case 0: return now;
            case 1: return wrappingSub(now, period);
            case 2: return wrappingSub(now, wrappingAdd(period, period));
            case 3: return wrappingSub(now, period / 2);
            case 4: return wrappingAdd(now, period);
            case 5: return 0;
            case 6: return -1;
            case 7: return std::numeric_limits<long>::min();
            default: return std::numeric_limits<long>::max();
        }
    }

    float area(Input& input, uint8_t selector) {
        const size_t index = selector & 0x0f;
        return index < std::size(kAreas) ? kAreas[index] : input.f32();
    }

    // Runs one call; true when it was a composition.
    bool runOne(Op op, Input& input) {
        switch (op) {
            case Op::Register: {
                const uint8_t b = input.byte();
                const void* layerPtr = slotPointer(b % kSlots);
                const std::string name = kNames[(b >> 3) % std::size(kNames)];
                ::registerLayer(mController, layerPtr, name);
                if (mUseList && layerPtr != nullptr) mRegistry.push_back({layerPtr, name});
                return false;
            }
            case Op::Destroy: {
                const void* layerPtr = slotPointer(input.byte() % kSlots);
                ::destroyLayer(mController, layerPtr);
                mRegistry.erase(std::remove_if(mRegistry.begin(), mRegistry.end(),
                                               [layerPtr](const Record& r) {
                                                   return r.layerPtr == layerPtr;
                                               }),
                                mRegistry.end());
                return false;
            }
            case Op::Composite:
                composite(input);
                return true;
            case Op::SetVisible: {
                const uint8_t mask = input.byte();
                mVisible.clear();
                for (size_t slot = 0; slot < kSlots; ++slot) {
                    if ((mask & (1u << slot)) == 0) continue;
                    const uint8_t b = input.byte();
                    mVisible.push_back({slotPointer(slot), area(input, b), (b & 0x10) != 0});
                }
                mHost.setVisibleLayers(mVisible);
                return false;
            }
            case Op::SetVsyncPeriod: {
                const size_t index = input.byte();
                mHost.setVsyncPeriod(index < std::size(kPeriods)
                                             ? kPeriods[index]
                                             : static_cast<long>(input.u64()));
                return false;
            }
            case Op::AdvanceClock: {
                // The monotonic clock never goes back.
                const size_t index = input.byte();
                const int64_t step = index < std::size(kClockSteps)
                        ? kClockSteps[index]
                        : static_cast<int64_t>(input.u32()) * 1000;
                setClock(clockNow() + step);
                return false;
            }
            case Op::SetTransactionState: {
                std::vector<PeltoTransactionState> states;
                const size_t count = input.byte() % 5;
                for (size_t i = 0; i < count; ++i) {
                    const uint8_t b = input.byte();
                    const sp<IBinder>& handle = mHandles[b % kSlots];
                    mHost.setBufferCount(handle, (b >> 5) & 3);
                    const bool hasBuffer = (b & 0x10) != 0;
                    states.emplace_back((b & 0x08) != 0 ? nullptr : handle, hasBuffer, false,
                                        hasBuffer ? Fence::NO_FENCE : nullptr);
                }
                ::setTransactionState(mController, states, timestamp(input.byte()));
                return false;
            }
            case Op::IsOn:
                ::isOn(mController);
                return false;
            case Op::IsQ2QFull:
                ::isQ2QFull(mController);
                return false;
            case Op::Commit:
                ::commit(mController);
                return false;
            case Op::SetHasPendingBuffer:
                ::setHasPendingBuffer(mController, slotPointer(input.byte() % kSlots));
                return false;
            case Op::SetHasOtherUI:
                ::setHasOtherUI(mController, (input.byte() & 1) != 0);
                return false;
            case Op::SetPreviousPresentFence: {
                const uint8_t b = input.byte() % 3;
                ::setPreviousPresentFence(mController, b == 0   ? sp<Fence>()
                                                       : b == 1 ? Fence::NO_FENCE
                                                                : sp<Fence>(new Fence()));
                return false;
            }
            case Op::SetSFInProgress:
                ::setSFInProgress(mController, (input.byte() & 1) != 0);
                return false;
            case Op::SetTargetLayer:
                mApiTarget = slotPointer(input.byte() % kSlots);
                ::setTargetLayer(mController, mApiTarget);
                return false;
            case Op::SetPeltoEnable:
                mApiEnable = (input.byte() & 1) != 0;
                ::setPeltoEnable(mController, mApiEnable);
                return false;
            case Op::OnActiveModeUpdated:
                ::onActiveModeUpdated(mController);
                return false;
            case Op::Dump: {
                std::string out;
                ::dump(mController, out);
                return false;
            }
            case Op::Reload:
                reload(input.byte() % std::size(kRuleFiles));
                return false;
            case Op::CalculateTimeout:
                mController->calculateTimeout();
                return false;
            case Op::TimeoutCallback:
                mController->timeoutCallback();
                return false;
            case Op::Count:
                break;
        }
        return false;
    }

    void composite(Input& input) {
        const uint8_t flags = input.byte();
        const bool forceOff = (flags & 1) != 0;
        unsigned int screenArea = kScreenArea;
        switch ((flags >> 2) & 3) {
            case 1: screenArea = 0; break;
            case 2: screenArea = 1; break;
            case 3: screenArea = input.u32(); break;
            default: break;
        }
        const std::string before = state();
        ::composite(mController, forceOff, (flags & 2) != 0, screenArea);

        std::string out;
        ::dump(mController, out);
        const std::string after = dumpedField(out, "Pelto State: ");
        const std::string reason = dumpedField(out, "Pelto State Reason: ");
        if (forceOff) {
            check(after == "Off", "a forced-off composition left the mode not Off");
        } else if (mUseList) {
            const bool off = registeredTargets() == 0 || !targetVisible();
            check((after == "Off") == off,
                  "list mode: Off is not exactly 'no target registered or none visible'");
            if (after != before) {
                check((reason == "413") == (registeredTargets() == 0),
                      "list mode: reason 413 is not exactly 'no target registered'");
            }
        } else {
            const char* expected = mApiTarget == nullptr || !apiTargetVisible() ? "Off"
                    : mApiEnable                                               ? "On"
                                                                               : "Temp Off";
            check(after == expected, "API mode: the state does not follow target and enable");
        }
    }

    void reload(size_t rules) {
        const RuleFile& file = kRuleFiles[rules];
        writeRuleFile(reinterpret_cast<const uint8_t*>(file.text),
                      file.text != nullptr ? std::strlen(file.text) : 0);
        std::string out;
        ::reloadConfigThenDump(mController, out);
        if (!mUseList) {
            check(out.empty(), "API mode: a reload printed something");
            return;
        }
        mRules = rules;
        const char* expected = file.loads ? "Reload Succeeded\n" : "Reload Failed\n";
        check(out.rfind(expected, 0) == 0, "the reload's first line does not match the file");
    }

    // `stateBefore`: the state before a call that was not a composition,
    // which cannot have changed it; null after a composition.
    void checkInvariants(const std::string* stateBefore) const {
        std::string out;
        ::dump(mController, out);
        const std::string dumped = dumpedField(out, "Pelto State: ");
        check(dumped == "Off" || dumped == "On" || dumped == "Temp Off",
              "the dumped state is not Off, On or Temp Off");
        const bool on = ::isOn(mController);
        check(on == (dumped == "On"), "isOn() disagrees with the dump");
        check(on == mHost.hwcOn(), "the HWC mode disagrees with isOn()");
        if (stateBefore != nullptr) {
            check(dumped == *stateBefore, "the state changed outside a composition");
        }
        const int records = dumpedTargetRecords(out);
        if (mUseList) {
            check(records == registeredTargets(),
                  "the dump's target records differ from the registered target layers");
        } else {
            check(records == -1, "API mode: the dump lists layers");
        }
    }

    FuzzHost& mHost;
    PeltoController* const mController;
    const bool mUseList;
    size_t mRules;
    std::vector<sp<IBinder>> mHandles;
    std::vector<Record> mRegistry;
    std::vector<FuzzHost::VisibleLayer> mVisible;
    const void* mApiTarget = nullptr;
    bool mApiEnable = false;
};

} // namespace
} // namespace android::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    android::fuzz::silenceLog();
    android::fuzz::ruleFilePath();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::fuzz;
    Input input(data, size);
    const uint8_t setup = input.byte();
    const bool useList = (setup & 1) != 0;
    const size_t rules = (setup >> 1) % std::size(kRuleFiles);
    const RuleFile& file = kRuleFiles[rules];
    writeRuleFile(reinterpret_cast<const uint8_t*>(file.text),
                  file.text != nullptr ? std::strlen(file.text) : 0);
    setClock(kClockStart);

    FuzzHost host;
    android::PeltoController* controller = host.create(useList);
    check(controller != nullptr, "createPeltoController returned null");
    {
        Script script(host, controller, useList, rules);
        script.run(input);
    }
    destroyPeltoController(controller);
    return 0;
}
