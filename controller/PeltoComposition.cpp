#define LOG_TAG "PeltoController"

#include <log/log.h>

#include "controller/PeltoController.h"

namespace android {
namespace {

using State = PeltoState;
using Reason = PeltoReason;

// The rule input of a layer with this area and focus.
PeltoExceptionRuleInput exceptionInput(float area, bool focused, unsigned int screenArea) {
    PeltoExceptionRuleInput input;
    input.layerScreenSizeRatio =
            screenArea == 0 ? 0.0f : area / static_cast<float>(screenArea) * 100.0f;
    input.focus = focused;
    return input;
}

} // namespace

void PeltoController::composite(bool forceOff, bool compositeFlag, unsigned int screenArea) {
    std::lock_guard composition(mCompositionMutex);
    if (forceOff) {
        setPeltoState(Decision{State::Off, Reason::ForceOff});
        return;
    }
    mCompositeFlag = compositeFlag;
    // The decision is made under the registry's lock; the state change, with
    // its HWC callback, comes after that lock is released.
    const std::optional<Decision> decision =
            mUseList ? decideList(screenArea) : std::optional(decideApi());
    if (decision) {
        setPeltoState(*decision);
    }
}

PeltoController::Decision PeltoController::decideApi() {
    const void* target = mTargetLayer.load();
    if (target == nullptr) {
        return {State::Off, Reason::ApiNoTarget};
    }
    bool found = false;
    mTraverseVisibleLayers([target, &found](const void* layerPtr) {
        if (layerPtr == target) {
            found = true;
        }
    });
    if (!found) {
        return {State::Off, Reason::ApiTargetNotVisible};
    }
    return mPeltoEnable.load() ? Decision{State::On, Reason::ApiOn}
                               : Decision{State::TempOff, Reason::ApiDisabled};
}

PeltoExceptionRuleInput PeltoController::prepareExceptionInput(const PeltoLayer& layer,
                                                               unsigned int screenArea) const {
    return exceptionInput(layer.area, layer.focused, screenArea);
}

void PeltoController::visitBufferLayerLocked(const void* layerPtr, float area, bool focused) {
    PeltoLayer* found = mRegistry.find(layerPtr);
    if (found == nullptr) {
        ALOGW("%p not found in mLayers", layerPtr);
        return;
    }
    PeltoLayer& record = *found;
    record.area = area;
    record.focused = focused;

    const VisitedLayer visit{&record, area, focused};
    CompositionScratch& s = mScratch;
    switch (static_cast<uint32_t>(record.type)) {
        case static_cast<uint32_t>(PeltoLayerType::Nobody):
            s.otherLayers.push_back(visit);
            break;
        case static_cast<uint32_t>(PeltoLayerType::TargetLayer):
            s.targetCandidates.push_back(visit);
            if (record.isActiveTarget) {
                s.activeTarget = s.targetCandidates.size() - 1;
            }
            break;
        case static_cast<uint32_t>(PeltoLayerType::TargetIgnoreLayer):
            s.ignoreLayers.push_back(visit);
            break;
        case static_cast<uint32_t>(PeltoLayerType::ExceptionLayer):
            s.exceptionLayers.push_back(visit);
            break;
        default:
            ALOGW("layer has invalid type %s", record.name.c_str());
            s.otherLayers.push_back(visit);
            break;
    }
}

std::optional<PeltoController::Decision> PeltoController::decideList(unsigned int screenArea) {
    CompositionScratch& s = mScratch;
    s.targetCandidates.clear();
    s.otherLayers.clear();
    s.ignoreLayers.clear();
    s.exceptionLayers.clear();
    s.activeTarget = kNoActiveTarget;

    // Rule records, and the registry's records that the working lists point
    // to, stay valid for the whole decision: a reload, a registration and a
    // destroy wait for it.
    std::lock_guard lock(mLayerMutex);
    if (mConfig == nullptr) {
        return std::nullopt;
    }
    if (mRegistry.targetCount() < 1) {
        return Decision{State::Off, Reason::NoTargetRegistered};
    }

    // Captures only `this`, so the visitor fits std::function's inline
    // storage and passing it allocates nothing.
    mTraverseVisibleBufferLayers(
            [this](const void* layerPtr, float area, bool focused) NO_THREAD_SAFETY_ANALYSIS {
                // The host calls the visitor synchronously, inside the
                // traversal, while this thread holds both locks.
                visitBufferLayerLocked(layerPtr, area, focused);
            });

    if (s.targetCandidates.empty()) {
        return Decision{State::Off, Reason::NoTargetVisible};
    }

    // The active target sticks while it is visible; otherwise the first
    // visible candidate takes over and the pace is measured afresh.
    if (s.activeTarget == kNoActiveTarget) {
        s.activeTarget = 0;
        const PeltoLayer& chosen = *s.targetCandidates[0].record;
        // Reset before the new target is published, so a transaction that
        // finds it active samples into the emptied ring.
        resetFps();
        mRegistry.setActiveTarget(chosen.layerPtr);
        ALOGI("active target layer: %s", chosen.name.c_str());
    }
    return applyRulesLocked(screenArea);
}

PeltoController::Decision PeltoController::applyRulesLocked(unsigned int screenArea) {
    CompositionScratch& s = mScratch;
    const PeltoLayer& activeTarget = *s.targetCandidates[s.activeTarget].record;
    for (const VisitedLayer& layer : s.ignoreLayers) {
        if (layer.record->targetIgnoreInfo == nullptr) {
            s.otherLayers.push_back(layer);
        } else if (activeTarget.targetInfo == nullptr) {
            ALOGE("activeTarget->targetInfo == nullptr");
            break;
        } else if (layer.record->targetIgnoreInfo->id != activeTarget.targetInfo->id) {
            // Ignored only beside another target: it counts against the mode here.
            s.otherLayers.push_back(layer);
        }
    }

    // With always-on off the rules say when the mode may stay on; with it on,
    // they say when the mode must go to Temp Off.
    const bool alwaysOn = mConfig->isAlwaysOn();

    if (!s.otherLayers.empty()) {
        if (!mConfig->hasExceptionGeneralRule()) {
            if (!alwaysOn) {
                return {State::TempOff, Reason::OtherLayerNoGeneralRule};
            }
        } else {
            for (const VisitedLayer& layer : s.otherLayers) {
                const bool match = mConfig->checkExceptionGeneralRuleMatch(
                        exceptionInput(layer.area, layer.focused, screenArea));
                if (match == alwaysOn) {
                    return {State::TempOff, Reason::GeneralRule};
                }
            }
        }
    }

    for (const VisitedLayer& layer : s.exceptionLayers) {
        if (layer.record->exceptionRule == nullptr) {
            ALOGE("exceptionLayer.exceptionRule == nullptr");
            continue;
        }
        const bool match =
                mConfig->checkRuleMatch(exceptionInput(layer.area, layer.focused, screenArea),
                                        *layer.record->exceptionRule);
        if (match == alwaysOn) {
            return {State::TempOff, Reason::ExceptionRule};
        }
    }

    return {State::On, Reason::ListOn};
}

} // namespace android
