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
    std::optional<Decision> decision;
    if (forceOff) {
        decision = Decision{State::Off, Reason::ForceOff};
    } else {
        mCompositeFlag = compositeFlag;
        decision = mUseList ? decideList(screenArea) : std::optional(decideApi());
    }
    // The state change, with its HWC callback, comes after the registry's
    // lock is released.
    if (decision) {
        std::lock_guard state(mStateMutex);
        setPeltoStateLocked(static_cast<int32_t>(decision->state),
                            static_cast<int32_t>(decision->reason));
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

std::optional<PeltoController::Decision> PeltoController::decideList(unsigned int screenArea) {
    CompositionScratch& s = mScratch;
    {
        std::lock_guard lock(mLayerMutex);
        if (mConfig == nullptr) {
            return std::nullopt;
        }
        if (mRegistry.targetCount() < 1) {
            return Decision{State::Off, Reason::NoTargetRegistered};
        }
    }

    // The host traverses its layers with no controller lock held, so it may
    // take its own locks; the visitor only records what it is given, and
    // captures only `this`, so that passing it allocates nothing.
    s.visits.clear();
    mTraverseVisibleBufferLayers([this](const void* layerPtr, float area, bool focused) {
        // Called synchronously, inside the traversal, on this thread, which
        // holds mCompositionMutex.
        base::ScopedLockAssertion assumeLocked(mCompositionMutex);
        mScratch.visits.emplace_back(layerPtr, area, focused);
    });

    // A new active target measures the pace afresh from the host's period,
    // which is read with no controller lock held. The visits are then sorted
    // again, since layers may have come or gone meanwhile; the second pass
    // has the period, so there are at most two.
    std::optional<int64_t> newTargetPeriod;
    for (;;) {
        {
            std::lock_guard lock(mLayerMutex);
            if (mRegistry.targetCount() < 1) {
                return Decision{State::Off, Reason::NoTargetRegistered};
            }
            classifyVisitsLocked();
            const bool needsPeriod = !s.targetCandidates.empty() &&
                    s.activeTarget == kNoActiveTarget && !newTargetPeriod.has_value();
            if (!needsPeriod) {
                logUnsortedVisitsLocked();
                if (s.targetCandidates.empty()) {
                    return Decision{State::Off, Reason::NoTargetVisible};
                }
                // The active target sticks while it is visible; otherwise the
                // first visible candidate takes over.
                if (s.activeTarget == kNoActiveTarget) {
                    s.activeTarget = 0;
                    const PeltoLayer& chosen = *s.targetCandidates[0].record;
                    // Reset before the new target is published, so a
                    // transaction that finds it active samples into the emptied ring.
                    resetFpsWith(*newTargetPeriod);
                    mRegistry.setActiveTarget(chosen.layerPtr);
                    ALOGI("active target layer: %s", chosen.name.c_str());
                }
                return applyRulesLocked(screenArea);
            }
        }
        newTargetPeriod = mGetCurrentVsyncPeriod();
    }
}

void PeltoController::classifyVisitsLocked() {
    CompositionScratch& s = mScratch;
    s.targetCandidates.clear();
    s.otherLayers.clear();
    s.ignoreLayers.clear();
    s.exceptionLayers.clear();
    s.activeTarget = kNoActiveTarget;
    s.unsorted = 0;
    if (s.foundGeneration != mRegistry.generation()) {
        s.found.clear();
        s.foundGeneration = mRegistry.generation();
    }
    for (size_t i = 0; i < s.visits.size(); ++i) {
        const Visit& visit = s.visits[i];
        PeltoLayer* record;
        if (i < s.found.size() && s.found[i].layerPtr == visit.layerPtr) {
            record = s.found[i].record;
        } else {
            record = mRegistry.find(visit.layerPtr);
            if (i < s.found.size()) {
                s.found[i] = {visit.layerPtr, record};
            } else {
                s.found.emplace_back(visit.layerPtr, record);
            }
        }
        if (record == nullptr) {
            ++s.unsorted;
            continue;
        }
        record->area = visit.area;
        record->focused = visit.focused;

        switch (static_cast<uint32_t>(record->type)) {
            case static_cast<uint32_t>(PeltoLayerType::Nobody):
                s.otherLayers.emplace_back(record, visit.area, visit.focused);
                break;
            case static_cast<uint32_t>(PeltoLayerType::TargetLayer):
                s.targetCandidates.emplace_back(record, visit.area, visit.focused);
                if (record->isActiveTarget) {
                    s.activeTarget = s.targetCandidates.size() - 1;
                }
                break;
            case static_cast<uint32_t>(PeltoLayerType::TargetIgnoreLayer):
                s.ignoreLayers.emplace_back(record, visit.area, visit.focused);
                break;
            case static_cast<uint32_t>(PeltoLayerType::ExceptionLayer):
                s.exceptionLayers.emplace_back(record, visit.area, visit.focused);
                break;
            default:
                ++s.unsorted;
                s.otherLayers.emplace_back(record, visit.area, visit.focused);
                break;
        }
    }
}

void PeltoController::logUnsortedVisitsLocked() {
    CompositionScratch& s = mScratch;
    if (s.unsorted == 0) {
        return;
    }
    for (const Visit& visit : s.visits) {
        const PeltoLayer* record = mRegistry.find(visit.layerPtr);
        if (record == nullptr) {
            ALOGW("%p not found in mLayers", visit.layerPtr);
        } else if (static_cast<uint32_t>(record->type) >
                   static_cast<uint32_t>(PeltoLayerType::ExceptionLayer)) {
            ALOGW("layer has invalid type %s", record->name.c_str());
        }
    }
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
