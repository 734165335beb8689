#pragma once

#include <cstdint>
#include <string>

#include "config/PeltoConfig.h"
#include "controller/PeltoTypes.h"

namespace android {

// One registered layer. The rule pointers point into the controller's
// PeltoConfig and are valid until the next reload, which rebuilds every record.
struct PeltoLayer {
    const void* layerPtr = nullptr;
    std::string name;
    int32_t type = static_cast<int32_t>(PeltoLayerType::Nobody);
    bool isActiveTarget = false;
    const PeltoTargetLayerInfo* targetInfo = nullptr;
    const PeltoTargetIgnoreInfo* targetIgnoreInfo = nullptr;
    const PeltoExceptionRule* exceptionRule = nullptr;
    float area = 0.0f; // visible area at the last list-mode traversal
    bool focused = false;
};

} // namespace android
