#include "controller/PeltoEntryPoints.h"

#include <utility>

using android::PeltoController;

extern "C" {

PeltoController* createPeltoController(
        bool useList, PeltoController::GetLayerPtrFromHandle getLayerPtrFromHandle,
        PeltoController::GetBufferCountFromHandle getBufferCountFromHandle,
        PeltoController::TraverseVisibleLayers traverseVisibleLayers,
        PeltoController::TraverseVisibleBufferLayers traverseVisibleBufferLayers,
        PeltoController::GetCurrentVsyncPeriod getCurrentVsyncPeriod,
        PeltoController::TriggerVsyncCallback triggerVsyncCallback,
        PeltoController::HostCallback triggerEventQueueInvalidate,
        PeltoController::HostCallback setHwcPeltoOn, PeltoController::HostCallback setHwcPeltoOff) {
    return new PeltoController(
            useList, std::move(getLayerPtrFromHandle), std::move(getBufferCountFromHandle),
            std::move(traverseVisibleLayers), std::move(traverseVisibleBufferLayers),
            std::move(getCurrentVsyncPeriod), std::move(triggerVsyncCallback),
            std::move(triggerEventQueueInvalidate), std::move(setHwcPeltoOn),
            std::move(setHwcPeltoOff));
}

void destroyPeltoController(PeltoController* ctl) {
    delete ctl;
}

void dump(PeltoController* ctl, std::string& out) {
    if (ctl) ctl->dump(out);
}

void reloadConfigThenDump(PeltoController* ctl, std::string& out) {
    if (ctl) ctl->reloadConfigThenDump(out);
}

void registerLayer(PeltoController* ctl, const void* layerPtr, const std::string& name) {
    if (ctl) ctl->registerLayer(layerPtr, name);
}

void destroyLayer(PeltoController* ctl, const void* layerPtr) {
    if (ctl) ctl->destroyLayer(layerPtr);
}

void commit(PeltoController* ctl) {
    if (ctl) ctl->commit();
}

void composite(PeltoController* ctl, bool forceOff, bool compositeFlag, unsigned int screenArea) {
    if (ctl) ctl->composite(forceOff, compositeFlag, screenArea);
}

void setTransactionState(PeltoController* ctl,
                         const std::vector<android::PeltoTransactionState>& states,
                         long timestamp) {
    if (ctl) ctl->setTransactionState(states, timestamp);
}

void onActiveModeUpdated(PeltoController* ctl) {
    if (ctl) ctl->onActiveModeUpdated();
}

void setHasPendingBuffer(PeltoController* ctl, const void* layerPtr) {
    if (ctl) ctl->setHasPendingBuffer(layerPtr);
}

bool isOn(PeltoController* ctl) {
    return ctl ? ctl->isOn() : false;
}

void setPeltoEnable(PeltoController* ctl, bool enable) {
    if (ctl) ctl->setPeltoEnable(enable);
}

void setTargetLayer(PeltoController* ctl, const void* layerPtr) {
    if (ctl) ctl->setTargetLayer(layerPtr);
}

void setHasOtherUI(PeltoController* ctl, bool hasOtherUI) {
    if (ctl) ctl->setHasOtherUI(hasOtherUI);
}

void setPreviousPresentFence(PeltoController* ctl, const android::sp<android::Fence>& fence) {
    if (ctl) ctl->setPreviousPresentFence(fence);
}

void setSFInProgress(PeltoController* ctl, bool inProgress) {
    if (ctl) ctl->setSFInProgress(inProgress);
}

bool isQ2QFull(PeltoController* ctl) {
    return ctl ? ctl->isQ2QFull() : false;
}

} // extern "C"
