#pragma once

#include "tools/host/ToolVersion.h"

namespace android::tools {

// pelto-check reports the version shared by the host tools.
constexpr const char* kPeltoCheckVersion = kPeltoToolsVersion;

} // namespace android::tools
