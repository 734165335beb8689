#pragma once

// The library's exported entry points, as a compositor looks them up with
// dlsym. Each forwards to the PeltoController method of the same name; with a
// null controller it does nothing and returns false where it returns a bool.
// The parameters are C++ standard-library and platform types, so the host and
// the library must be built against the same standard library.

#include <string>
#include <vector>

#include "controller/PeltoController.h"

extern "C" {

PELTO_EXPORT android::PeltoController* createPeltoController(
        bool useList, android::PeltoController::GetLayerPtrFromHandle getLayerPtrFromHandle,
        android::PeltoController::GetBufferCountFromHandle getBufferCountFromHandle,
        android::PeltoController::TraverseVisibleLayers traverseVisibleLayers,
        android::PeltoController::TraverseVisibleBufferLayers traverseVisibleBufferLayers,
        android::PeltoController::GetCurrentVsyncPeriod getCurrentVsyncPeriod,
        android::PeltoController::TriggerVsyncCallback triggerVsyncCallback,
        android::PeltoController::HostCallback triggerEventQueueInvalidate,
        android::PeltoController::HostCallback setHwcPeltoOn,
        android::PeltoController::HostCallback setHwcPeltoOff);
PELTO_EXPORT void destroyPeltoController(android::PeltoController* ctl);
PELTO_EXPORT void dump(android::PeltoController* ctl, std::string& out);
PELTO_EXPORT void reloadConfigThenDump(android::PeltoController* ctl, std::string& out);
PELTO_EXPORT void registerLayer(android::PeltoController* ctl, const void* layerPtr,
                                const std::string& name);
PELTO_EXPORT void destroyLayer(android::PeltoController* ctl, const void* layerPtr);
PELTO_EXPORT void commit(android::PeltoController* ctl);
PELTO_EXPORT void composite(android::PeltoController* ctl, bool forceOff, bool compositeFlag,
                            unsigned int screenArea);
PELTO_EXPORT void setTransactionState(android::PeltoController* ctl,
                                      const std::vector<android::PeltoTransactionState>& states,
                                      long timestamp);
PELTO_EXPORT void onActiveModeUpdated(android::PeltoController* ctl);
PELTO_EXPORT void setHasPendingBuffer(android::PeltoController* ctl, const void* layerPtr);
PELTO_EXPORT bool isOn(android::PeltoController* ctl);
PELTO_EXPORT void setPeltoEnable(android::PeltoController* ctl, bool enable);
PELTO_EXPORT void setTargetLayer(android::PeltoController* ctl, const void* layerPtr);
PELTO_EXPORT void setHasOtherUI(android::PeltoController* ctl, bool hasOtherUI);
PELTO_EXPORT void setPreviousPresentFence(android::PeltoController* ctl,
                                          const android::sp<android::Fence>& fence);
PELTO_EXPORT void setSFInProgress(android::PeltoController* ctl, bool inProgress);
PELTO_EXPORT bool isQ2QFull(android::PeltoController* ctl);

} // extern "C"

// Function-pointer types of the entry points, for hosts that load the library
// with dlopen and look each name up with dlsym.
namespace android::pelto_api {
using CreatePeltoControllerFn = decltype(&::createPeltoController);
using DestroyPeltoControllerFn = decltype(&::destroyPeltoController);
using DumpFn = decltype(&::dump);
using ReloadConfigThenDumpFn = decltype(&::reloadConfigThenDump);
using RegisterLayerFn = decltype(&::registerLayer);
using DestroyLayerFn = decltype(&::destroyLayer);
using CommitFn = decltype(&::commit);
using CompositeFn = decltype(&::composite);
using SetTransactionStateFn = decltype(&::setTransactionState);
using OnActiveModeUpdatedFn = decltype(&::onActiveModeUpdated);
using SetHasPendingBufferFn = decltype(&::setHasPendingBuffer);
using IsOnFn = decltype(&::isOn);
using SetPeltoEnableFn = decltype(&::setPeltoEnable);
using SetTargetLayerFn = decltype(&::setTargetLayer);
using SetHasOtherUIFn = decltype(&::setHasOtherUI);
using SetPreviousPresentFenceFn = decltype(&::setPreviousPresentFence);
using SetSFInProgressFn = decltype(&::setSFInProgress);
using IsQ2QFullFn = decltype(&::isQ2QFull);
} // namespace android::pelto_api
