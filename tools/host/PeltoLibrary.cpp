#include "tools/host/PeltoLibrary.h"

#include <dlfcn.h>

#include <type_traits>

namespace android::tools {

PeltoLibrary::~PeltoLibrary() {
    if (mHandle != nullptr) {
        dlclose(mHandle);
    }
}

bool PeltoLibrary::open(const std::string& path, std::string* error) {
    // RTLD_NOW: a missing dependency shows here, not at the first call.
    mHandle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (mHandle == nullptr) {
        const char* reason = dlerror();
        *error = "cannot load " + path + ": " + (reason != nullptr ? reason : "unknown error");
        return false;
    }
    std::string missing;
    const auto resolve = [&](auto& fn, const char* name) {
        fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(mHandle, name));
        if (fn == nullptr) {
            missing += missing.empty() ? name : std::string(", ") + name;
        }
    };
    resolve(createPeltoController, "createPeltoController");
    resolve(destroyPeltoController, "destroyPeltoController");
    resolve(dump, "dump");
    resolve(reloadConfigThenDump, "reloadConfigThenDump");
    resolve(registerLayer, "registerLayer");
    resolve(destroyLayer, "destroyLayer");
    resolve(commit, "commit");
    resolve(composite, "composite");
    resolve(setTransactionState, "setTransactionState");
    resolve(onActiveModeUpdated, "onActiveModeUpdated");
    resolve(setHasPendingBuffer, "setHasPendingBuffer");
    resolve(isOn, "isOn");
    resolve(setPeltoEnable, "setPeltoEnable");
    resolve(setTargetLayer, "setTargetLayer");
    resolve(setHasOtherUI, "setHasOtherUI");
    resolve(setPreviousPresentFence, "setPreviousPresentFence");
    resolve(setSFInProgress, "setSFInProgress");
    resolve(isQ2QFull, "isQ2QFull");
    if (!missing.empty()) {
        *error = path + " does not export: " + missing;
        return false;
    }
    return true;
}

} // namespace android::tools
