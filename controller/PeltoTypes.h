#pragma once

#include <cstdint>

// The controller's states, the reasons stored with each change and the
// classes of registered layers, with the names the library prints. Header
// only, so that host programs (pelto-sim) name them as the library does.
namespace android {

// The controller's mode state; stored and traced ("PeltoState") as int32_t.
enum class PeltoState : int32_t {
    Off = 0,
    On = 1,
    TempOff = 2,
};

// "Off", "On", "Temp Off", or "Unknown" for any other value.
constexpr const char* peltoStateName(int32_t state) {
    switch (state) {
        case static_cast<int32_t>(PeltoState::Off):
            return "Off";
        case static_cast<int32_t>(PeltoState::On):
            return "On";
        case static_cast<int32_t>(PeltoState::TempOff):
            return "Temp Off";
        default:
            return "Unknown";
    }
}

// Why the state last changed; stored with the state as int32_t.
enum class PeltoReason : int32_t {
    None = -1,                     // no change yet
    ForceOff = 360,                // the compositor asked for Off
    ApiNoTarget = 375,             // API mode: no target layer set
    ApiOn = 389,                   // API mode: target visible and enabled
    ApiDisabled = 391,             // API mode: target visible, not enabled
    ApiTargetNotVisible = 394,     // API mode: target not visible
    NoTargetRegistered = 413,      // list mode: no target layer registered
    NoTargetVisible = 455,         // list mode: no target layer visible
    OtherLayerNoGeneralRule = 511, // another layer visible, no general rule
    GeneralRule = 518,             // the general rule, on another layer
    ExceptionRule = 547,           // an exception layer's rule
    ListOn = 551,                  // list mode: every test passed
};

// A short description of a reason code, for people reading a run.
constexpr const char* peltoReasonText(int32_t reason) {
    switch (static_cast<PeltoReason>(reason)) {
        case PeltoReason::None:
            return "no decision yet";
        case PeltoReason::ForceOff:
            return "the compositor forced it off";
        case PeltoReason::ApiNoTarget:
            return "API mode: no target layer set";
        case PeltoReason::ApiOn:
            return "API mode: target visible and enabled";
        case PeltoReason::ApiDisabled:
            return "API mode: target visible, not enabled";
        case PeltoReason::ApiTargetNotVisible:
            return "API mode: target not visible";
        case PeltoReason::NoTargetRegistered:
            return "no target layer registered";
        case PeltoReason::NoTargetVisible:
            return "no target layer visible";
        case PeltoReason::OtherLayerNoGeneralRule:
            return "another layer visible, no general rule";
        case PeltoReason::GeneralRule:
            return "the general rule, on another layer";
        case PeltoReason::ExceptionRule:
            return "an exception layer's rule";
        case PeltoReason::ListOn:
            return "every test passed";
    }
    return "unknown reason";
}

// How the rule file classifies a registered layer; stored as int32_t.
enum class PeltoLayerType : int32_t {
    Nobody = 0,
    TargetLayer = 1,
    TargetIgnoreLayer = 2,
    ExceptionLayer = 3,
};

// The dump's section name of a type, or null outside 0 to 3.
constexpr const char* peltoLayerTypeName(int32_t type) {
    switch (type) {
        case static_cast<int32_t>(PeltoLayerType::Nobody):
            return "Nobody";
        case static_cast<int32_t>(PeltoLayerType::TargetLayer):
            return "TargetLayer";
        case static_cast<int32_t>(PeltoLayerType::TargetIgnoreLayer):
            return "TargetIgnoreLayer";
        case static_cast<int32_t>(PeltoLayerType::ExceptionLayer):
            return "ExceptionLayer";
        default:
            return nullptr;
    }
}

} // namespace android
