#pragma once

#include <string>

#include "controller/PeltoEntryPoints.h"

namespace android::tools {

// The library loaded with dlopen and its 18 entry points looked up with dlsym,
// as a compositor does. Nothing of the library is linked into the program.
class PeltoLibrary {
public:
    PeltoLibrary() = default;
    ~PeltoLibrary();

    PeltoLibrary(const PeltoLibrary&) = delete;
    PeltoLibrary& operator=(const PeltoLibrary&) = delete;

    // Loads `path` and resolves every entry point. On failure returns false and
    // sets *error to a message naming the file and what is missing.
    bool open(const std::string& path, std::string* error);

    pelto_api::CreatePeltoControllerFn createPeltoController = nullptr;
    pelto_api::DestroyPeltoControllerFn destroyPeltoController = nullptr;
    pelto_api::DumpFn dump = nullptr;
    pelto_api::ReloadConfigThenDumpFn reloadConfigThenDump = nullptr;
    pelto_api::RegisterLayerFn registerLayer = nullptr;
    pelto_api::DestroyLayerFn destroyLayer = nullptr;
    pelto_api::CommitFn commit = nullptr;
    pelto_api::CompositeFn composite = nullptr;
    pelto_api::SetTransactionStateFn setTransactionState = nullptr;
    pelto_api::OnActiveModeUpdatedFn onActiveModeUpdated = nullptr;
    pelto_api::SetHasPendingBufferFn setHasPendingBuffer = nullptr;
    pelto_api::IsOnFn isOn = nullptr;
    pelto_api::SetPeltoEnableFn setPeltoEnable = nullptr;
    pelto_api::SetTargetLayerFn setTargetLayer = nullptr;
    pelto_api::SetHasOtherUIFn setHasOtherUI = nullptr;
    pelto_api::SetPreviousPresentFenceFn setPreviousPresentFence = nullptr;
    pelto_api::SetSFInProgressFn setSFInProgress = nullptr;
    pelto_api::IsQ2QFullFn isQ2QFull = nullptr;

private:
    void* mHandle = nullptr;
};

} // namespace android::tools
