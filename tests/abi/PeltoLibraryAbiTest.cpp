// Loads the built library with dlopen and drives it through dlsym'ed entry
// points only, as a compositor does, and checks what the library exports.
#include <dlfcn.h>
#include <stdio.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ui/Fence.h>

#include "controller/PeltoEntryPoints.h"

namespace android {
namespace {

using namespace pelto_api;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const kEntryPoints[] = {
        "createPeltoController",
        "destroyPeltoController",
        "dump",
        "reloadConfigThenDump",
        "registerLayer",
        "destroyLayer",
        "commit",
        "composite",
        "setTransactionState",
        "onActiveModeUpdated",
        "setHasPendingBuffer",
        "isOn",
        "setPeltoEnable",
        "setTargetLayer",
        "setHasOtherUI",
        "setPreviousPresentFence",
        "setSFInProgress",
        "isQ2QFull",
};

class PeltoLibraryAbiTest : public ::testing::Test {
protected:
    void SetUp() override {
        mLib = dlopen(PELTO_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(mLib, nullptr) << dlerror();
    }
    void TearDown() override {
        if (mLib) dlclose(mLib);
    }

    template <typename Fn>
    Fn sym(const char* name) {
        void* p = dlsym(mLib, name);
        EXPECT_NE(p, nullptr) << name;
        return reinterpret_cast<Fn>(p);
    }

    void* mLib = nullptr;
};

// The dynamic symbols the library defines, demangled.
std::set<std::string> definedDynamicSymbols() {
    std::set<std::string> symbols;
    const std::string command = std::string("nm -D --defined-only -C '") + PELTO_LIBRARY_PATH + "'";
    FILE* nm = popen(command.c_str(), "r");
    if (nm == nullptr) return symbols;
    char line[4096];
    while (fgets(line, sizeof(line), nm)) {
        // "<address> <type> <name>"; the name may hold spaces.
        std::string text(line);
        text.pop_back();
        symbols.insert(text.substr(text.find(' ', text.find(' ') + 1) + 1));
    }
    pclose(nm);
    return symbols;
}

TEST_F(PeltoLibraryAbiTest, exportsTheEntryPointsAndTheControllerOnly) {
    for (const char* name : kEntryPoints) {
        EXPECT_NE(dlsym(mLib, name), nullptr) << name;
    }
    const std::set<std::string> symbols = definedDynamicSymbols();
    ASSERT_FALSE(symbols.empty());
    for (const char* name : kEntryPoints) {
        EXPECT_EQ(symbols.count(name), 1u) << name;
    }
    for (const std::string& symbol : symbols) {
        const bool entryPoint = std::find(std::begin(kEntryPoints), std::end(kEntryPoints),
                                          symbol) != std::end(kEntryPoints);
        const bool controllerMethod = symbol.rfind("android::PeltoController::", 0) == 0;
        EXPECT_TRUE(entryPoint || controllerMethod) << "unexpected export: " << symbol;
        EXPECT_EQ(symbol.find("Json"), std::string::npos) << symbol;
    }
    EXPECT_EQ(symbols.count("android::PeltoController::composite(bool, bool, unsigned int)"), 1u);
    EXPECT_EQ(symbols.count("android::PeltoController::isQ2QFull()"), 1u);
}

TEST_F(PeltoLibraryAbiTest, aCompositorDrivesEveryEntryPointThroughDlsym) {
    int target = 0;
    std::vector<std::string> hwc;
    std::vector<bool> vsync;
    sp<IBinder> handle = new BBinder();

    auto create = sym<CreatePeltoControllerFn>("createPeltoController");
    PeltoController* ctl = create(
            /*useList=*/false,
            [&](const sp<IBinder>& h) -> void* { return h == handle ? &target : nullptr; },
            [](const sp<IBinder>&) { return 1; },
            [&](const std::function<void(const void*)>& visit) { visit(&target); }, nullptr,
            [] { return 16'666'666L; }, [&](bool on) { vsync.push_back(on); }, [] {},
            [&] { hwc.push_back("on"); }, [&] { hwc.push_back("off"); });
    ASSERT_NE(ctl, nullptr);

    sym<SetTargetLayerFn>("setTargetLayer")(ctl, &target);
    sym<SetPeltoEnableFn>("setPeltoEnable")(ctl, true);
    sym<SetHasOtherUIFn>("setHasOtherUI")(ctl, false);
    sym<SetHasPendingBufferFn>("setHasPendingBuffer")(ctl, &target);
    sym<CompositeFn>("composite")(ctl, false, false, 100);
    EXPECT_TRUE(sym<IsOnFn>("isOn")(ctl));
    sym<CommitFn>("commit")(ctl);
    sym<SetTransactionStateFn>("setTransactionState")(ctl, {{handle, true, false, nullptr}}, 0);
    EXPECT_THAT(vsync, ElementsAre(true)); // a buffer queued long ago
    EXPECT_FALSE(sym<IsQ2QFullFn>("isQ2QFull")(ctl));
    sym<OnActiveModeUpdatedFn>("onActiveModeUpdated")(ctl);
    sym<SetPreviousPresentFenceFn>("setPreviousPresentFence")(ctl, Fence::NO_FENCE);
    sym<SetSFInProgressFn>("setSFInProgress")(ctl, true);
    sym<RegisterLayerFn>("registerLayer")(ctl, &target, "video#0");
    sym<DestroyLayerFn>("destroyLayer")(ctl, &target);
    std::string out;
    sym<ReloadConfigThenDumpFn>("reloadConfigThenDump")(ctl, out);
    EXPECT_THAT(out, IsEmpty()); // API mode has no rule file
    sym<DumpFn>("dump")(ctl, out);
    EXPECT_THAT(out, ::testing::HasSubstr("Pelto State: On\nPelto State Reason: 389\n"));
    sym<CompositeFn>("composite")(ctl, true, false, 100);
    EXPECT_FALSE(sym<IsOnFn>("isOn")(ctl));
    EXPECT_THAT(hwc, ElementsAre("on", "off"));
    sym<DestroyPeltoControllerFn>("destroyPeltoController")(ctl);
}

TEST_F(PeltoLibraryAbiTest, aNullControllerMakesEveryEntryPointANoOp) {
    std::string out = "untouched";
    sym<DumpFn>("dump")(nullptr, out);
    sym<ReloadConfigThenDumpFn>("reloadConfigThenDump")(nullptr, out);
    sym<RegisterLayerFn>("registerLayer")(nullptr, &out, "x");
    sym<DestroyLayerFn>("destroyLayer")(nullptr, &out);
    sym<CommitFn>("commit")(nullptr);
    sym<CompositeFn>("composite")(nullptr, false, false, 1);
    sym<SetTransactionStateFn>("setTransactionState")(nullptr, {}, 0);
    sym<OnActiveModeUpdatedFn>("onActiveModeUpdated")(nullptr);
    sym<SetHasPendingBufferFn>("setHasPendingBuffer")(nullptr, &out);
    sym<SetPeltoEnableFn>("setPeltoEnable")(nullptr, true);
    sym<SetTargetLayerFn>("setTargetLayer")(nullptr, &out);
    sym<SetHasOtherUIFn>("setHasOtherUI")(nullptr, true);
    sym<SetPreviousPresentFenceFn>("setPreviousPresentFence")(nullptr, nullptr);
    sym<SetSFInProgressFn>("setSFInProgress")(nullptr, true);
    EXPECT_FALSE(sym<IsOnFn>("isOn")(nullptr));
    EXPECT_FALSE(sym<IsQ2QFullFn>("isQ2QFull")(nullptr));
    sym<DestroyPeltoControllerFn>("destroyPeltoController")(nullptr);
    EXPECT_EQ(out, "untouched");
}

} // namespace
} // namespace android
